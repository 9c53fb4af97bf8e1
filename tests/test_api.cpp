// The exported interface as a host application sees it: argument checks and error texts, container
// calls, threads, the encoder capability probe (the exports: scripts/check-install.sh).
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "NVCompression/NvCodec/DriverApi.h"
#include "api/pipe.h"
#include "device/device_api.h"
#include "support/fake_nvenc.h"
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


// The probe opens its own CUDA context and one NVENC session, and takes all of them down again;
// it returns what the context's destruction returned.
TEST(EncCapabilities, ProbeAgainstFakeDrivers) {
    static CUresult destroyResult;
    CudaFunctions cuda = {};
    cuda.cuInit = [](unsigned int) { return CUDA_SUCCESS; };
    cuda.cuDeviceGet = [](CUdevice* device, int ordinal) { return *device = ordinal, CUDA_SUCCESS; };
    cuda.cuCtxCreate = [](CUcontext* c, unsigned int, CUdevice) { return *c = CUcontext(&destroyResult), CUDA_SUCCESS; };
    cuda.cuCtxDestroy = [](CUcontext c) { return c == CUcontext(&destroyResult) ? destroyResult : CUresult(999); };
    device::ScopedApi hostRuntime(device::hostApi());
    // The driver's interface version, HEVC, a failing NVENC entry; the H.264 and HEVC flags expected.
    const std::tuple<uint32_t, bool, const char*, uint32_t, uint32_t> cases[] = {
        {0x81, false, "", 1, 0}, {0xB1, true, "", 1, 1},
        {0x80, true, "", 0, 0},                          // a driver older than NVENC 8.1
        {0xB1, true, "nvEncOpenEncodeSessionEx", 0, 0},  // no encoder: its failed session is destroyed too
        {0xB1, true, "runtime", 0, 0},                   // a driver older than the runtime: no kernels
        {0xB1, true, "load", 0, 0}};                     // no NVENC
    for (const auto& [version, hevc, failing, h264Flag, hevcFlag] : cases) {
        SCOPED_TRACE(testing::Message() << version << " " << hevc << " " << failing);
        FakeNvenc& fake = fakeNvenc() = FakeNvenc{};
        fake.maxVersion = version;
        fake.hevc = hevc;
        fake.failing[failing] = NV_ENC_ERR_NO_ENCODE_DEVICE;
        device::hostDevice().runtimeFailure = std::string(failing) == "runtime" ? device::kInsufficientDriver : 0;
        DriverApi api = fake.driverApi();
        api.cuda = &cuda;
        ScopedDriverApi scoped(api);
        destroyResult = std::string(failing) != "load" ? CUDA_SUCCESS : CUresult(201);
        uint32_t h264 = 7, hevcOut = 7;
        EXPECT_EQ(ZOHW_GetEncCapabilities(&h264, &hevcOut), uint32_t(destroyResult));
        EXPECT_EQ(std::make_tuple(h264, hevcOut, fake.openSessions(), fake.librariesLoaded, fake.faults),
                  std::make_tuple(h264Flag, hevcFlag, size_t(0), 0, std::vector<std::string>{}));
    }
}
