// The NVIDIA driver libraries (CUDA driver, NVDEC, NVENC), loaded at run time so the
// library loads, and decodes in software, on machines without an NVIDIA driver.
#pragma once

// The loader reports missing libraries on stderr; a machine without a driver is a
// normal case for us, and callers learn it from the null tables.
#define FFNV_LOG_FUNC(logctx, msg, ...)
#define FFNV_DEBUG_LOG_FUNC(logctx, msg, ...)
#include <ffnvcodec/dynlink_loader.h>

// CUDA driver results that the loader's CUresult subset lacks.
constexpr CUresult kCudaErrorNotInitialized = static_cast<CUresult>(3);

// Not in the loader's table; loaded from the same library handle.
typedef CUresult CUDAAPI tcuCtxGetCurrent(CUcontext* pctx);
typedef CUresult CUDAAPI tcuCtxSetCurrent(CUcontext ctx);
typedef CUresult CUDAAPI tcuMemcpy2DUnaligned(const CUDA_MEMCPY2D* pcopy);

struct DriverApi {
    const CudaFunctions* cuda = nullptr;  // null without libcuda
    tcuCtxGetCurrent* cuCtxGetCurrent = nullptr;
    tcuCtxSetCurrent* cuCtxSetCurrent = nullptr;
    tcuMemcpy2DUnaligned* cuMemcpy2DUnaligned = nullptr;
    const CuvidFunctions* cuvid = nullptr;  // null without libnvcuvid
    // NVENC is loaded for each use and released after it; 0 on success.
    int (*loadNvenc)(NvencFunctions** functions) = nullptr;
    void (*freeNvenc)(NvencFunctions** functions) = nullptr;
};

// The tables in use: the real libraries, loaded once on first use, or a test's fakes.
const DriverApi& driverApi();

// Replaces the tables for the lifetime of the object (tests only).
class ScopedDriverApi {
public:
    explicit ScopedDriverApi(const DriverApi& fake);
    ~ScopedDriverApi();
    ScopedDriverApi(const ScopedDriverApi&) = delete;
    ScopedDriverApi& operator=(const ScopedDriverApi&) = delete;

private:
    const DriverApi* previous_;
};
