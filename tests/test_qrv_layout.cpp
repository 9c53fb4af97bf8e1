// The record and index layout: the writer against an independent byte-by-byte builder,
// and both readers' tables from builder files.
#include <gtest/gtest.h>

#include <cstring>

#include "container/qrv_file.h"
#include "support/qrv_builder.h"

namespace {

std::vector<uint8_t> payloadOf(size_t bytes, uint8_t seed) {
    std::vector<uint8_t> payload(bytes);
    for (size_t i = 0; i < bytes; ++i) payload[i] = uint8_t(seed * 31 + i);
    return payload;
}

// Records 0..count-1: frame numbers 1..count, key frames every `keyEvery`, payload sizes
// that vary, capture times in microseconds.
QrvBuilder builderWith(size_t count, size_t keyEvery = 4, std::vector<uint8_t> header = {}) {
    QrvBuilder builder(std::move(header));
    for (size_t i = 0; i < count; ++i)
        builder.addRecord(uint32_t(i + 1), 1000000 + i * 33333, i % keyEvery == 0 ? kKeyFrameType : 1,
                          payloadOf(10 + i * 7, uint8_t(i)));
    return builder;
}

bool sameInfo(const QrvSampleInfo& a, const QrvSampleInfo& b) { return memcmp(&a, &b, sizeof a) == 0; }

QrvSampleInfo expectedInfo(const QrvBuilder&, size_t record) {
    return qrvTestSampleInfo(1000000 + record * 33333, qrvTestMetadata(uint32_t(record)));
}

}  // namespace

TEST(QrvWriter, MatchesTheByteLayout) {
    const std::vector<uint8_t> header = {'H', 'D', 'R', 0, 7};
    QrvTestFile file = qrvOpenEmpty();
    fwrite(header.data(), 1, header.size(), file.get());
    QrvBuilder expected(header);

    std::vector<QrvIndexEntry> index;
    const uint64_t times[] = {1999, 0, 123456789012345ull, 1000};
    const size_t sizes[] = {100, 0, 1, 4097};
    for (uint32_t i = 0; i < 4; ++i) {
        const std::vector<uint8_t> payload = payloadOf(sizes[i], uint8_t(i));
        const std::vector<uint32_t> metadata = qrvTestMetadata(i + 9);
        const uint32_t type = i == 0 ? kKeyFrameType : 1;
        // Garbage in the reserved field must not reach the file.
        index.push_back({uint64_t(ftello(file.get())), type, 0xDEADBEEF});
        qrvWriteRecord(file.get(), {i + 1, times[i], type, payload.data(), payload.size(),
                                    metadata.data(), int32_t(metadata.size())});
        expected.addRecord(i + 1, times[i], type, payload, metadata);
    }
    qrvWriteIndex(file.get(), index, 4);
    EXPECT_EQ(qrvReadAll(file.get()), expected.bytes());
}

TEST(QrvWriter, MetadataCountDecidesTheLastField) {
    const uint32_t words[3] = {0x04030201, 0x08070605, 0x0C0B0A09};
    const uint8_t payload[2] = {0xAB, 0xCD};
    struct Case {
        const uint32_t* metadata;
        int32_t count;
        size_t metadataBytes;
    } cases[] = {{words, 3, 12}, {words, 0, 0}, {words, -1, 0}, {nullptr, 3, 0}};
    for (const Case& c : cases) {
        QrvTestFile file = qrvOpenEmpty();
        qrvWriteRecord(file.get(), {7, 2500, 1, payload, 2, c.metadata, c.count});
        const std::vector<uint8_t> bytes = qrvReadAll(file.get());
        ASSERT_EQ(bytes.size(), 20 + 2 + 8 + c.metadataBytes) << "count " << c.count;
        uint64_t sampleTime = 0;
        memcpy(&sampleTime, &bytes[22], 8);
        EXPECT_EQ(sampleTime, 2u);
        EXPECT_EQ(0, memcmp(bytes.data() + 30, words, c.metadataBytes));
    }
}

TEST(QrvWriter, EmptyIndexIsJustTheTrailer) {
    QrvTestFile file = qrvOpenEmpty();
    qrvWriteIndex(file.get(), {}, 5);
    EXPECT_EQ(qrvReadAll(file.get()), (std::vector<uint8_t>{5, 0, 0, 0}));
}

TEST(QrvReaders, ReadIndexAndSampleInfos) {
    const size_t n = 9;
    const QrvBuilder builder = builderWith(n, 4, {1, 2, 3});
    QrvTestFile file = qrvOpenBytes(builder.bytes());

    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(file.get()));
    EXPECT_EQ(ftello(file.get()), 0);
    EXPECT_EQ(hardware.frameCount(), n);
    ASSERT_EQ(hardware.index().size(), n);
    for (size_t i = 0; i < n; ++i) {
        EXPECT_EQ(hardware.index()[i].recordOffset, builder.recordOffset(i));
        EXPECT_EQ(hardware.index()[i].frameType, i % 4 == 0 ? kKeyFrameType : 1u);
    }
    // N - 1 infos; position k holds record k's.
    ASSERT_EQ(hardware.sampleInfos().size(), n - 1);
    for (size_t k = 0; k < n - 1; ++k) EXPECT_TRUE(sameInfo(hardware.sampleInfos()[k], expectedInfo(builder, k))) << k;

    QrvSoftwareIndex software;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), software));
    EXPECT_EQ(ftello(file.get()), 0);
    EXPECT_EQ(software.sampleCount, int32_t(n));
    ASSERT_EQ(software.frameList.size(), n);
    ASSERT_EQ(software.recordHeads.size(), n);
    ASSERT_EQ(software.sampleInfos.size(), n);
    for (size_t i = 0; i < n; ++i) {
        EXPECT_EQ(software.frameList[i].recordOffset, builder.recordOffset(i));
        EXPECT_EQ(software.recordHeads[i].frameNumber, i + 1);
        EXPECT_EQ(software.recordHeads[i].captureTime, 1000000 + i * 33333);
        EXPECT_EQ(software.recordHeads[i].frameType, software.frameList[i].frameType);
        // The last info's time is not read from the file but must equal what is there.
        EXPECT_TRUE(sameInfo(software.sampleInfos[i], expectedInfo(builder, i))) << i;
    }
}

TEST(QrvReaders, LookupsRefuseSampleZeroAndTheEndOfTheirTables) {
    const size_t n = 6;
    QrvTestFile file = qrvOpenBytes(builderWith(n).bytes());
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(file.get()));
    QrvSoftwareIndex software;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), software));

    QrvSampleInfo info{};
    for (int32_t sample : {-1, 0}) {
        EXPECT_FALSE(hardware.lookUpSampleInfo(sample, reinterpret_cast<uint8_t*>(&info)));
        EXPECT_FALSE(qrvLookUpSampleInfo(software.sampleInfos, sample, reinterpret_cast<uint8_t*>(&info)));
    }
    // Hardware: samples 1..N-2 only.
    ASSERT_TRUE(hardware.lookUpSampleInfo(1, reinterpret_cast<uint8_t*>(&info)));
    EXPECT_TRUE(sameInfo(info, qrvTestSampleInfo(1000000 + 33333, qrvTestMetadata(1))));
    ASSERT_TRUE(hardware.lookUpSampleInfo(int32_t(n - 2), reinterpret_cast<uint8_t*>(&info)));
    EXPECT_TRUE(sameInfo(info, qrvTestSampleInfo(1000000 + (n - 2) * 33333, qrvTestMetadata(n - 2))));
    EXPECT_FALSE(hardware.lookUpSampleInfo(int32_t(n - 1), reinterpret_cast<uint8_t*>(&info)));
    // Software: samples 1..N-1.
    ASSERT_TRUE(qrvLookUpSampleInfo(software.sampleInfos, int32_t(n - 1), reinterpret_cast<uint8_t*>(&info)));
    EXPECT_TRUE(sameInfo(info, qrvTestSampleInfo(1000000 + (n - 1) * 33333, qrvTestMetadata(n - 1))));
    EXPECT_FALSE(qrvLookUpSampleInfo(software.sampleInfos, int32_t(n), reinterpret_cast<uint8_t*>(&info)));
}

TEST(QrvReaders, SampleTimeIsCaptureTimeOverThousandTruncated) {
    QrvTestFile file = qrvOpenEmpty();
    std::vector<QrvIndexEntry> index;
    const std::vector<uint32_t> metadata = qrvTestMetadata(0);
    const uint8_t payload[1] = {0};
    for (uint64_t time : {999ull, 1999ull, 2000ull}) {
        index.push_back({uint64_t(ftello(file.get())), kKeyFrameType, 0});
        qrvWriteRecord(file.get(), {uint32_t(index.size()), time, kKeyFrameType, payload, 1, metadata.data(), 64});
    }
    qrvWriteIndex(file.get(), index, 3);
    fflush(file.get());
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(file.get()));
    ASSERT_EQ(hardware.sampleInfos().size(), 2u);
    EXPECT_EQ(hardware.sampleInfos()[0].sampleTime, 0u);
    EXPECT_EQ(hardware.sampleInfos()[1].sampleTime, 1u);
    QrvSoftwareIndex software;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), software));
    ASSERT_EQ(software.sampleInfos.size(), 3u);
    EXPECT_EQ(software.sampleInfos[1].sampleTime, 1u);
    EXPECT_EQ(software.sampleInfos[2].sampleTime, 2u);
}

TEST(QrvReaders, OneRecordFile) {
    QrvTestFile file = qrvOpenBytes(builderWith(1).bytes());
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(file.get()));
    EXPECT_EQ(hardware.index().size(), 1u);
    EXPECT_TRUE(hardware.sampleInfos().empty());
    QrvSoftwareIndex software;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), software));
    EXPECT_EQ(software.sampleInfos.size(), 1u);
    QrvSampleInfo info{};
    for (int32_t sample : {0, 1}) {
        EXPECT_FALSE(hardware.lookUpSampleInfo(sample, reinterpret_cast<uint8_t*>(&info)));
        EXPECT_FALSE(qrvLookUpSampleInfo(software.sampleInfos, sample, reinterpret_cast<uint8_t*>(&info)));
    }
}

TEST(QrvReaders, TrailerZeroFails) {
    QrvBuilder builder = builderWith(3);
    builder.setTrailer(0);
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    QrvHardwareReader hardware;
    EXPECT_FALSE(hardware.readIndex(file.get()));
    QrvSoftwareIndex software;
    EXPECT_FALSE(qrvReadSoftwareIndex(file.get(), software));
}

TEST(QrvReaders, EachReadStartsFromEmptyTables) {
    QrvTestFile big = qrvOpenBytes(builderWith(7).bytes());
    QrvTestFile small = qrvOpenBytes(builderWith(2).bytes());
    QrvHardwareReader hardware;
    ASSERT_TRUE(hardware.readIndex(big.get()));
    ASSERT_TRUE(hardware.readIndex(small.get()));
    EXPECT_EQ(hardware.index().size(), 2u);
    EXPECT_EQ(hardware.sampleInfos().size(), 1u);
    QrvSoftwareIndex software;
    ASSERT_TRUE(qrvReadSoftwareIndex(big.get(), software));
    ASSERT_TRUE(qrvReadSoftwareIndex(small.get(), software));
    EXPECT_EQ(software.frameList.size(), 2u);
    EXPECT_EQ(software.recordHeads.size(), 2u);
    EXPECT_EQ(software.sampleInfos.size(), 2u);
}

TEST(QrvReaders, KeyFrameAtOrBefore) {
    std::vector<QrvIndexEntry> index(6, QrvIndexEntry{0, 1, 0});
    EXPECT_EQ(qrvKeyFrameAtOrBefore(index, 4), 0);  // none: entry 0
    index[2].frameType = kKeyFrameType;
    EXPECT_EQ(qrvKeyFrameAtOrBefore(index, 5), 2);
    EXPECT_EQ(qrvKeyFrameAtOrBefore(index, 2), 2);
    EXPECT_EQ(qrvKeyFrameAtOrBefore(index, 1), 0);
    EXPECT_EQ(qrvKeyFrameAtOrBefore(index, -1), -1);
    try {
        qrvKeyFrameAtOrBefore(index, 6);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
    }
}

TEST(QrvReaders, RecordAtOffset) {
    const QrvBuilder builder = builderWith(3);
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    QrvRecordHead head{};
    uint32_t payloadBytes = 0;
    std::vector<uint8_t> payload;
    ASSERT_TRUE(qrvReadRecordAt(file.get(), builder.recordOffset(2), head, payloadBytes, &payload));
    EXPECT_EQ(head.frameNumber, 3u);
    EXPECT_EQ(head.captureTime, 1000000u + 2 * 33333);
    EXPECT_EQ(head.frameType, 1u);
    EXPECT_EQ(payloadBytes, 24u);
    EXPECT_EQ(payload, payloadOf(24, 2));
    ASSERT_TRUE(qrvReadRecordAt(file.get(), builder.recordOffset(0), head, payloadBytes, nullptr));
    EXPECT_EQ(head.frameType, kKeyFrameType);
    EXPECT_EQ(payloadBytes, 10u);
}
