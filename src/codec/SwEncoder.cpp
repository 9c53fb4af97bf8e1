#include "codec/SwEncoder.h"

#include <dlfcn.h>

#include "codec/Exception.h"

namespace {

// The soname and entry point of the interface x265.h describes (x265_api_get is a macro that
// appends the build number).
constexpr const char kLibraryName[] = "libx265.so." ZOQRV_VALUE_TEXT(X265_BUILD);
constexpr const char kEntryPoint[] = "x265_api_get_" ZOQRV_VALUE_TEXT(X265_BUILD);

// libx265 takes 4:2:0 pictures of even size and at least one coding tree unit (16 x 16 at
// the smallest) each way.
constexpr uint32_t kSmallestCtu = 16;

}  // namespace

const char SwEncoder::kMissingLibraryText[] =
    "the HEVC software encoder needs libx265.so." ZOQRV_VALUE_TEXT(X265_BUILD) ", which cannot be loaded";

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
    param->keyframeMax = param->keyframeMin = gopFrames(lossless, frameRate);
    param->bRepeatHeaders = 1;
    param->bAnnexB = 1;
    param->bEmitInfoSEI = 0;
    param->bLossless = lossless == 1;
    if (lossless == 1) return true;
    KilobitRate rate;
    if (!kilobitRate(bitrate, frameRate, width, height, rate)) return false;
    param->rc.rateControlMode = X265_RC_ABR;
    param->rc.bitrate = param->rc.vbvMaxBitrate = rate.bitrate;
    param->rc.vbvBufferSize = rate.vbvBuffer;
    param->rc.bStrictCbr = 1;
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
    input.sliceType = libraryPictureType(forced);
    x265_picture encoded;
    x265_nal* nals = nullptr;
    uint32_t nalCount = 0;
    if (api->encoder_encode(encoder, &nals, &nalCount, &input, &encoded) < 0)
        throw Exception("Encode failed (libx265 refused the picture)");
    for (uint32_t i = 0; i < nalCount; ++i) appendUnit(nals[i].payload, nals[i].sizeBytes);
    return nvencPictureType(encoded.sliceType);
}
