#include "support/fake_nvenc.h"

#include <cstring>

#include "device/device_api.h"

namespace {

// A bitstream buffer (ready: encoded, may be locked) or a registered resource (whose mapped handle
// is its handle + 1).
struct Object {
    bool isBuffer = false, ready = false, locked = false, mapped = false;
    std::vector<uint8_t> bytes;
    uint32_t pictureType = 0;
    NV_ENC_REGISTER_RESOURCE registration = {};
};
struct Session {
    uint32_t api = 0, idrPeriod = 0, frames = 0;
    bool initialized = false;
    std::map<void*, Object> objects;
};
std::map<void*, Session> sessions;
uint32_t functionListApi = 0;

FakeNvenc& fake() { return fakeNvenc(); }
bool same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
void* newHandle() {
    static uintptr_t next = 0;
    return reinterpret_cast<void*>((++next) << 4);
}
NVENCSTATUS breach(const std::string& what, NVENCSTATUS status = NV_ENC_ERR_INVALID_PARAM) {
    fake().faults.push_back(what);
    return status;
}
// The object of `handle` of the given kind, or none.
Object* find(Session& session, void* handle, bool buffer) {
    auto it = session.objects.find(handle);
    return it != session.objects.end() && it->second.isBuffer == buffer ? &it->second : nullptr;
}
Object* mappedResource(Session& session, void* mapped) {
    Object* resource = find(session, static_cast<char*>(mapped) - 1, false);
    return resource && resource->mapped ? resource : nullptr;
}

// Each entry logs its call, and a chosen failure answers before anything is done; session
// entries find their session, and every structure's version word must be the session's.
#define ENTRY(name)   \
    ++fake().calls[name]; \
    if (fake().failing.count(name)) return fake().failing[name]
#define SESSION_ENTRY(name, encoder)                                                                     \
    ENTRY(name);                                                                                         \
    if (!sessions.count(encoder)) return breach("unknown session", NV_ENC_ERR_INVALID_ENCODERDEVICE); \
    Session& session = sessions[encoder]
#define VERSION(word, n, extended)                              \
    if ((word) != nvencStructVersion(session.api, n, extended)) \
    return breach(std::string("version word of ") + #word, NV_ENC_ERR_INVALID_VERSION)

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the legacy presets are what the fake checks for
bool isLegacyPreset(const GUID& preset) {
    return same(preset, NV_ENC_PRESET_DEFAULT_GUID) || same(preset, NV_ENC_PRESET_LOW_LATENCY_HQ_GUID) ||
           same(preset, NV_ENC_PRESET_LOSSLESS_DEFAULT_GUID) || same(preset, NV_ENC_PRESET_LOSSLESS_HP_GUID);
}

NVENCSTATUS NVENCAPI openSession(NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS* params, void** encoder) {
    ENTRY("nvEncOpenEncodeSessionEx");
    Session session;
    session.api = params->apiVersion;
    if (session.api != functionListApi) return breach("session and function list versions differ");
    if ((((session.api & 0xFF) << 4) | (session.api >> 24)) > fake().maxVersion)
        return breach("interface newer than the driver", NV_ENC_ERR_INVALID_VERSION);
    VERSION(params->version, 1, false);
    if (params->deviceType != NV_ENC_DEVICE_TYPE_CUDA || !params->device) return breach("no CUDA context");
    sessions[*encoder = newHandle()] = session;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI getCaps(void* encoder, GUID codec, NV_ENC_CAPS_PARAM* query, int* value) {
    SESSION_ENTRY("nvEncGetEncodeCaps", encoder);
    VERSION(query->version, 1, false);
    *value = same(codec, NV_ENC_CODEC_HEVC_GUID) && !fake().hevc ? 0 : 4096;
    return NV_ENC_SUCCESS;
}

// Both preset queries: the legacy one takes the legacy presets only, the newer one the others.
NVENCSTATUS preset(Session& session, bool legacyQuery, GUID preset, NV_ENC_TUNING_INFO tuning,
                   NV_ENC_PRESET_CONFIG* out) {
    VERSION(out->version, 4, true);
    VERSION(out->presetCfg.version, 7, true);
    if (isLegacyPreset(preset) != legacyQuery || (!legacyQuery && tuning == NV_ENC_TUNING_INFO_UNDEFINED))
        return breach("preset or tuning info of the other interface");
    if (legacyQuery && !fake().legacyPresets) return NV_ENC_ERR_UNSUPPORTED_PARAM;
    NV_ENC_CONFIG& config = out->presetCfg;
    config.frameIntervalP = 3, config.gopLength = 250;
    config.rcParams.rateControlMode = NV_ENC_PARAMS_RC_VBR, config.rcParams.constQP = {20, 22, 18};
    config.rcParams.lookaheadDepth = fake().lookaheadDepth;
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI getPreset(void* encoder, GUID, GUID presetGuid, NV_ENC_PRESET_CONFIG* config) {
    SESSION_ENTRY("nvEncGetEncodePresetConfig", encoder);
    return preset(session, true, presetGuid, NV_ENC_TUNING_INFO_UNDEFINED, config);
}
NVENCSTATUS NVENCAPI getPresetEx(void* encoder, GUID, GUID presetGuid, NV_ENC_TUNING_INFO tuning,
                                 NV_ENC_PRESET_CONFIG* config) {
    SESSION_ENTRY("nvEncGetEncodePresetConfigEx", encoder);
    return preset(session, false, presetGuid, tuning, config);
}

NVENCSTATUS NVENCAPI initialize(void* encoder, NV_ENC_INITIALIZE_PARAMS* params) {
    SESSION_ENTRY("nvEncInitializeEncoder", encoder);
    VERSION(params->version, 5, true);
    VERSION(params->encodeConfig->version, 7, true);
    if (params->enableEncodeAsync) return breach("asynchronous mode without completion events");
    if ((session.api & 0xFF) >= 10 &&
        (isLegacyPreset(params->presetGUID) ||
         params->encodeConfig->rcParams.rateControlMode == NV_ENC_PARAMS_RC_CBR_LOWDELAY_HQ))
        return breach("legacy preset or rate control on the newer interface");
    fake().initParams = *params;
    fake().config = *params->encodeConfig;
    session.initialized = true;
    const auto& codec = params->encodeConfig->encodeCodecConfig;
    session.idrPeriod = same(params->encodeGUID, NV_ENC_CODEC_H264_GUID) ? codec.h264Config.idrPeriod
                                                                          : codec.hevcConfig.idrPeriod;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI createBitstream(void* encoder, NV_ENC_CREATE_BITSTREAM_BUFFER* params) {
    SESSION_ENTRY("nvEncCreateBitstreamBuffer", encoder);
    VERSION(params->version, 1, false);
    if (!session.initialized) return breach("bitstream buffer before initialisation");
    session.objects[params->bitstreamBuffer = newHandle()].isBuffer = true;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI registerResource(void* encoder, NV_ENC_REGISTER_RESOURCE* params) {
    SESSION_ENTRY("nvEncRegisterResource", encoder);
    VERSION(params->version, 3, false);
    if (params->resourceType != NV_ENC_INPUT_RESOURCE_TYPE_CUDADEVICEPTR ||
        !device::api().isDevicePointer(params->resourceToRegister))
        return breach("registered resource is not CUDA device memory");
    session.objects[params->registeredResource = newHandle()].registration = *params;
    return NV_ENC_SUCCESS;
}

// Buffers and resources go the same way; a mapped resource does not.
NVENCSTATUS destroy(Session& session, void* handle, bool buffer) {
    Object* object = find(session, handle, buffer);
    if (!object || object->mapped) return breach("releasing an unknown or mapped object");
    session.objects.erase(handle);
    return NV_ENC_SUCCESS;
}
NVENCSTATUS NVENCAPI destroyBitstream(void* encoder, NV_ENC_OUTPUT_PTR buffer) {
    SESSION_ENTRY("nvEncDestroyBitstreamBuffer", encoder);
    return destroy(session, buffer, true);
}
NVENCSTATUS NVENCAPI unregisterResource(void* encoder, NV_ENC_REGISTERED_PTR resource) {
    SESSION_ENTRY("nvEncUnregisterResource", encoder);
    return destroy(session, resource, false);
}

NVENCSTATUS NVENCAPI mapResource(void* encoder, NV_ENC_MAP_INPUT_RESOURCE* params) {
    SESSION_ENTRY("nvEncMapInputResource", encoder);
    VERSION(params->version, 4, false);
    Object* resource = find(session, params->registeredResource, false);
    if (!resource || resource->mapped) return breach("mapping an unknown or mapped resource");
    resource->mapped = true;
    params->mappedResource = static_cast<char*>(params->registeredResource) + 1;
    params->mappedBufferFmt = resource->registration.bufferFormat;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI unmapResource(void* encoder, NV_ENC_INPUT_PTR mapped) {
    SESSION_ENTRY("nvEncUnmapInputResource", encoder);
    Object* resource = mappedResource(session, mapped);
    if (!resource) return breach("unmapping what is not mapped");
    resource->mapped = false;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI encodePicture(void* encoder, NV_ENC_PIC_PARAMS* pic) {
    SESSION_ENTRY("nvEncEncodePicture", encoder);
    VERSION(pic->version, 4, true);
    if (pic->completionEvent) return breach("completion event in synchronous mode");
    Object* resource = mappedResource(session, pic->inputBuffer);
    Object* buffer = find(session, pic->outputBitstream, true);
    if (!session.initialized || !resource || !buffer || buffer->locked || buffer->ready)
        return breach("picture without initialised session, mapped input or free bitstream buffer");
    const NV_ENC_REGISTER_RESOURCE& surface = resource->registration;
    if (pic->bufferFmt != surface.bufferFormat || pic->inputWidth != surface.width ||
        pic->inputHeight != surface.height || pic->pictureStruct != NV_ENC_PIC_STRUCT_FRAME)
        return breach("picture does not match its input surface");
    const uint32_t index = session.frames++;
    buffer->pictureType = index % (session.idrPeriod ? session.idrPeriod : UINT32_MAX) == 0 ? NV_ENC_PIC_TYPE_IDR
                          : pic->encodePicFlags & NV_ENC_PIC_FLAG_FORCEINTRA             ? NV_ENC_PIC_TYPE_I
                                                                                         : NV_ENC_PIC_TYPE_P;
    buffer->bytes = FakeNvenc::payload(index, buffer->pictureType,
                                       static_cast<const uint8_t*>(surface.resourceToRegister), surface.pitch,
                                       surface.width, surface.height, surface.bufferFormat,
                                       fake().packetBytes.count(index) ? fake().packetBytes[index] : 0);
    buffer->ready = true;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI lockBitstream(void* encoder, NV_ENC_LOCK_BITSTREAM* lock) {
    SESSION_ENTRY("nvEncLockBitstream", encoder);
    VERSION(lock->version, 1, false);
    Object* buffer = find(session, lock->outputBitstream, true);
    if (!buffer || buffer->locked || !buffer->ready || lock->doNotWait)
        return breach("locking an unknown, locked or unfinished bitstream buffer, or without waiting");
    buffer->locked = !(buffer->ready = false);
    lock->bitstreamBufferPtr = buffer->bytes.data();
    lock->bitstreamSizeInBytes = static_cast<uint32_t>(buffer->bytes.size());
    lock->pictureType = static_cast<NV_ENC_PIC_TYPE>(buffer->pictureType);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI unlockBitstream(void* encoder, NV_ENC_OUTPUT_PTR bitstream) {
    SESSION_ENTRY("nvEncUnlockBitstream", encoder);
    Object* buffer = find(session, bitstream, true);
    if (!buffer || !buffer->locked) return breach("unlocking what is not locked");
    buffer->locked = false;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI destroyEncoder(void* encoder) {
    SESSION_ENTRY("nvEncDestroyEncoder", encoder);
    if (!session.objects.empty()) breach("session destroyed while holding buffers or registered resources (leak)");
    sessions.erase(encoder);
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI maxSupportedVersion(uint32_t* version) {
    ENTRY("NvEncodeAPIGetMaxSupportedVersion");
    *version = fake().maxVersion;
    return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI createInstance(NV_ENCODE_API_FUNCTION_LIST* list) {
    ENTRY("NvEncodeAPICreateInstance");
    functionListApi = list->version & 0x0F00FFFFu;
    if (list->version != nvencStructVersion(functionListApi, 2, false)) return breach("function list version");
    list->nvEncOpenEncodeSessionEx = openSession, list->nvEncGetEncodeCaps = getCaps;
    list->nvEncGetEncodePresetConfig = getPreset, list->nvEncGetEncodePresetConfigEx = getPresetEx;
    list->nvEncInitializeEncoder = initialize, list->nvEncCreateBitstreamBuffer = createBitstream;
    list->nvEncDestroyBitstreamBuffer = destroyBitstream, list->nvEncRegisterResource = registerResource;
    list->nvEncUnregisterResource = unregisterResource, list->nvEncMapInputResource = mapResource;
    list->nvEncUnmapInputResource = unmapResource, list->nvEncEncodePicture = encodePicture;
    list->nvEncLockBitstream = lockBitstream, list->nvEncUnlockBitstream = unlockBitstream;
    list->nvEncDestroyEncoder = destroyEncoder;
    return NV_ENC_SUCCESS;
}

int loadLibrary(NvencFunctions** functions) {
    static NvencFunctions library;
    if (fake().failing.count("load")) return -1;
    library.NvEncodeAPIGetMaxSupportedVersion = maxSupportedVersion;
    library.NvEncodeAPICreateInstance = createInstance;
    *functions = &library;
    ++fake().librariesLoaded;
    return 0;
}
void freeLibrary(NvencFunctions** functions) {
    --fake().librariesLoaded;
    *functions = nullptr;
}

}  // namespace

FakeNvenc& fakeNvenc() {
    static FakeNvenc instance;
    return instance;
}

DriverApi FakeNvenc::driverApi() {
    sessions.clear();
    DriverApi api;
    api.loadNvenc = loadLibrary;
    api.freeNvenc = freeLibrary;
    return api;
}

size_t FakeNvenc::openSessions() const { return sessions.size(); }

std::vector<uint8_t> FakeNvenc::payload(uint32_t index, uint32_t type, const uint8_t* surface, uint32_t pitch,
                                        uint32_t width, uint32_t height, NV_ENC_BUFFER_FORMAT format, size_t bytes) {
    const bool argb = format == NV_ENC_BUFFER_FORMAT_ARGB;
    const size_t rowBytes = argb ? 4 * size_t(width) : width, rows = argb ? height : height + (height + 1) / 2;
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (size_t row = 0; row < rows; ++row)
        for (size_t i = 0; i < rowBytes; ++i) hash = (hash ^ surface[row * pitch + i]) * 1099511628211ull;
    std::vector<uint8_t> out(std::max<size_t>(bytes, 16), 0);
    std::memcpy(&out[0], &index, 4);
    std::memcpy(&out[4], &type, 4);
    std::memcpy(&out[8], &hash, 8);
    return out;
}
