// Software encoding speed: frames per second through ZOHW_Encode_And_Store with
// ZOQRV_ENCODER=x265, against libx265 encoding the same frames, already in its I420 planes,
// with the same settings in the same process, the two taking turns frame by frame. Cases:
// 640 x 480 16-bit lossless and 1920 x 1080 BGRA at 8 Mbit/s CBR, 30 frames/s.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include "codec/SwEncoder.h"
#include "kernels/packing.h"
#include "zo_qrv64.h"

namespace {

struct Case {
    uint32_t kind, width, height, lossless;
    uint64_t bitrate;
};
constexpr Case kCases[] = {{4, 640, 480, 1, 0}, {0, 1920, 1080, 0, 8000000}};
constexpr uint32_t kFrameRate = 30;
constexpr int kFrames = 8;  // a moving pattern, cycled

std::vector<std::vector<uint8_t>> makeFrames(const Case& c) {
    std::vector<std::vector<uint8_t>> frames(kFrames);
    const uint32_t bytes = packing::packedSize(c.kind, c.width, c.height);
    for (int i = 0; i < kFrames; ++i) {
        frames[i].resize(bytes);
        for (uint32_t b = 0; b < bytes; ++b) frames[i][b] = uint8_t((b % 4096) / 8 + 3 * i + (b * 2654435761u >> 29));
    }
    return frames;
}

// libx265 set up as the library sets it up, fed the library's own NV12 pictures already in
// its I420 planes.
struct Libx265 {
    explicit Libx265(const Case& c) : api(SwEncoder::library()) {
        if (!api) return;
        const uint32_t w = packing::pictureWidth(c.kind, c.width), h = c.height;  // even sizes here
        param = api->param_alloc();
        SwEncoder::configure(*api, param, c.lossless, c.bitrate, w, h, kFrameRate);
        encoder = api->encoder_open(param);
        for (const auto& frame : makeFrames(c)) {
            std::vector<uint8_t> nv12(packing::nv12Bytes(w, h)), i420(size_t(w) * h * 3 / 2);
            packing::packOnHost(c.kind, frame.data(), packing::tightPitch(c.kind, c.width), nv12.data(), w, c.width, h);
            std::copy(nv12.begin(), nv12.begin() + size_t(w) * h, i420.begin());
            for (size_t i = 0; i < size_t(w) * h / 4; ++i) {
                i420[size_t(w) * h + i] = nv12[size_t(w) * h + 2 * i];
                i420[size_t(w) * h * 5 / 4 + i] = nv12[size_t(w) * h + 2 * i + 1];
            }
            planes.push_back(std::move(i420));
        }
        api->picture_init(param, &picture);
        picture.stride[0] = int(w);
        picture.stride[1] = picture.stride[2] = int(w / 2);
        lumaBytes = size_t(w) * h;
    }
    ~Libx265() {
        if (encoder) api->encoder_close(encoder);
        if (param) api->param_free(param);
    }
    void encode(size_t n) {
        uint8_t* base = planes[n % kFrames].data();
        picture.planes[0] = base;
        picture.planes[1] = base + lumaBytes;
        picture.planes[2] = base + lumaBytes * 5 / 4;
        x265_nal* nals;
        uint32_t count;
        x265_picture out;
        api->encoder_encode(encoder, &nals, &count, &picture, &out);
    }
    const x265_api* api;
    x265_param* param = nullptr;
    x265_encoder* encoder = nullptr;
    std::vector<std::vector<uint8_t>> planes;
    x265_picture picture;
    size_t lumaBytes = 0;
};

// The library and libx265 alone encode in turns, one frame each, so that a busy machine slows
// both alike; `ratio` is the library's frame rate over libx265's.
void BM_SoftwareEncoding(benchmark::State& state) {
    const Case& c = kCases[state.range(0)];
    setenv("ZOQRV_ENCODER", "x265", 1);
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(
        ZOHW_CreateEncoder(c.kind, 1, c.lossless, c.width, c.height, c.bitrate, kFrameRate), &ZOHW_Destroy);
    Libx265 alone(c);
    if (!pipe || !alone.encoder) return state.SkipWithError("no software encoder (libx265 missing?)");
    FILE* sink = std::fopen("/dev/null", "wb");
    const auto frames = makeFrames(c);
    const uint32_t metadata[64] = {};
    uint64_t size = 0;
    size_t n = 0;
    std::chrono::duration<double> library{0}, libx265{0};
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        ZOHW_Encode_And_Store(pipe.get(), sink, &size, frames[n % kFrames].data(), packing::tightPitch(c.kind, c.width),
                              n, metadata, 64);
        const auto between = std::chrono::steady_clock::now();
        alone.encode(n++);
        const auto end = std::chrono::steady_clock::now();
        library += between - start;
        libx265 += end - between;
    }
    std::fclose(sink);
    state.counters["library_fps"] = double(n) / library.count();
    state.counters["libx265_fps"] = double(n) / libx265.count();
    state.counters["ratio"] = libx265.count() / library.count();
}

}  // namespace

BENCHMARK(BM_SoftwareEncoding)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
