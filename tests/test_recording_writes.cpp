// Recording through the C interface with libx265: metadata counts, frame numbers that count stored
// records, and writes that fail (file size limit, full file system) without a torn record or an index
// that disagrees with its trailer.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <zlib.h>

#include <csignal>
#include <functional>

#include "api/pipe.h"
#include "codec/SwEncoder.h"
#include "support.h"

// Sets the soft limit on file sizes (a write past it fails with EFBIG while SIGXFSZ is ignored); -1 lifts it.
static void limitFileSize(int64_t bytes) {
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes < 0 ? limit.rlim_max : rlim_t(bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
}

// Metadata counts 0 to 64 (no words behind a count of 0) are padded to 64 words; others fail the call
// with a text before anything is encoded or written. Frames that ZOHW_Encode encodes between the stores
// are not stored. Writes that find no room, past the file size limit and on a full tmpfs (where one can
// be mounted), fail with the system's text, add no entry and leave the file ending where they began;
// recording then goes on. In the closed file the trailer equals the index's length, frame numbers count
// records, each spare word is its record's CRC-32 (zlib's, computed here) and each record has its words.
TEST(RecordingWrites, CountsRecordsAndLeavesNothingTornWhenWritesFail) {
    if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
    setenv("ZOQRV_ENCODER", "x265", 1);
    signal(SIGXFSZ, SIG_IGN);
    Pipe pipe(ZOHW_CreateEncoder(3, 1, 0, 64, 48, 1000000, 30), &ZOHW_Destroy);
    const std::string dir = makeTestDirectory(), filler = dir + "/filler", path = dir + "/recording.qrv";
    const bool mounted = mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") == 0;
    TestFile file(fopen(path.c_str(), "w+b"));
    uint32_t words[65];
    for (uint32_t k = 0; k < 65; ++k) words[k] = 0x01000001u * k;
    std::vector<int32_t> counts;  // of the records stored
    uint64_t size = 0;
    const auto store = [&](const uint32_t* metadata, int32_t count) {
        const uint32_t frame = pipe->encoder->encodedFrames();
        return ZOHW_Encode_And_Store(pipe.get(), file.get(), &size, randomBytes(64 * 48, frame).data(), 64,
                                     1000 * frame, metadata, count);
    };
    const std::tuple<const uint32_t*, int32_t, bool> metadataCases[] = {
        {words, 64, true}, {words, 63, true}, {words, 1, true}, {words, 0, true}, {nullptr, 0, true},
        {words, 65, false}, {words, -1, false}, {nullptr, 3, false}, {words, INT32_MIN, false}};
    for (const auto& [metadata, count, valid] : metadataCases) {
        SCOPED_TRACE(count);
        const std::pair<uint32_t, int64_t> before(pipe->encoder->encodedFrames(), ftello(file.get()));
        pipe->error.clear();
        EXPECT_EQ(store(metadata, count), valid ? 0u : 1u);
        EXPECT_EQ(pipe->error, valid ? "" : "Metadata word count must be 0 to 64, with a non-null pointer above 0");
        EXPECT_EQ(std::make_pair(pipe->encoder->encodedFrames(), valid),
                  std::make_pair(before.first + valid, ftello(file.get()) != before.second));
        if (valid) counts.push_back(count);
        EXPECT_EQ(ZOHW_Encode(pipe.get(), &size, randomBytes(64 * 48, 99).data(), 64, Bytes(64 * 48 * 4).data()), 0u);
    }
    const int64_t records = ftello(file.get());
    const std::tuple<const char*, std::function<uint32_t()>, int64_t> writes[] = {
        {"Cannot write the frame record: File too large", [&] { return store(words, 64); }, records + 50},
        {"Cannot write the sample index: File too large", [&] { return ZOHW_CloseQRVContainer(pipe.get(), file.get()); },
         records + 50},
        {"Cannot write the frame record: No space left on device", [&] { return store(words, 64); }, -1}};
    for (const auto& [text, write, limit] : writes) {
        SCOPED_TRACE(text);
        if (limit < 0 && !mounted) continue;
        if (limit < 0) runCommand("head -c 64k /dev/zero > " + filler + " 2>/dev/null");  // fills the tmpfs
        limitFileSize(limit);
        EXPECT_EQ(write(), 1u);
        limitFileSize(-1);
        unlink(filler.c_str());
        EXPECT_STREQ(ZOHW_GetError(pipe.get()), text);
        EXPECT_EQ(std::make_pair(ftello(file.get()), int64_t(std::filesystem::file_size(path))), std::make_pair(records, records));
    }
    for (int i = 0; i < 2; ++i, counts.push_back(64)) ASSERT_EQ(store(words, 64), 0u);
    ASSERT_EQ(ZOHW_CloseQRVContainer(pipe.get(), file.get()), 0u);

    const Bytes bytes = readAll(file.get());
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), tables));
    ASSERT_EQ(std::make_pair(tables.frameList.size(), size_t(tables.sampleCount)), std::make_pair(counts.size(), counts.size()));
    for (size_t r = 0; r < counts.size(); ++r) {
        const uint64_t start = tables.frameList[r].recordOffset;
        const uint64_t end = r + 1 < counts.size() ? tables.frameList[r + 1].recordOffset : bytes.size() - 4 - 16 * counts.size();
        uint32_t metadata[64] = {};
        std::copy(words, words + counts[r], metadata);
        EXPECT_EQ(tables.recordHeads[r].frameNumber, r + 1);
        EXPECT_EQ(tables.frameList[r].reserved, crc32(0, &bytes[start], uInt(end - start))) << "record " << r;
        EXPECT_EQ(0, memcmp(tables.sampleInfos[r].metadata, metadata, kMetadataBytes)) << "record " << r;
    }
    file.reset();
    if (mounted) umount2(dir.c_str(), MNT_DETACH);
    std::filesystem::remove_all(dir);
    if (!mounted) GTEST_SKIP() << "no tmpfs could be mounted: the full file system was not tried";
}
