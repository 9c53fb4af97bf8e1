// Every device operation of the encoder and decoder layers goes through one table: the CUDA
// implementation for real GPUs, and a host implementation in which host memory stands for
// device memory and the packing launches run the kernels' CPU twins over the same grid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"
#include "kernels/packing.h"

namespace device {

enum class CopyKind { HostToDevice = 1, DeviceToHost = 2, DeviceToDevice = 3 };

// The ten packing kernels, in the order of their registration.
enum class PackingKernel : uint32_t {
    Nv12ToUint32, Uint32ToNv12, Nv12ToUint16, Uint16ToNv12, Nv12ToUyvy, UyvyToNv12,
    Nv12ToUint8, Uint8ToNv12, Nv12ToUint4, Uint4ToNv12,
};

struct PackingLaunch {
    PackingKernel kernel;
    packing::LaunchGeometry geometry;
    const void* src;
    uint32_t srcPitch;
    void* dst;
    uint32_t dstPitch;
    uint32_t width, height;
};

// Results are the CUDA codes of the call each entry stands for: CUresult for the driver
// entries (contexts, pitched memory, driverCopy2D), cudaError_t for the runtime ones.
struct Api {
    int (*getCurrentContext)(CUcontext* context);
    int (*setCurrentContext)(CUcontext context);
    int (*pushContext)(CUcontext context);
    int (*popContext)();
    // Establishes the runtime's primary context on the calling thread.
    int (*synchronize)();
    int (*allocatePitch)(CUdeviceptr* ptr, size_t* pitch, size_t rowBytes, size_t rows,
                         unsigned elementBytes);
    int (*freePitched)(CUdeviceptr ptr);
    int (*driverCopy2D)(void* dst, size_t dstPitch, const void* src, size_t srcPitch,
                        size_t rowBytes, size_t rows, CopyKind kind, bool unaligned);
    const char* (*driverErrorName)(int result);
    int (*allocate)(void** ptr, size_t bytes);
    int (*free)(void* ptr);
    int (*copy)(void* dst, const void* src, size_t bytes, CopyKind kind);
    int (*copy2D)(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes,
                  size_t rows, CopyKind kind);
    int (*fill)(void* dst, int value, size_t bytes);
    // True only for memory of this implementation's device.
    bool (*isDevicePointer)(const void* ptr);
    int (*launchPacking)(const PackingLaunch& launch);
    // NV12 to BGRA with the colour kernel of a colour standard.
    int (*nv12ToBgra)(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch, int width,
                      int height, int colourStandard);
    // Driver linear allocation (cuMemAlloc), freed with freePitched.
    int (*driverAllocate)(CUdeviceptr* ptr, size_t bytes);
    // driverCopy2D queued on a stream; streamSynchronize waits for it.
    int (*driverCopy2DAsync)(void* dst, size_t dstPitch, const void* src, size_t srcPitch,
                             size_t rowBytes, size_t rows, CopyKind kind, CUstream stream);
    int (*streamSynchronize)(CUstream stream);
    // 0 when a kernel of this library can run on the current device; otherwise the runtime's
    // error, and cudaErrorNoDevice where no NVIDIA driver is installed at all.
    int (*checkKernels)();
};

const Api& cudaApi();
const Api& hostApi();

// The table in use: the CUDA one unless a ScopedApi replaced it.
const Api& api();

// The set-up check of both pipes: makes the runtime's primary context current where no context
// is, and checks that a kernel of this library runs there. 0, cudaErrorNoDevice on a machine
// without an NVIDIA GPU or driver, or the runtime's error: cudaErrorInsufficientDriver for a
// driver older than the runtime linked in, cudaErrorNoKernelImageForDevice for a GPU that none
// of our kernel images fits. Without the check every launch fails unseen and stale device
// memory goes out as results.
int checkDeviceReady();
constexpr int kNoDevice = 100;  // cudaErrorNoDevice
// The cause of a failed check, for the user: what to install or which GPU is needed.
std::string deviceNotReadyText(int result);

// Pops a context pushed just before, also when a call in between throws.
class PushedContext {
public:
    explicit PushedContext(bool pushed) : pushed_(pushed) {}
    ~PushedContext() {
        if (pushed_) api().popContext();
    }
    PushedContext(const PushedContext&) = delete;
    PushedContext& operator=(const PushedContext&) = delete;
    bool pushed() const { return pushed_; }
    int pop() {
        pushed_ = false;
        return api().popContext();
    }

private:
    bool pushed_;
};

class ScopedApi {
public:
    explicit ScopedApi(const Api& replacement);
    ~ScopedApi();
    ScopedApi(const ScopedApi&) = delete;
    ScopedApi& operator=(const ScopedApi&) = delete;

private:
    const Api* previous_;
};

// ---- The host implementation's state, for tests --------------------------------------------

enum class HostCall {
    Allocate, AllocatePitch, Copy, Copy2D, DriverCopy2D, PushContext, Launch, PopContext, StreamSynchronize, Count
};

constexpr int kInsufficientDriver = 35, kNoKernelImage = 209;  // cudaError_t values

// Allocations are real heap blocks filled with 0xCD, as stale device memory would be, pitched
// rows 512-byte aligned as a GPU's are. With deferKernels, kernels run when the default stream
// is waited for (a synchronisation, a synchronous copy or fill, a free), not at their launch; the
// fake NVENC, which reads its input at once, needs them run at launch. Accesses that a GPU
// would fault on (a kernel or copy that leaves its device allocation, a host pointer handed to
// a kernel, a free of memory that is not allocated or outside the context it was allocated in)
// are recorded as faults and not performed.
struct HostDevice {
    std::vector<std::string> faults;
    // What the runtime answers at set-up and to the kernel check: kInsufficientDriver for a
    // driver older than the runtime; kNoKernelImage for a GPU without our kernel images, where
    // every launch fails with it too.
    int runtimeFailure = 0;
    bool noKernelImage = false;
    bool deferKernels = false;
    size_t liveAllocations() const;
    // The call of `call` after `after` more successful ones fails (allocations with out of
    // memory, others with invalid value).
    void failNext(HostCall call, unsigned after = 0);
    // Frees what is still allocated, clears faults, failures and the context stacks.
    void reset();
};
HostDevice& hostDevice();

// CUDA implementation of the packing launches, beside the kernels.
int launchPackingOnGpu(const PackingLaunch& launch);
int checkKernelsOnGpu();
// Host implementation: the CPU twins' thread work over the launch's grid, without checks.
void runPackingOnHost(const PackingLaunch& launch);

}  // namespace device
