#include "codec/X264Encoder.h"

#include <dlfcn.h>

#include <algorithm>
#include <type_traits>

#include "codec/Exception.h"

namespace {

// The soname of the interface x264.h describes, and its encoder_open, whose name carries the
// build number so that a library of another interface has none.
constexpr const char kLibraryName[] = "libx264.so." ZOQRV_VALUE_TEXT(X264_BUILD);
constexpr const char kEncoderOpen[] = "x264_encoder_open_" ZOQRV_VALUE_TEXT(X264_BUILD);

// libx264 takes 4:2:0 pictures of even size; it pads to macroblocks itself.
constexpr uint32_t kSmallestSide = 2;

}  // namespace

const char X264Encoder::kMissingLibraryText[] =
    "the H.264 software encoder needs libx264.so." ZOQRV_VALUE_TEXT(X264_BUILD) ", which cannot be loaded";

const char X264Encoder::kLosslessPreset[] = "veryfast";
const char X264Encoder::kLossyPreset[] = "superfast";

// The settings of the NVENC path: no look-ahead, B-frames or frame threads (zerolatency; its
// sliced threads keep each frame's access unit in its own call); an IDR with parameter sets
// every GOP; lossless (qp 0, which libx264 codes in High 4:4:4 Predictive), or CBR with a
// one-frame VBV.
bool X264Encoder::configure(const Api& api, x264_param_t* param, uint32_t lossless, uint64_t bitrate, uint32_t width,
                            uint32_t height, uint32_t frameRate, const char* preset) {
    if (!preset) preset = lossless == 1 ? kLosslessPreset : kLossyPreset;
    if (api.paramDefaultPreset(param, preset, "zerolatency") < 0) return false;
    param->i_log_level = X264_LOG_ERROR;
    param->i_width = static_cast<int>(paddedSize(width, kSmallestSide));
    param->i_height = static_cast<int>(paddedSize(height, kSmallestSide));
    param->i_csp = X264_CSP_I420;
    param->i_bitdepth = 8;
    param->i_fps_num = std::max<uint32_t>(1, frameRate);
    param->i_fps_den = 1;
    param->b_sliced_threads = 1;
    param->i_sync_lookahead = 0;
    param->rc.i_lookahead = 0;
    param->i_bframe = 0;
    param->i_scenecut_threshold = 0;
    param->b_intra_refresh = 0;
    param->b_open_gop = 0;
    param->i_keyint_max = param->i_keyint_min = gopFrames(lossless, frameRate);
    param->b_repeat_headers = 1;
    param->b_annexb = 1;
    param->b_aud = 0;
    if (lossless == 1) {
        param->rc.i_rc_method = X264_RC_CQP;
        param->rc.i_qp_constant = 0;
        return true;
    }
    KilobitRate rate;
    if (!kilobitRate(bitrate, frameRate, width, height, rate)) return false;
    param->rc.i_rc_method = X264_RC_ABR;
    param->rc.i_bitrate = param->rc.i_vbv_max_bitrate = rate.bitrate;
    param->rc.i_vbv_buffer_size = rate.vbvBuffer;
    // Filler data keeps the rate constant on easy pictures too, as NVENC's CBR does.
    param->rc.b_filler = 1;
    return true;
}

const X264Encoder::Api* X264Encoder::library() {
    static const Api* const api = [] () -> const Api* {
        // Kept loaded for the life of the process: encoders may be made at any time.
        void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
        if (!handle) return nullptr;
        static Api found;
        const auto load = [handle](auto& entry, const char* name) {
            entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(dlsym(handle, name));
            return entry != nullptr;
        };
        if (!load(found.paramDefaultPreset, "x264_param_default_preset") || !load(found.pictureInit, "x264_picture_init") ||
            !load(found.encoderOpen, kEncoderOpen) || !load(found.encoderEncode, "x264_encoder_encode") ||
            !load(found.encoderClose, "x264_encoder_close"))
            return nullptr;
        return &found;
    }();
    return api;
}

X264Encoder::X264Encoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate, uint32_t width,
                         uint32_t height, uint32_t frameRate)
    : SoftwareEncoder(dataFormat, width, height, kSmallestSide) {
    constexpr uint32_t kH264 = 0;
    if (codec != kH264 || planeBytes() == 0) return;
    api = library();
    x264_param_t param;
    if (!api || !configure(*api, &param, lossless, bitrate, frameWidth(), frameHeight(), frameRate)) return;
    api->pictureInit(&input);
    input.img.i_csp = X264_CSP_I420;
    input.img.i_plane = 3;
    for (int i = 0; i < 3; ++i) {
        input.img.plane[i] = plane(i);
        input.img.i_stride[i] = static_cast<int>(i == 0 ? planeWidth() : planeWidth() / 2);
    }
    encoder = api->encoderOpen(&param);
}

X264Encoder::~X264Encoder() {
    if (encoder) api->encoderClose(encoder);
}

uint32_t X264Encoder::codePicture(Forced forced) {
    input.i_type = libraryPictureType(forced);
    input.i_pts = nextPts++;
    x264_picture_t encoded;
    x264_nal_t* nals = nullptr;
    int nalCount = 0;
    if (api->encoderEncode(encoder, &nals, &nalCount, &input, &encoded) < 0)
        throw Exception("Encode failed (libx264 refused the picture)");
    // The only SEI with these settings is libx264's text about itself and its options on the
    // first frame: some 700 bytes, more than the cap of a small picture, and of use to no reader.
    for (int i = 0; i < nalCount; ++i)
        if (nals[i].i_type != NAL_SEI) appendUnit(nals[i].p_payload, uint64_t(nals[i].i_payload));
    return nvencPictureType(encoded.i_type);
}
