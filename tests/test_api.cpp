// The exported interface as a host application sees it: argument checks and error texts, container
// calls, the library's exports, the encoder capability probe.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "NVCompression/NvCodec/DriverApi.h"
#include "api/pipe.h"
#include "support.h"

// Each instance call fails on a null pipe (library-wide text), on a pipe of the other role (the
// pipe's text) and on a decoding pipe without a working decoder (earlier text kept), touching
// neither the file nor the outputs. Pipes are assembled around codec objects that are not ready.
TEST(PipeChecks, EveryInstanceCallChecksItsPipe) {
    EXPECT_STREQ(ZOHW_GetError(nullptr), "") << "a fresh process has no error text";
    TestFile file = openBytes({1, 0, 0, 0});
    FILE* f = file.get();
    uint8_t buffer[64 * 48 * 4] = {};
    uint64_t size = 77, time = 5, capture = 0;
    uint32_t number = 0, type = 0;
    const std::vector<std::tuple<const char*, bool, std::function<uint32_t(ZoHwPipe*)>>> calls = {
        {"Encode", false, [&](ZoHwPipe* p) { return ZOHW_Encode(p, &size, buffer, 64, buffer); }},
        {"Encode_And_Store", false, [&](ZoHwPipe* p) { return ZOHW_Encode_And_Store(p, f, &size, buffer, 64, 1, 0, 0); }},
        {"CreateQRVContainer", false, [&](ZoHwPipe* p) { return ZOHW_CreateQRVContainer(p, f, buffer, 4); }},
        {"CloseQRVContainer", false, [&](ZoHwPipe* p) { return ZOHW_CloseQRVContainer(p, f); }},
        {"Decode", true, [&](ZoHwPipe* p) { return ZOHW_Decode(p, buffer, 4, buffer); }},
        {"DecodeFrameAndMetadata", true,
         [&](ZoHwPipe* p) { return ZOHW_DecodeFrameAndMetadata(p, f, buffer, &number, &capture, &type, buffer); }},
        {"StartDecoding", true, [&](ZoHwPipe* p) { return ZOHW_StartDecoding(p, buffer); }},
        {"CreateQRVTracker", true, [&](ZoHwPipe* p) { return ZOHW_CreateQRVTracker(p, f); }},
        {"SetHEVCPositionInFile", true, [&](ZoHwPipe* p) { return ZOHW_SetHEVCPositionInFile(p, f, 0); }},
        {"GetMetadataForSample", true, [&](ZoHwPipe* p) { return ZOHW_GetMetadataForSample(p, f, buffer, 1); }},
        // A failed timestamp query also writes 0.
        {"GetTimeStampForSample", true, [&](ZoHwPipe* p) { return ZOHW_GetTimeStampForSample(p, f, 1, &time) + time; }},
        // Without an output the pipe is still checked first.
        {"GetTimeStampForSample(null)", true, [&](ZoHwPipe* p) { return ZOHW_GetTimeStampForSample(p, f, 1, nullptr); }},
        {"GetDecoderType", true, [&](ZoHwPipe* p) { return ZOHW_GetDecoderType(p) == 0 ? 1u : 0u; }},
    };
    ZoHwPipe encoding, decoding;
    encoding.encoder = std::make_unique<HwEncoder>(3, 1, 0, 1000000, 64, 48, 30);
    decoding.hwDecoder = std::make_unique<HwDecoder>(3, 1, 64, 48);
    for (const auto& [name, decoderCall, call] : calls) {
        SCOPED_TRACE(name);
        setLibraryError("");
        EXPECT_EQ(call(nullptr), 1u);
        EXPECT_STREQ(ZOHW_GetError(nullptr), "Invalid ZoHwPipe instance NULL");
        ZoHwPipe& otherRole = decoderCall ? encoding : decoding;
        otherRole.error.clear();
        EXPECT_EQ(call(&otherRole), 1u);
        EXPECT_EQ(otherRole.error, decoderCall ? "Invalid ZoHwPipe decoder." : "Invalid ZoHwPipe encoder.");
        decoding.error = "kept";
        EXPECT_EQ(decoderCall ? call(&decoding) : 1u, 1u);
        EXPECT_EQ(decoding.error, "kept");
    }
    EXPECT_EQ(std::make_tuple(size, readAll(f), ZOHW_GetVersion()), std::make_tuple(77u, Bytes{1, 0, 0, 0}, 100u));
    ZOHW_Destroy(nullptr);
    // Container calls write the header as given and the index; nothing is stored while no encoder is ready.
    TestFile qrv = openBytes({});
    const uint8_t header[5] = {'Q', 'R', 'V', 0, 9};
    encoding.error = "kept";
    for (int32_t bytes : {0, -1, 5}) EXPECT_EQ(ZOHW_CreateQRVContainer(&encoding, qrv.get(), header, bytes), bytes < 0);
    for (FILE* stream : {(FILE*)nullptr, qrv.get()}) {
        EXPECT_EQ(ZOHW_CreateQRVContainer(&encoding, stream, stream ? nullptr : header, 5), 1u);
        EXPECT_EQ(ZOHW_Encode_And_Store(&encoding, stream, &size, header, 64, 1999, nullptr, 0), 1u);
        EXPECT_EQ(ZOHW_CloseQRVContainer(&encoding, stream), stream ? 0u : 1u);
    }
    EXPECT_EQ(std::make_tuple(size, readAll(qrv.get()), encoding.error),
              std::make_tuple(0u, Bytes{'Q', 'R', 'V', 0, 9, 0, 0, 0, 0}, "kept"));  // no index entries, count 0
}

// Calls failing on several threads at once leave a whole text behind, never a torn or freed one.
TEST(PipeChecks, ParallelFailuresLeaveAWholeText) {
    const std::string nullInstance = "Invalid ZoHwPipe instance NULL";
    const std::string noEncoder = "unsupported hardware or codec for encoding";
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                if (t % 2) EXPECT_EQ(ZOHW_GetDecoderType(nullptr), 0u);
                else EXPECT_EQ(ZOHW_CreateEncoder(3, 1, 0, 64, 48, 1000000, 30), nullptr);
                const std::string text = ZOHW_GetError(nullptr);
                EXPECT_TRUE(text == nullInstance || text == noEncoder) << text;
            }
        });
    for (std::thread& thread : threads) thread.join();
}


TEST(SharedLibrary, ExportsExactlyTheCInterfaceAndNeedsNoDriver) {
    const std::string library = ZOQRV_BINARY_DIR "/libzo_qrv64.so";
    std::string symbols, needed;
    ASSERT_EQ(runCommand("nm -D --defined-only " + library + " -j | cut -d@ -f1 | LC_ALL=C sort | xargs", &symbols), 0);
    EXPECT_EQ(symbols, "NvOptimusEnablementCuda ZOHW_CloseQRVContainer ZOHW_CreateDecoder ZOHW_CreateEncoder "
                       "ZOHW_CreateQRVContainer ZOHW_CreateQRVTracker ZOHW_Decode ZOHW_DecodeFrameAndMetadata ZOHW_Destroy "
                       "ZOHW_Encode ZOHW_Encode_And_Store ZOHW_GetDecoderType ZOHW_GetEncCapabilities ZOHW_GetError "
                       "ZOHW_GetMetadataForSample ZOHW_GetTimeStampForSample ZOHW_GetVersion ZOHW_SetHEVCPositionInFile "
                       "ZOHW_StartDecoding\n");
    ASSERT_EQ(runCommand("readelf -d " + library + " | grep NEEDED", &needed), 0);
    ASSERT_NE(needed.find("libc.so"), std::string::npos) << needed;
    for (const char* driver : {"libcuda.so", "libnvcuvid", "libnvidia-encode", "libcudart"})
        EXPECT_EQ(needed.find(driver), std::string::npos) << needed;
}

namespace {
struct FakeDriver {
    uint32_t maxVersion;
    int h264Width, hevcWidth, destroyResult;
    bool loads;
    uint32_t h264, hevc;                                // the flags expected
    int opens, sessions = 0, destroyed = 0, freed = 0;  // the sessions expected; what the probe did
}* fake;
int contextStorage, encoderStorage;
NvencFunctions nvencTable;
}  // namespace

TEST(EncCapabilities, ProbeAgainstFakeDrivers) {
    FakeDriver cases[] = {{0x81, 4096, 0, 0, true, 1, 0, 1}, {0x90, 0, 8192, 0, true, 0, 1, 1},
                          {0x80, 4096, 4096, 0, true, 0, 0, 0},      // a driver older than NVENC 8.1
                          {0x81, 4096, 4096, 201, false, 0, 0, 0}};  // no NVENC: the context destruction's result
    CudaFunctions cuda = {};
    cuda.cuInit = [](unsigned int) { return CUDA_SUCCESS; };
    cuda.cuDeviceGet = [](CUdevice* device, int ordinal) { return *device = ordinal, CUDA_SUCCESS; };
    cuda.cuCtxCreate = [](CUcontext* c, unsigned int, CUdevice) { return *c = CUcontext(&contextStorage), CUDA_SUCCESS; };
    cuda.cuCtxDestroy = [](CUcontext c) { return CUresult(c == CUcontext(&contextStorage) ? fake->destroyResult : 999); };
    nvencTable.NvEncodeAPIGetMaxSupportedVersion = [](uint32_t* version) { return *version = fake->maxVersion, NV_ENC_SUCCESS; };
    nvencTable.NvEncodeAPICreateInstance = [](NV_ENCODE_API_FUNCTION_LIST* list) {
        list->nvEncOpenEncodeSessionEx = [](NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS* params, void** encoder) {
            const bool cuda = params->deviceType == NV_ENC_DEVICE_TYPE_CUDA && params->device == &contextStorage;
            return ++fake->sessions, *encoder = cuda ? &encoderStorage : nullptr, NV_ENC_SUCCESS;
        };
        list->nvEncGetEncodeCaps = [](void* encoder, GUID codec, NV_ENC_CAPS_PARAM* query, int* value) {
            const bool asked = encoder == &encoderStorage && query->capsToQuery == NV_ENC_CAPS_WIDTH_MAX;
            *value = !asked ? -1 : !memcmp(&codec, &NV_ENC_CODEC_H264_GUID, 16) ? fake->h264Width
                               : !memcmp(&codec, &NV_ENC_CODEC_HEVC_GUID, 16) ? fake->hevcWidth : -1;
            return NV_ENC_SUCCESS;
        };
        list->nvEncDestroyEncoder = [](void*) { return ++fake->destroyed, NV_ENC_SUCCESS; };
        return NV_ENC_SUCCESS;
    };
    DriverApi api;
    api.cuda = &cuda;
    api.loadNvenc = [](NvencFunctions** functions) { return *functions = &nvencTable, fake->loads ? 0 : -1; };
    api.freeNvenc = [](NvencFunctions** functions) { ++fake->freed, *functions = nullptr; };
    ScopedDriverApi scoped(api);
    for (FakeDriver& c : cases) {
        SCOPED_TRACE(&c - cases);
        fake = &c;
        uint32_t h264 = 7, hevc = 7;
        EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevc), uint32_t(c.destroyResult));
        EXPECT_EQ(std::make_pair(h264, hevc), std::make_pair(c.h264, c.hevc));
        EXPECT_EQ(std::make_tuple(c.sessions, c.destroyed, c.freed), std::make_tuple(c.opens, c.opens, int(c.loads)));
    }
}
