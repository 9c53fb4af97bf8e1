#include "NVCompression/NvCodec/DriverApi.h"

namespace {

int loadNvencLibrary(NvencFunctions** functions) { return nvenc_load_functions(functions, nullptr); }
void freeNvencLibrary(NvencFunctions** functions) { nvenc_free_functions(functions); }

DriverApi loadDriverLibraries() {
    DriverApi api;
    api.loadNvenc = loadNvencLibrary;
    api.freeNvenc = freeNvencLibrary;
    // The tables stay loaded for the life of the process.
    CudaFunctions* cuda = nullptr;
    if (cuda_load_functions(&cuda, nullptr) == 0) {
        api.cuda = cuda;
        api.cuCtxGetCurrent =
            reinterpret_cast<tcuCtxGetCurrent*>(FFNV_SYM_FUNC(cuda->lib, "cuCtxGetCurrent"));
        api.cuCtxSetCurrent =
            reinterpret_cast<tcuCtxSetCurrent*>(FFNV_SYM_FUNC(cuda->lib, "cuCtxSetCurrent"));
        api.cuMemcpy2DUnaligned = reinterpret_cast<tcuMemcpy2DUnaligned*>(
            FFNV_SYM_FUNC(cuda->lib, "cuMemcpy2DUnaligned_v2"));
    }
    CuvidFunctions* cuvid = nullptr;
    if (cuvid_load_functions(&cuvid, nullptr) == 0) api.cuvid = cuvid;
    return api;
}

const DriverApi* overrideApi = nullptr;

}  // namespace

const DriverApi& driverApi() {
    if (overrideApi) return *overrideApi;
    static const DriverApi loaded = loadDriverLibraries();
    return loaded;
}

ScopedDriverApi::ScopedDriverApi(const DriverApi& fake) : previous_(overrideApi) {
    overrideApi = &fake;
}

ScopedDriverApi::~ScopedDriverApi() { overrideApi = previous_; }
