// Software HEVC decoding through the C interface on x265 streams that `zoqrv import` wrapped, byte for
// byte against ffmpeg's decode, with the libde265 behaviour the software decoder rests on (flushes
// keep references, missing references are concealed silently, pictures are reused) put to the test.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kernels/packing.h"
#include "support.h"
#include "zo_qrv64.h"

namespace {
// A software decoding pipe (data format 1, HEVC unless codec says 0: H.264) on one open file, at its first record.
struct SwPipe {
    SwPipe(FILE* file, uint32_t w, uint32_t h, uint32_t codec = 1)
        : file(file), w(w), h(h), pipe(decoderPipe(1, codec, w, h)) {
        const int start = 0;
        EXPECT_EQ(ZOHW_GetDecoderType(pipe.get()), 2u);
        EXPECT_FALSE(ZOHW_StartDecoding(pipe.get(), &start) || ZOHW_CreateQRVTracker(pipe.get(), file) || seek(0));
    }
    DecodedFrame decode() {
        DecodedFrame d = decodeNext(pipe.get(), file, size_t(w) * h * 2 + 64);  // a guard band shows writes past the frame
        EXPECT_EQ(Bytes(d.data.end() - 64, d.data.end()), Bytes(64, 0xEE));
        d.data.resize(d.data.size() - 64);
        return d;
    }
    uint32_t seek(int32_t sample) { return ZOHW_SetHEVCPositionInFile(pipe.get(), file, sample); }
    FILE* file;
    uint32_t w, h;
    Pipe pipe;
};

// `d` is record i: ffmpeg's picture and the fields `zoqrv import` gives record i (a key frame type
// every `keyint` records, none for 0).
void expectRecord(const DecodedFrame& d, size_t i, uint32_t keyint, const std::vector<Bytes>& pictures) {
    ASSERT_EQ(d.status, 0u) << "record " << i;
    EXPECT_TRUE(d.data == pictures.at(i)) << "record " << i << " differs from ffmpeg's picture";
    EXPECT_EQ(std::make_tuple(d.number, d.time, d.type),
              std::make_tuple(uint32_t(i + 1), uint64_t(i * 40000), keyint && i % keyint == 0 ? 3u : 0u));
    EXPECT_EQ(memcmp(d.metadata, testSampleInfo(0, uint32_t(i)).metadata, 256), 0) << "record " << i;
}

// The records laid out as `zoqrv import` lays them out, a key frame type every `keyint` (none for 0).
QrvBuilder recordsOf(const std::vector<Bytes>& payloads, uint32_t keyint) {
    QrvBuilder builder(Bytes(16, 0));
    for (size_t i = 0; i < payloads.size(); ++i)
        builder.add(uint32_t(i + 1), i * 40000, keyint && i % keyint == 0 ? 3 : 0, payloads[i]);
    return builder;
}

}  // namespace

// Every record in order, for widths that are and are not multiples of 16, a picture cropped by the
// conformance window (x264 codes whole macroblocks) and a file of one record; then the sample queries
// and null streams.
TEST(SwDecoding, SequentialReadingDeliversEveryRecordAsFfmpegDecodesIt) {
    for (auto [set, name] : {std::pair{"tests", "gop5_200x120"}, {"tests", "gop3_208x120"}, {"tests", "gop4_198x118"},
                             {"tests", "single_200x120"}, {"h264", "h264_gop5_200x120"}, {"h264", "h264_gop4_198x118"}}) {
        SCOPED_TRACE(name);
        const HevcStream s = hevcStream(name, set);
        const std::vector<Bytes> pictures = s.pictures();
        ASSERT_EQ(pictures.size(), s.frames);
        TestFile file(fopen(s.qrvPath.c_str(), "rb"));
        SwPipe pipe(file.get(), s.width, s.height, std::string(set) == "h264" ? 0 : 1);
        ZoHwPipe* p = pipe.pipe.get();
        for (size_t i = 0; i < s.frames; ++i) expectRecord(pipe.decode(), i, s.keyint, pictures);
        EXPECT_EQ(pipe.decode().status, 1u) << "a record after the last";
        for (int32_t sample = 0; sample <= int32_t(s.frames); ++sample) {
            const bool served = sample >= 1 && sample < int32_t(s.frames);
            uint64_t time = 99;
            uint8_t metadata[256] = {};
            EXPECT_EQ(ZOHW_GetTimeStampForSample(p, file.get(), sample, &time), served ? 0u : 1u) << sample;
            EXPECT_EQ(ZOHW_GetMetadataForSample(p, file.get(), metadata, sample), served ? 0u : 1u) << sample;
            EXPECT_EQ(time, served ? sample * 40u : 0u) << sample;
            EXPECT_EQ(memcmp(metadata, served ? testSampleInfo(0, uint32_t(sample)).metadata : QrvSampleInfo{}.metadata, 256), 0);
        }
        DecodedFrame d;  // null streams and start arguments fail
        EXPECT_EQ(ZOHW_CreateQRVTracker(p, nullptr) + ZOHW_SetHEVCPositionInFile(p, nullptr, 0) + ZOHW_StartDecoding(p, nullptr) +
                      ZOHW_GetMetadataForSample(p, nullptr, d.metadata, 1) +
                      ZOHW_DecodeFrameAndMetadata(p, nullptr, d.metadata, &d.number, &d.time, &d.type,
                                                  d.metadata), 5u);
    }
}

// Seeks outside the samples fail (test_sw_encoder.cpp seeks inside them). A narrower or lower pipe
// gets the pictures' top-left part; a wider or taller one fails rather than read outside them.
TEST(SwDecoding, SeekingAndPipeSizes) {
    const HevcStream s = hevcStream("gop5_200x120");  // 12 frames
    const std::vector<Bytes> pictures = s.pictures();
    TestFile file(fopen(s.qrvPath.c_str(), "rb"));
    SwPipe pipe(file.get(), s.width, s.height);
    EXPECT_EQ(pipe.seek(-1), 1u);
    EXPECT_EQ(pipe.seek(12), 1u);  // "invalid vector<T> subscript": c_host.c
    for (auto [w, h] : {std::pair{150u, 90u}, {208u, 120u}, {200u, 128u}}) {
        SwPipe sized(file.get(), w, h);
        const DecodedFrame d = sized.decode();
        ASSERT_EQ(d.status, w <= s.width && h <= s.height ? 0u : 1u) << w << "x" << h;
        for (uint32_t r = 0; r < h && d.status == 0; ++r)
            ASSERT_EQ(memcmp(&d.data[r * 2 * w], &pictures[0][r * 2 * s.width], 2 * w), 0) << "row " << r;
    }
}

// Payloads up to twice the raw NV12 picture are read (a key frame padded with zero bytes); one byte more is skipped.
TEST(SwDecoding, PayloadsUpToTwiceTheRawPictureAreRead) {
    const HevcStream s = hevcStream("gop5_200x120");
    for (size_t extra : {0, 1}) {
        Bytes padded = s.payloads()[0];
        padded.resize(packing::maxAccessUnitBytes(s.width, s.height) + extra);
        EXPECT_EQ(SwPipe(openBytes(recordsOf({padded}, 1).bytes()).get(), s.width, s.height).decode().data == s.pictures()[0], !extra);
    }
}

// A record that gives no picture fails the call at once, and decoding resumes at the next key
// frame: a key frame with a damaged slice header, one cut before its slice, data that is not HEVC,
// an empty record; a P-frame whose reference was never decoded (the client moved the stream past a
// record), which libde265 would conceal; a record cut off by the end of the file.
TEST(SwDecoding, RecordsWithoutAPictureFailUntilTheNextKeyFrame) {
    const HevcStream s = hevcStream("gop3_208x120");  // IDR frames at 0, 3, 6
    const std::vector<Bytes> payloads = s.payloads(), pictures = s.pictures();
    Bytes damaged = payloads[0], cut = payloads[0];
    for (size_t i = 0; i + 3 < damaged.size() && cut.size() == damaged.size(); ++i)
        if (damaged[i] == 0 && damaged[i + 1] == 0 && damaged[i + 2] == 1 && ((damaged[i + 3] >> 1) & 63) < 32) {
            for (size_t k = i + 5; k < i + 9; ++k) damaged[k] ^= 0xA5;  // the first slice's header
            cut.resize(i);
        }
    ASSERT_LT(cut.size(), payloads[0].size());
    for (const Bytes& key : {damaged, cut, Bytes(3000, 0x5A), Bytes()}) {
        TestFile file = openBytes(recordsOf({key, payloads[1], payloads[2], payloads[3], payloads[4]}, 3).bytes());
        SwPipe pipe(file.get(), s.width, s.height);
        EXPECT_EQ(pipe.decode().status, 1u);           // records 0 and 1: the pipe's two tries
        expectRecord(pipe.decode(), 3, 3, pictures);  // record 2 fails, 3 decodes
        expectRecord(pipe.decode(), 4, 3, pictures);
        EXPECT_EQ(pipe.seek(2), 1u) << "a seek into the damaged group fails at its key frame";
    }
    const QrvBuilder builder = recordsOf({payloads[0], payloads[1], payloads[2], payloads[3]}, 3);
    Bytes bytes = builder.bytes();
    putLittleEndian(bytes, builder.recordOffset(3) + 16, payloads[3].size() + 8000, 4);  // past the end
    TestFile file = openBytes(bytes);
    SwPipe pipe(file.get(), s.width, s.height);
    expectRecord(pipe.decode(), 0, 3, pictures);
    ASSERT_EQ(fseeko(file.get(), off_t(builder.recordOffset(2)), SEEK_SET), 0);
    EXPECT_EQ(pipe.decode().status, 1u);  // record 2 without its reference, record 3 cut off
}

// A record starts a reference chain when its payload holds an IRAP picture, whatever its frame type:
// a file without key-frame types decodes from its first record, and seeks start there. Re-reading the
// index keeps the chain: the client returns to where it was and the next P-frame decodes.
TEST(SwDecoding, ReferenceChainsStartAtIrapPayloads) {
    const HevcStream s = hevcStream("gop3_208x120");  // IDR frames at 0, 3, 6
    const std::vector<Bytes> payloads = s.payloads(), pictures = s.pictures();
    TestFile file = openBytes(recordsOf(std::vector<Bytes>(payloads.begin(), payloads.begin() + 5), 0).bytes());
    SwPipe pipe(file.get(), s.width, s.height);
    for (int32_t target : {0, 4, 1}) {
        ASSERT_EQ(pipe.seek(target), 0u) << target;
        expectRecord(pipe.decode(), size_t(target), 0, pictures);
    }
    const off_t position = ftello(file.get());
    ASSERT_EQ(ZOHW_CreateQRVTracker(pipe.pipe.get(), file.get()), 0u);
    ASSERT_EQ(fseeko(file.get(), position, SEEK_SET), 0);
    expectRecord(pipe.decode(), 2, 0, pictures);
}

// In H.264 an IDR picture starts a chain: a P-frame whose reference was never decoded fails (libavcodec
// would conceal the reference), and decoding resumes at the next IDR; seeks decode from the IDR.
TEST(SwDecoding, H264ReferenceChainsStartAtIdrPictures) {
    const HevcStream s = hevcStream("h264_gop5_200x120", "h264");  // IDR frames at 0, 5, 10
    const std::vector<Bytes> payloads = s.payloads(), pictures = s.pictures();
    TestFile file(fopen(s.qrvPath.c_str(), "rb"));
    SwPipe pipe(file.get(), s.width, s.height, 0);
    expectRecord(pipe.decode(), 0, 5, pictures);
    const size_t record2 = 16 + 2 * (20 + 264) + payloads[0].size() + payloads[1].size();
    ASSERT_EQ(fseeko(file.get(), off_t(record2), SEEK_SET), 0);
    EXPECT_EQ(pipe.decode().status, 1u);  // records 2 and 3: the pipe's two tries
    expectRecord(pipe.decode(), 5, 5, pictures);  // record 4 fails, the IDR record 5 decodes
    ASSERT_EQ(pipe.seek(8), 0u);
    expectRecord(pipe.decode(), 8, 5, pictures);
}

// A seek on one thread and sequential reads on another, on one pipe and file: each call runs whole
// under the pipe's lock, so every frame delivered is the picture of the record it names.
TEST(SwDecoding, SeekAndReadFromTwoThreads) {
    const HevcStream s = hevcStream("gop5_200x120");
    const std::vector<Bytes> pictures = s.pictures();
    TestFile file(fopen(s.qrvPath.c_str(), "rb"));
    SwPipe pipe(file.get(), s.width, s.height);
    std::atomic<bool> seeking{true};
    std::thread seeker([&] {
        for (int i = 0; i < 100; ++i) EXPECT_EQ(pipe.seek(i * 7 % 12), 0u);
        seeking = false;
    });
    size_t delivered = 0;
    while (seeking) {
        const DecodedFrame d = pipe.decode();
        if (d.status != 0) continue;
        ++delivered;
        EXPECT_TRUE(d.number >= 1 && d.number <= s.frames && d.data == pictures[d.number - 1]) << "record " << d.number - 1;
    }
    seeker.join();
    EXPECT_GT(delivered, 0u);
}
