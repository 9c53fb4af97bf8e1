// Software HEVC decoding through the C interface, on x265 streams that `zoqrv import`
// wrapped into QRV files, compared byte for byte with ffmpeg's decode of the same streams.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/hevc_streams.h"
#include "support/qrv_builder.h"
#include "zo_qrv64.h"

namespace {

constexpr uint32_t kUyvy = 1;
constexpr uint32_t kHevc = 1;
constexpr uint32_t kSoftware = 2;
// Only a hang detector: every call answers far sooner.
constexpr auto kHangLimit = std::chrono::seconds(10);

// One record as it lies in the file, read field by field.
struct FileRecord {
    uint64_t offset = 0;
    uint32_t frameNumber = 0;
    uint64_t captureTime = 0;
    uint32_t frameType = 0;
    uint64_t sampleTime = 0;
    std::array<uint8_t, 256> metadata{};
};

std::vector<FileRecord> readRecords(const std::string& path) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path.c_str(), "rb"), &fclose);
    EXPECT_TRUE(f);
    uint32_t count = 0;
    fseeko(f.get(), -4, SEEK_END);
    EXPECT_EQ(fread(&count, 4, 1, f.get()), 1u);
    std::vector<uint64_t> offsets(count);
    for (uint32_t i = 0; i < count; ++i) {
        fseeko(f.get(), -4 - off_t(count - i) * 16, SEEK_END);
        EXPECT_EQ(fread(&offsets[i], 8, 1, f.get()), 1u);
    }
    std::vector<FileRecord> records(count);
    for (uint32_t i = 0; i < count; ++i) {
        FileRecord& r = records[i];
        r.offset = offsets[i];
        uint32_t payloadBytes = 0;
        fseeko(f.get(), off_t(offsets[i]), SEEK_SET);
        EXPECT_EQ(fread(&r.frameNumber, 4, 1, f.get()), 1u);
        EXPECT_EQ(fread(&r.captureTime, 8, 1, f.get()), 1u);
        EXPECT_EQ(fread(&r.frameType, 4, 1, f.get()), 1u);
        EXPECT_EQ(fread(&payloadBytes, 4, 1, f.get()), 1u);
        fseeko(f.get(), payloadBytes, SEEK_CUR);
        EXPECT_EQ(fread(&r.sampleTime, 8, 1, f.get()), 1u);
        EXPECT_EQ(fread(r.metadata.data(), 256, 1, f.get()), 1u);
    }
    return records;
}

struct Decoded {
    uint32_t status = 1;
    std::vector<uint8_t> frame;
    uint32_t frameNumber = 0;
    uint64_t captureTime = 0;
    uint32_t frameType = 0;
    std::array<uint8_t, 256> metadata{};
};

// A software decoding pipe on one open file.
class SwPipe {
public:
    SwPipe(FILE* file, uint32_t width, uint32_t height)
        : file(file), width(width), height(height),
          pipe(ZOHW_CreateDecoder(kUyvy, kHevc, width, height, 0), &ZOHW_Destroy) {
        EXPECT_TRUE(pipe);
        if (!pipe) return;
        EXPECT_EQ(ZOHW_GetDecoderType(pipe.get()), kSoftware);
        const int startArgument = 0;
        EXPECT_EQ(ZOHW_StartDecoding(pipe.get(), &startArgument), 0u);
        tracked = ZOHW_CreateQRVTracker(pipe.get(), file) == 0;
    }

    bool tracked = false;

    Decoded decode() {
        Decoded d;
        // A guard band after the frame shows any write beyond its 2 * w * h bytes.
        const size_t frameBytes = size_t(width) * height * 2;
        d.frame.assign(frameBytes + 64, 0xEE);
        const auto start = std::chrono::steady_clock::now();
        d.status = ZOHW_DecodeFrameAndMetadata(pipe.get(), file, d.frame.data(), &d.frameNumber,
                                               &d.captureTime, &d.frameType, d.metadata.data());
        EXPECT_LT(std::chrono::steady_clock::now() - start, kHangLimit);
        EXPECT_EQ(std::vector<uint8_t>(d.frame.begin() + frameBytes, d.frame.end()),
                  std::vector<uint8_t>(64, 0xEE));
        d.frame.resize(frameBytes);
        return d;
    }

    uint32_t seek(int32_t sample) {
        const auto start = std::chrono::steady_clock::now();
        const uint32_t status = ZOHW_SetHEVCPositionInFile(pipe.get(), file, sample);
        EXPECT_LT(std::chrono::steady_clock::now() - start, kHangLimit);
        return status;
    }

    ZoHwPipe* get() const { return pipe.get(); }

private:
    FILE* file;
    uint32_t width, height;
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe;
};

using File = std::unique_ptr<FILE, int (*)(FILE*)>;
File openFile(const std::string& path) { return File(fopen(path.c_str(), "rb"), &fclose); }

class SwDecoding : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyMissing;
        streams = hevcStreams("tests", whyMissing);
        if (streams.empty()) GTEST_SKIP() << whyMissing;
    }

    // Checks that `d` is record `i` of `s`: its picture as ffmpeg decodes it, and the head
    // fields and metadata of that record.
    void expectRecord(const Decoded& d, size_t i, const HevcStream& s,
                      const std::vector<std::vector<uint8_t>>& reference,
                      const std::vector<FileRecord>& records) {
        SCOPED_TRACE("record " + std::to_string(i));
        ASSERT_EQ(d.status, 0u);
        EXPECT_TRUE(d.frame == reference.at(i)) << "picture differs from ffmpeg's";
        EXPECT_EQ(d.frameNumber, i + 1);
        EXPECT_EQ(d.frameType == 3, i % s.keyint == 0);
        EXPECT_EQ(d.frameType, records[i].frameType);
        EXPECT_EQ(d.captureTime, records[i].captureTime);
        EXPECT_EQ(d.metadata, records[i].metadata);
        // zoqrv import numbers the metadata words: word k of record i is i * 64 + k.
        uint32_t words[2];
        std::memcpy(words, d.metadata.data(), sizeof words);
        EXPECT_EQ(words[0], i * 64);
        EXPECT_EQ(words[1], i * 64 + 1);
    }

    std::vector<HevcStream> streams;
};

// Every record in order from the first, for widths that are and are not multiples of 16,
// a picture cropped by the conformance window, and a file of one record; then the sample
// queries.
TEST_F(SwDecoding, SequentialReadingDeliversEveryRecordAsFfmpegDecodesIt) {
    for (const char* name : {"gop5_200x120", "gop3_208x120", "gop4_198x118", "single_200x120"}) {
        SCOPED_TRACE(name);
        const HevcStream& s = hevcStream(streams, name);
        const auto reference = referenceYuyvFrames(s);
        const auto records = readRecords(s.qrvPath);
        ASSERT_EQ(reference.size(), s.frames);
        ASSERT_EQ(records.size(), s.frames);

        File file = openFile(s.qrvPath);
        SwPipe pipe(file.get(), s.width, s.height);
        ASSERT_TRUE(pipe.tracked);
        // The client's header lies before the first record.
        ASSERT_EQ(pipe.seek(0), 0u);
        for (size_t i = 0; i < s.frames; ++i) expectRecord(pipe.decode(), i, s, reference, records);
        EXPECT_EQ(pipe.decode().status, 1u) << "a record after the last";

        uint64_t time = 99;
        EXPECT_EQ(ZOHW_GetTimeStampForSample(pipe.get(), file.get(), 0, &time), 1u);
        EXPECT_EQ(time, 0u);
        for (size_t i = 1; i < s.frames; ++i) {
            EXPECT_EQ(ZOHW_GetTimeStampForSample(pipe.get(), file.get(), int32_t(i), &time), 0u);
            EXPECT_EQ(time, records[i].captureTime / 1000);
            std::array<uint8_t, 256> metadata{};
            EXPECT_EQ(ZOHW_GetMetadataForSample(pipe.get(), file.get(), metadata.data(), int32_t(i)), 0u);
            EXPECT_EQ(metadata, records[i].metadata);
        }
        EXPECT_EQ(ZOHW_GetTimeStampForSample(pipe.get(), file.get(), int32_t(s.frames), &time), 1u);
    }
}

// Seeks to a key frame, into the middle of a GOP, backwards, to the last record and to
// sample 0; each is followed by sequential reading.
TEST_F(SwDecoding, SeekingDecodesFromTheNearestKeyFrame) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto reference = referenceYuyvFrames(s);
    const auto records = readRecords(s.qrvPath);
    File file = openFile(s.qrvPath);
    SwPipe pipe(file.get(), s.width, s.height);
    ASSERT_TRUE(pipe.tracked);
    ASSERT_EQ(s.keyint, 5u);
    ASSERT_EQ(s.frames, 12u);

    for (int32_t target : {7, 5, 3, 11, 8, 0, 10, 4}) {
        SCOPED_TRACE("seek to " + std::to_string(target));
        ASSERT_EQ(pipe.seek(target), 0u);
        for (size_t i = size_t(target); i < std::min<size_t>(target + 3, s.frames); ++i)
            expectRecord(pipe.decode(), i, s, reference, records);
    }
    EXPECT_EQ(pipe.seek(-1), 1u);
    EXPECT_THROW(pipe.seek(12), std::out_of_range);
}

// Re-reading the index in the middle of a stream keeps the decoder's references: the client
// returns to where it was and the next P-frame decodes.
TEST_F(SwDecoding, ReReadingTheIndexKeepsTheReferenceChain) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto reference = referenceYuyvFrames(s);
    const auto records = readRecords(s.qrvPath);
    File file = openFile(s.qrvPath);
    SwPipe pipe(file.get(), s.width, s.height);
    ASSERT_TRUE(pipe.tracked);
    ASSERT_EQ(pipe.seek(0), 0u);
    expectRecord(pipe.decode(), 0, s, reference, records);
    expectRecord(pipe.decode(), 1, s, reference, records);
    const off_t position = ftello(file.get());
    ASSERT_EQ(ZOHW_CreateQRVTracker(pipe.get(), file.get()), 0u);
    ASSERT_EQ(fseeko(file.get(), position, SEEK_SET), 0);
    expectRecord(pipe.decode(), 2, s, reference, records);
}

// A seek on one thread and sequential reads on another, on one pipe and file: each call runs
// whole under the pipe's lock, so every frame delivered is the picture of the record it names.
TEST_F(SwDecoding, SeekAndReadFromTwoThreads) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto reference = referenceYuyvFrames(s);
    File file = openFile(s.qrvPath);
    SwPipe pipe(file.get(), s.width, s.height);
    ASSERT_TRUE(pipe.tracked);
    std::atomic<bool> seeking{true};
    std::thread seeker([&] {
        for (int i = 0; i < 100; ++i) EXPECT_EQ(pipe.seek(i * 7 % 12), 0u);
        seeking = false;
    });
    size_t delivered = 0;
    while (seeking) {
        const Decoded d = pipe.decode();
        if (d.status != 0) continue;
        ++delivered;
        ASSERT_TRUE(d.frameNumber >= 1 && d.frameNumber <= s.frames);
        EXPECT_TRUE(d.frame == reference[d.frameNumber - 1]) << "record " << d.frameNumber - 1;
    }
    seeker.join();
    EXPECT_GT(delivered, 0u);
}

// A pipe narrower or lower than the pictures gets their top-left part; one wider or taller
// than the pictures fails rather than read outside them.
TEST_F(SwDecoding, PipeSizeAgainstPictureSize) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto reference = referenceYuyvFrames(s);
    File file = openFile(s.qrvPath);

    const uint32_t w = 150, h = 90;
    SwPipe smaller(file.get(), w, h);
    ASSERT_TRUE(smaller.tracked);
    ASSERT_EQ(smaller.seek(0), 0u);
    for (size_t i = 0; i < 3; ++i) {
        const Decoded d = smaller.decode();
        ASSERT_EQ(d.status, 0u);
        std::vector<uint8_t> expected;
        for (uint32_t r = 0; r < h; ++r) {
            const auto row = reference[i].begin() + size_t(r) * 2 * s.width;
            expected.insert(expected.end(), row, row + 2 * w);
        }
        EXPECT_TRUE(d.frame == expected) << "record " << i;
    }

    for (auto [pw, ph] : {std::pair{208u, 120u}, std::pair{200u, 128u}}) {
        SCOPED_TRACE(std::to_string(pw) + "x" + std::to_string(ph));
        SwPipe larger(file.get(), pw, ph);
        ASSERT_TRUE(larger.tracked);
        ASSERT_EQ(larger.seek(0), 0u);
        EXPECT_EQ(larger.decode().status, 1u);
    }
}

// ---- Damaged records ----

// The payload with its first slice NAL unit's header damaged: libde265 decodes its parameter
// sets and then finds no slice it can use.
std::vector<uint8_t> withDamagedSliceHeader(std::vector<uint8_t> au) {
    size_t slice = 0;
    for (size_t i = 0; i + 2 < au.size(); ++i)
        if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1) {
            const int type = (au[i + 3] >> 1) & 63;
            if (type < 32 && slice == 0) slice = i + 3;
        }
    EXPECT_NE(slice, 0u);
    for (size_t i = slice + 2; i < slice + 6; ++i) au[i] ^= 0xA5;
    return au;
}

// The payload cut before its slice: parameter sets only.
std::vector<uint8_t> parameterSetsOnly(const std::vector<uint8_t>& au) {
    for (size_t i = 0; i + 3 < au.size(); ++i)
        if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1 && ((au[i + 3] >> 1) & 63) < 32)
            return std::vector<uint8_t>(au.begin(), au.begin() + (i > 0 && au[i - 1] == 0 ? i - 1 : i));
    ADD_FAILURE() << "no slice";
    return au;
}

class DamagedRecords : public SwDecoding {
protected:
    void SetUp() override {
        SwDecoding::SetUp();
        if (IsSkipped()) return;
        stream = &hevcStream(streams, "gop3_208x120");  // IDR frames at 0, 3, 6
        payloads = qrvPayloads(stream->qrvPath);
        reference = referenceYuyvFrames(*stream);
    }

    // A file of the given payloads, numbered 1..n, 40 ms apart; `keys` are key frames.
    QrvTestFile build(const std::vector<std::vector<uint8_t>>& records, const std::vector<size_t>& keys) {
        QrvBuilder builder({'h', 'e', 'a', 'd'});
        for (size_t i = 0; i < records.size(); ++i) {
            const bool key = std::find(keys.begin(), keys.end(), i) != keys.end();
            builder.addRecord(uint32_t(i + 1), 1000000 + 40000 * i, key ? 3 : 1, records[i]);
        }
        return qrvOpenBytes(builder.bytes());
    }

    const HevcStream* stream = nullptr;
    std::vector<std::vector<uint8_t>> payloads;
    std::vector<std::vector<uint8_t>> reference;
};

// A key frame that gives no picture fails the call (the pipe's second try then meets a
// P-frame whose reference is gone, which fails as well), and decoding resumes at the next
// key frame with correct pictures.
TEST_F(DamagedRecords, KeyFrameWithoutPictureFailsUntilTheNextKeyFrame) {
    const std::vector<std::pair<const char*, std::vector<uint8_t>>> damaged = {
        {"slice header damaged", withDamagedSliceHeader(payloads[0])},
        {"cut before the slice", parameterSetsOnly(payloads[0])},
        {"not HEVC", std::vector<uint8_t>(3000, 0x5A)},
    };
    for (const auto& [what, damagedKey] : damaged) {
        SCOPED_TRACE(what);
        QrvTestFile file = build({damagedKey, payloads[1], payloads[2], payloads[3], payloads[4]}, {0, 3});
        SwPipe pipe(file.get(), stream->width, stream->height);
        ASSERT_TRUE(pipe.tracked);
        ASSERT_EQ(pipe.seek(0), 0u);
        EXPECT_EQ(pipe.decode().status, 1u);  // records 0 and 1
        const Decoded key = pipe.decode();  // record 2 fails, record 3 decodes
        ASSERT_EQ(key.status, 0u);
        EXPECT_EQ(key.frameNumber, 4u);
        EXPECT_TRUE(key.frame == reference[3]);
        const Decoded next = pipe.decode();
        ASSERT_EQ(next.status, 0u);
        EXPECT_EQ(next.frameNumber, 5u);
        EXPECT_TRUE(next.frame == reference[4]);
        // A seek into the damaged GOP fails at the damaged key frame.
        EXPECT_EQ(pipe.seek(2), 1u);
    }
}

// A P-frame whose reference was never decoded fails instead of giving a picture predicted
// from a made-up reference: here the client moves the stream past a record itself. The
// P-frames after it fail for the same reason until the next key frame.
TEST_F(SwDecoding, PFrameWithoutItsReferenceFails) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");  // IDR frames at 0, 5, 10
    const auto reference = referenceYuyvFrames(s);
    const auto records = readRecords(s.qrvPath);
    File file = openFile(s.qrvPath);
    SwPipe pipe(file.get(), s.width, s.height);
    ASSERT_TRUE(pipe.tracked);
    ASSERT_EQ(pipe.seek(0), 0u);
    expectRecord(pipe.decode(), 0, s, reference, records);
    ASSERT_EQ(fseeko(file.get(), off_t(records[2].offset), SEEK_SET), 0);
    EXPECT_EQ(pipe.decode().status, 1u);                      // records 2 and 3
    expectRecord(pipe.decode(), 5, s, reference, records);   // record 4 fails, 5 decodes
    expectRecord(pipe.decode(), 6, s, reference, records);
}

// A record starts a reference chain when its payload holds an IRAP picture, whatever its frame
// type: a file without key-frame types decodes from its first record, and seeks start there.
TEST_F(DamagedRecords, IrapPayloadsStartChainsWhateverTheirFrameType) {
    QrvTestFile file = build({payloads[0], payloads[1], payloads[2], payloads[3], payloads[4]}, {});
    SwPipe pipe(file.get(), stream->width, stream->height);
    ASSERT_TRUE(pipe.tracked);
    for (int32_t target : {0, 4, 2}) {
        ASSERT_EQ(pipe.seek(target), 0u);
        const Decoded d = pipe.decode();
        ASSERT_EQ(d.status, 0u) << "record " << target;
        EXPECT_EQ(d.frameNumber, uint32_t(target + 1));
        EXPECT_TRUE(d.frame == reference[size_t(target)]) << "record " << target;
    }
}

// An empty payload, and a payload that runs past the end of the file, fail at once.
TEST_F(DamagedRecords, EmptyAndCutOffPayloadsFail) {
    {
        QrvTestFile file = build({{}, payloads[0]}, {0, 1});
        SwPipe pipe(file.get(), stream->width, stream->height);
        ASSERT_TRUE(pipe.tracked);
        ASSERT_EQ(pipe.seek(0), 0u);
        const Decoded d = pipe.decode();  // the empty record, then the key frame
        ASSERT_EQ(d.status, 0u);
        EXPECT_EQ(d.frameNumber, 2u);
        EXPECT_TRUE(d.frame == reference[0]);
    }
    {
        QrvBuilder builder;
        builder.addRecord(1, 1000000, 3, payloads[0]);
        builder.addRecord(2, 1040000, 1, payloads[1]);
        // The second record's size reaches beyond the end of the file but fits the buffer.
        builder.setPayloadBytesField(1, uint32_t(payloads[1].size() + 8000));
        QrvTestFile file = qrvOpenBytes(builder.bytes());
        SwPipe pipe(file.get(), stream->width, stream->height);
        ASSERT_TRUE(pipe.tracked);
        ASSERT_EQ(pipe.seek(0), 0u);
        ASSERT_EQ(pipe.decode().status, 0u);
        EXPECT_EQ(pipe.decode().status, 1u);
    }
}

}  // namespace
