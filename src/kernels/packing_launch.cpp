#include "kernels/packing.h"

#include <cstring>
#include <vector>

#include "codec/Exception.h"
#include "device/device_api.h"
#include "kernels/colour_reference.h"

namespace packing {
namespace {

using device::CopyKind;
using device::PackingKernel;

bool encodeKernel(uint32_t code, PackingKernel& kernel) {
    switch (code) {
    case kUyvy: kernel = PackingKernel::UyvyToNv12; return true;
    case kUint4: kernel = PackingKernel::Uint4ToNv12; return true;
    case kUint8: kernel = PackingKernel::Uint8ToNv12; return true;
    case kUint16: kernel = PackingKernel::Uint16ToNv12; return true;
    case kUint32: kernel = PackingKernel::Uint32ToNv12; return true;
    default: return false;
    }
}

bool decodeKernel(uint32_t code, PackingKernel& kernel) {
    switch (code) {
    case kUyvy: kernel = PackingKernel::Nv12ToUyvy; return true;
    case kUint4: kernel = PackingKernel::Nv12ToUint4; return true;
    case kUint8: kernel = PackingKernel::Nv12ToUint8; return true;
    case kUint16: kernel = PackingKernel::Nv12ToUint16; return true;
    case kUint32: kernel = PackingKernel::Nv12ToUint32; return true;
    default: return false;
    }
}

// Frees and reallocates when too small or when an earlier allocation failed; returns the
// allocation's result (0 when kept). The freed pointer is cleared before the allocation, so a
// failure leaves no dangling pointer to be used or freed again.
int grow(StagingBuffer& staging, uint32_t size) {
    const device::Api& api = device::api();
    if (staging.ptr && staging.capacity >= size) return 0;
    if (staging.ptr) api.free(staging.ptr);
    staging.ptr = nullptr;
    staging.capacity = size;
    return api.allocate(&staging.ptr, size);
}

}  // namespace

void growEncoderStaging(StagingBuffer& staging, uint32_t size) {
    checkCudaRuntime(grow(staging, size), "Failed to allocate temporary device memory");
}

int growDecoderStaging(StagingBuffer& staging, uint32_t size) { return grow(staging, size); }

void launchPackForEncode(uint32_t code, const void* src, uint32_t srcPitch, void* frame,
                         uint32_t framePitch, uint32_t width, uint32_t height,
                         StagingBuffer& staging) {
    PackingKernel kernel;
    if (!encodeKernel(code, kernel)) return;
    const device::Api& api = device::api();
    const void* source = src;
    uint32_t sourcePitch = srcPitch;
    if (!api.isDevicePointer(src)) {
        // Departure from the flat copy: host rows are staged with a 2-D copy that honours the
        // caller's pitch, and the kernel reads the staged rows with the tight pitch. A flat copy
        // read with a wider pitch would make the kernel read past the staging buffer, an illegal
        // address that ends the CUDA context.
        const uint32_t tight = tightPitch(code, width);
        growEncoderStaging(staging, packedSize(code, width, height));
        api.copy2D(staging.ptr, tight, src, srcPitch, tight, height, CopyKind::HostToDevice);
        source = staging.ptr;
        sourcePitch = tight;
    }
    api.launchPacking({kernel, encodeGeometry(width, height), source, sourcePitch, frame, framePitch, width,
                       height});
}

void copyColourForEncode(const void* src, uint32_t srcPitch, void* frame, uint32_t framePitch,
                         uint32_t width, uint32_t height) {
    const device::Api& api = device::api();
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    // Departure: rows go at the input frame's own pitch. A destination pitch of 4 · width
    // shears the picture whenever the driver pads the frame's rows.
    api.copy2D(frame, framePitch, src, srcPitch, rowBytes, height,
               api.isDevicePointer(src) ? CopyKind::DeviceToDevice : CopyKind::HostToDevice);
}

uint32_t launchUnpackForDecode(uint32_t code, const void* frame, uint32_t framePitch, void* out,
                               uint32_t width, uint32_t height, StagingBuffer& staging) {
    PackingKernel kernel;
    const bool packed = decodeKernel(code, kernel);
    if (!packed && code != kColour32) return 0;
    const device::Api& api = device::api();
    const uint32_t size = packedSize(code, width, height);
    const bool staged = !api.isDevicePointer(out);
    // Departure: a staging buffer that cannot be allocated fails the call. The kernel would write
    // through a null pointer: a sticky error that ends the context of every pipe in the process.
    if (staged && growDecoderStaging(staging, size) != 0) return 0;
    void* destination = staged ? staging.ptr : out;
    int result = 0;
    if (packed) {
        const uint32_t pitch = tightPitch(code, width);
        result = api.launchPacking({kernel, decodeGeometry(code, width, height), frame, framePitch, destination,
                                    pitch, width, height});
        // 4-bit rows of odd width leave the packed size's last bytes unwritten: clear them so that
        // no stale device memory reaches the caller.
        const uint32_t written = pitch * height;
        if (!result && size > written) result = api.fill(static_cast<uint8_t*>(destination) + written, 0, size - written);
    } else {
        // The decoded frame reaches the colour conversion tightly packed, pitch = width.
        result = api.nv12ToBgra(static_cast<const uint8_t*>(frame), static_cast<int>(width),
                                static_cast<uint8_t*>(destination), static_cast<int>(width * 4),
                                static_cast<int>(width), static_cast<int>(height), 0);
    }
    // Departure: the result goes out only once the kernel has run, and only when it did. The host
    // may read a device destination at once, on a stream or context of its own.
    if (!result) result = staged ? api.copy(out, staging.ptr, size, CopyKind::DeviceToHost) : api.streamSynchronize(nullptr);
    return result ? 0 : size;
}

bool packOnHost(uint32_t code, const void* src, uint32_t srcPitch, uint8_t* frame, uint32_t framePitch,
                uint32_t width, uint32_t height) {
    if (code == kColour32) {
        Bgra32ToNv12_fast(static_cast<const uint8_t*>(src), static_cast<int>(srcPitch), frame,
                               static_cast<int>(framePitch), static_cast<int>(width), static_cast<int>(height), 0);
        return true;
    }
    PackingKernel kernel;
    if (!encodeKernel(code, kernel)) return false;
    device::runPackingOnHost({kernel, encodeGeometry(width, height), src, srcPitch, frame, framePitch, width, height});
    return true;
}

bool unpackOnHost(uint32_t code, const uint8_t* frame, uint32_t framePitch, void* out, uint32_t width,
                  uint32_t height) {
    if (code == kColour32) {
        Nv12ToColor32_reference(frame, static_cast<int>(framePitch), static_cast<uint8_t*>(out),
                                static_cast<int>(width * 4), static_cast<int>(width), static_cast<int>(height), 0);
        return true;
    }
    PackingKernel kernel;
    if (!decodeKernel(code, kernel)) return false;
    device::runPackingOnHost({kernel, decodeGeometry(code, width, height), frame, framePitch, out,
                              tightPitch(code, width), width, height});
    return true;
}

uint32_t nv12Pitch(uint32_t width) { return width + (width & 1); }

size_t nv12Bytes(uint32_t width, uint32_t height) { return size_t(nv12Pitch(width)) * (height + (height + 1) / 2); }

void nv12FromYuyv(const uint8_t* yuyv, uint32_t width, uint32_t height, uint8_t* nv12) {
    const size_t pitch = nv12Pitch(width);
    uint8_t* chroma = nv12 + pitch * height;
    for (size_t r = 0; r < height; ++r) {
        const uint8_t* row = yuyv + r * 2 * width;
        for (size_t x = 0; x < width; ++x) nv12[r * pitch + x] = row[2 * x];
        if (r % 2) continue;
        // Pair p is Y U Y V at bytes 4p to 4p + 3.
        uint8_t* pairs = chroma + r / 2 * pitch;
        for (size_t x = 0; x < width; ++x) pairs[x] = row[2 * (x & ~size_t(1)) + 1 + 2 * (x & 1)];
        if (width & 1) pairs[width] = 128;
    }
}

void nv12FromPlanes(const uint8_t* const planes[3], const int strides[3], uint32_t width, uint32_t height,
                    uint8_t* nv12) {
    const size_t pitch = nv12Pitch(width);
    for (size_t r = 0; r < height; ++r) std::memcpy(nv12 + r * pitch, planes[0] + r * size_t(strides[0]), width);
    uint8_t* chroma = nv12 + pitch * height;
    for (size_t r = 0; r < (height + 1) / 2; ++r)
        for (size_t x = 0; x < (width + 1) / 2; ++x) {
            chroma[r * pitch + 2 * x] = planes[1][r * size_t(strides[1]) + x];
            chroma[r * pitch + 2 * x + 1] = planes[2][r * size_t(strides[2]) + x];
        }
}

bool unpackYuyvOnHost(uint32_t code, const uint8_t* yuyv, uint32_t pictureWidth, void* out, uint32_t width,
                      uint32_t height) {
    std::vector<uint8_t> nv12(nv12Bytes(pictureWidth, height));
    nv12FromYuyv(yuyv, pictureWidth, height, nv12.data());
    return unpackOnHost(code, nv12.data(), nv12Pitch(pictureWidth), out, width, height);
}

}  // namespace packing
