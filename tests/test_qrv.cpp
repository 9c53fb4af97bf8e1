// QRV files: the writer against a byte-by-byte builder, the hardware reader's walks, and an index out
// of reach (damaged files: test_qrv_reading.cpp).
#include <gtest/gtest.h>

#include "support.h"

namespace {
Bytes payloadOf(size_t record) { return Bytes(5 + record, uint8_t(record)); }
uint64_t timeOf(size_t record) { return 5000 + record * 1333; }
uint32_t typeOf(size_t record, size_t keyint) { return record % keyint == 0 ? kKeyFrameType : 2; }

// Records numbered 1..count, a key frame every `keyint`, after a header longer than any frame
// number, so that an index entry read as a record is refused.
QrvBuilder recordsWith(size_t count, size_t keyint, Bytes header = Bytes(32, 0xEE)) {
    QrvBuilder builder(std::move(header));
    for (size_t r = 0; r < count; ++r) builder.add(uint32_t(r + 1), timeOf(r), typeOf(r, keyint), payloadOf(r));
    return builder;
}

bool same(const QrvSampleInfo& a, const QrvSampleInfo& b) { return memcmp(&a, &b, sizeof a) == 0; }

// The hardware reader on one file; its decode step logs payloads and returns `results` (then 1).
struct Walk {
    explicit Walk(const Bytes& bytes) : file(openBytes(bytes)) { EXPECT_TRUE(reader.readIndex(file.get())); }
    QrvDecodeStep step() {
        return [this](const uint8_t* payload, uint32_t bytes, void*) {
            decoded.emplace_back(payload, payload + bytes);
            return decoded.size() <= results.size() ? results[decoded.size() - 1] : 1;
        };
    }
    int next(uint32_t w = 8, uint32_t h = 8) {
        return reader.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType,
                                       reinterpret_cast<uint8_t*>(&info), w, h, step());
    }
    bool seek(int32_t sample) { return reader.seekToSample(file.get(), sample, 8, 8, step()); }
    int64_t position() const { return ftello(file.get()); }
    void moveTo(uint64_t offset) { ASSERT_EQ(fseeko(file.get(), off_t(offset), SEEK_SET), 0); }
    TestFile file;
    QrvHardwareReader reader;
    std::vector<Bytes> decoded;
    std::vector<int> results;
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t captureTime = 0;
    QrvSampleInfo info{};
};

}  // namespace

// Sample time = capture time / 1000; reserved index words are written as 0; a null pointer or a
// count <= 0 writes no metadata.
TEST(QrvWriter, MatchesTheBuilderByteForByte) {
    TestFile file = openBytes({'H', 'D', 'R', 0, 7});
    fseeko(file.get(), 0, SEEK_END);
    QrvBuilder expected({'H', 'D', 'R', 0, 7});
    std::vector<QrvIndexEntry> index;
    const uint64_t times[] = {1999, 0, 123456789012345ull, 999};
    for (uint32_t i = 0; i < 4; ++i) {
        const Bytes payload = randomBytes(i == 3 ? 4097 : i * 100, i);
        const QrvSampleInfo info = testSampleInfo(0, i);
        index.push_back({uint64_t(ftello(file.get())), i == 0 ? kKeyFrameType : 1, 0xDEADBEEF});
        qrvWriteRecord(file.get(), {i + 1, times[i], index.back().frameType, payload.data(), payload.size(),
                                    reinterpret_cast<const uint32_t*>(info.metadata), 64});
        expected.add(i + 1, times[i], index.back().frameType, payload);
    }
    qrvWriteIndex(file.get(), index, 4);
    EXPECT_EQ(readAll(file.get()), expected.bytes());
    const uint32_t words[3] = {0x04030201, 0x08070605, 0x0C0B0A09};
    for (auto [metadata, count] : {std::pair<const uint32_t*, int32_t>{words, 3}, {words, 0}, {words, -1}, {nullptr, 3}}) {
        TestFile record = openBytes({});
        qrvWriteRecord(record.get(), {7, 2500, 1, reinterpret_cast<const uint8_t*>("\xAB\xCD"), 2, metadata, count});
        Bytes bytes = {7, 0, 0, 0, 0xC4, 9, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 0xAB, 0xCD, 2, 0, 0, 0, 0, 0, 0, 0};
        for (uint8_t b = 1; metadata && count > 0 && b <= 12; ++b) bytes.push_back(b);
        EXPECT_EQ(readAll(record.get()), bytes) << count;
    }
}

// The hardware reader keeps N - 1 sample infos (of records 0..N-2; which it serves: test_hw_decoder.cpp).
// Sequential reading: decode results below 1 and payloads above 4 bytes a pixel (skipped) give no
// frame, yet the sample info is read; a frame number above N - 1 (the last record's, or an index
// entry read as one) is refused and the stream left in place. Seeking decodes from the nearest key
// frame, leaves the stream at the sample and fails when a decode fails.
TEST(QrvHardwareReader, LookupsSequentialReadingAndSeeking) {
    QrvBuilder builder = recordsWith(6, 3);
    builder.add(1, 9000, 2, payloadOf(6));
    Bytes bytes = builder.bytes();
    putLittleEndian(bytes, builder.recordOffset(5), 7, 4);  // N
    Walk walk(bytes);
    ASSERT_TRUE(walk.reader.readIndex(openBytes(recordsWith(12, 1).bytes()).get()) && walk.reader.readIndex(walk.file.get()));
    ASSERT_EQ(std::make_tuple(walk.reader.frameCount(), walk.reader.index().size(), walk.reader.sampleInfos().size()),
              std::make_tuple(7u, size_t(7), size_t(6)));
    walk.results = {1, 0, -3, 2};
    walk.moveTo(builder.recordOffset(0));
    for (size_t r = 0; r < 5; ++r) {
        EXPECT_EQ(walk.next(2, 1), r == 0 || r == 3 ? 1 : 0) << r;  // 2 x 1 pixels: 8 payload bytes
        EXPECT_EQ(std::make_tuple(walk.frameNumber, walk.captureTime, walk.frameType),
                  std::make_tuple(uint32_t(r + 1), timeOf(r), typeOf(r, 3)));
        EXPECT_TRUE(same(walk.info, testSampleInfo(timeOf(r), uint32_t(r)))) << r;
    }
    EXPECT_EQ(walk.decoded, (std::vector<Bytes>{payloadOf(0), payloadOf(1), payloadOf(2), payloadOf(3)}));
    for (uint64_t refusedAt : {builder.recordOffset(5), uint64_t(builder.indexOffset(0))}) {
        for (int i = 0; i < 2; ++i) EXPECT_EQ(walk.next(), -1);
        EXPECT_EQ(walk.position(), int64_t(refusedAt));
        walk.moveTo(builder.recordOffset(6));
        EXPECT_EQ(walk.next(), 1);
    }
    walk.moveTo(builder.recordOffset(4));
    EXPECT_EQ(walk.next(3, 3), 1);  // a larger frame grows the buffer
    walk.results.clear(), walk.decoded.clear();
    EXPECT_TRUE(walk.seek(3) && walk.decoded.empty());
    EXPECT_TRUE(walk.seek(5) && walk.position() == int64_t(builder.recordOffset(5)));
    EXPECT_EQ(walk.decoded, (std::vector<Bytes>{payloadOf(3), payloadOf(4)}));
    walk.results = {1, 1, 0};  // the next decode fails
    EXPECT_FALSE(walk.seek(2) || walk.seek(-1));
    try {
        walk.seek(7);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector<T> subscript");  // host applications match this text
    }
    Walk huge(bytes);  // w * h * 4 overflows: no buffer, on to the next record
    huge.moveTo(builder.recordOffset(0));
    EXPECT_EQ(huge.next(0xFFFFFFFFu, 0xFFFFFFFFu), 0);
    EXPECT_EQ(huge.position(), int64_t(builder.recordOffset(1)));
}

// A sparse file whose count claims 2^27 entries: the index (2 GiB + 4 bytes) fits in the file, but
// its distance from the end does not fit in a signed 32-bit integer.
TEST(QrvHostile, IndexBeyondTwoGibibytesIsOutOfReach) {
    const uint32_t count = 1u << 27;
    TestFile file = openBytes({});
    if (ftruncate(fileno(file.get()), off_t(count) * 16 + 4096) != 0) GTEST_SKIP() << "no sparse files here";
    ASSERT_TRUE(fseeko(file.get(), 0, SEEK_END) == 0 && fwrite(&count, 4, 1, file.get()) == 1 && fflush(file.get()) == 0);
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    EXPECT_FALSE(hardware.readIndex(file.get()) || qrvReadSoftwareIndex(file.get(), software) || hardware.index().capacity());
}
