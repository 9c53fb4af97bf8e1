#include "NVCompression/NvCodec/NvEncoder/NvEncoderCapabilities.h"

namespace {

bool supportsCodec(const NV_ENCODE_API_FUNCTION_LIST& nvenc, void* encoder, GUID codec) {
    NV_ENC_CAPS_PARAM query = {};
    query.version = kNvEncInterface8_1.capsParam;
    query.capsToQuery = NV_ENC_CAPS_WIDTH_MAX;
    int maxWidth = 0;
    nvenc.nvEncGetEncodeCaps(encoder, codec, &query, &maxWidth);
    return maxWidth > 0;
}

}  // namespace

EncoderCapabilities probeEncoderCapabilities(CUcontext context) {
    EncoderCapabilities caps;
    const DriverApi& api = driverApi();
    NvencFunctions* library = nullptr;
    if (!api.loadNvenc || api.loadNvenc(&library) != 0) return caps;

    uint32_t version = 0;
    library->NvEncodeAPIGetMaxSupportedVersion(&version);
    NV_ENCODE_API_FUNCTION_LIST nvenc = {};
    nvenc.version = kNvEncInterface8_1.functionList;
    if (version >= kNvEncInterface8_1.requiredMaxVersion() && library->NvEncodeAPICreateInstance &&
        library->NvEncodeAPICreateInstance(&nvenc) == NV_ENC_SUCCESS &&
        nvenc.nvEncOpenEncodeSessionEx) {
        NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS session = {};
        session.version = kNvEncInterface8_1.openSessionParams;
        session.deviceType = NV_ENC_DEVICE_TYPE_CUDA;
        session.device = context;
        session.apiVersion = kNvEncApiVersion;
        void* encoder = nullptr;
        const bool opened = nvenc.nvEncOpenEncodeSessionEx(&session, &encoder) == NV_ENC_SUCCESS;
        if (opened) {
            caps.h264 = supportsCodec(nvenc, encoder, NV_ENC_CODEC_H264_GUID);
            caps.hevc = supportsCodec(nvenc, encoder, NV_ENC_CODEC_HEVC_GUID);
        }
        // A session whose open failed may still have a handle, which must be destroyed as well.
        if (encoder) nvenc.nvEncDestroyEncoder(encoder);
    }
    api.freeNvenc(&library);
    return caps;
}
