#include "codec/SwEncoder.h"

#include <dlfcn.h>
#include <ffnvcodec/nvEncodeAPI.h>

#include <algorithm>
#include <climits>

#include "codec/Exception.h"

namespace {

#define ZOQRV_TEXT(x) #x
#define ZOQRV_EXPAND_TEXT(x) ZOQRV_TEXT(x)
// The soname and entry point of the interface x265.h describes (x265_api_get is a macro that
// appends the build number).
constexpr const char kLibraryName[] = "libx265.so." ZOQRV_EXPAND_TEXT(X265_BUILD);
constexpr const char kEntryPoint[] = "x265_api_get_" ZOQRV_EXPAND_TEXT(X265_BUILD);

// NVENC's picture types, so that files from either encoder carry the same frame types.
uint32_t nvencPictureType(int sliceType) {
    switch (sliceType) {
    case X265_TYPE_IDR: return NV_ENC_PIC_TYPE_IDR;
    case X265_TYPE_I: return NV_ENC_PIC_TYPE_I;
    case X265_TYPE_P: return NV_ENC_PIC_TYPE_P;
    default: return NV_ENC_PIC_TYPE_B;  // never asked for: B-frames are off
    }
}

// libx265 takes 4:2:0 pictures of even size and at least one coding tree unit (16 x 16 at
// the smallest) each way.
constexpr uint32_t kSmallestCtu = 16;

}  // namespace

const char SwEncoder::kMissingLibraryText[] =
    "the software encoder needs libx265.so." ZOQRV_EXPAND_TEXT(X265_BUILD) ", which cannot be loaded";
#undef ZOQRV_EXPAND_TEXT
#undef ZOQRV_TEXT

const char SwEncoder::kPreset[] = "ultrafast";

// The settings of the NVENC path: no look-ahead, B-frames or frame threads, so each frame's
// access unit leaves in its own call; an IDR with parameter sets every GOP; lossless, or CBR
// with a one-frame VBV.
bool SwEncoder::configure(const x265_api& api, x265_param* param, uint32_t lossless, uint64_t bitrate,
                          uint32_t width, uint32_t height, uint32_t frameRate, const char* preset) {
    if (api.param_default_preset(param, preset ? preset : kPreset, "zerolatency") < 0) return false;
    param->logLevel = X265_LOG_ERROR;
    const uint32_t codedWidth = paddedSize(width, kSmallestCtu), codedHeight = paddedSize(height, kSmallestCtu);
    // Pictures smaller than the preset's coding tree unit take the smallest one.
    if (codedWidth < param->maxCUSize || codedHeight < param->maxCUSize) param->maxCUSize = kSmallestCtu;
    param->sourceWidth = static_cast<int>(codedWidth);
    param->sourceHeight = static_cast<int>(codedHeight);
    param->internalCsp = X265_CSP_I420;
    param->fpsNum = frameRate;
    param->fpsDenom = 1;
    param->bframes = 0;
    param->lookaheadDepth = 0;
    param->frameNumThreads = 1;
    param->scenecutThreshold = 0;
    param->bOpenGOP = 0;
    // GOP as on NVENC. A frame rate of 1 lossless would give 0, which libx265 does not take:
    // every frame is then an IDR.
    const int gop = std::max<int>(1, static_cast<int>(gopLength(lossless, frameRate)));
    param->keyframeMax = param->keyframeMin = gop;
    param->bRepeatHeaders = 1;
    param->bAnnexB = 1;
    param->bEmitInfoSEI = 0;
    param->bLossless = lossless == 1;
    if (lossless != 1) {
        if (frameRate == 0) return false;
        if (bitrate / 1000 == 0) return false;
        // The one-frame VBV, cut to the raw picture (unpadded, as the cap) when the bitrate
        // would let a frame outgrow the output cap.
        const LossyRate rate = lossyRate(bitrate, frameRate, width, height);
        const uint64_t kilobits = rate.bitsPerSecond / 1000;
        if (kilobits > INT32_MAX) return false;
        param->rc.rateControlMode = X265_RC_ABR;
        param->rc.bitrate = param->rc.vbvMaxBitrate = static_cast<int>(kilobits);
        param->rc.vbvBufferSize = std::max<int>(1, static_cast<int>(rate.vbvBits / 1000));
        param->rc.bStrictCbr = 1;
    }
    return true;
}

const x265_api* SwEncoder::library() {
    static const x265_api* const api = [] () -> const x265_api* {
        // Kept loaded for the life of the process: encoders may be made at any time.
        void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
        if (!handle) return nullptr;
        using Get = const x265_api* (*)(int);
        auto get = reinterpret_cast<Get>(dlsym(handle, kEntryPoint));
        const x265_api* found = get ? get(8) : nullptr;
        if (!found || found->api_major_version != X265_MAJOR_VERSION ||
            found->sizeof_param != static_cast<int>(sizeof(x265_param)) ||
            found->sizeof_picture != static_cast<int>(sizeof(x265_picture)))
            return nullptr;
        return found;
    }();
    return api;
}

SwEncoder::SwEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate, uint32_t width,
                     uint32_t height, uint32_t frameRate)
    : SoftwareEncoder(dataFormat, width, height, kSmallestCtu) {
    constexpr uint32_t kHevc = 1;
    if (codec != kHevc || planeBytes() == 0) return;
    api = library();
    if (!api) return;
    param = api->param_alloc();
    if (!param || !configure(*api, param, lossless, bitrate, frameWidth(), height, frameRate)) return;
    api->picture_init(param, &input);
    input.colorSpace = X265_CSP_I420;
    input.bitDepth = 8;
    for (int i = 0; i < 3; ++i) {
        input.planes[i] = plane(i);
        input.stride[i] = static_cast<int>(i == 0 ? planeWidth() : planeWidth() / 2);
    }
    encoder = api->encoder_open(param);
}

SwEncoder::~SwEncoder() {
    if (encoder) api->encoder_close(encoder);
    if (param) api->param_free(param);
}

uint32_t SwEncoder::codePicture(Forced forced) {
    input.sliceType = forced == Forced::Idr ? X265_TYPE_IDR : forced == Forced::Intra ? X265_TYPE_I : X265_TYPE_AUTO;
    x265_picture encoded;
    x265_nal* nals = nullptr;
    uint32_t nalCount = 0;
    if (api->encoder_encode(encoder, &nals, &nalCount, &input, &encoded) < 0)
        throw Exception("Encode failed (libx265 refused the picture)");
    for (uint32_t i = 0; i < nalCount; ++i) appendUnit(nals[i].payload, nals[i].sizeBytes);
    return nvencPictureType(encoded.sliceType);
}
