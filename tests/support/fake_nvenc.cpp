#include "support/fake_nvenc.h"

#include <cstring>

#include "device/device_api.h"

namespace {

FakeNvenc* fake() { return &fakeNvenc(); }

bool same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

void* newHandle() {
    static uintptr_t next = 0;
    return reinterpret_cast<void*>((++next) << 4);
}

// Logs the call; a chosen failure answers before anything is done.
bool failing(const char* name, NVENCSTATUS& status) {
    fake()->calls.push_back(name);
    auto it = fake()->failing.find(name);
    if (it == fake()->failing.end()) return false;
    status = it->second;
    return true;
}
#define ENTRY(name)                           \
    NVENCSTATUS injected = NV_ENC_SUCCESS;    \
    if (failing(name, injected)) return injected

NVENCSTATUS breach(const std::string& what, NVENCSTATUS status = NV_ENC_ERR_INVALID_PARAM) {
    fake()->faults.push_back(what);
    return status;
}

FakeNvencSession* sessionOf(void* encoder) {
    auto it = fake()->sessions.find(encoder);
    return it == fake()->sessions.end() ? nullptr : &it->second;
}

bool versionOk(const FakeNvencSession& session, uint32_t word, uint32_t n, bool extended, const char* what) {
    if (word == nvencStructVersion(session.api, n, extended)) return true;
    breach(std::string("version word of ") + what);
    return false;
}
#define SESSION(encoder)                                                      \
    FakeNvencSession* session = sessionOf(encoder);                           \
    if (!session) return breach("unknown session", NV_ENC_ERR_INVALID_ENCODERDEVICE)
#define VERSION(word, n, extended, what) \
    if (!versionOk(*session, word, n, extended, what)) return NV_ENC_ERR_INVALID_VERSION

NVENCSTATUS NVENCAPI openSession(NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS* params, void** encoder) {
    ENTRY("nvEncOpenEncodeSessionEx");
    FakeNvencSession session;
    session.api = params->apiVersion;
    if (session.api != fake()->functionListApi) return breach("session and function list versions differ");
    if ((((session.api & 0xFF) << 4) | (session.api >> 24)) > fake()->maxVersion)
        return breach("interface newer than the driver", NV_ENC_ERR_INVALID_VERSION);
    if (!versionOk(session, params->version, 1, false, "open-session parameters")) return NV_ENC_ERR_INVALID_VERSION;
    if (params->deviceType != NV_ENC_DEVICE_TYPE_CUDA || !params->device) return breach("no CUDA context");
    *encoder = newHandle();
    fake()->sessions[*encoder] = session;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI getCaps(void* encoder, GUID codec, NV_ENC_CAPS_PARAM* query, int* value) {
    ENTRY("nvEncGetEncodeCaps");
    SESSION(encoder);
    VERSION(query->version, 1, false, "capability query");
    *value = same(codec, NV_ENC_CODEC_HEVC_GUID) && !fake()->hevc ? 0 : 4096;
    return NV_ENC_SUCCESS;
}

void fillPreset(NV_ENC_PRESET_CONFIG* preset) {
    NV_ENC_CONFIG& config = preset->presetCfg;
    config.frameIntervalP = 3;
    config.gopLength = 250;
    config.rcParams.rateControlMode = NV_ENC_PARAMS_RC_VBR;
    config.rcParams.constQP = {20, 22, 18};
    config.rcParams.lookaheadDepth = static_cast<uint16_t>(fake()->lookaheadDepth);
    config.encodeCodecConfig.h264Config.idrPeriod = 250;
}

bool isLegacyPreset(const GUID& preset) {
    static const GUID legacy[] = {
        {0xb2dfb705, 0x4ebd, 0x4c49, {0x9b, 0x5f, 0x24, 0xa7, 0x77, 0xd3, 0xe5, 0x87}},
        {0xc5f733b9, 0xea97, 0x4cf9, {0xbe, 0xc2, 0xbf, 0x78, 0xa7, 0x4f, 0xd1, 0x05}},
        {0xd5bfb716, 0xc604, 0x44e7, {0x9b, 0xb8, 0xde, 0xa5, 0x51, 0x0f, 0xc3, 0xac}},
        {0x149998e7, 0x2364, 0x411d, {0x82, 0xef, 0x17, 0x98, 0x88, 0x09, 0x34, 0x09}},
    };
    for (const GUID& guid : legacy)
        if (same(guid, preset)) return true;
    return false;
}

NVENCSTATUS NVENCAPI getPreset(void* encoder, GUID, GUID preset, NV_ENC_PRESET_CONFIG* config) {
    ENTRY("nvEncGetEncodePresetConfig");
    SESSION(encoder);
    VERSION(config->version, 4, true, "preset configuration");
    VERSION(config->presetCfg.version, 7, true, "preset's configuration");
    if (!isLegacyPreset(preset)) return breach("not a legacy preset");
    if (!fake()->legacyPresets && !fake()->refuseAtInitialize) return NV_ENC_ERR_UNSUPPORTED_PARAM;
    fillPreset(config);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI getPresetEx(void* encoder, GUID, GUID preset, NV_ENC_TUNING_INFO tuning,
                                 NV_ENC_PRESET_CONFIG* config) {
    ENTRY("nvEncGetEncodePresetConfigEx");
    SESSION(encoder);
    VERSION(config->version, 4, true, "preset configuration");
    VERSION(config->presetCfg.version, 7, true, "preset's configuration");
    if (isLegacyPreset(preset) || tuning == NV_ENC_TUNING_INFO_UNDEFINED) return breach("preset or tuning info");
    fillPreset(config);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI initialize(void* encoder, NV_ENC_INITIALIZE_PARAMS* params) {
    ENTRY("nvEncInitializeEncoder");
    SESSION(encoder);
    VERSION(params->version, 5, true, "initialisation parameters");
    VERSION(params->encodeConfig->version, 7, true, "configuration");
    if (params->enableEncodeAsync) return breach("asynchronous mode without completion events");
    const bool legacySession = (session->api & 0xFF) < 10;
    if (!fake()->legacyPresets && legacySession) return NV_ENC_ERR_INVALID_PARAM;
    if (!legacySession && (isLegacyPreset(params->presetGUID) ||
                           params->encodeConfig->rcParams.rateControlMode == NV_ENC_PARAMS_RC_CBR_LOWDELAY_HQ))
        return breach("legacy preset or rate control on the newer interface");
    fake()->initParams = *params;
    fake()->config = *params->encodeConfig;
    session->initialized = true;
    session->idrPeriod = same(params->encodeGUID, NV_ENC_CODEC_H264_GUID)
                             ? params->encodeConfig->encodeCodecConfig.h264Config.idrPeriod
                             : params->encodeConfig->encodeCodecConfig.hevcConfig.idrPeriod;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI createBitstream(void* encoder, NV_ENC_CREATE_BITSTREAM_BUFFER* params) {
    ENTRY("nvEncCreateBitstreamBuffer");
    SESSION(encoder);
    VERSION(params->version, 1, false, "bitstream buffer");
    if (!session->initialized) return breach("bitstream buffer before initialisation");
    params->bitstreamBuffer = newHandle();
    session->buffers[params->bitstreamBuffer];
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI destroyBitstream(void* encoder, NV_ENC_OUTPUT_PTR buffer) {
    ENTRY("nvEncDestroyBitstreamBuffer");
    SESSION(encoder);
    if (!session->buffers.erase(buffer)) return breach("destroying an unknown bitstream buffer");
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI registerResource(void* encoder, NV_ENC_REGISTER_RESOURCE* params) {
    ENTRY("nvEncRegisterResource");
    SESSION(encoder);
    VERSION(params->version, 3, false, "resource registration");
    if (params->resourceType != NV_ENC_INPUT_RESOURCE_TYPE_CUDADEVICEPTR ||
        !device::api().isDevicePointer(params->resourceToRegister))
        return breach("registered resource is not CUDA device memory");
    params->registeredResource = newHandle();
    session->resources[params->registeredResource] = {*params, false};
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI unregisterResource(void* encoder, NV_ENC_REGISTERED_PTR resource) {
    ENTRY("nvEncUnregisterResource");
    SESSION(encoder);
    auto it = session->resources.find(resource);
    if (it == session->resources.end()) return breach("unregistering an unknown resource");
    if (it->second.mapped) return breach("unregistering a mapped resource");
    session->resources.erase(it);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI mapResource(void* encoder, NV_ENC_MAP_INPUT_RESOURCE* params) {
    ENTRY("nvEncMapInputResource");
    SESSION(encoder);
    VERSION(params->version, 4, false, "input mapping");
    auto it = session->resources.find(params->registeredResource);
    if (it == session->resources.end() || it->second.mapped) return breach("mapping an unknown or mapped resource");
    it->second.mapped = true;
    params->mappedResource = static_cast<char*>(params->registeredResource) + 1;
    params->mappedBufferFmt = it->second.registration.bufferFormat;
    return NV_ENC_SUCCESS;
}

FakeNvencSession::Resource* mappedResource(FakeNvencSession& session, void* mapped) {
    auto it = session.resources.find(static_cast<char*>(mapped) - 1);
    return it != session.resources.end() && it->second.mapped ? &it->second : nullptr;
}

NVENCSTATUS NVENCAPI unmapResource(void* encoder, NV_ENC_INPUT_PTR mapped) {
    ENTRY("nvEncUnmapInputResource");
    SESSION(encoder);
    FakeNvencSession::Resource* resource = mappedResource(*session, mapped);
    if (!resource) return breach("unmapping what is not mapped");
    resource->mapped = false;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI encodePicture(void* encoder, NV_ENC_PIC_PARAMS* pic) {
    ENTRY("nvEncEncodePicture");
    SESSION(encoder);
    VERSION(pic->version, 4, true, "picture parameters");
    if (pic->completionEvent) return breach("completion event in synchronous mode");
    auto finishPending = [&] {
        for (auto& buffer : session->buffers)
            if (buffer.second.pending) buffer.second.ready = !(buffer.second.pending = false);
    };
    if (pic->encodePicFlags & NV_ENC_PIC_FLAG_EOS) {
        finishPending();
        return NV_ENC_SUCCESS;
    }
    fake()->pictures.push_back(*pic);
    FakeNvencSession::Resource* resource = mappedResource(*session, pic->inputBuffer);
    auto buffer = session->buffers.find(pic->outputBitstream);
    if (!session->initialized || !resource || buffer == session->buffers.end() || buffer->second.locked ||
        buffer->second.pending)
        return breach("picture without initialised session, mapped input or free bitstream buffer");
    const NV_ENC_REGISTER_RESOURCE& surface = resource->registration;
    if (pic->bufferFmt != surface.bufferFormat || pic->inputWidth != surface.width ||
        pic->inputHeight != surface.height || pic->pictureStruct != NV_ENC_PIC_STRUCT_FRAME)
        return breach("picture does not match its input surface");
    const uint32_t index = session->frames++;
    const uint32_t idr = session->idrPeriod ? session->idrPeriod : UINT32_MAX;
    const uint32_t type = index % idr == 0                                ? NV_ENC_PIC_TYPE_IDR
                          : pic->encodePicFlags & NV_ENC_PIC_FLAG_FORCEINTRA ? NV_ENC_PIC_TYPE_I
                                                                              : NV_ENC_PIC_TYPE_P;
    const auto* bytes = static_cast<const uint8_t*>(surface.resourceToRegister);
    const size_t padded = fake()->packetBytes.count(index) ? fake()->packetBytes[index] : 0;
    buffer->second.bytes = FakeNvenc::payload(
        index, type, FakeNvenc::surfaceHash(bytes, surface.pitch, surface.width, surface.height, surface.bufferFormat),
        padded);
    buffer->second.pictureType = type;
    buffer->second.pending = true;
    if (fake()->needMoreInput.count(index)) return NV_ENC_ERR_NEED_MORE_INPUT;
    finishPending();
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI lockBitstream(void* encoder, NV_ENC_LOCK_BITSTREAM* lock) {
    ENTRY("nvEncLockBitstream");
    SESSION(encoder);
    VERSION(lock->version, 1, false, "bitstream lock");
    auto buffer = session->buffers.find(lock->outputBitstream);
    if (buffer == session->buffers.end() || buffer->second.locked || !buffer->second.ready)
        return breach("locking an unknown, locked or unfinished bitstream buffer");
    if (lock->doNotWait) return breach("non-blocking lock in synchronous mode");
    buffer->second.locked = true;
    buffer->second.ready = false;
    lock->bitstreamBufferPtr = buffer->second.bytes.data();
    lock->bitstreamSizeInBytes = static_cast<uint32_t>(buffer->second.bytes.size());
    lock->pictureType = static_cast<NV_ENC_PIC_TYPE>(buffer->second.pictureType);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI unlockBitstream(void* encoder, NV_ENC_OUTPUT_PTR bitstream) {
    ENTRY("nvEncUnlockBitstream");
    SESSION(encoder);
    auto buffer = session->buffers.find(bitstream);
    if (buffer == session->buffers.end() || !buffer->second.locked) return breach("unlocking what is not locked");
    buffer->second.locked = false;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI destroyEncoder(void* encoder) {
    ENTRY("nvEncDestroyEncoder");
    SESSION(encoder);
    if (!session->buffers.empty() || !session->resources.empty())
        breach("session destroyed while holding buffers or registered resources (leak)");
    fake()->sessions.erase(encoder);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI maxSupportedVersion(uint32_t* version) {
    ENTRY("NvEncodeAPIGetMaxSupportedVersion");
    *version = fake()->maxVersion;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI createInstance(NV_ENCODE_API_FUNCTION_LIST* list) {
    ENTRY("NvEncodeAPICreateInstance");
    fake()->functionListApi = list->version & 0x0F00FFFFu;
    if (list->version != nvencStructVersion(fake()->functionListApi, 2, false)) return breach("function list version");
    list->nvEncOpenEncodeSessionEx = openSession;
    list->nvEncGetEncodeCaps = getCaps;
    list->nvEncGetEncodePresetConfig = getPreset;
    list->nvEncGetEncodePresetConfigEx = getPresetEx;
    list->nvEncInitializeEncoder = initialize;
    list->nvEncCreateBitstreamBuffer = createBitstream;
    list->nvEncDestroyBitstreamBuffer = destroyBitstream;
    list->nvEncRegisterResource = registerResource;
    list->nvEncUnregisterResource = unregisterResource;
    list->nvEncMapInputResource = mapResource;
    list->nvEncUnmapInputResource = unmapResource;
    list->nvEncEncodePicture = encodePicture;
    list->nvEncLockBitstream = lockBitstream;
    list->nvEncUnlockBitstream = unlockBitstream;
    list->nvEncDestroyEncoder = destroyEncoder;
    return NV_ENC_SUCCESS;
}

NvencFunctions library;

int loadLibrary(NvencFunctions** functions) {
    if (fake()->failing.count("load")) return -1;
    library.NvEncodeAPIGetMaxSupportedVersion = maxSupportedVersion;
    library.NvEncodeAPICreateInstance = createInstance;
    *functions = &library;
    ++fake()->librariesLoaded;
    return 0;
}

void freeLibrary(NvencFunctions** functions) {
    --fake()->librariesLoaded;
    *functions = nullptr;
}

}  // namespace

FakeNvenc& fakeNvenc() {
    static FakeNvenc instance;
    return instance;
}

DriverApi FakeNvenc::driverApi() {
    DriverApi api;
    api.loadNvenc = loadLibrary;
    api.freeNvenc = freeLibrary;
    return api;
}

uint64_t FakeNvenc::surfaceHash(const uint8_t* surface, uint32_t pitch, uint32_t width, uint32_t height,
                                NV_ENC_BUFFER_FORMAT format) {
    const bool argb = format == NV_ENC_BUFFER_FORMAT_ARGB;
    const size_t rowBytes = argb ? 4 * size_t(width) : width;
    const size_t rows = argb ? height : height + (height + 1) / 2;
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (size_t row = 0; row < rows; ++row)
        for (size_t i = 0; i < rowBytes; ++i) hash = (hash ^ surface[row * pitch + i]) * 1099511628211ull;
    return hash;
}

std::vector<uint8_t> FakeNvenc::payload(uint32_t frameIndex, uint32_t pictureType, uint64_t hash, size_t bytes) {
    std::vector<uint8_t> out(16);
    std::memcpy(&out[0], &frameIndex, 4);
    std::memcpy(&out[4], &pictureType, 4);
    std::memcpy(&out[8], &hash, 8);
    if (bytes > out.size()) out.resize(bytes, 0);
    return out;
}
