#include "api/encoder_choice.h"

#include <cstdlib>
#include <cstring>

#include "codec/HwEncoder.h"
#include "codec/SwEncoder.h"

namespace {

#define ZOQRV_TEXT(x) #x
#define ZOQRV_EXPAND_TEXT(x) ZOQRV_TEXT(x)
const char kUnknownChoice[] = "ZOQRV_ENCODER must be nvenc, auto or x265";
const char kNoLibx265[] = "the software encoder needs libx265.so." ZOQRV_EXPAND_TEXT(X265_BUILD)
                          ", which cannot be loaded";
#undef ZOQRV_EXPAND_TEXT
#undef ZOQRV_TEXT

enum class Choice { Nvenc, Auto, Software, Unknown };

Choice readChoice() {
    const char* value = std::getenv("ZOQRV_ENCODER");
    if (!value || !*value || std::strcmp(value, "nvenc") == 0) return Choice::Nvenc;
    if (std::strcmp(value, "auto") == 0) return Choice::Auto;
    if (std::strcmp(value, "x265") == 0) return Choice::Software;
    return Choice::Unknown;
}

// An encoder that cannot be made (its memory, for a huge frame size) counts as not ready.
template <class Made>
std::unique_ptr<Encoder> readyOrNull(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate,
                                     uint32_t width, uint32_t height, uint32_t frameRate) {
    try {
        auto encoder = std::make_unique<Made>(dataFormat, codec, lossless, bitrate, width, height, frameRate);
        if (encoder->isReady()) return encoder;
    } catch (...) {
    }
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
    if (!software && choice == Choice::Software && !SwEncoder::library()) *failure = kNoLibx265;
    return software;
}
