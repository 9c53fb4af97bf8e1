// ZOHW_GetEncCapabilities against fake driver tables, and on this machine's real driver (or none).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "NVCompression/NvCodec/DriverApi.h"
#include "NVCompression/NvCodec/NvEncoder/NvEncoderCapabilities.h"
#include "zo_qrv64.h"

namespace {

// What the fake driver was asked and what it answers.
struct FakeDriver {
    uint32_t maxVersion = 0x81;
    int h264MaxWidth = 4096;
    int hevcMaxWidth = 0;
    CUresult destroyResult = CUDA_SUCCESS;
    bool loadFails = false;

    int sessionsOpened = 0;
    int sessionsDestroyed = 0;
    int librariesFreed = 0;
    NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS sessionParams = {};
    uint32_t functionListVersion = 0;
    CUcontext destroyedContext = nullptr;
};

FakeDriver* fake = nullptr;
int fakeContextStorage;
int fakeEncoderStorage;
CUcontext const kFakeContext = reinterpret_cast<CUcontext>(&fakeContextStorage);

CUresult CUDAAPI fakeInit(unsigned int) { return CUDA_SUCCESS; }
CUresult CUDAAPI fakeDeviceGet(CUdevice* device, int ordinal) {
    *device = ordinal;
    return CUDA_SUCCESS;
}
CUresult CUDAAPI fakeCtxCreate(CUcontext* context, unsigned int, CUdevice) {
    *context = kFakeContext;
    return CUDA_SUCCESS;
}
CUresult CUDAAPI fakeCtxDestroy(CUcontext context) {
    fake->destroyedContext = context;
    return fake->destroyResult;
}

NVENCSTATUS NVENCAPI fakeOpenSession(NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS* params, void** encoder) {
    ++fake->sessionsOpened;
    fake->sessionParams = *params;
    *encoder = &fakeEncoderStorage;
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI fakeGetCaps(void* encoder, GUID codec, NV_ENC_CAPS_PARAM* query, int* value) {
    EXPECT_EQ(encoder, &fakeEncoderStorage);
    EXPECT_EQ(query->version, 0x71010008u);
    EXPECT_EQ(query->capsToQuery, NV_ENC_CAPS_WIDTH_MAX);
    *value = std::memcmp(&codec, &NV_ENC_CODEC_H264_GUID, sizeof codec) == 0 ? fake->h264MaxWidth
             : std::memcmp(&codec, &NV_ENC_CODEC_HEVC_GUID, sizeof codec) == 0 ? fake->hevcMaxWidth
                                                                               : -1;
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI fakeDestroyEncoder(void*) {
    ++fake->sessionsDestroyed;
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI fakeMaxVersion(uint32_t* version) {
    *version = fake->maxVersion;
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI fakeCreateInstance(NV_ENCODE_API_FUNCTION_LIST* list) {
    fake->functionListVersion = list->version;
    list->nvEncOpenEncodeSessionEx = fakeOpenSession;
    list->nvEncGetEncodeCaps = fakeGetCaps;
    list->nvEncDestroyEncoder = fakeDestroyEncoder;
    return NV_ENC_SUCCESS;
}

NvencFunctions fakeNvencTable;
int fakeLoadNvenc(NvencFunctions** functions) {
    if (fake->loadFails) return -1;
    fakeNvencTable.NvEncodeAPIGetMaxSupportedVersion = fakeMaxVersion;
    fakeNvencTable.NvEncodeAPICreateInstance = fakeCreateInstance;
    *functions = &fakeNvencTable;
    return 0;
}
void fakeFreeNvenc(NvencFunctions** functions) {
    ++fake->librariesFreed;
    *functions = nullptr;
}

class EncCapabilities : public testing::Test {
protected:
    EncCapabilities() {
        fake = &driver;
        cuda.cuInit = fakeInit;
        cuda.cuDeviceGet = fakeDeviceGet;
        cuda.cuCtxCreate = fakeCtxCreate;
        cuda.cuCtxDestroy = fakeCtxDestroy;
        api.cuda = &cuda;
        api.loadNvenc = fakeLoadNvenc;
        api.freeNvenc = fakeFreeNvenc;
    }
    ~EncCapabilities() override { fake = nullptr; }

    FakeDriver driver;
    CudaFunctions cuda = {};
    DriverApi api;
};

}  // namespace

TEST_F(EncCapabilities, ReportsEachCodecWhoseMaximumWidthIsPositive) {
    ScopedDriverApi scoped(api);
    uint32_t h264 = 7, hevc = 7;
    EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevc), 0u);
    EXPECT_EQ(h264, 1u);
    EXPECT_EQ(hevc, 0u);
    EXPECT_EQ(driver.functionListVersion, 0x71020008u);
    EXPECT_EQ(driver.sessionParams.version, 0x71010008u);
    EXPECT_EQ(driver.sessionParams.apiVersion, 0x01000008u);
    EXPECT_EQ(driver.sessionParams.deviceType, NV_ENC_DEVICE_TYPE_CUDA);
    EXPECT_EQ(driver.sessionParams.device, kFakeContext);
    EXPECT_EQ(driver.sessionsDestroyed, 1);
    EXPECT_EQ(driver.librariesFreed, 1);
    EXPECT_EQ(driver.destroyedContext, kFakeContext);

    driver.hevcMaxWidth = 8192;
    driver.h264MaxWidth = 0;
    EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevc), 0u);
    EXPECT_EQ(h264, 0u);
    EXPECT_EQ(hevc, 1u);
}

TEST_F(EncCapabilities, ADriverOlderThanTheInterfaceReportsNothing) {
    driver.maxVersion = 0x80;  // 8.0
    driver.hevcMaxWidth = 4096;
    ScopedDriverApi scoped(api);
    uint32_t h264 = 1, hevc = 1;
    ZOHW_GetEncCapabilities(&h264, &hevc);
    EXPECT_EQ(h264, 0u);
    EXPECT_EQ(hevc, 0u);
    EXPECT_EQ(driver.sessionsOpened, 0);
    EXPECT_EQ(driver.librariesFreed, 1);
}

TEST_F(EncCapabilities, WithoutNvencTheResultIsTheContextDestruction) {
    driver.loadFails = true;
    driver.destroyResult = static_cast<CUresult>(201);
    ScopedDriverApi scoped(api);
    uint32_t h264 = 1, hevc = 1;
    EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevc), 201u);
    EXPECT_EQ(h264, 0u);
    EXPECT_EQ(hevc, 0u);
    EXPECT_EQ(driver.librariesFreed, 0);
}

TEST(EncCapabilitiesOnThisMachine, WithoutACudaDriverBothFlagsAreZero) {
    void* driverLibrary = dlopen("libcuda.so.1", RTLD_LAZY);
    if (driverLibrary) {
        dlclose(driverLibrary);
        GTEST_SKIP() << "this machine has a CUDA driver";
    }
    uint32_t h264 = 1, hevc = 1;
    EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevc), 3u);  // CUDA_ERROR_NOT_INITIALIZED
    EXPECT_EQ(h264, 0u);
    EXPECT_EQ(hevc, 0u);
}
