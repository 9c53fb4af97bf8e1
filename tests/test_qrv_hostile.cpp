// Damaged and hostile files: every reader gives its failure result, with work bounded by
// construction (no reads or allocations sized by an untrusted count).
#include <gtest/gtest.h>

#include <unistd.h>

#include "container/qrv_file.h"
#include "support/qrv_builder.h"

namespace {

constexpr uint32_t kWidth = 16;
constexpr uint32_t kHeight = 16;

QrvBuilder builderWith(size_t count) {
    QrvBuilder builder(std::vector<uint8_t>(40, 0xEE));
    for (size_t i = 0; i < count; ++i)
        builder.addRecord(uint32_t(i + 1), i * 1000, i % 3 == 0 ? kKeyFrameType : 1,
                          std::vector<uint8_t>(20 + i, uint8_t(i)));
    return builder;
}

struct Readers {
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    bool hardwareRead = false;
    bool softwareRead = false;

    explicit Readers(FILE* file) {
        hardwareRead = hardware.readIndex(file);
        softwareRead = qrvReadSoftwareIndex(file, software);
    }
};

int countingDecode(int& calls) { return ++calls, 1; }

}  // namespace

TEST(QrvHostile, FilesTooShortForATrailer) {
    for (size_t bytes : {0, 1, 3}) {
        QrvTestFile file = qrvOpenBytes(std::vector<uint8_t>(bytes, 1));
        Readers readers(file.get());
        EXPECT_FALSE(readers.hardwareRead) << bytes;
        EXPECT_FALSE(readers.softwareRead) << bytes;
        EXPECT_EQ(readers.hardware.frameCount(), 0u);
    }
}

TEST(QrvHostile, TrailerCountLargerThanTheFileFailsWithoutAllocating) {
    for (uint32_t count : {1000u, 1u << 27, 1u << 31, 0xFFFFFFFFu}) {
        QrvBuilder builder = builderWith(5);
        builder.setTrailer(count);
        const std::vector<uint8_t> bytes = builder.bytes();
        ASSERT_GT(uint64_t(count) * 16 + 4, bytes.size());
        QrvTestFile file = qrvOpenBytes(bytes);
        Readers readers(file.get());
        EXPECT_FALSE(readers.hardwareRead) << count;
        EXPECT_FALSE(readers.softwareRead) << count;
        EXPECT_EQ(readers.hardware.index().capacity(), 0u) << count;
        EXPECT_EQ(readers.software.frameList.capacity(), 0u) << count;
    }
}

TEST(QrvHostile, TrailerCountThatFitsButIsWrong) {
    // Two entries too many: the first two "entries" are the last record's metadata, whose
    // words make offsets far beyond the file.
    QrvBuilder builder = builderWith(5);
    builder.setTrailer(7);
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    Readers readers(file.get());
    ASSERT_TRUE(readers.hardwareRead);
    EXPECT_EQ(readers.hardware.index().size(), 7u);
    int calls = 0;
    EXPECT_FALSE(readers.hardware.seekToSample(file.get(), 0, kWidth, kHeight,
                                               [&](const uint8_t*, uint32_t, void*) { return countingDecode(calls); }));
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(readers.softwareRead);  // the software reader needs every record head
}

TEST(QrvHostile, RecordsWithoutIndex) {
    QrvBuilder builder = builderWith(4);
    builder.omitIndex();
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    Readers readers(file.get());
    EXPECT_FALSE(readers.hardwareRead);
    EXPECT_FALSE(readers.softwareRead);
}

TEST(QrvHostile, EveryTruncationIsSafe) {
    // Cutting the file anywhere gives a trailer made of whatever bytes end it. Whatever the
    // readers decide, their tables stay within what the remaining bytes can hold, and walks
    // over the damaged file end.
    const std::vector<uint8_t> whole = builderWith(4).bytes();
    for (size_t length = 0; length < whole.size(); ++length) {
        const std::vector<uint8_t> cut(whole.begin(), whole.begin() + long(length));
        QrvTestFile file = qrvOpenBytes(cut);
        Readers readers(file.get());
        EXPECT_LE(readers.hardware.index().size() * 16 + 4, std::max<size_t>(length, 4)) << length;
        EXPECT_LE(readers.software.frameList.size() * 16 + 4, std::max<size_t>(length, 4)) << length;
        if (!readers.hardwareRead) continue;
        int calls = 0;
        const QrvDecodeStep decode = [&](const uint8_t*, uint32_t, void*) { return countingDecode(calls); };
        uint32_t frameNumber, frameType;
        uint64_t captureTime;
        uint8_t info[264];
        for (int step = 0; step < 8; ++step)
            readers.hardware.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType, info,
                                              kWidth, kHeight, decode);
        for (int32_t sample = 0; sample < int32_t(readers.hardware.index().size()); ++sample)
            readers.hardware.seekToSample(file.get(), sample, kWidth, kHeight, decode);
        EXPECT_LE(calls, 8 + int(readers.hardware.index().size() * readers.hardware.index().size())) << length;
    }
}

TEST(QrvHostile, RecordCutInsideItsPayload) {
    const QrvBuilder builder = builderWith(3);
    std::vector<uint8_t> bytes = builder.bytes();
    bytes.resize(size_t(builder.recordOffset(1)) + 20 + 5);
    QrvTestFile file = qrvOpenBytes(bytes);
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(qrvOpenBytes(builder.bytes()).get()));  // the index of the whole file
    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(1)), SEEK_SET), 0);
    int calls = 0;
    const QrvDecodeStep decode = [&](const uint8_t*, uint32_t, void*) { return countingDecode(calls); };
    uint32_t frameNumber, frameType;
    uint64_t captureTime;
    uint8_t info[264];
    EXPECT_EQ(hardware.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType, info,
                                        kWidth, kHeight, decode), 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(hardware.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType, info,
                                        kWidth, kHeight, decode), -1);

    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(1)), SEEK_SET), 0);
    std::vector<uint8_t> payload(64);
    QrvSoftwareRecord record{};
    // Reading at least one payload byte counts as success; the next read finds nothing.
    EXPECT_TRUE(qrvReadSoftwareRecord(file.get(), 3, payload.data(), payload.size(), record));
    EXPECT_FALSE(qrvReadSoftwareRecord(file.get(), 3, payload.data(), payload.size(), record));

    QrvRecordHead head{};
    uint32_t payloadBytes = 0;
    std::vector<uint8_t> whole;
    EXPECT_FALSE(qrvReadRecordAt(file.get(), builder.recordOffset(1), head, payloadBytes, &whole));
}

TEST(QrvHostile, RecordOffsetsOutsideTheFile) {
    // Entry 2 gives where record 1's info ends. Offsets past the end, offsets that are
    // negative as signed 64-bit, and an offset too small to have an info before it: the
    // info is skipped, never read from elsewhere.
    for (uint64_t offset : {uint64_t(1) << 40, uint64_t(1) << 63, ~uint64_t(0), uint64_t(100)}) {
        QrvBuilder builder = builderWith(5);
        builder.setIndexOffset(2, offset);
        QrvTestFile file = qrvOpenBytes(builder.bytes());
        Readers readers(file.get());
        ASSERT_TRUE(readers.hardwareRead) << offset;
        ASSERT_EQ(readers.hardware.sampleInfos().size(), 3u) << offset;
        EXPECT_EQ(readers.hardware.sampleInfos()[1].sampleTime, 2u) << offset;  // record 2's, moved up
        // The software reader reads every record's head: one outside the file fails it.
        EXPECT_EQ(readers.softwareRead, offset == 100) << offset;
    }
}

TEST(QrvHostile, SeekToARecordOutsideTheFile) {
    QrvBuilder builder = builderWith(5);
    builder.setIndexOffset(3, uint64_t(1) << 40);  // record 3 is a key frame
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(file.get()));
    int calls = 0;
    EXPECT_FALSE(hardware.seekToSample(file.get(), 4, kWidth, kHeight,
                                       [&](const uint8_t*, uint32_t, void*) { return countingDecode(calls); }));
    EXPECT_EQ(calls, 0);
}

TEST(QrvHostile, HugePayloadSizes) {
    QrvBuilder builder = builderWith(5);
    builder.setPayloadBytesField(1, 0xFFFFFFFFu);
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    Readers readers(file.get());
    ASSERT_TRUE(readers.hardwareRead);
    ASSERT_TRUE(readers.softwareRead);  // payload sizes are not part of the index
    int calls = 0;
    const QrvDecodeStep decode = [&](const uint8_t*, uint32_t, void*) { return countingDecode(calls); };

    // Hardware walk: skipped, no frame; the stream then stands past the end: no record.
    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(1)), SEEK_SET), 0);
    uint32_t frameNumber, frameType;
    uint64_t captureTime;
    uint8_t info[264];
    EXPECT_EQ(readers.hardware.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType, info,
                                                kWidth, kHeight, decode), 0);
    EXPECT_EQ(readers.hardware.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType, info,
                                                kWidth, kHeight, decode), -1);
    EXPECT_EQ(calls, 0);
    // Seek through it: the decode of record 1 counts as failed.
    EXPECT_FALSE(readers.hardware.seekToSample(file.get(), 2, kWidth, kHeight, decode));
    EXPECT_EQ(calls, 1);

    // Software record: not read into the caller's buffer (exactly its capacity here).
    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(1)), SEEK_SET), 0);
    std::vector<uint8_t> payload(1024);
    QrvSoftwareRecord record{};
    EXPECT_FALSE(qrvReadSoftwareRecord(file.get(), readers.software.sampleCount, payload.data(), payload.size(), record));
    EXPECT_EQ(record.payloadBytes, 0xFFFFFFFFu);

    // By offset: the payload does not lie within the file, so nothing is allocated for it.
    QrvRecordHead head{};
    uint32_t payloadBytes = 0;
    std::vector<uint8_t> whole;
    EXPECT_FALSE(qrvReadRecordAt(file.get(), builder.recordOffset(1), head, payloadBytes, &whole));
    EXPECT_EQ(whole.capacity(), 0u);
}

TEST(QrvHostile, IndexBeyondTwoGibibytesIsOutOfReach) {
    // A sparse file whose trailer claims 2^27 entries: the index (2 GiB + 4 bytes) fits in
    // the file but its distance from the end does not fit in a signed 32-bit integer.
    QrvTestFile file = qrvOpenEmpty();
    const uint32_t count = 1u << 27;
    const off_t size = off_t(count) * 16 + 4 + 4096;
    if (ftruncate(fileno(file.get()), size) != 0) GTEST_SKIP() << "no sparse files here";
    ASSERT_EQ(fseeko(file.get(), size - 4, SEEK_SET), 0);
    ASSERT_EQ(fwrite(&count, 4, 1, file.get()), 1u);
    fflush(file.get());
    Readers readers(file.get());
    EXPECT_FALSE(readers.hardwareRead);
    EXPECT_FALSE(readers.softwareRead);
    EXPECT_EQ(readers.hardware.index().capacity(), 0u);
}
