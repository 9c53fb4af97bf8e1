// The software encoders behind the C interface (libx264 for H.264, libx265 for HEVC): recordings
// played back through the software decoder (lossless kinds bit for bit, colour kinds by PSNR, in
// order and after seeks) and by ffmpeg from the exported stream, the bitrate of CBR, and the
// encoder choice.
#include <gtest/gtest.h>

#include <csignal>
#include <cmath>
#include <thread>

#include "api/encoder_choice.h"
#include "api/pipe.h"
#include "container/annexb.h"
#include "codec/SwEncoder.h"
#include "codec/X264Encoder.h"
#include "kernels/packing.h"
#include "container/qrv_scan.h"
#include "support.h"
#include "../bench/realistic_frames.h"

namespace {

enum Content { kRamp, kNoiseBurst, kFloatRamp, kDepth };
struct Recording {
    uint32_t kind, width, height, frames, fps, lossless;
    uint64_t bitrate = 0;
    Content content = kRamp;
    uint32_t codec = 1;
};
// Kinds 2-5: a ramp with 2 bits of noise moved by 5 bytes a frame (P-frames predict), or kFloatRamp: a float ramp (key frames
// 1.2 times its size coded); it and kNoiseBurst have noise in frames 5-7 (1.4 times); kDepth: realistic 16-bit depth.
// BGRA and UYVY: shifted gradients.
Bytes frameData(const Recording& r, uint32_t i) {
    static const Bytes noise = randomBytes(1 << 20, 7);
    Bytes frame(packing::packedSize(r.kind, r.width, r.height));
    if (r.content == kDepth) std::memcpy(frame.data(), realistic::depthFrame(r.width, r.height, i).data(), frame.size());
    if (r.content != kRamp && i >= 5 && i < 8) return randomBytes(frame.size(), i);
    for (size_t s = 0; r.content == kFloatRamp && s < frame.size() / 4; ++s) {
        const float value = 0.37f * float(s % r.width) + 1.13f * float(s / r.width) + 0.1f * float(i);
        std::memcpy(&frame[4 * s], &value, 4);
    }
    if (r.content == kFloatRamp || r.content == kDepth) return frame;
    for (size_t b = 0; b < frame.size(); ++b) {
        const size_t x = b / (r.kind == 0 ? 4 : 2) % r.width, y = b / (r.kind == 0 ? 4 : 2) / r.width;
        const uint8_t luma = uint8_t(x * 2 + i), colour[] = {luma, uint8_t(y * 3), uint8_t(x + y + 40), 255};
        if (r.kind == 0) frame[b] = colour[b % 4];
        else if (r.kind == 1) frame[b] = b % 2 ? luma : x % 2 ? uint8_t(100 + y) : uint8_t(60 + x / 2);  // U Y or V Y
        else frame[b] = uint8_t((b + 5 * i) / 16 + (noise[(b + 5 * i) % noise.size()] & 3));
    }
    return frame;
}
// Records frameData into `out` and returns the bytes the encoder gave.
uint64_t record(const Recording& r, FILE* out) {
    Pipe pipe(ZOHW_CreateEncoder(r.kind, r.codec, r.lossless, r.width, r.height, r.bitrate, r.fps), &ZOHW_Destroy);
    EXPECT_TRUE(pipe) << ZOHW_GetError(nullptr);
    uint64_t total = 0, size = 0;
    uint32_t metadata[64] = {};
    for (uint32_t i = 0; pipe && i < r.frames; total += size, ++i) {
        metadata[0] = i;
        const Bytes frame = frameData(r, i);
        EXPECT_EQ(ZOHW_Encode_And_Store(pipe.get(), out, &size, frame.data(), packing::tightPitch(r.kind, r.width),
                                        1000 * i, metadata, 64), 0u);
    }
    if (pipe) ZOHW_CloseQRVContainer(pipe.get(), out);
    return total;
}
// PSNR over the colour channels (BGR of BGRA, all of UYVY).
double psnr(const Bytes& a, const Bytes& b, uint32_t kind) {
    double sum = 0, count = 0;
    for (size_t i = 0; i < a.size() && a.size() == b.size(); ++i)
        if (kind != 0 || i % 4 != 3) sum += (a[i] - b[i]) * (a[i] - b[i]), ++count;
    return count == 0 ? 0 : sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * count / sum);
}
bool missingLibrary(uint32_t codec) { return codec == 0 ? !X264Encoder::library() : !SwEncoder::library(); }
class SwEncoding : public testing::TestWithParam<std::tuple<Recording, uint32_t>> {
protected:
    void SetUp() override {
        if (missingLibrary(0) || missingLibrary(1)) GTEST_SKIP() << "libx264 or libx265 is not installed";
        setenv("ZOQRV_ENCODER", "software", 1);
    }
    // The parameter's recording, by the parameter's codec.
    static Recording recording() {
        Recording r = std::get<0>(GetParam());
        r.codec = std::get<1>(GetParam());
        return r;
    }
};

}  // namespace

// Even and odd sizes, three GOPs (4 frames each at 8 frames/s), then seeks; the exported stream,
// decoded by ffmpeg, gives the library's pictures. Lossless coding of a colour kind leaves only the
// 4:2:0 conversion: rounding to 8-bit codes and chroma shared by 2 x 2 pixels of smooth gradients,
// 46.8 dB; an odd width loses more, since the YUYV of the software decoder has no V for its last
// column: 37.4 dB. A floor of 35 dB still fails a wrong matrix or swapped chroma (< 30 dB).
TEST_P(SwEncoding, LosslessRecordingsComeBackInOrderAndAfterSeeksAndAsFfmpegDecodesTheExport) {
    const Recording r = recording();
    const std::string dir = makeTestDirectory(), qrv = dir + "/file.qrv", hevc = dir + (r.codec ? "/file.hevc" : "/file.h264");
    // Odd sizes are coded padded to even ones, which ffmpeg shows whole.
    const uint32_t width = packing::pictureWidth(r.kind, r.width);
    const HevcStream exported{qrv, dir + "/file.yuv", width + width % 2, r.height + r.height % 2, r.frames};
    TestFile file(fopen(qrv.c_str(), "w+b"));
    record(r, file.get());
    fflush(file.get());
    ASSERT_EQ(runCommand(std::string(ZOQRV_BINARY_DIR) + "/tools/zoqrv export " + qrv + " " + hevc +
                         " && ffmpeg -nostdin -loglevel error -y -i " + hevc + " -pix_fmt yuv420p " + exported.yuvPath), 0);
    const std::vector<Bytes> pictures = exported.pictures();
    ASSERT_EQ(pictures.size(), r.frames);
    Pipe pipe = decoderPipe(r.kind, r.codec, width, r.height);
    const int start = 0;
    ASSERT_TRUE(pipe && ZOHW_StartDecoding(pipe.get(), &start) == 0 && ZOHW_CreateQRVTracker(pipe.get(), file.get()) == 0);
    Bytes yuyv(size_t(width) * r.height * 2), data(packing::packedSize(r.kind, r.width, r.height));
    uint32_t type = 99;
    // The next frame, unpacked as extract does, is frame i: its data, time, metadata and picture.
    const auto expectFrame = [&](uint32_t i, const char* how) {
        uint32_t number = 0, metadata[64];
        uint64_t time = 0;
        ASSERT_EQ(ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), yuyv.data(), &number, &time, &type, metadata), 0u);
        EXPECT_EQ(std::make_tuple(number, time, metadata[0]), std::make_tuple(i + 1, 1000u * i, i)) << how << " frame " << i;
        EXPECT_TRUE(packing::unpackYuyvOnHost(r.kind, yuyv.data(), width, data.data(), r.width, r.height));
        if (r.kind >= 2) EXPECT_EQ(data, frameData(r, i)) << how << " frame " << i;
        else EXPECT_GT(psnr(data, frameData(r, i), r.kind), 35.0) << how << " frame " << i;
        for (size_t y = 0; y < r.height; ++y)
            EXPECT_TRUE(std::equal(&yuyv[2 * y * width], &yuyv[2 * (y + 1) * width], &pictures[i][2 * y * exported.width]))
                << how << " frame " << i << " row " << y;
    };
    for (uint32_t i = 0; i < r.frames; ++i) {
        expectFrame(i, "in order,");
        EXPECT_EQ(type, i % 4 == 0 ? 3u : 0u) << "frame " << i;  // IDR every GOP, P between
    }
    for (uint32_t sample : {6u, 1u, 11u, 4u}) {
        ASSERT_EQ(ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), int32_t(sample)), 0u);
        expectFrame(sample, "after a seek,");
    }
    std::filesystem::remove_all(dir);
}
INSTANTIATE_TEST_SUITE_P(Kinds, SwEncoding, testing::Combine(testing::ValuesIn(std::vector<Recording>{
    {0, 64, 48, 12, 8, 1}, {0, 101, 75, 12, 8, 1}, {1, 64, 48, 12, 8, 1}, {2, 64, 48, 12, 8, 1}, {2, 70, 41, 12, 8, 1},
    {3, 64, 48, 12, 8, 1}, {3, 63, 47, 12, 8, 1}, {4, 40, 32, 12, 8, 1}, {4, 45, 31, 12, 8, 1}, {5, 32, 24, 12, 8, 1},
    {5, 29, 21, 12, 8, 1}, {5, 160, 120, 12, 8, 1, 0, kFloatRamp}, {4, 160, 120, 12, 8, 1, 0, kNoiseBurst},
    {4, 160, 120, 12, 8, 1, 0, kDepth}, {4, 81, 61, 12, 8, 1, 0, kDepth}}), testing::Values(0u, 1u)));

// `zoqrv record` killed (kill -9) after 5, 12 and 40 frames, once the file stops growing: info names the
// complete records and the torn tail (counted here by walking the layout), recover closes the file with
// checksums that verify passes, the records read back as the frames that went in, a changed byte fails verify.
TEST_F(SwEncoding, KilledRecorderLeavesRecordsThatRecoverReadBackAndVerify) {
    const Recording r{3, 64, 48, 0, 8, 1};
    const std::string dir = makeTestDirectory(), zoqrv = ZOQRV_BINARY_DIR "/tools/zoqrv ";
    for (uint32_t frames : {5u, 12u, 40u}) {
        SCOPED_TRACE(std::to_string(frames) + " frames");
        const std::string qrv = dir + "/killed" + std::to_string(frames) + ".qrv", closed = qrv + ".closed";
        int input[2];
        const pid_t recorder = pipe(input) == 0 ? fork() : -1;
        if (recorder == 0) {
            dup2(input[0], 0), close(input[1]);
            execl((zoqrv + "record").substr(0, zoqrv.size() - 1).c_str(), "zoqrv", "record", "--kind", "u8", "--size",
                  "64x48", "--fps", "8", "--lossless", "--codec", "hevc", qrv.c_str(), nullptr);
            _exit(127);
        }
        ASSERT_GT(recorder, 0);
        close(input[0]);
        for (uint32_t i = 0; i < frames; ++i) ASSERT_EQ(write(input[1], frameData(r, i).data(), 64 * 48), 64 * 48);
        for (uintmax_t size = 0, stable = 0; stable < 6; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
            const uintmax_t now = std::filesystem::exists(qrv) ? std::filesystem::file_size(qrv) : 0;
            stable = now == size ? stable + 1 : 0, size = now;
        }
        kill(recorder, SIGKILL), waitpid(recorder, nullptr, 0), close(input[1]);
        const Bytes bytes = readFile(qrv);
        size_t records = 0, end = kRecordingHeader2Bytes;  // after the recording header
        for (uint32_t payload = 0; end + 20 <= bytes.size() && (memcpy(&payload, &bytes[end + 16], 4), end + 20 + payload + 264 <= bytes.size());)
            end += 20 + payload + 264, ++records;
        ASSERT_GT(records, 0u) << "the recorder flushed no record";
        const std::string count = std::to_string(records), dropped = std::to_string(bytes.size() - end);
        std::string out;
        EXPECT_EQ(runCommand(zoqrv + "info " + qrv + " | head -1 && " + zoqrv + "recover " + qrv + " " + closed + " && " +
                             zoqrv + "verify " + closed, &out), 0);
        EXPECT_EQ(out, "unclosed recording: " + count + " complete records, " + dropped + " bytes after the last one\nrecovered " +
                           count + " records, dropped " + dropped + " bytes\n" + count + " records, 0 damaged\n");
        TestFile file(fopen(closed.c_str(), "rb"));
        const uint32_t width = packing::pictureWidth(r.kind, 64);
        Pipe pipe = decoderPipe(r.kind, 1, width, 48);
        const int start = 0;
        ASSERT_TRUE(pipe && ZOHW_StartDecoding(pipe.get(), &start) == 0 && ZOHW_CreateQRVTracker(pipe.get(), file.get()) == 0 &&
                    ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0) == 0);  // past the recording header
        Bytes yuyv(width * 48 * 2), data(64 * 48);
        uint64_t time = 0;
        for (uint32_t i = 0; i < records; ++i) {
            uint32_t number = 0, type = 0, metadata[64];
            ASSERT_EQ(ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), yuyv.data(), &number, &time, &type, metadata), 0u);
            EXPECT_TRUE(packing::unpackYuyvOnHost(r.kind, yuyv.data(), width, data.data(), 64, 48));
            EXPECT_EQ(std::make_tuple(number, time, metadata[0], data), std::make_tuple(i + 1, 125000u * i, i, frameData(r, i)));
        }
        Bytes damaged = readFile(closed);
        damaged[kRecordingHeader2Bytes + 20 + 10] ^= 1;  // in record 0's payload
        fwrite(damaged.data(), 1, damaged.size(), TestFile(fopen(closed.c_str(), "wb")).get());
        out.clear();
        EXPECT_EQ(runCommand(zoqrv + "verify " + closed, &out), 1);
        EXPECT_EQ(out, "record 0: damaged\n" + count + " records, 1 damaged\n");
    }
    std::filesystem::remove_all(dir);
}
TEST_F(SwEncoding, CbrOfThreeHundredFramesMeetsTheBitrateWithinTenPercent) {
    for (const uint32_t codec : {0u, 1u}) {
        for (const uint64_t bitrate : {500000ull, 1000000ull}) {
            const Recording r{3, 160, 120, 300, 30, 0, bitrate, kRamp, codec};
            const double bitsPerSecond = double(record(r, openBytes({}).get())) * 8 / (r.frames / double(r.fps));
            EXPECT_NEAR(bitsPerSecond, double(bitrate), 0.1 * bitrate) << "codec " << codec;
        }
        for (const uint32_t width : {8u, 24u})  // VBV > picture
            record({4, width, 8, 10, 30, 0, 8000000, kNoiseBurst, codec}, openBytes({}).get());
    }
}
TEST_F(SwEncoding, ZoqrvEncoderChoosesOrFailsWithAText) {
    const char* const unsupported = "unsupported hardware or codec for encoding";
    // An empty text: a pipe with the software encoder of the codec ("auto": without NVENC here; a GPU
    // machine may give NVENC). The library names pick the codec's encoder, not their own.
    const std::tuple<const char*, uint32_t, const char*> cases[] = {
        {"software", 1, ""}, {"software", 0, ""}, {"auto", 1, ""}, {"auto", 0, ""}, {"x265", 0, ""}, {"x264", 1, ""},
        {"software", 7, unsupported}, {"X265", 1, "ZOQRV_ENCODER must be nvenc, auto, software, x264 or x265"}};
    for (const auto& [value, codec, text] : cases) {
        setenv("ZOQRV_ENCODER", value, 1);
        Pipe pipe(ZOHW_CreateEncoder(4, codec, 1, 32, 16, 0, 30), &ZOHW_Destroy);
        ASSERT_EQ(bool(pipe), !*text) << value << " codec " << codec;
        EXPECT_STREQ(pipe ? "" : ZOHW_GetError(nullptr), text);
        EXPECT_TRUE(!pipe || std::string(value) == "auto" ||
                    (codec == 0 ? bool(dynamic_cast<X264Encoder*>(pipe->encoder.get()))
                                : bool(dynamic_cast<SwEncoder*>(pipe->encoder.get())))) << value << " codec " << codec;
    }
    EXPECT_EQ(defaultRecordingCodec(), 0u);  // "software"
}
// Picture types by NVENC's numbering, forced intra and IDR frames as asked, from both encoders.
TEST_F(SwEncoding, PictureTypesFollowGopForcedIntraAndKeyFrameRequests) {
    const Bytes frame = frameData({3, 32, 16, 0, 30, 0}, 0);
    for (const uint32_t codec : {0u, 1u}) {
        const char* failure = nullptr;
        std::unique_ptr<Encoder> encoder = createChosenEncoder(3, codec, 0, 200000, 32, 16, 4, &failure);
        std::vector<uint32_t> types;
        for (uint32_t i = 0, type = 99; encoder && i < 7; types.push_back(type), ++i) {
            if (i == 5) encoder->requestKeyFrame();
            EXPECT_GT(encoder->encode(frame.data(), 32, 32, 16, &type, i == 2), 0u);
        }
        EXPECT_EQ(types, std::vector<uint32_t>({3, 0, 2, 0, 3, 3, 0})) << "codec " << codec;  // GOP of 4
    }
}
// ZOHW_Encode fails noise frames of 32-bit samples (over its w x h x 4 bytes); the encoder had them as references,
// so the next frame is an IDR with parameter sets, and ffmpeg decodes every frame that came out bit for bit.
TEST_F(SwEncoding, FramesThatFailSpoilNoFrameAfterThem) {
    for (const uint32_t codec : {0u, 1u}) {
        const Recording r{5, 32, 24, 10, 12, 1, 0, kNoiseBurst};  // an IDR every 6 frames
        const AnnexBCodec annexB = codec ? AnnexBCodec::Hevc : AnnexBCodec::H264;
        const std::string dir = makeTestDirectory(), hevc = dir + (codec ? "/out.hevc" : "/out.h264");
        Pipe pipe(ZOHW_CreateEncoder(r.kind, codec, 1, r.width, r.height, 0, r.fps), &ZOHW_Destroy);
        Bytes stream, out(r.width * r.height * 4);
        uint64_t size = 0;
        for (uint32_t i = 0; pipe && i < r.frames; ++i) {
            const std::string text =
                ZOHW_Encode(pipe.get(), &size, frameData(r, i).data(), r.width * 4, out.data()) ? ZOHW_GetError(pipe.get()) : "";
            EXPECT_EQ(text, i >= 5 && i < 8 ? "Encode output buffer overflow" : "") << "frame " << i;
            EXPECT_TRUE(i != 8 || (annexBDetectCodec(out.data(), size) == annexB &&
                                   annexBHasRandomAccessPicture(out.data(), size, annexB))) << "codec " << codec;
            if (text.empty()) stream.insert(stream.end(), out.begin(), out.begin() + long(size));
        }
        std::ofstream(hevc, std::ios::binary).write(reinterpret_cast<const char*>(stream.data()), long(stream.size()));
        const HevcStream decoded{"", dir + "/out.yuv", 4 * r.width, r.height, r.frames};
        ASSERT_EQ(runCommand("ffmpeg -nostdin -loglevel error -y -i " + hevc + " -pix_fmt yuv420p " + decoded.yuvPath), 0);
        const std::vector<Bytes> pictures = decoded.yuv420Frames();
        ASSERT_EQ(pictures.size(), r.frames - 3);
        for (uint32_t k = 0, i = 0; k < pictures.size(); ++k, i = k < 5 ? k : k + 3)  // frames 5-7 failed
            EXPECT_TRUE(packing::unpackOnHost(r.kind, pictures[k].data(), 4 * r.width, out.data(), r.width, r.height) &&
                        out == frameData(r, i)) << "codec " << codec << " frame " << i;
        std::filesystem::remove_all(dir);
    }
}
