// Software encoding speed: frames per second through ZOHW_Encode_And_Store with
// ZOQRV_ENCODER=x265, against libx265 encoding the same frames, already in its I420 planes,
// with the same settings in the same process. Cases: 640 x 480 16-bit lossless and
// 1920 x 1080 BGRA at 8 Mbit/s CBR, 30 frames/s.
#include <benchmark/benchmark.h>

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

void BM_Library(benchmark::State& state) {
    const Case& c = kCases[state.range(0)];
    setenv("ZOQRV_ENCODER", "x265", 1);
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(
        ZOHW_CreateEncoder(c.kind, 1, c.lossless, c.width, c.height, c.bitrate, kFrameRate), &ZOHW_Destroy);
    if (!pipe) return state.SkipWithError("no software encoder (libx265 missing?)");
    FILE* sink = std::fopen("/dev/null", "wb");
    const auto frames = makeFrames(c);
    const uint32_t metadata[64] = {};
    uint64_t size = 0, n = 0;
    for (auto _ : state) {
        const auto& frame = frames[n % kFrames];
        ZOHW_Encode_And_Store(pipe.get(), sink, &size, frame.data(), packing::tightPitch(c.kind, c.width), n, metadata, 64);
        ++n;
    }
    std::fclose(sink);
    state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Libx265(benchmark::State& state) {
    const Case& c = kCases[state.range(0)];
    const x265_api* api = SwEncoder::library();
    if (!api) return state.SkipWithError("libx265 missing");
    const uint32_t w = packing::pictureWidth(c.kind, c.width), h = c.height;  // even sizes here
    x265_param* param = api->param_alloc();
    SwEncoder::configure(*api, param, c.lossless, c.bitrate, w, h, kFrameRate);
    x265_encoder* encoder = api->encoder_open(param);
    // The same pictures as the library encodes, converted before timing.
    std::vector<std::vector<uint8_t>> planes;
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
    x265_picture picture, out;
    api->picture_init(param, &picture);
    picture.stride[0] = int(w);
    picture.stride[1] = picture.stride[2] = int(w / 2);
    x265_nal* nals;
    uint32_t count;
    int n = 0;
    for (auto _ : state) {
        uint8_t* base = planes[n++ % kFrames].data();
        picture.planes[0] = base;
        picture.planes[1] = base + size_t(w) * h;
        picture.planes[2] = base + size_t(w) * h * 5 / 4;
        api->encoder_encode(encoder, &nals, &count, &picture, &out);
    }
    api->encoder_close(encoder);
    api->param_free(param);
    state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_Libx265)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Library)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
