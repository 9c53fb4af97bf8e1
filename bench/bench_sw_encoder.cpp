// Software encoding speed and size on realistic frames (realistic_frames.h): 640 x 480 16-bit
// depth lossless and 1920 x 1080 BGRA at 8 Mbit/s CBR, 30 frames/s.
//
// SoftwareEncoding/<case>/<codec>: frames per second through ZOHW_Encode_And_Store with
// ZOQRV_ENCODER=software, against the codec's library alone encoding the same frames, already in
// its I420 planes, with the same settings in the same process, the two taking turns frame by
// frame (`ratio` is the library's frame rate over the library alone's).
//
// Settings/<case>/<codec>/<preset>: the library alone with each preset, for the choice of
// settings: frames per second, bytes per frame, and for CBR libx264's PSNR.
//
// With ZOQRV_BENCH_DATA=DIR the library's recordings are kept as DIR/recorded_<case>_<codec>.qrv
// (played back by bench_sw_decoder) and the depth frames as DIR/depth_640x480.raw (for the
// comparison with PNG and zstd in docs/software-encoding.md).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "codec/SwEncoder.h"
#include "codec/X264Encoder.h"
#include "kernels/packing.h"
#include "realistic_frames.h"
#include "zo_qrv64.h"

namespace {

struct Case {
    const char* name;
    uint32_t kind, width, height, lossless;
    uint64_t bitrate;
    int generated;  // frames made, played forwards and backwards
};
constexpr Case kCases[] = {{"depth_640x480", 4, 640, 480, 1, 0, 60}, {"colour_1920x1080", 0, 1920, 1080, 0, 8000000, 16}};
constexpr uint32_t kFrameRate = 30;
constexpr uint32_t kH264 = 0, kHevc = 1;
const char* const kCodecNames[] = {"x264", "x265"};

using Frames = std::vector<std::vector<uint8_t>>;

const Frames& frames(const Case& c) {
    static Frames made[std::size(kCases)];  // by case: the benchmarks hold copies of them
    Frames& f = made[std::find_if(std::begin(kCases), std::end(kCases), [&c](const Case& k) { return k.name == c.name; }) - kCases];
    for (int i = int(f.size()); i < c.generated; ++i) {
        if (c.kind == packing::kColour32) {
            f.push_back(realistic::colourFrame(c.width, c.height, uint32_t(i)));
            continue;
        }
        const std::vector<uint16_t> depth = realistic::depthFrame(c.width, c.height, uint32_t(i));
        f.emplace_back(reinterpret_cast<const uint8_t*>(depth.data()), reinterpret_cast<const uint8_t*>(depth.data() + depth.size()));
    }
    return f;
}
// Frame n of the endless sequence: forwards, then backwards, so that motion never jumps.
const std::vector<uint8_t>& frame(const Case& c, size_t n) {
    const size_t period = 2 * size_t(c.generated) - 2, i = n % period;
    return frames(c)[i < size_t(c.generated) ? i : period - i];
}

// The frames as the library hands them to the encoder: I420 planes of the NV12 picture (even
// sizes here).
Frames i420Planes(const Case& c) {
    const uint32_t w = packing::pictureWidth(c.kind, c.width), h = c.height;
    Frames planes;
    std::vector<uint8_t> nv12(packing::nv12Bytes(w, h));
    for (const auto& data : frames(c)) {
        packing::packOnHost(c.kind, data.data(), packing::tightPitch(c.kind, c.width), nv12.data(), w, c.width, h);
        std::vector<uint8_t> i420(nv12.begin(), nv12.begin() + long(size_t(w) * h));
        i420.resize(size_t(w) * h * 3 / 2);
        for (size_t i = 0; i < size_t(w) * h / 4; ++i) {
            i420[size_t(w) * h + i] = nv12[size_t(w) * h + 2 * i];
            i420[size_t(w) * h * 5 / 4 + i] = nv12[size_t(w) * h + 2 * i + 1];
        }
        planes.push_back(std::move(i420));
    }
    return planes;
}

// One of the libraries alone, set up as the library sets it up (or with another preset), fed
// ready planes.
class Alone {
public:
    explicit Alone(const Case& c) : c(c), planes(i420Planes(c)), width(packing::pictureWidth(c.kind, c.width)) {}
    virtual ~Alone() = default;
    virtual bool ready() const = 0;
    // Encodes frame n; returns its bytes and adds its PSNR (when asked for) to psnrSum.
    virtual uint64_t encode(size_t n) = 0;
    double psnrSum = 0;

protected:
    uint8_t* plane(size_t n, int index) {
        const size_t period = 2 * size_t(c.generated) - 2, i = n % period, luma = size_t(width) * c.height;
        return planes[i < size_t(c.generated) ? i : period - i].data() + (index == 0 ? 0 : index == 1 ? luma : luma * 5 / 4);
    }
    int stride(int index) const { return int(index == 0 ? width : width / 2); }
    const Case& c;
    Frames planes;
    uint32_t width;
};

class Libx264 : public Alone {
public:
    Libx264(const Case& c, const char* preset, bool psnr) : Alone(c), api(X264Encoder::library()) {
        x264_param_t param;
        if (!api || !X264Encoder::configure(*api, &param, c.lossless, c.bitrate, width, c.height, kFrameRate, preset)) return;
        // libx264 measures PSNR only when it would log it; its log goes nowhere here.
        param.analyse.b_psnr = psnr;
        if (psnr) param.i_log_level = X264_LOG_INFO, param.pf_log = [](void*, int, const char*, va_list) {};
        encoder = api->encoderOpen(&param);
        api->pictureInit(&picture);
        picture.img.i_csp = X264_CSP_I420;
        picture.img.i_plane = 3;
    }
    ~Libx264() override {
        if (encoder) api->encoderClose(encoder);
    }
    bool ready() const override { return encoder; }
    uint64_t encode(size_t n) override {
        for (int i = 0; i < 3; ++i) picture.img.plane[i] = plane(n, i), picture.img.i_stride[i] = stride(i);
        picture.i_pts = int64_t(n);
        x264_nal_t* nals;
        int count;
        x264_picture_t out;
        const int bytes = api->encoderEncode(encoder, &nals, &count, &picture, &out);
        psnrSum += out.prop.f_psnr_avg;
        return uint64_t(std::max(bytes, 0));
    }

private:
    const X264Encoder::Api* api;
    x264_t* encoder = nullptr;
    x264_picture_t picture;
};

class Libx265 : public Alone {
public:
    // Without PSNR: libx265 gives none to the caller.
    Libx265(const Case& c, const char* preset) : Alone(c), api(SwEncoder::library()) {
        if (!api) return;
        param = api->param_alloc();
        if (!SwEncoder::configure(*api, param, c.lossless, c.bitrate, width, c.height, kFrameRate, preset)) return;
        encoder = api->encoder_open(param);
        api->picture_init(param, &picture);
    }
    ~Libx265() override {
        if (encoder) api->encoder_close(encoder);
        if (param) api->param_free(param);
    }
    bool ready() const override { return encoder; }
    uint64_t encode(size_t n) override {
        for (int i = 0; i < 3; ++i) picture.planes[i] = plane(n, i), picture.stride[i] = stride(i);
        x265_nal* nals;
        uint32_t count = 0;
        x265_picture out;
        api->encoder_encode(encoder, &nals, &count, &picture, &out);
        uint64_t bytes = 0;
        for (uint32_t i = 0; i < count; ++i) bytes += nals[i].sizeBytes;
        return bytes;
    }

private:
    const x265_api* api;
    x265_param* param = nullptr;
    x265_encoder* encoder = nullptr;
    x265_picture picture;
};

std::unique_ptr<Alone> alone(uint32_t codec, const Case& c, const char* preset = nullptr, bool psnr = false) {
    if (codec == kH264) return std::make_unique<Libx264>(c, preset, psnr);
    return std::make_unique<Libx265>(c, preset);
}

std::string benchData() {
    const char* dir = std::getenv("ZOQRV_BENCH_DATA");
    return dir && *dir ? dir : "";
}

// The library and its encoder alone take turns, one frame each, so that a busy machine slows
// both alike.
void softwareEncoding(benchmark::State& state, const Case& c, uint32_t codec) {
    setenv("ZOQRV_ENCODER", "software", 1);
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(
        ZOHW_CreateEncoder(c.kind, codec, c.lossless, c.width, c.height, c.bitrate, kFrameRate), &ZOHW_Destroy);
    const std::unique_ptr<Alone> baseline = alone(codec, c);
    if (!pipe || !baseline->ready()) return state.SkipWithError("no software encoder (libx264 or libx265 missing?)");
    const std::string dir = benchData();
    const std::string path = dir.empty() ? "/dev/null" : dir + "/recorded_" + c.name + "_" + kCodecNames[codec] + ".qrv";
    FILE* sink = std::fopen(path.c_str(), "wb");
    if (!sink) return state.SkipWithError(("cannot write " + path).c_str());
    const uint32_t metadata[64] = {};
    uint64_t size = 0, bytes = 0;
    size_t n = 0;
    std::chrono::duration<double> library{0}, libraryAlone{0};
    for (auto _ : state) {
        // Each goes first every other frame, so that neither gains from the other's caches.
        for (int turn = 0; turn < 2; ++turn) {
            const auto start = std::chrono::steady_clock::now();
            if ((turn + n) % 2 == 0) {
                if (ZOHW_Encode_And_Store(pipe.get(), sink, &size, frame(c, n).data(), packing::tightPitch(c.kind, c.width),
                                          n, metadata, 64) != 0)
                    return state.SkipWithError(ZOHW_GetError(pipe.get()));
                library += std::chrono::steady_clock::now() - start;
                bytes += size;
            } else {
                baseline->encode(n);
                libraryAlone += std::chrono::steady_clock::now() - start;
            }
        }
        ++n;
    }
    ZOHW_CloseQRVContainer(pipe.get(), sink);
    std::fclose(sink);
    state.counters["library_fps"] = double(n) / library.count();
    state.counters["alone_fps"] = double(n) / libraryAlone.count();
    state.counters["ratio"] = libraryAlone.count() / library.count();
    state.counters["bytes_per_frame"] = double(bytes) / double(n);
}

void settings(benchmark::State& state, const Case& c, uint32_t codec, const char* preset) {
    const std::unique_ptr<Alone> encoder = alone(codec, c, preset, !c.lossless);
    if (!encoder->ready()) return state.SkipWithError("no software encoder (libx264 or libx265 missing?)");
    uint64_t bytes = 0;
    size_t n = 0;
    for (auto _ : state) bytes += encoder->encode(n++);
    state.counters["fps"] = benchmark::Counter(double(n), benchmark::Counter::kIsRate);
    state.counters["bytes_per_frame"] = double(bytes) / double(n);
    if (!c.lossless && codec == kH264) state.counters["psnr"] = encoder->psnrSum / double(n);
}

const bool registered = [] {
    const std::string dir = benchData();
    if (!dir.empty()) {  // the depth frames, for PNG and zstd
        std::ofstream raw(dir + "/depth_640x480.raw", std::ios::binary);
        for (const auto& f : frames(kCases[0])) raw.write(reinterpret_cast<const char*>(f.data()), long(f.size()));
    }
    for (const Case& c : kCases) {
        const int iterations = c.kind == packing::kColour32 ? 150 : 300;
        for (uint32_t codec : {kH264, kHevc})
            benchmark::RegisterBenchmark((std::string("SoftwareEncoding/") + c.name + "/" + kCodecNames[codec]).c_str(),
                                         softwareEncoding, c, codec)
                ->Iterations(iterations)->Unit(benchmark::kMillisecond)->UseRealTime();
        for (uint32_t codec : {kH264, kHevc})
            for (const char* preset : {"ultrafast", "superfast", "veryfast", "faster", "fast", "medium"})
                benchmark::RegisterBenchmark(
                    (std::string("Settings/") + c.name + "/" + kCodecNames[codec] + "/" + preset).c_str(), settings, c,
                    codec, preset)
                    ->Iterations(iterations / 5)->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    return true;
}();

}  // namespace
