// Recording through the C interface with libx265: metadata counts, frame numbers that count stored
// records, and writes that fail (file size limit, full file system) without a torn record or an index
// that disagrees with its trailer. Each closed file is checked against zlib's CRC-32 computed here.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

#include <csignal>
#include <functional>

#include "api/pipe.h"
#include "codec/SwEncoder.h"
#include "support.h"

namespace {

const char kBadMetadata[] = "Metadata word count must be 0 to 64, with a non-null pointer above 0";

// The software reader's tables of a closed recording, checked against the file's bytes: the trailer
// equals the index's length, frame numbers run 1 to N, each spare word is its record's CRC-32 and
// record r carries `metadata[r]`.
void expectWholeRecording(FILE* file, const std::vector<std::vector<uint32_t>>& metadata) {
    const Bytes bytes = readAll(file);
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(file, tables));
    const size_t records = metadata.size(), indexStart = bytes.size() - 4 - 16 * records;
    ASSERT_EQ(tables.frameList.size(), records);
    uint32_t trailer = 0;
    memcpy(&trailer, &bytes[bytes.size() - 4], 4);
    EXPECT_EQ(trailer, records);
    for (size_t r = 0; r < records; ++r) {
        const uint64_t start = tables.frameList[r].recordOffset;
        const uint64_t end = r + 1 < records ? tables.frameList[r + 1].recordOffset : indexStart;
        EXPECT_EQ(tables.recordHeads[r].frameNumber, r + 1);
        EXPECT_EQ(tables.frameList[r].reserved, crc32(0, &bytes[start], uInt(end - start))) << "record " << r;
        EXPECT_EQ(0, memcmp(tables.sampleInfos[r].metadata, metadata[r].data(), kMetadataBytes)) << "record " << r;
    }
}

int64_t fileBytes(FILE* file) {
    struct stat status;
    return fstat(fileno(file), &status) == 0 ? status.st_size : -1;
}

// The soft file size limit, with SIGXFSZ ignored (a write past it fails with EFBIG), while it lives.
struct FileSizeLimit {
    explicit FileSizeLimit(int64_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit limit = saved;
        limit.rlim_cur = rlim_t(bytes);
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved);
        signal(SIGXFSZ, SIG_DFL);
    }
    rlimit saved;
};

class RecordingWrites : public testing::Test {
protected:
    void SetUp() override {
        if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
        setenv("ZOQRV_ENCODER", "x265", 1);
        pipe.reset(ZOHW_CreateEncoder(3, 1, 0, 64, 48, 1000000, 30));
        ASSERT_TRUE(pipe);
        for (uint32_t k = 0; k < 64; ++k) words[k] = 0x01000000u * k + k;
    }
    uint32_t store(FILE* file, uint32_t frame, const uint32_t* metadata, int32_t count) {
        uint64_t size = 0;
        return ZOHW_Encode_And_Store(pipe.get(), file, &size, randomBytes(64 * 48, frame).data(), 64, 1000 * frame,
                                     metadata, count);
    }
    // Stores `count` frames with all 64 words, each expected back in `metadata`.
    void storeWhole(FILE* file, uint32_t count, std::vector<std::vector<uint32_t>>& metadata) {
        for (uint32_t i = 0; i < count; ++i, metadata.emplace_back(words, words + 64))
            ASSERT_EQ(store(file, uint32_t(metadata.size()), words, 64), 0u) << ZOHW_GetError(pipe.get());
    }
    Pipe pipe{nullptr, &ZOHW_Destroy};
    uint32_t words[65];
};

}  // namespace

// Counts 0 to 64 (with no words behind a count of 0) are padded to 64 words; others fail the call
// with a text before anything is encoded or written. Frames encoded by ZOHW_Encode between the
// stores are not stored: frame numbers and the trailer count records, so the index is found.
TEST_F(RecordingWrites, MetadataCountsAndFrameNumbersCountStoredRecords) {
    const std::tuple<const uint32_t*, int32_t, bool> cases[] = {
        {words, 64, true}, {words, 63, true}, {words, 1, true}, {words, 0, true}, {nullptr, 0, true},
        {words, 65, false}, {words, -1, false}, {nullptr, 3, false}, {words, INT32_MIN, false}};
    TestFile file = openBytes({});
    std::vector<std::vector<uint32_t>> metadata;
    Bytes bitstream(64 * 48 * 4);
    uint64_t size = 0;
    for (const auto& [given, count, valid] : cases) {
        SCOPED_TRACE(count);
        const uint32_t encoded = pipe->encoder->encodedFrames();
        const int64_t end = ftello(file.get());
        pipe->error.clear();
        EXPECT_EQ(store(file.get(), encoded, given, count), valid ? 0u : 1u);
        EXPECT_EQ(pipe->error, valid ? "" : kBadMetadata);
        EXPECT_EQ(pipe->encoder->encodedFrames(), encoded + valid);
        if (valid) metadata.emplace_back(64, 0), std::copy(words, words + count, metadata.back().begin());
        else EXPECT_EQ(ftello(file.get()), end);
        EXPECT_EQ(ZOHW_Encode(pipe.get(), &size, bitstream.data(), 64, bitstream.data()), 0u);
    }
    ASSERT_EQ(ZOHW_CloseQRVContainer(pipe.get(), file.get()), 0u);
    expectWholeRecording(file.get(), metadata);
}

// A record or index past the file size limit fails with the system's text, adds no entry and leaves
// the file ending where it began; recording goes on from there, and closing again succeeds.
TEST_F(RecordingWrites, FileSizeLimitFailsTheWriteAndLeavesNothingTorn) {
    TestFile file(tmpfile());
    std::vector<std::vector<uint32_t>> metadata;
    storeWhole(file.get(), 3, metadata);
    const int64_t records = ftello(file.get());
    const std::tuple<const char*, std::function<uint32_t()>> writes[] = {
        {"Cannot write the frame record: File too large", [&] { return store(file.get(), 3, words, 64); }},
        {"Cannot write the sample index: File too large", [&] { return ZOHW_CloseQRVContainer(pipe.get(), file.get()); }}};
    for (const auto& [text, write] : writes) {
        const FileSizeLimit limit(records + 50);
        EXPECT_EQ(write(), 1u);
        EXPECT_STREQ(ZOHW_GetError(pipe.get()), text);
        EXPECT_EQ(std::make_pair(ftello(file.get()), fileBytes(file.get())), std::make_pair(records, records));
    }
    storeWhole(file.get(), 2, metadata);
    ASSERT_EQ(ZOHW_CloseQRVContainer(pipe.get(), file.get()), 0u);
    expectWholeRecording(file.get(), metadata);
}

// A file system that fills up: the record that does not fit fails with the system's text and leaves no
// torn record; once there is room again, recording goes on and the file closes whole.
TEST_F(RecordingWrites, FullFileSystemFailsTheRecordAndLeavesNothingTorn) {
    const std::string dir = makeTestDirectory();
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::string filler = dir + "/filler";
    ASSERT_EQ(runCommand("head -c 40000 /dev/zero > " + filler), 0);
    TestFile file(fopen((dir + "/recording.qrv").c_str(), "w+b"));
    std::vector<std::vector<uint32_t>> metadata;
    while (metadata.size() < 64 && store(file.get(), uint32_t(metadata.size()), words, 64) == 0)
        metadata.emplace_back(words, words + 64);
    EXPECT_STREQ(ZOHW_GetError(pipe.get()), "Cannot write the frame record: No space left on device");
    EXPECT_EQ(ftello(file.get()), fileBytes(file.get()));
    unlink(filler.c_str());
    storeWhole(file.get(), 2, metadata);
    ASSERT_EQ(ZOHW_CloseQRVContainer(pipe.get(), file.get()), 0u);
    expectWholeRecording(file.get(), metadata);
    file.reset();
    umount2(dir.c_str(), MNT_DETACH);
    std::filesystem::remove_all(dir);
}
