// Encodes one frame of caller data per call into one HEVC access unit with libx265, for
// machines without NVENC. libx265 is loaded at run time, so the library neither links it nor
// needs it.
#pragma once

#include <x265.h>

#include <cstdint>

#include "codec/SoftwareEncoder.h"

class SwEncoder : public SoftwareEncoder {
public:
    SwEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate, uint32_t width,
              uint32_t height, uint32_t frameRate);
    ~SwEncoder() override;
    SwEncoder(const SwEncoder&) = delete;
    SwEncoder& operator=(const SwEncoder&) = delete;

    bool isReady() const override { return encoder != nullptr; }

    // libx265's interface, loaded once per process; null when the library is missing or was
    // built for another interface.
    static const x265_api* library();
    // The failure text of a software encoder asked for while library() is null.
    static const char kMissingLibraryText[];
    // The preset the measurements chose (docs/software-encoding.md).
    static const char kPreset[];
    // The settings of a picture of width × height, coded padded to even sizes of at least 16
    // each way, with the chosen preset or the one given; false for settings libx265 cannot take.
    // The benchmark's baseline uses them too.
    static bool configure(const x265_api& api, x265_param* param, uint32_t lossless, uint64_t bitrate,
                          uint32_t width, uint32_t height, uint32_t frameRate, const char* preset = nullptr);

private:
    uint32_t codePicture(Forced forced) override;

    const x265_api* api = nullptr;
    x265_param* param = nullptr;
    x265_encoder* encoder = nullptr;
    x265_picture input;  // points at the planes
};
