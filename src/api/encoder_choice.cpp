#include "api/encoder_choice.h"

#include <cstdlib>
#include <cstring>

#include "api/codec_object.h"
#include "codec/HwEncoder.h"
#include "codec/SwEncoder.h"

namespace {

const char kUnknownChoice[] = "ZOQRV_ENCODER must be nvenc, auto or x265";

enum class Choice { Nvenc, Auto, Software, Unknown };

Choice readChoice() {
    const char* value = std::getenv("ZOQRV_ENCODER");
    if (!value || !*value || std::strcmp(value, "nvenc") == 0) return Choice::Nvenc;
    if (std::strcmp(value, "auto") == 0) return Choice::Auto;
    if (std::strcmp(value, "x265") == 0) return Choice::Software;
    return Choice::Unknown;
}

template <class Made>
std::unique_ptr<Encoder> readyOrNull(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate,
                                     uint32_t width, uint32_t height, uint32_t frameRate) {
    auto encoder = makeCodecObject<Made>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
    if (encoder && encoder->isReady()) return encoder;
    return nullptr;
}

}  // namespace

std::unique_ptr<Encoder> createChosenEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                             uint64_t bitrate, uint32_t width, uint32_t height,
                                             uint32_t frameRate, const char** failure) {
    const Choice choice = readChoice();
    if (choice == Choice::Unknown) {
        *failure = kUnknownChoice;
        return nullptr;
    }
    if (choice != Choice::Software) {
        auto hardware = readyOrNull<HwEncoder>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
        if (hardware || choice == Choice::Nvenc) return hardware;
    }
    auto software = readyOrNull<SwEncoder>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
    // Asked for by name, a missing libx265 is worth its own text; with "auto" it only means
    // that there is no software encoder.
    if (!software && choice == Choice::Software && !SwEncoder::library()) *failure = SwEncoder::kMissingLibraryText;
    return software;
}
