#include "codec/HwDecoder.h"

#include <climits>
#include <cstring>
#include <iostream>

#include "container/annexb.h"
#include "device/device_api.h"

namespace {

// A sample that the decoder did not take a picture from is offered this many times before it
// counts as giving no picture.
constexpr int kDecodeAttempts = 3;
// H.264 High 4:4:4 Predictive, the profile of lossless streams from NVENC and libx264.
constexpr int kH264LosslessProfile = 244;

}  // namespace

HwDecoder::HwDecoder(uint32_t dataFormat_, uint32_t codec_, uint32_t width_, uint32_t height_)
    : dataFormat(dataFormat_), codec(codec_) {
    ready = create(codec_, width_, height_);
}

// The staging buffer is freed in the context it was allocated in, whatever the host has current
// now; when that context cannot be pushed, the buffer stays with it.
HwDecoder::~HwDecoder() {
    const device::Api& api = device::api();
    if (staging.ptr && api.pushContext(context) == 0) {
        device::PushedContext pushed(true);
        api.free(staging.ptr);
    }
    decoder.reset();
}

bool HwDecoder::create(uint32_t codec_, uint32_t w, uint32_t h) {
    // The members start at 0 x 0, so a request for 0 x 0 fails here.
    if (w == width && h == height) return false;
    width = w;
    height = h;
    const device::Api& api = device::api();
    // Departure: the set-up is checked, and so is that our kernels run on this GPU. A driver older
    // than the runtime, or a GPU without our kernel images, would fail every launch unseen and
    // hand back stale memory as pictures; such a pipe decodes in software and says why.
    const int notReady = device::checkDeviceReady();
    api.getCurrentContext(&context);
    if (notReady) {
        if (notReady != device::kNoDevice)
            std::cout << "Failed to create decoder (" << device::deviceNotReadyText(notReady) << ")" << std::endl;
        return false;
    }
    if (codec_ > 1) return false;
    const cudaVideoCodec codecType = codec_ == 0 ? cudaVideoCodec_H264 : cudaVideoCodec_HEVC;
    const CuvidFunctions* cuvid = driverApi().cuvid;
    if (!cuvid || !cuvid->cuvidGetDecoderCaps) return false;
    CUVIDDECODECAPS caps = {};
    caps.eCodecType = codecType;
    caps.eChromaFormat = cudaVideoChromaFormat_420;
    caps.nBitDepthMinus8 = 0;
    // The upper size limits are checked by NvDecoder when the stream's first sequence header
    // arrives. Departure: a picture below the minimum gets no hardware pipe.
    cuvid->cuvidGetDecoderCaps(&caps);
    if (!caps.bIsSupported || packing::pictureWidth(dataFormat, w) < caps.nMinWidth || h < caps.nMinHeight)
        return false;
    try {
        decoder.reset(new NvDecoder(context, int(w), int(h), true, codecType, nullptr, true, false));
    } catch (const NVDECException& e) {
        std::cout << "Failed to create decoder (" << e.what() << ")" << std::endl;
        return false;
    }
    return true;
}

uint32_t HwDecoder::decode(const uint8_t* sample, uint64_t sampleBytes, void* out) {
    // A wrapper that is not ready has no decoder; a packet size must fit the parser's int.
    if (!decoder || sampleBytes > uint64_t(INT_MAX)) return 0;
    // Deliberate departure: NVDEC's documented H.264 profiles are Baseline, Main and High, and
    // its capability query names no profile, so a GPU may decode a lossless stream wrongly
    // without an error. The profile is read from each sequence parameter set, and such streams
    // are decoded on the CPU; the pipe stays a hardware pipe with the same output.
    if (codec == 0) {
        const int profile = h264SequenceProfile(sample, size_t(sampleBytes));
        if (profile >= 0) losslessStream = profile == kH264LosslessProfile;
        if (losslessStream) return decodeOnCpu(sample, sampleBytes, out);
    }
    // Work in the host's context would use memory of ours there.
    const device::Api& api = device::api();
    if (api.pushContext(context) != 0) return 0;
    device::PushedContext pushed(true);

    // Departure: a sample whose picture the decoder took is not fed again, and a picture goes out
    // only for its own sample (its timestamp is one of this call's). A decoder that holds pictures
    // back (a stream that reorders; ours never do) would decode a sample fed again twice, and
    // release the pictures of earlier samples here: a stream that reorders gives no picture for
    // the samples whose picture is held back, rather than the wrong one.
    const int64_t firstTimestamp = frameCounter;
    uint8_t* frame = nullptr;
    for (int attempt = 0; attempt < kDecodeAttempts && !frame; ++attempt) {
        uint8_t** frames = nullptr;
        int64_t* timestamps = nullptr;
        int count = 0;
        try {
            decoder->Decode(sample, int(sampleBytes), &frames, &count, CUVID_PKT_ENDOFPICTURE, &timestamps,
                            frameCounter++);
        } catch (const NVDECException& e) {
            std::cout << "Decode failed (" << e.what() << ")" << std::endl;
            break;
        }
        // Of several pictures only the last one is delivered.
        for (int i = count; i-- > 0 && !frame;)
            if (timestamps[i] >= firstTimestamp) frame = frames[i];
        if (decoder->GetDecodedPictureCount() > 0) break;
    }
    if (!frame) return 0;
    // A pipe larger than the decoded picture would make the kernels read outside the frame.
    if (packing::pictureWidth(dataFormat, width) > uint32_t(decoder->GetWidth()) ||
        height > uint32_t(decoder->GetHeight()))
        return 0;
    return packing::launchUnpackForDecode(dataFormat, frame, uint32_t(decoder->GetDeviceFramePitch()), out, width,
                                          height, staging);
}

uint32_t HwDecoder::decodeOnCpu(const uint8_t* sample, uint64_t sampleBytes, void* out) {
    const uint32_t frameWidth = packing::pictureWidth(dataFormat, width);
    if (!cpuDecoder) cpuDecoder = makePictureDecoder(0, frameWidth, height);
    if (!cpuDecoder->isReady()) {
        const char* missing = pictureDecoderMissingText(0);
        std::cout << "Decode failed (" << (missing ? missing : "libavcodec's H.264 decoder did not open") << ")"
                  << std::endl;
        return 0;
    }
    DecodedPicture picture;
    if (!cpuDecoder->decode(sample, uint32_t(sampleBytes), picture)) return 0;
    const uint32_t bytes = packing::packedSize(dataFormat, width, height);
    cpuOut.resize(bytes);
    // As on the GPU, a pipe larger than the picture gets nothing.
    if (!unpackDecodedPicture(picture, dataFormat, width, height, cpuFrame, cpuOut.data())) return 0;
    const device::Api& api = device::api();
    if (api.isDevicePointer(out)) {
        // Copied in our context, as the GPU path writes.
        if (api.pushContext(context) != 0) return 0;
        device::PushedContext pushed(true);
        if (api.copy(out, cpuOut.data(), bytes, device::CopyKind::HostToDevice) != 0) return 0;
    } else {
        std::memcpy(out, cpuOut.data(), bytes);
    }
    return bytes;
}

QrvDecodeStep HwDecoder::decodeStep() {
    return [this](const uint8_t* payload, uint32_t bytes, void* out) {
        return decode(payload, bytes, out) > 0 ? 1 : 0;
    };
}

// Payloads are bounded by the picture the pipe's data is coded in, whatever the call says.
int HwDecoder::decodeNextRecord(FILE* stream, void* out, uint32_t* frameNumber, uint64_t* captureTime,
                                uint32_t* frameType, uint8_t* sampleInfo, uint32_t, uint32_t) {
    return reader.decodeNextRecord(stream, out, frameNumber, captureTime, frameType, sampleInfo,
                                   packing::pictureWidth(dataFormat, width), height, decodeStep());
}

// The scratch frame of the walk, picture width x height x 4 bytes, holds a frame of any data format.
bool HwDecoder::seekToSample(FILE* stream, int32_t sample) {
    return reader.seekToSample(stream, sample, packing::pictureWidth(dataFormat, width), height, decodeStep());
}
