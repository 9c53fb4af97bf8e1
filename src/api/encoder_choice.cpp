#include "api/encoder_choice.h"

#include <cstdlib>
#include <cstring>

#include "api/codec_object.h"
#include "codec/HwEncoder.h"
#include "codec/SwEncoder.h"
#include "codec/X264Encoder.h"

namespace {

constexpr uint32_t kH264 = 0, kHevc = 1;
using Choice = EncoderChoice;

template <class Made>
std::unique_ptr<Encoder> readyOrNull(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate,
                                     uint32_t width, uint32_t height, uint32_t frameRate) {
    auto encoder = makeCodecObject<Made>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
    if (encoder && encoder->isReady()) return encoder;
    return nullptr;
}

}  // namespace

const char kUnknownEncoderChoice[] = "ZOQRV_ENCODER must be nvenc, auto, software, x264 or x265";

EncoderChoice environmentEncoderChoice(EncoderChoice unset) {
    const char* value = std::getenv("ZOQRV_ENCODER");
    if (!value || !*value) return unset;
    if (std::strcmp(value, "nvenc") == 0) return Choice::Nvenc;
    if (std::strcmp(value, "auto") == 0) return Choice::Auto;
    // The names of the two libraries stay for scripts that know them; each means the software
    // encoder of the pipe's codec, as "software" does.
    for (const char* software : {"software", "x264", "x265"})
        if (std::strcmp(value, software) == 0) return Choice::Software;
    return Choice::Unknown;
}

std::unique_ptr<Encoder> createChosenEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                             uint64_t bitrate, uint32_t width, uint32_t height,
                                             uint32_t frameRate, const char** failure) {
    return createEncoder(environmentEncoderChoice(Choice::Nvenc), dataFormat, codec, lossless, bitrate, width, height,
                         frameRate, failure);
}

std::unique_ptr<Encoder> createEncoder(EncoderChoice choice, uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                       uint64_t bitrate, uint32_t width, uint32_t height, uint32_t frameRate,
                                       const char** failure) {
    if (choice == Choice::Unknown) {
        *failure = kUnknownEncoderChoice;
        return nullptr;
    }
    if (choice != Choice::Software) {
        auto hardware = readyOrNull<HwEncoder>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
        if (hardware || choice == Choice::Nvenc) return hardware;
    }
    if (codec != kH264 && codec != kHevc) return nullptr;
    auto software = codec == kH264
                        ? readyOrNull<X264Encoder>(dataFormat, codec, lossless, bitrate, width, height, frameRate)
                        : readyOrNull<SwEncoder>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
    // A missing library is worth its own text: the machine lacks a package, not a codec.
    if (!software) {
        if (codec == kH264 && !X264Encoder::library()) *failure = X264Encoder::kMissingLibraryText;
        if (codec == kHevc && !SwEncoder::library()) *failure = SwEncoder::kMissingLibraryText;
    }
    return software;
}

uint32_t defaultRecordingCodec() { return defaultRecordingCodec(environmentEncoderChoice(Choice::Nvenc)); }

const char* encoderName(const Encoder& encoder) {
    if (dynamic_cast<const HwEncoder*>(&encoder)) return "NVENC";
    return dynamic_cast<const X264Encoder*>(&encoder) ? "libx264" : "libx265";
}

uint32_t defaultRecordingCodec(EncoderChoice choice) {
    if (choice == Choice::Software) return kH264;
    // A small lossy HEVC session, which every NVENC that encodes HEVC takes.
    constexpr uint32_t kUint8 = 3;
    return readyOrNull<HwEncoder>(kUint8, kHevc, 0, 1000000, 256, 256, 30) ? kHevc : kH264;
}
