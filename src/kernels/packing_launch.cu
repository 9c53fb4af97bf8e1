#include "kernels/packing.h"

#include "codec/Exception.h"
#include "kernels/colour.h"
#include "kernels/packing_kernels.cuh"

#include <cuda_runtime.h>

namespace packing {
namespace {

using PackingKernel = void (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int,
                               unsigned int, unsigned int);

PackingKernel encodeKernel(uint32_t code) {
    switch (code) {
    case kUyvy: return uyvy_to_nv12;
    case kUint4: return uint4_to_nv12;
    case kUint8: return uint8_to_nv12;
    case kUint16: return uint16_to_nv12;
    case kUint32: return uint32_to_nv12;
    default: return nullptr;
    }
}

PackingKernel decodeKernel(uint32_t code) {
    switch (code) {
    case kUyvy: return nv12_to_uyvy;
    case kUint4: return nv12_to_uint4;
    case kUint8: return nv12_to_uint8;
    case kUint16: return nv12_to_uint16;
    case kUint32: return nv12_to_uint32;
    default: return nullptr;
    }
}

// A configuration that cannot be pushed skips the kernel; launch errors are not examined.
void launch(PackingKernel kernel, const LaunchGeometry& geometry, const void* src, uint32_t srcPitch,
            void* dst, uint32_t dstPitch, uint32_t width, uint32_t height) {
    kernel<<<dim3(geometry.gridX, geometry.gridY, 1), dim3(geometry.blockX, geometry.blockY, 1)>>>(
        static_cast<const unsigned char*>(src), srcPitch, static_cast<unsigned char*>(dst), dstPitch,
        width, height);
}

// Frees and reallocates when too small; returns the cudaMalloc result (0 when kept).
cudaError_t grow(StagingBuffer& staging, uint32_t size) {
    if (staging.capacity >= size) return cudaSuccess;
    if (staging.ptr) cudaFree(staging.ptr);
    staging.capacity = size;
    return cudaMalloc(&staging.ptr, size);
}

}  // namespace

bool isDevicePointer(const void* pointer) {
    cudaPointerAttributes attributes{};
    if (cudaPointerGetAttributes(&attributes, pointer) != cudaSuccess) {
        cudaGetLastError();  // the failed query must not linger as the thread's last error
        return false;
    }
    return attributes.type == cudaMemoryTypeDevice;
}

void growEncoderStaging(StagingBuffer& staging, uint32_t size) {
    checkCudaRuntime(grow(staging, size), "Failed to allocate temporary device memory");
}

void growDecoderStaging(StagingBuffer& staging, uint32_t size) { grow(staging, size); }

void launchPackForEncode(uint32_t code, const void* src, uint32_t srcPitch, void* frame,
                         uint32_t framePitch, uint32_t width, uint32_t height,
                         StagingBuffer& staging) {
    const PackingKernel kernel = encodeKernel(code);
    if (!kernel) return;
    const void* source = src;
    if (!isDevicePointer(src)) {
        const uint32_t size = packedSize(code, width, height);
        growEncoderStaging(staging, size);
        cudaMemcpy(staging.ptr, src, size, cudaMemcpyHostToDevice);
        source = staging.ptr;
    }
    launch(kernel, encodeGeometry(width, height), source, srcPitch, frame, framePitch, width, height);
}

void copyColourForEncode(const void* src, uint32_t srcPitch, void* frame, uint32_t width,
                         uint32_t height) {
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    cudaMemcpy2D(frame, rowBytes, src, srcPitch, rowBytes, height,
                 isDevicePointer(src) ? cudaMemcpyDeviceToDevice : cudaMemcpyHostToDevice);
}

uint32_t launchUnpackForDecode(uint32_t code, const void* frame, uint32_t framePitch, void* out,
                               uint32_t width, uint32_t height, StagingBuffer& staging) {
    const PackingKernel kernel = decodeKernel(code);
    if (!kernel && code != kColour32) return 0;
    const uint32_t size = packedSize(code, width, height);
    void* destination = out;
    const bool staged = !isDevicePointer(out);
    if (staged) {
        growDecoderStaging(staging, size);
        destination = staging.ptr;
    }
    if (kernel) {
        launch(kernel, decodeGeometry(code, width, height), frame, framePitch, destination,
               tightPitch(code, width), width, height);
    } else {
        // The decoded frame reaches the colour conversion tightly packed, pitch = width.
        Nv12ToColor32(static_cast<unsigned char*>(const_cast<void*>(frame)), static_cast<int>(width),
                      static_cast<unsigned char*>(destination), static_cast<int>(width * 4),
                      static_cast<int>(width), static_cast<int>(height), 0);
    }
    if (staged) cudaMemcpy(out, staging.ptr, size, cudaMemcpyDeviceToHost);
    return size;
}

}  // namespace packing
