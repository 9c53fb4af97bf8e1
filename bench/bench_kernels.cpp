// Effective bandwidth (bytes read + written per second) of each packing kernel and of the
// NV12-to-BGRA conversion on 3840 × 2160 frames, next to a device-to-device cudaMemcpy that
// moves the same number of bytes in the same run. The counter vs_copy is copy time / kernel
// time; the target is at least 0.8.
#include "kernels/colour.h"
#include "kernels/packing.h"

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>

#include <cstdint>
#include <functional>

namespace {

constexpr uint32_t kWidth = 3840;
constexpr uint32_t kHeight = 2160;
constexpr int kLaunchesPerSample = 20;

bool haveDevice() {
    int devices = 0;
    if (cudaGetDeviceCount(&devices) != cudaSuccess || devices == 0) {
        cudaGetLastError();
        return false;
    }
    return true;
}

// GPU time of one run of `work`, averaged over back-to-back runs.
double gpuSeconds(const std::function<void()>& work) {
    cudaEvent_t start, stop;
    cudaEventCreate(&start);
    cudaEventCreate(&stop);
    cudaEventRecord(start);
    for (int i = 0; i < kLaunchesPerSample; ++i) work();
    cudaEventRecord(stop);
    cudaEventSynchronize(stop);
    float milliseconds = 0;
    cudaEventElapsedTime(&milliseconds, start, stop);
    cudaEventDestroy(start);
    cudaEventDestroy(stop);
    return milliseconds / 1000.0 / kLaunchesPerSample;
}

uint32_t lumaBytesPerPixel(uint32_t code) {
    return code == packing::kUint16 ? 2 : code == packing::kUint32 ? 4 : 1;
}

struct Traffic {
    uint64_t read, written;
};

uint64_t frameBytes(uint32_t code) {
    return uint64_t(kWidth) * lumaBytesPerPixel(code) * (kHeight + (kHeight + 1) / 2);
}

// Unique bytes each direction touches: the encode kernels write luma and zero (or fill) chroma.
Traffic encodeTraffic(uint32_t code) {
    return {packing::packedSize(code, kWidth, kHeight), frameBytes(code)};
}

Traffic decodeTraffic(uint32_t code) {
    const uint64_t luma = uint64_t(kWidth) * lumaBytesPerPixel(code) * kHeight;
    const uint64_t read = code == packing::kUyvy ? frameBytes(code) : luma;
    return {read, packing::packedSize(code, kWidth, kHeight)};
}

void runAgainstCopy(benchmark::State& state, const Traffic& traffic, const std::function<void()>& kernel) {
    const uint64_t moved = traffic.read + traffic.written;
    void* copySource = nullptr;
    void* copyDestination = nullptr;
    cudaMalloc(&copySource, moved / 2);
    cudaMalloc(&copyDestination, moved / 2);
    const auto copy = [&] { cudaMemcpy(copyDestination, copySource, moved / 2, cudaMemcpyDeviceToDevice); };
    kernel();  // warm-up
    copy();
    double kernelSeconds = 0, copySeconds = 0;
    for (auto _ : state) {
        const double seconds = gpuSeconds(kernel);
        state.SetIterationTime(seconds);
        kernelSeconds += seconds;
        copySeconds += gpuSeconds(copy);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(moved));
    state.counters["copy_bytes_per_second"] =
        benchmark::Counter(double(moved) * double(state.iterations()) / copySeconds);
    state.counters["vs_copy"] = copySeconds / kernelSeconds;
    cudaFree(copySource);
    cudaFree(copyDestination);
}

void BM_Pack(benchmark::State& state, uint32_t code) {
    if (!haveDevice()) return state.SkipWithError("no CUDA device");
    const uint32_t framePitch = kWidth * lumaBytesPerPixel(code);
    void* source = nullptr;
    void* frame = nullptr;
    cudaMalloc(&source, packing::packedSize(code, kWidth, kHeight));
    cudaMalloc(&frame, frameBytes(code));
    cudaMemset(source, 0x5A, packing::packedSize(code, kWidth, kHeight));
    packing::StagingBuffer staging;  // stays empty: device source
    runAgainstCopy(state, encodeTraffic(code), [&] {
        packing::launchPackForEncode(code, source, packing::tightPitch(code, kWidth), frame, framePitch, kWidth,
                                     kHeight, staging);
    });
    cudaFree(source);
    cudaFree(frame);
}

void BM_Unpack(benchmark::State& state, uint32_t code) {
    if (!haveDevice()) return state.SkipWithError("no CUDA device");
    const uint32_t framePitch = kWidth * lumaBytesPerPixel(code);
    void* frame = nullptr;
    void* out = nullptr;
    cudaMalloc(&frame, frameBytes(code));
    cudaMalloc(&out, packing::packedSize(code, kWidth, kHeight));
    cudaMemset(frame, 0x5A, frameBytes(code));
    packing::StagingBuffer staging;  // stays empty: device destination
    runAgainstCopy(state, decodeTraffic(code), [&] {
        packing::launchUnpackForDecode(code, frame, framePitch, out, kWidth, kHeight, staging);
    });
    cudaFree(frame);
    cudaFree(out);
}

void BM_Nv12ToColor32(benchmark::State& state) {
    if (!haveDevice()) return state.SkipWithError("no CUDA device");
    const uint64_t nv12Bytes = uint64_t(kWidth) * kHeight * 3 / 2;
    const uint64_t bgraBytes = uint64_t(kWidth) * kHeight * 4;
    uint8_t* nv12 = nullptr;
    uint8_t* bgra = nullptr;
    cudaMalloc(&nv12, nv12Bytes);
    cudaMalloc(&bgra, bgraBytes);
    cudaMemset(nv12, 0x80, nv12Bytes);
    runAgainstCopy(state, {nv12Bytes, bgraBytes},
                   [&] { Nv12ToColor32(nv12, kWidth, bgra, kWidth * 4, kWidth, kHeight, 0); });
    cudaFree(nv12);
    cudaFree(bgra);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Pack, uyvy_to_nv12, packing::kUyvy)->UseManualTime();
BENCHMARK_CAPTURE(BM_Pack, uint4_to_nv12, packing::kUint4)->UseManualTime();
BENCHMARK_CAPTURE(BM_Pack, uint8_to_nv12, packing::kUint8)->UseManualTime();
BENCHMARK_CAPTURE(BM_Pack, uint16_to_nv12, packing::kUint16)->UseManualTime();
BENCHMARK_CAPTURE(BM_Pack, uint32_to_nv12, packing::kUint32)->UseManualTime();
BENCHMARK_CAPTURE(BM_Unpack, nv12_to_uyvy, packing::kUyvy)->UseManualTime();
BENCHMARK_CAPTURE(BM_Unpack, nv12_to_uint4, packing::kUint4)->UseManualTime();
BENCHMARK_CAPTURE(BM_Unpack, nv12_to_uint8, packing::kUint8)->UseManualTime();
BENCHMARK_CAPTURE(BM_Unpack, nv12_to_uint16, packing::kUint16)->UseManualTime();
BENCHMARK_CAPTURE(BM_Unpack, nv12_to_uint32, packing::kUint32)->UseManualTime();
BENCHMARK(BM_Nv12ToColor32)->UseManualTime();
