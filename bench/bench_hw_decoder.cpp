// Hardware decoding speed on a GPU: frames per second of ZOHW_DecodeFrameAndMetadata on a
// hardware pipe (8-bit data into device memory, so no download is timed) against
// `ffmpeg -hwaccel cuda` decoding the same elementary stream to nowhere, timed in this
// process. The pipe's counter vs_ffmpeg is the ratio of the two (target: at least 0.8), and
// vs_software its ratio to the software path (libde265, as a software pipe drives it, into host
// memory) on the same records.
//
// Data: scripts/make-test-data.sh DIR build/tools/zoqrv bench, then run with
// ZOQRV_BENCH_DATA=DIR (default: bench-data in the working directory).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "codec/SwDecoder.h"
#include "device/device_api.h"
#include "zo_qrv64.h"

namespace {

struct BenchStream {
    const char* name;
    uint32_t width, height, frames;
};
constexpr BenchStream kStreams[] = {{"bench_640x480", 640, 480, 120}, {"bench_1920x1080", 1920, 1080, 60}};

std::string dataPath(const BenchStream& s, const char* extension) {
    const char* dir = std::getenv("ZOQRV_BENCH_DATA");
    return std::string(dir && *dir ? dir : "bench-data") + "/" + s.name + extension;
}

std::map<std::string, double> ffmpegFps, softwareFps;  // by stream, measured first

// Times each iteration of `pass` (which decodes `frames` frames) and reports frames per second.
template <typename Pass>
double timeFrames(benchmark::State& state, double frames, Pass pass) {
    double seconds = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (!pass()) {
            state.SkipWithError("decoding failed");
            return 0;
        }
        const double taken = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(taken);
        seconds += taken;
    }
    const double fps = seconds > 0 ? frames * double(state.iterations()) / seconds : 0;
    state.counters["fps"] = fps;
    return fps;
}

void ffmpegDecode(benchmark::State& state, BenchStream s) {
    const std::string command = "ffmpeg -nostdin -v error -hwaccel cuda -i '" + dataPath(s, ".hevc") + "' -f null -";
    ffmpegFps[s.name] = timeFrames(state, s.frames, [&] { return std::system(command.c_str()) == 0; });
}

void softwareDecode(benchmark::State& state, BenchStream s) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(dataPath(s, ".qrv").c_str(), "rb"), &fclose);
    SwDecoder decoder(s.width, s.height, 0, 1);  // HEVC
    if (!file || !decoder.isReady() || !decoder.readIndex(file.get())) {
        state.SkipWithError("no software decoder on the stream (data missing)");
        return;
    }
    std::vector<uint8_t> picture(size_t(s.width) * s.height * 2);
    uint8_t sampleInfo[264];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t captureTime = 0;
    // The records the hardware pass decodes.
    softwareFps[s.name] = timeFrames(state, s.frames - 1, [&] {
        bool ok = decoder.seekToSample(file.get(), 0);
        for (uint32_t i = 0; ok && i + 1 < s.frames; ++i)
            ok = decoder.decodeNextRecord(file.get(), picture.data(), &frameNumber, &captureTime, &frameType, sampleInfo,
                                          s.width, s.height, true);
        return ok;
    });
}

void pipeDecode(benchmark::State& state, BenchStream s) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(dataPath(s, ".qrv").c_str(), "rb"), &fclose);
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(ZOHW_CreateDecoder(3, 1, s.width, s.height, 0), &ZOHW_Destroy);
    if (!file || !pipe || ZOHW_GetDecoderType(pipe.get()) != 1 || ZOHW_CreateQRVTracker(pipe.get(), file.get()) != 0) {
        state.SkipWithError("no hardware pipe on the stream (no GPU, or data missing)");
        return;
    }
    void* frame = nullptr;
    device::api().allocate(&frame, size_t(s.width) * s.height);
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t captureTime = 0;
    // One pass over the records that sequential reading delivers: all but the last.
    const double fps = timeFrames(state, s.frames - 1, [&] {
        bool ok = ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0) == 0;
        for (uint32_t i = 0; ok && i + 1 < s.frames; ++i)
            ok = ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), frame, &frameNumber, &captureTime, &frameType,
                                             metadata) == 0;
        return ok;
    });
    device::api().free(frame);
    if (ffmpegFps[s.name] > 0) state.counters["vs_ffmpeg"] = fps / ffmpegFps[s.name];
    if (softwareFps[s.name] > 0) state.counters["vs_software"] = fps / softwareFps[s.name];
}

const bool registered = [] {
    for (const BenchStream& s : kStreams) {
        benchmark::RegisterBenchmark((std::string("FfmpegHwaccelCuda/") + s.name).c_str(), ffmpegDecode, s)
            ->UseManualTime()->Iterations(5);
        benchmark::RegisterBenchmark((std::string("SoftwareDecode/") + s.name).c_str(), softwareDecode, s)
            ->UseManualTime()->Iterations(5);
        benchmark::RegisterBenchmark((std::string("PipeDecode/") + s.name).c_str(), pipeDecode, s)
            ->UseManualTime()->Iterations(5);
    }
    return true;
}();

}  // namespace
