// The device table on the host: heap blocks stand for device memory, a context stack for the
// driver's, and the packing launches run the kernels' CPU twins. What a GPU would refuse or
// fault on is recorded in hostDevice().faults instead of being done.
#include "device/device_api.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

#include "kernels/colour_reference.h"

namespace device {
namespace {

constexpr int kInvalidValue = 1;
constexpr int kOutOfMemory = 2;
constexpr int kIllegalAddress = 700;
constexpr uint8_t kStaleByte = 0xCD;

struct Allocation {
    size_t bytes;
    CUcontext context;  // current when it was made
};

struct HostState {
    std::map<uintptr_t, Allocation> allocations;  // by start
    std::array<unsigned, static_cast<size_t>(HostCall::Count)> failIn{};  // n: the n-th next call fails
    std::vector<CUcontext> contexts;  // the calling thread's stack; tests drive one thread
    std::vector<std::function<void()>> defaultStream;  // kernels launched and not yet run
};

HostState& state() {
    static HostState s;
    return s;
}

bool takeFailure(HostCall call) {
    unsigned& failIn = state().failIn[static_cast<size_t>(call)];
    return failIn && --failIn == 0;
}

CUcontext currentContext() { return state().contexts.empty() ? nullptr : state().contexts.back(); }

// Runs the kernels queued on the default stream, as waiting for it would.
void drainDefaultStream() {
    for (const auto& kernel : state().defaultStream) kernel();
    state().defaultStream.clear();
}

void defer(std::function<void()> kernel) {
    state().defaultStream.push_back(std::move(kernel));
    if (!hostDevice().deferKernels) drainDefaultStream();
}

// The allocation that holds `ptr`, or none.
const std::pair<const uintptr_t, Allocation>* allocationOf(const void* ptr) {
    const auto& allocations = state().allocations;
    const auto address = reinterpret_cast<uintptr_t>(ptr);
    auto it = allocations.upper_bound(address);
    if (it == allocations.begin()) return nullptr;
    --it;
    return address < it->first + it->second.bytes ? &*it : nullptr;
}

// Device memory of `extent` bytes from ptr; a fault (named `what`) otherwise. Nothing is
// accessed for an extent of 0.
bool deviceRange(const void* ptr, size_t extent, const char* what) {
    if (extent == 0) return true;
    const auto* allocation = allocationOf(ptr);
    if (allocation && reinterpret_cast<uintptr_t>(ptr) + extent <= allocation->first + allocation->second.bytes)
        return true;
    hostDevice().faults.push_back(std::string("illegal address: ") + what);
    return false;
}

size_t surfaceExtent(size_t pitch, size_t rows, size_t rowBytes) {
    return rows == 0 || rowBytes == 0 ? 0 : pitch * (rows - 1) + rowBytes;
}

bool copyRanges(void* dst, const void* src, size_t dstExtent, size_t srcExtent, CopyKind kind) {
    const bool sourceOk = kind == CopyKind::HostToDevice || deviceRange(src, srcExtent, "copy source");
    const bool destinationOk = kind == CopyKind::DeviceToHost || deviceRange(dst, dstExtent, "copy destination");
    return sourceOk && destinationOk;
}

int getCurrentContext(CUcontext* context) {
    *context = currentContext();
    return 0;
}
int setCurrentContext(CUcontext context) {
    auto& contexts = state().contexts;
    if (contexts.empty()) contexts.push_back(context);
    else contexts.back() = context;
    return 0;
}
int pushContext(CUcontext context) {
    if (takeFailure(HostCall::PushContext) || !context) return kInvalidValue;
    state().contexts.push_back(context);
    return 0;
}
int popContext() {
    if (takeFailure(HostCall::PopContext) || state().contexts.empty()) return kInvalidValue;
    state().contexts.pop_back();
    return 0;
}

// The primary context that the runtime makes current on first use.
int synchronize() {
    static int primaryContext;
    if (const int failure = hostDevice().runtimeFailure) return failure;
    if (state().contexts.empty()) state().contexts.push_back(reinterpret_cast<CUcontext>(&primaryContext));
    drainDefaultStream();
    return 0;
}

int checkKernels() {
    const HostDevice& device = hostDevice();
    return device.runtimeFailure ? device.runtimeFailure : device.noKernelImage ? kNoKernelImage : 0;
}

int allocate(void** ptr, size_t bytes) {
    if (takeFailure(HostCall::Allocate)) return kOutOfMemory;
    bytes = bytes ? bytes : 1;  // an empty allocation still has an address of its own
    void* block = std::malloc(bytes);
    if (!block) return kOutOfMemory;
    std::memset(block, kStaleByte, bytes);
    state().allocations[reinterpret_cast<uintptr_t>(block)] = {bytes, currentContext()};
    *ptr = block;
    return 0;
}

int freeMemory(void* ptr) {
    if (!ptr) return 0;
    auto& allocations = state().allocations;
    auto it = allocations.find(reinterpret_cast<uintptr_t>(ptr));
    if (it == allocations.end()) {
        hostDevice().faults.push_back("free of memory that is not allocated");
        return kInvalidValue;
    }
    if (it->second.context != currentContext()) {
        hostDevice().faults.push_back("device memory freed outside the context it was allocated in");
        return kInvalidValue;
    }
    drainDefaultStream();
    allocations.erase(it);
    std::free(ptr);
    return 0;
}

// Rows padded to a multiple of 512 bytes, as a GPU's pitched allocations are.
int allocatePitch(CUdeviceptr* ptr, size_t* pitch, size_t rowBytes, size_t rows, unsigned) {
    if (takeFailure(HostCall::AllocatePitch)) return kOutOfMemory;
    *pitch = (rowBytes + 511) / 512 * 512;
    void* block = nullptr;
    const int result = allocate(&block, *pitch * rows);
    *ptr = reinterpret_cast<CUdeviceptr>(block);
    return result;
}
int freePitched(CUdeviceptr ptr) { return freeMemory(reinterpret_cast<void*>(ptr)); }
int driverAllocate(CUdeviceptr* ptr, size_t bytes) {
    void* block = nullptr;
    const int result = allocate(&block, bytes);
    *ptr = reinterpret_cast<CUdeviceptr>(block);
    return result;
}

int copy2DChecked(HostCall call, void* dst, size_t dstPitch, const void* src, size_t srcPitch,
                  size_t rowBytes, size_t rows, CopyKind kind) {
    if (takeFailure(call)) return kInvalidValue;
    drainDefaultStream();
    if (!copyRanges(dst, src, surfaceExtent(dstPitch, rows, rowBytes), surfaceExtent(srcPitch, rows, rowBytes),
                    kind))
        return kInvalidValue;
    for (size_t row = 0; rowBytes && row < rows; ++row)
        std::memmove(static_cast<uint8_t*>(dst) + row * dstPitch, static_cast<const uint8_t*>(src) + row * srcPitch,
                     rowBytes);
    return 0;
}
int driverCopy2D(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes, size_t rows,
                 CopyKind kind, bool) {
    return copy2DChecked(HostCall::DriverCopy2D, dst, dstPitch, src, srcPitch, rowBytes, rows, kind);
}
// Host copies are done at once; there is nothing to wait for.
int driverCopy2DAsync(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes, size_t rows,
                      CopyKind kind, CUstream) {
    return copy2DChecked(HostCall::DriverCopy2D, dst, dstPitch, src, srcPitch, rowBytes, rows, kind);
}
int streamSynchronize(CUstream) {
    if (takeFailure(HostCall::StreamSynchronize)) return kInvalidValue;
    drainDefaultStream();
    return 0;
}
int copy2D(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes, size_t rows,
           CopyKind kind) {
    return copy2DChecked(HostCall::Copy2D, dst, dstPitch, src, srcPitch, rowBytes, rows, kind);
}

int copy(void* dst, const void* src, size_t bytes, CopyKind kind) {
    if (takeFailure(HostCall::Copy)) return kInvalidValue;
    if (!copyRanges(dst, src, bytes, bytes, kind)) return kInvalidValue;
    drainDefaultStream();
    if (bytes) std::memmove(dst, src, bytes);
    return 0;
}

int fill(void* dst, int value, size_t bytes) {
    if (!deviceRange(dst, bytes, "fill")) return kInvalidValue;
    drainDefaultStream();
    std::memset(dst, value, bytes);
    return 0;
}

const char* driverErrorName(int result) {
    switch (result) {
    case 0: return "CUDA_SUCCESS";
    case kInvalidValue: return "CUDA_ERROR_INVALID_VALUE";
    case kOutOfMemory: return "CUDA_ERROR_OUT_OF_MEMORY";
    case kCudaErrorNotInitialized: return "CUDA_ERROR_NOT_INITIALIZED";
    default: return "CUDA_ERROR_UNKNOWN";
    }
}

bool isDevicePointer(const void* ptr) { return allocationOf(ptr) != nullptr; }

// The code of a kernel's data and whether it packs (encodes) or unpacks.
struct KernelShape {
    uint32_t code;
    bool packs;
};
KernelShape shapeOf(PackingKernel kernel) {
    static const KernelShape shapes[] = {
        {packing::kUint32, false}, {packing::kUint32, true}, {packing::kUint16, false}, {packing::kUint16, true},
        {packing::kUyvy, false},   {packing::kUyvy, true},   {packing::kUint8, false},  {packing::kUint8, true},
        {packing::kUint4, false},  {packing::kUint4, true},
    };
    return shapes[static_cast<uint32_t>(kernel)];
}

// Checks the surfaces the kernel touches: the caller-layout side has h tight rows, the NV12
// side h luma rows plus, where the kernel reaches it, the (h + 1) / 2 chroma rows.
int launchPacking(const PackingLaunch& launch) {
    if (takeFailure(HostCall::Launch)) return kInvalidValue;
    if (hostDevice().noKernelImage) return kNoKernelImage;
    const KernelShape shape = shapeOf(launch.kernel);
    const uint32_t w = launch.width, h = launch.height;
    const size_t sampleBytes = shape.code == packing::kUint16 ? 2 : shape.code == packing::kUint32 ? 4 : 1;
    const size_t nv12Rows = shape.packs || shape.code == packing::kUyvy ? h + (h + 1) / 2 : h;
    const size_t nv12Extent = w ? surfaceExtent(shape.packs ? launch.dstPitch : launch.srcPitch, nv12Rows,
                                                sampleBytes * w)
                                : 0;
    const size_t callerExtent =
        surfaceExtent(shape.packs ? launch.srcPitch : launch.dstPitch, h, packing::tightPitch(shape.code, w));
    const bool ok = shape.packs ? deviceRange(launch.src, callerExtent, "packing kernel source") &
                                      deviceRange(launch.dst, nv12Extent, "packing kernel NV12 frame")
                                : deviceRange(launch.src, nv12Extent, "unpacking kernel NV12 frame") &
                                      deviceRange(launch.dst, callerExtent, "unpacking kernel destination");
    if (!ok) return kIllegalAddress;
    defer([launch] { runPackingOnHost(launch); });
    return 0;
}

int nv12ToBgra(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch, int width, int height,
               int colourStandard) {
    if (hostDevice().noKernelImage) return kNoKernelImage;
    const size_t w = width > 0 ? width : 0, h = height > 0 ? height : 0;
    if (!deviceRange(nv12, surfaceExtent(nv12Pitch, h + (h + 1) / 2, w), "colour kernel NV12 frame") ||
        !deviceRange(bgra, surfaceExtent(bgraPitch, h, 4 * w), "colour kernel destination"))
        return kIllegalAddress;
    defer([=] { Nv12ToColor32_reference(nv12, nv12Pitch, bgra, bgraPitch, width, height, colourStandard); });
    return 0;
}

const Api kHostApi = {getCurrentContext, setCurrentContext, pushContext,   popContext,
                      synchronize,       allocatePitch,     freePitched,   driverCopy2D,
                      driverErrorName,   allocate,          freeMemory,    copy,
                      copy2D,            fill,              isDevicePointer, launchPacking,
                      nv12ToBgra,        driverAllocate,    driverCopy2DAsync, streamSynchronize,
                      checkKernels};

}  // namespace

const Api& hostApi() { return kHostApi; }

HostDevice& hostDevice() {
    static HostDevice device;
    return device;
}

size_t HostDevice::liveAllocations() const { return state().allocations.size(); }

void HostDevice::failNext(HostCall call, unsigned after) { state().failIn[static_cast<size_t>(call)] = after + 1; }

void HostDevice::reset() {
    for (const auto& allocation : state().allocations) std::free(reinterpret_cast<void*>(allocation.first));
    state() = HostState{};
    faults.clear();
    runtimeFailure = 0;
    noKernelImage = false;
    deferKernels = false;
}

}  // namespace device
