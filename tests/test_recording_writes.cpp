// Recording through the C interface with libx265: metadata counts, frame numbers counting stored records,
// and writes that fail (file size limit, full file system) without a torn record or a trailer that lies.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <zlib.h>

#include <csignal>
#include <functional>

#include "api/pipe.h"
#include "codec/SwEncoder.h"
#include "support.h"

// Metadata counts 0 to 64 (none behind 0) are padded to 64 words; others fail before anything is encoded
// or written (texts: c_host.c). ZOHW_Encode's frames between the stores are not stored. Writes that find
// no room (file size limit, full tmpfs where one can be mounted) fail with the system's text, add no entry
// and leave the file ending where they began. The closed file's trailer is the index's length, frame
// numbers count records, each spare word is its record's CRC-32 (zlib's) and each record has its words.
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
        const uint32_t n = pipe->encoder->encodedFrames();
        return ZOHW_Encode_And_Store(pipe.get(), file.get(), &size, randomBytes(3072, n).data(), 64, 1000 * n, metadata, count);
    };
    const std::tuple<const uint32_t*, int32_t, bool> metadataCases[] = {
        {words, 64, true}, {words, 63, true}, {words, 1, true}, {words, 0, true}, {nullptr, 0, true},
        {words, 65, false}, {words, -1, false}, {nullptr, 3, false}, {words, INT32_MIN, false}};
    for (const auto& [metadata, count, valid] : metadataCases) {
        const std::pair<uint32_t, int64_t> before(pipe->encoder->encodedFrames(), ftello(file.get()));
        EXPECT_EQ(store(metadata, count), valid ? 0u : 1u) << count;
        EXPECT_EQ(std::make_pair(pipe->encoder->encodedFrames(), valid),
                  std::make_pair(before.first + valid, ftello(file.get()) != before.second));
        if (valid) counts.push_back(count);
        EXPECT_EQ(ZOHW_Encode(pipe.get(), &size, randomBytes(64 * 48, 99).data(), 64, Bytes(64 * 48 * 4).data()), 0u);
    }
    const int64_t records = ftello(file.get());
    const std::tuple<int64_t, const char*, std::function<uint32_t()>> writes[] = {
        {records + 50, "Cannot write the frame record: File too large", [&] { return store(words, 64); }},
        {records + 50, "Cannot write the sample index: File too large", [&] { return ZOHW_CloseQRVContainer(pipe.get(), file.get()); }},
        {-1, "Cannot write the frame record: No space left on device", [&] { return store(words, 64); }}};
    rlimit unlimited, limited;  // a write past the soft limit fails with EFBIG while SIGXFSZ is ignored
    getrlimit(RLIMIT_FSIZE, &unlimited);
    for (const auto& [limit, text, write] : writes) {
        if (limit < 0 && (!mounted || runCommand("head -c 64k /dev/zero > " + filler + " 2>/dev/null") == 0)) continue;
        limited = {limit < 0 ? unlimited.rlim_cur : rlim_t(limit), unlimited.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limited);
        EXPECT_EQ(write(), 1u);
        setrlimit(RLIMIT_FSIZE, &unlimited);
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
        EXPECT_EQ(std::make_tuple(tables.recordHeads[r].frameNumber, tables.frameList[r].reserved,
                                  memcmp(tables.sampleInfos[r].metadata, metadata, kMetadataBytes)),
                  std::make_tuple(r + 1, crc32(0, &bytes[start], uInt(end - start)), 0)) << "record " << r;
    }
    file.reset();
    if (mounted) umount2(dir.c_str(), MNT_DETACH);
    std::filesystem::remove_all(dir);
    if (!mounted) GTEST_SKIP() << "no tmpfs could be mounted: the full file system was not tried";
}
