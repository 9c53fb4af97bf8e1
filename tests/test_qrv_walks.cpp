// The record walks: hardware sequential reading and seeking with a scripted decode step,
// and the software reader's sequential record reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>

#include "container/qrv_file.h"
#include "support/qrv_builder.h"

namespace {

// A decode step that records the payloads it is given and returns scripted results
// (1 once the script has run out).
struct ScriptedDecode {
    std::vector<std::vector<uint8_t>> payloads;
    std::deque<int> results;

    QrvDecodeStep step() {
        return [this](const uint8_t* payload, uint32_t bytes, void*) {
            payloads.emplace_back(payload, payload + bytes);
            if (results.empty()) return 1;
            const int result = results.front();
            results.pop_front();
            return result;
        };
    }
};

// Record r's payload: its number repeated, 5 + r bytes.
std::vector<uint8_t> payloadOf(size_t record) { return std::vector<uint8_t>(5 + record, uint8_t(record)); }

// Frame numbers 1..count; key frames at the listed records.
QrvBuilder builderWith(size_t count, std::vector<size_t> keys) {
    // A client header longer than N, so that the first index entry's offset is no frame number.
    QrvBuilder builder(std::vector<uint8_t>(32, 0xEE));
    for (size_t i = 0; i < count; ++i) {
        const bool key = std::find(keys.begin(), keys.end(), i) != keys.end();
        builder.addRecord(uint32_t(i + 1), 5000 + i * 1000, key ? kKeyFrameType : 2, payloadOf(i));
    }
    return builder;
}

constexpr uint32_t kWidth = 8;
constexpr uint32_t kHeight = 8;

struct Walk {
    QrvBuilder builder;
    QrvTestFile file;
    QrvHardwareReader reader;
    ScriptedDecode decode;

    explicit Walk(QrvBuilder b) : builder(std::move(b)), file(qrvOpenBytes(builder.bytes())) {
        EXPECT_TRUE(reader.readIndex(file.get()));
    }
    int next(uint32_t width = kWidth, uint32_t height = kHeight) {
        return reader.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType,
                                       reinterpret_cast<uint8_t*>(&info), width, height, decode.step());
    }
    bool seek(int32_t sample) { return reader.seekToSample(file.get(), sample, kWidth, kHeight, decode.step()); }
    int64_t position() { return ftello(file.get()); }

    uint32_t frameNumber = 0;
    uint64_t captureTime = 0;
    uint32_t frameType = 0;
    QrvSampleInfo info{};
};

bool sameInfo(const QrvSampleInfo& a, const QrvSampleInfo& b) { return memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

TEST(QrvHardwareWalk, SequentialReadingRefusesTheLastRecord) {
    const size_t n = 5;
    Walk walk(builderWith(n, {0, 3}));
    ASSERT_EQ(fseeko(walk.file.get(), int64_t(walk.builder.recordOffset(0)), SEEK_SET), 0);
    for (size_t r = 0; r + 1 < n; ++r) {
        ASSERT_EQ(walk.next(), 1) << r;
        EXPECT_EQ(walk.frameNumber, r + 1);
        EXPECT_EQ(walk.captureTime, 5000 + r * 1000);
        EXPECT_EQ(walk.frameType, r == 0 || r == 3 ? kKeyFrameType : 2u);
        EXPECT_TRUE(sameInfo(walk.info, qrvTestSampleInfo(5000 + r * 1000, qrvTestMetadata(uint32_t(r)))));
        EXPECT_EQ(walk.decode.payloads.back(), payloadOf(r));
    }
    // The last record holds frame number N, above N - 1: refused, the stream stays there.
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(walk.next(), -1);
        EXPECT_EQ(walk.frameNumber, n);
        EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(n - 1)));
    }
    EXPECT_EQ(walk.decode.payloads.size(), n - 1);
}

TEST(QrvHardwareWalk, ReadingAtTheIndexReturnsNoRecordAndLeavesTheStream) {
    // The last record numbered 1 is accepted, so the walk reaches the first index entry.
    QrvBuilder builder = builderWith(3, {0});
    builder.addRecord(1, 9000, 2, payloadOf(3));
    Walk walk(std::move(builder));
    const int64_t indexStart = int64_t(walk.builder.bytes().size()) - 4 * 16 - 4;
    ASSERT_EQ(fseeko(walk.file.get(), int64_t(walk.builder.recordOffset(3)), SEEK_SET), 0);
    ASSERT_EQ(walk.next(), 1);
    ASSERT_EQ(walk.position(), indexStart);
    EXPECT_EQ(walk.next(), -1);
    EXPECT_EQ(walk.position(), indexStart);
}

TEST(QrvHardwareWalk, DecodeResultsMapToFrameOrNoFrame) {
    Walk walk(builderWith(6, {0}));
    walk.decode.results = {0, -3, 2};
    ASSERT_EQ(fseeko(walk.file.get(), int64_t(walk.builder.recordOffset(0)), SEEK_SET), 0);
    EXPECT_EQ(walk.next(), 0);
    EXPECT_EQ(walk.next(), 0);
    // The sample info is read whatever the decode gave, so the walk stays in step.
    EXPECT_TRUE(sameInfo(walk.info, qrvTestSampleInfo(6000, qrvTestMetadata(1))));
    EXPECT_EQ(walk.next(), 1);
    EXPECT_EQ(walk.frameNumber, 3u);
    ASSERT_EQ(walk.decode.payloads.size(), 3u);
    EXPECT_EQ(walk.decode.payloads[2], payloadOf(2));
}

TEST(QrvHardwareWalk, PayloadBufferGrowsToFourBytesAPixel) {
    QrvBuilder builder;
    builder.addRecord(1, 0, kKeyFrameType, std::vector<uint8_t>(2 * 2 * 4, 1));
    builder.addRecord(2, 0, 2, std::vector<uint8_t>(2 * 2 * 4 + 1, 2));
    builder.addRecord(3, 0, 2, std::vector<uint8_t>(2 * 2 * 4 + 1, 3));
    builder.addRecord(4, 0, 2, {4});
    Walk walk(std::move(builder));
    // 16 bytes fit a 2x2 frame; 17 do not: skipped, not decoded, info still read.
    EXPECT_EQ(walk.next(2, 2), 1);
    EXPECT_EQ(walk.next(2, 2), 0);
    EXPECT_EQ(walk.frameNumber, 2u);
    EXPECT_TRUE(sameInfo(walk.info, qrvTestSampleInfo(0, qrvTestMetadata(1))));
    EXPECT_EQ(walk.decode.payloads.size(), 1u);
    // A larger frame grows the buffer.
    EXPECT_EQ(walk.next(3, 3), 1);
    EXPECT_EQ(walk.decode.payloads.back(), std::vector<uint8_t>(17, 3));
}

TEST(QrvHardwareWalk, UnallocatableBufferSeeksToTheNextRecord) {
    Walk walk(builderWith(4, {0}));
    ASSERT_EQ(fseeko(walk.file.get(), int64_t(walk.builder.recordOffset(0)), SEEK_SET), 0);
    // 0xFFFFFFFF^2 * 4 does not fit in size_t.
    EXPECT_EQ(walk.next(0xFFFFFFFFu, 0xFFFFFFFFu), 0);
    EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(1)));
    EXPECT_TRUE(walk.decode.payloads.empty());
}

TEST(QrvHardwareSeek, ToAKeyFrameDecodesNothing) {
    Walk walk(builderWith(10, {0, 4, 8}));
    for (int32_t sample : {4, 0, 8}) {
        ASSERT_TRUE(walk.seek(sample));
        EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(size_t(sample))));
    }
    EXPECT_TRUE(walk.decode.payloads.empty());
    ASSERT_EQ(walk.next(), 1);
    EXPECT_EQ(walk.frameNumber, 9u);
}

TEST(QrvHardwareSeek, IntoAGroupDecodesFromItsKeyFrame) {
    Walk walk(builderWith(10, {0, 4, 8}));
    ASSERT_TRUE(walk.seek(7));
    EXPECT_EQ(walk.decode.payloads, (std::vector<std::vector<uint8_t>>{payloadOf(4), payloadOf(5), payloadOf(6)}));
    EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(7)));
    ASSERT_EQ(walk.next(), 1);
    EXPECT_EQ(walk.frameNumber, 8u);
}

TEST(QrvHardwareSeek, WithoutKeyFramesStartsAtRecordZero) {
    Walk walk(builderWith(6, {}));
    ASSERT_TRUE(walk.seek(3));
    EXPECT_EQ(walk.decode.payloads, (std::vector<std::vector<uint8_t>>{payloadOf(0), payloadOf(1), payloadOf(2)}));
    EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(3)));
}

TEST(QrvHardwareSeek, RangeRules) {
    Walk walk(builderWith(5, {0}));
    EXPECT_FALSE(walk.seek(-1));
    try {
        walk.seek(5);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
    }
    EXPECT_TRUE(walk.decode.payloads.empty());
}

TEST(QrvHardwareSeek, DecodeFailureFails) {
    Walk walk(builderWith(8, {0}));
    walk.decode.results = {1, 0};
    EXPECT_FALSE(walk.seek(5));
    EXPECT_EQ(walk.decode.payloads.size(), 2u);
}

TEST(QrvHardwareSeek, RefusedRecordsCountAsSteps) {
    // Record 2 claims frame number 99 (above N - 1): each step there stays put but counts.
    QrvBuilder builder;
    for (uint32_t i = 0; i < 8; ++i) builder.addRecord(i == 2 ? 99 : i + 1, 0, i == 0 ? kKeyFrameType : 2, payloadOf(i));
    Walk walk(std::move(builder));
    ASSERT_TRUE(walk.seek(6));
    EXPECT_EQ(walk.decode.payloads, (std::vector<std::vector<uint8_t>>{payloadOf(0), payloadOf(1)}));
    EXPECT_EQ(walk.position(), int64_t(walk.builder.recordOffset(2)));
}

TEST(QrvSoftwareWalk, SequentialReadingDeliversEveryRecord) {
    const size_t n = 4;
    const QrvBuilder builder = builderWith(n, {0, 2});
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), tables));
    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(0)), SEEK_SET), 0);
    std::vector<uint8_t> payload(64);
    QrvSoftwareRecord record{};
    // Frame number N equals sampleCount and is accepted here, unlike in the hardware walk.
    for (size_t r = 0; r < n; ++r) {
        ASSERT_TRUE(qrvReadSoftwareRecord(file.get(), tables.sampleCount, payload.data(), payload.size(), record)) << r;
        EXPECT_EQ(record.head.frameNumber, r + 1);
        EXPECT_EQ(record.head.captureTime, 5000 + r * 1000);
        EXPECT_EQ(record.head.frameType, r % 2 == 0 ? kKeyFrameType : 2u);
        EXPECT_EQ(std::vector<uint8_t>(payload.begin(), payload.begin() + record.payloadBytes), payloadOf(r));
        EXPECT_EQ(record.sampleTime, (5000 + r * 1000) / 1000);
        EXPECT_EQ(std::vector<uint32_t>(record.metadata, record.metadata + kMetadataWords), qrvTestMetadata(uint32_t(r)));
    }
    // At the index: the first entry's offset is not a frame number in range; stepped back.
    const int64_t indexStart = ftello(file.get());
    EXPECT_FALSE(qrvReadSoftwareRecord(file.get(), tables.sampleCount, payload.data(), payload.size(), record));
    EXPECT_EQ(ftello(file.get()), indexStart);
}

TEST(QrvSoftwareWalk, PayloadLargerThanTheBufferIsSkipped) {
    const QrvBuilder builder = builderWith(3, {0});
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    ASSERT_EQ(fseeko(file.get(), int64_t(builder.recordOffset(1)), SEEK_SET), 0);
    std::vector<uint8_t> payload(5);  // record 1 has 6 bytes
    QrvSoftwareRecord record{};
    EXPECT_FALSE(qrvReadSoftwareRecord(file.get(), 3, payload.data(), payload.size(), record));
    EXPECT_EQ(record.payloadBytes, 6u);
    EXPECT_EQ(record.metadata[0], 64u);  // metadata still read
    EXPECT_EQ(payload, std::vector<uint8_t>(5, 0));
    EXPECT_EQ(ftello(file.get()), int64_t(builder.recordOffset(2)));
    std::vector<uint8_t> larger(16);
    ASSERT_TRUE(qrvReadSoftwareRecord(file.get(), 3, larger.data(), larger.size(), record));
    EXPECT_EQ(record.head.frameNumber, 3u);
}

TEST(QrvSoftwareWalk, EmptyPayloadFails) {
    QrvBuilder builder;
    builder.addRecord(1, 0, kKeyFrameType, {});
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    std::vector<uint8_t> payload(8);
    QrvSoftwareRecord record{};
    EXPECT_FALSE(qrvReadSoftwareRecord(file.get(), 1, payload.data(), payload.size(), record));
    EXPECT_EQ(ftello(file.get()), int64_t(20 + 8 + 256));
}
