// The device table on a real GPU: driver calls through the run-time loaded driver table, the
// statically linked CUDA runtime for the rest, the kernels for the launches.
#include "device/device_api.h"

#include <cuda_runtime_api.h>

#include "kernels/colour.h"

namespace device {
namespace {

// Without a CUDA driver every driver entry fails as an uninitialised driver would.
template <typename Call>
int withDriver(Call call) {
    const DriverApi& driver = driverApi();
    return driver.cuda ? call(driver) : kCudaErrorNotInitialized;
}

int getCurrentContext(CUcontext* context) {
    return withDriver([&](const DriverApi& d) { return d.cuCtxGetCurrent(context); });
}
int setCurrentContext(CUcontext context) {
    return withDriver([&](const DriverApi& d) { return d.cuCtxSetCurrent(context); });
}
int pushContext(CUcontext context) {
    return withDriver([&](const DriverApi& d) { return d.cuda->cuCtxPushCurrent(context); });
}
int popContext() {
    return withDriver([](const DriverApi& d) {
        CUcontext popped = nullptr;
        return d.cuda->cuCtxPopCurrent(&popped);
    });
}
int synchronize() { return cudaDeviceSynchronize(); }

int allocatePitch(CUdeviceptr* ptr, size_t* pitch, size_t rowBytes, size_t rows, unsigned elementBytes) {
    return withDriver(
        [&](const DriverApi& d) { return d.cuda->cuMemAllocPitch(ptr, pitch, rowBytes, rows, elementBytes); });
}
int freePitched(CUdeviceptr ptr) {
    return withDriver([&](const DriverApi& d) { return d.cuda->cuMemFree(ptr); });
}

CUDA_MEMCPY2D copyParameters(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes,
                             size_t rows, CopyKind kind) {
    CUDA_MEMCPY2D copy = {};
    const bool deviceSource = kind != CopyKind::HostToDevice;
    copy.srcMemoryType = deviceSource ? CU_MEMORYTYPE_DEVICE : CU_MEMORYTYPE_HOST;
    if (deviceSource) copy.srcDevice = reinterpret_cast<CUdeviceptr>(src);
    else copy.srcHost = src;
    copy.srcPitch = srcPitch;
    const bool deviceDestination = kind != CopyKind::DeviceToHost;
    copy.dstMemoryType = deviceDestination ? CU_MEMORYTYPE_DEVICE : CU_MEMORYTYPE_HOST;
    if (deviceDestination) copy.dstDevice = reinterpret_cast<CUdeviceptr>(dst);
    else copy.dstHost = dst;
    copy.dstPitch = dstPitch;
    copy.WidthInBytes = rowBytes;
    copy.Height = rows;
    return copy;
}

int driverCopy2D(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes,
                 size_t rows, CopyKind kind, bool unaligned) {
    const CUDA_MEMCPY2D copy = copyParameters(dst, dstPitch, src, srcPitch, rowBytes, rows, kind);
    return withDriver([&](const DriverApi& d) {
        return unaligned && kind != CopyKind::HostToDevice && d.cuMemcpy2DUnaligned ? d.cuMemcpy2DUnaligned(&copy)
                                                                                   : d.cuda->cuMemcpy2D(&copy);
    });
}

int driverCopy2DAsync(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes,
                      size_t rows, CopyKind kind, CUstream stream) {
    const CUDA_MEMCPY2D copy = copyParameters(dst, dstPitch, src, srcPitch, rowBytes, rows, kind);
    return withDriver([&](const DriverApi& d) { return d.cuda->cuMemcpy2DAsync(&copy, stream); });
}

int streamSynchronize(CUstream stream) {
    return withDriver([&](const DriverApi& d) { return d.cuda->cuStreamSynchronize(stream); });
}

int driverAllocate(CUdeviceptr* ptr, size_t bytes) {
    return withDriver([&](const DriverApi& d) { return d.cuda->cuMemAlloc(ptr, bytes); });
}

const char* driverErrorName(int result) {
    const char* name = "CUDA_ERROR_UNKNOWN";
    const DriverApi& driver = driverApi();
    if (driver.cuda) driver.cuda->cuGetErrorName(static_cast<CUresult>(result), &name);
    return name;
}

int allocate(void** ptr, size_t bytes) { return cudaMalloc(ptr, bytes); }
int freeMemory(void* ptr) { return cudaFree(ptr); }
int copy(void* dst, const void* src, size_t bytes, CopyKind kind) {
    return cudaMemcpy(dst, src, bytes, static_cast<cudaMemcpyKind>(kind));
}
int copy2D(void* dst, size_t dstPitch, const void* src, size_t srcPitch, size_t rowBytes, size_t rows,
           CopyKind kind) {
    return cudaMemcpy2D(dst, dstPitch, src, srcPitch, rowBytes, rows, static_cast<cudaMemcpyKind>(kind));
}
int fill(void* dst, int value, size_t bytes) { return cudaMemset(dst, value, bytes); }

bool isDevicePointer(const void* ptr) {
    cudaPointerAttributes attributes{};
    if (cudaPointerGetAttributes(&attributes, ptr) != cudaSuccess) {
        cudaGetLastError();  // the failed query must not linger as the thread's last error
        return false;
    }
    return attributes.type == cudaMemoryTypeDevice;
}

int nv12ToBgra(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch, int width, int height,
               int colourStandard) {
    Nv12ToColor32(const_cast<uint8_t*>(nv12), nv12Pitch, bgra, bgraPitch, width, height, colourStandard);
    return cudaGetLastError();
}

// Without a driver the runtime answers as to one that is too old; the driver version tells them apart.
int checkKernels() {
    int driverVersion = 0;
    cudaDriverGetVersion(&driverVersion);
    return driverVersion ? checkKernelsOnGpu() : kNoDevice;
}

const Api kCudaApi = {getCurrentContext, setCurrentContext, pushContext,   popContext,
                      synchronize,       allocatePitch,     freePitched,   driverCopy2D,
                      driverErrorName,   allocate,          freeMemory,    copy,
                      copy2D,            fill,              isDevicePointer, launchPackingOnGpu,
                      nv12ToBgra,        driverAllocate,    driverCopy2DAsync, streamSynchronize,
                      checkKernels};

const Api* overrideApi = nullptr;

}  // namespace

const Api& cudaApi() { return kCudaApi; }

const Api& api() { return overrideApi ? *overrideApi : kCudaApi; }

int checkDeviceReady() {
    const int runtime = api().synchronize();
    const int kernels = api().checkKernels();
    return kernels ? kernels : runtime;
}

// CUDA 13.0's minimum driver (NVIDIA's CUDA 13.0 release notes): 580.65.06 on Linux, 580.88 on
// Windows.
static_assert(CUDART_VERSION / 1000 == 13, "the driver named below is the minimum of CUDA 13");
std::string deviceNotReadyText(int result) {
    std::string text = cudaGetErrorString(static_cast<cudaError_t>(result));
    if (result == kInsufficientDriver)
        text += ": the CUDA 13 runtime in this library needs NVIDIA driver 580.65.06 (Linux) or 580.88 (Windows) or newer";
    if (result == kNoKernelImage) text += ": the kernels of this library need a GPU of compute capability 7.5 or newer";
    return text;
}

ScopedApi::ScopedApi(const Api& replacement) : previous_(overrideApi) { overrideApi = &replacement; }
ScopedApi::~ScopedApi() { overrideApi = previous_; }

}  // namespace device
