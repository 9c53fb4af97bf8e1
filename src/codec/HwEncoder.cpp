#include "codec/HwEncoder.h"

#include <atomic>
#include <cstring>
#include <iostream>
#include <new>
#include <string>

#include "codec/Exception.h"
#include "device/device_api.h"

namespace {

enum class InterfaceChoice { Undecided, Legacy, Newest };
std::atomic<InterfaceChoice> interfaceChoice{InterfaceChoice::Undecided};

NV_ENC_BUFFER_FORMAT bufferFormat(uint32_t dataFormat) {
    return dataFormat == packing::kColour32 ? NV_ENC_BUFFER_FORMAT_ARGB : NV_ENC_BUFFER_FORMAT_NV12;
}

}  // namespace

void HwEncoder::forgetInterfaceChoice() { interfaceChoice = InterfaceChoice::Undecided; }

HwEncoder::HwEncoder(uint32_t dataFormat_, uint32_t codec_, uint32_t lossless_, uint64_t bitrate_,
                     uint32_t width, uint32_t height, uint32_t frameRate_)
    : dataFormat(dataFormat_), lossless(lossless_), codec(codec_), bitrate(bitrate_), frameRate(frameRate_) {
    ready = setUpSession(width, height);
}

HwEncoder::~HwEncoder() {
    const device::Api& api = device::api();
    // The session's memory is freed in the session's context, whatever the host has current.
    device::PushedContext pushed(context && api.pushContext(context) == 0);
    api.free(staging.ptr);
    encoder.reset();
}

bool HwEncoder::setUpSession(uint32_t width, uint32_t height) {
    if (width == sessionWidth && height == sessionHeight) return false;
    sessionWidth = width;
    sessionHeight = height;
    // The old session has the old geometry: frames of the new one must never reach it.
    encoder.reset();
    try {
        // The per-frame cap, not w × h × 4 of the data: for 32-bit samples that is the raw
        // data, which lossless coding often outgrows.
        output.assign(packing::maxAccessUnitBytes(width, height), 0);
    } catch (const std::bad_alloc&) {
        output.clear();
        return false;
    }
    // Where our kernels cannot run, every packing launch would fail unseen and stale device
    // memory would be encoded.
    // A machine without a GPU records in software without a word, as decoding does.
    if (const int notReady = device::checkDeviceReady())
        return notReady != device::kNoDevice && printSetUpFailure(device::deviceNotReadyText(notReady));
    device::api().getCurrentContext(&context);
    if (codec == 1 && !probeEncoderCapabilities(context).hevc) return false;
    // The low-latency VBV size divides by the frame rate.
    if (lossless != 1 && frameRate == 0) return false;

    // The legacy presets come first; drivers that refuse them (from the 590 series on) are
    // asked again through the newest interface, and the process remembers which one worked.
    std::string failure;
    if (interfaceChoice != InterfaceChoice::Newest) {
        const SessionResult legacy = createSession(kNvEncInterface8_1, width, height, failure);
        if (legacy == SessionResult::Created) interfaceChoice = InterfaceChoice::Legacy;
        if (legacy != SessionResult::PresetsRefused || interfaceChoice == InterfaceChoice::Legacy)
            return legacy == SessionResult::Created || printSetUpFailure(failure);
    }
    if (createSession(kNvEncInterfaceNewest, width, height, failure) != SessionResult::Created)
        return printSetUpFailure(failure);
    interfaceChoice = InterfaceChoice::Newest;
    return true;
}

// The host's text for a failed creation is the library-wide one; the driver's reason goes to
// standard output, as the decoder's set-up failures do.
bool HwEncoder::printSetUpFailure(const std::string& failure) {
    if (!failure.empty()) std::cout << "Failed to create encoder (" << failure << ")" << std::endl;
    return false;
}

HwEncoder::SessionResult HwEncoder::createSession(const NvEncInterface& nvencInterface, uint32_t width,
                                                  uint32_t height, std::string& failure) {
    encoder.reset();
    try {
        encoder.reset(new NvEncoderCuda(context, width, height, bufferFormat(dataFormat), 0, false, nvencInterface));
    } catch (const NVENCException& e) {
        failure = e.what();
        return SessionResult::Failed;
    }
    if (codec > 1) return SessionResult::Failed;
    const bool legacy = nvencInterface.hasLegacyPresets();
    const GUID codecGuid = codec == 0 ? NV_ENC_CODEC_H264_GUID : NV_ENC_CODEC_HEVC_GUID;
    GUID presetGuid = lossless == 1 ? kNvEncPresetLosslessDefaultGuid : kNvEncPresetLowLatencyHqGuid;
    if (!legacy) presetGuid = lossless == 1 ? NV_ENC_PRESET_P3_GUID : NV_ENC_PRESET_P4_GUID;
    const NV_ENC_TUNING_INFO tuningInfo = lossless == 1 ? NV_ENC_TUNING_INFO_LOSSLESS : NV_ENC_TUNING_INFO_LOW_LATENCY;
    const uint32_t gopLength = Encoder::gopLength(lossless, frameRate);

    NV_ENC_CONFIG config = {};
    NV_ENC_INITIALIZE_PARAMS params = {};
    config.version = nvencInterface.config;
    params.version = nvencInterface.initializeParams;
    params.encodeConfig = &config;
    try {
        encoder->CreateDefaultEncoderParams(&params, codecGuid, presetGuid, gopLength, tuningInfo);
        params.encodeWidth = width;
        params.encodeHeight = height;
        params.frameRateNum = frameRate;
        params.frameRateDen = 1;
        params.enablePTD = 1;
        config.gopLength = gopLength;
        // The codec settings share their memory: only the session's codec is written, as the
        // other's IDR period lands on this one's minimum CU size or temporal layer count.
        // Every IDR carries its parameter sets, so a fresh decoder can start at any key frame.
        if (codec == 0) {
            config.encodeCodecConfig.h264Config.idrPeriod = gopLength;
            config.encodeCodecConfig.h264Config.repeatSPSPPS = 1;
        } else {
            config.encodeCodecConfig.hevcConfig.idrPeriod = gopLength;
            config.encodeCodecConfig.hevcConfig.repeatSPSPPS = 1;
        }
        if (lossless != 1) {
            // CBR_LOWDELAY_HQ went with the legacy presets; on the newer interface CBR with the
            // low-latency tuning takes the settings the header pairs with it: two passes and key
            // frames no larger than other frames, so they fit the one-frame VBV.
            config.rcParams.rateControlMode = legacy ? NV_ENC_PARAMS_RC_CBR_LOWDELAY_HQ : NV_ENC_PARAMS_RC_CBR;
            if (!legacy) {
                config.rcParams.multiPass = NV_ENC_TWO_PASS_QUARTER_RESOLUTION;
                config.rcParams.lowDelayKeyFrameScale = 1;
            }
            // The one-frame VBV, cut to the raw picture when the bitrate would let a frame
            // outgrow the output cap.
            const LossyRate rate = lossyRate(static_cast<uint32_t>(bitrate), frameRate, width, height);
            config.rcParams.averageBitRate = config.rcParams.maxBitRate = static_cast<uint32_t>(rate.bitsPerSecond);
            config.rcParams.vbvBufferSize = config.rcParams.vbvInitialDelay = static_cast<uint32_t>(rate.vbvBits);
        }
        encoder->CreateEncoder(&params);
    } catch (const NVENCException& e) {
        // The preset query and the initialisation are where a driver refuses the legacy
        // presets; a failure after initialisation (ring set-up) is no refusal.
        const bool refused = legacy && !encoder->IsEncoderCreated();
        failure = e.what();
        // A session that failed after initialisation has no input frames to hand out.
        encoder.reset();
        return refused ? SessionResult::PresetsRefused : SessionResult::Failed;
    }
    return SessionResult::Created;
}

uint64_t HwEncoder::encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                           uint32_t* pictureType, bool forceIntra) {
    // The session's context is pushed and popped, so the host's stays current; without it
    // nothing can be encoded.
    const bool pushed = device::api().pushContext(context) == 0;
    device::PushedContext popAtReturn(pushed);
    if (pushed) setUpSession(packing::pictureWidth(dataFormat, width), height);
    // Without a session for this geometry nothing comes out; the exported calls fail the frame.
    if (!pushed || !encoder || !encoder->IsEncoderCreated()) {
        *pictureType = NV_ENC_PIC_TYPE_UNKNOWN;
        return 0;
    }
    const NvEncInputFrame* frame = encoder->GetNextInputFrame();
    const uint32_t sourcePitch = static_cast<uint32_t>(pitch);
    if (dataFormat == packing::kColour32)
        packing::copyColourForEncode(data, sourcePitch, frame->inputPtr, frame->pitch, width, height);
    else
        packing::launchPackForEncode(dataFormat, data, sourcePitch, frame->inputPtr, frame->pitch, width, height,
                                     staging);
    const uint64_t bytes = collect(output.data(), output.size(), pictureType, forceIntra);
    if (bytes) ++encodedFrameCount;
    return bytes;
}

uint64_t HwEncoder::collect(uint8_t* out, uint64_t capacity, uint32_t* pictureType, bool forceIntra) {
    *pictureType = NV_ENC_PIC_TYPE_UNKNOWN;
    NV_ENC_PIC_PARAMS picParams = {};
    if (keyFrameRequested)
        picParams.encodePicFlags = NV_ENC_PIC_FLAG_FORCEIDR | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS;
    else if (forceIntra)
        picParams.encodePicFlags = NV_ENC_PIC_FLAG_FORCEINTRA | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS;
    // From here on a failure may leave the frame a reference inside the session: until its
    // bytes are out whole, the next frame is to be an IDR.
    keyFrameRequested = true;
    try {
        *pictureType = encoder->EncodeFrame(packets, picParams.encodePicFlags ? &picParams : nullptr);
    } catch (const NVENCException& e) {
        throw Exception(std::string("Encode failed (") + e.what() + ")");
    }
    uint64_t total = 0;
    for (const std::vector<uint8_t>& packet : packets) {
        if (total + packet.size() > capacity) throw Exception("Encode output buffer overflow");
        std::memcpy(out + total, packet.data(), packet.size());
        total += packet.size();
    }
    keyFrameRequested = false;
    return total;
}
