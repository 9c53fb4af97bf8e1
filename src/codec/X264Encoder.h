// Encodes one frame of caller data per call into one H.264 access unit with libx264, for
// machines without NVENC. libx264 is loaded at run time, so the library neither links it nor
// needs it.
#pragma once

#include <cstdint>
#include <cstdio>  // x264.h uses FILE without it
#include <x264.h>

#include "codec/SoftwareEncoder.h"

class X264Encoder : public SoftwareEncoder {
public:
    // The entry points of libx264's interface that the encoder uses.
    struct Api {
        int (*paramDefaultPreset)(x264_param_t*, const char* preset, const char* tune);
        void (*pictureInit)(x264_picture_t*);
        x264_t* (*encoderOpen)(x264_param_t*);
        int (*encoderEncode)(x264_t*, x264_nal_t**, int*, x264_picture_t*, x264_picture_t*);
        void (*encoderClose)(x264_t*);
    };

    X264Encoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate, uint32_t width,
                uint32_t height, uint32_t frameRate);
    ~X264Encoder() override;
    X264Encoder(const X264Encoder&) = delete;
    X264Encoder& operator=(const X264Encoder&) = delete;

    bool isReady() const override { return encoder != nullptr; }

    // libx264's interface, loaded once per process; null when the library is missing.
    static const Api* library();
    // The failure text of an H.264 software encoder asked for while library() is null.
    static const char kMissingLibraryText[];
    // The presets the measurements chose (docs/software-encoding.md).
    static const char kLosslessPreset[], kLossyPreset[];
    // The settings of a picture of width × height (even), with the chosen preset or the one
    // given; false for settings libx264 cannot take. The benchmark's baseline uses them too.
    static bool configure(const Api& api, x264_param_t* param, uint32_t lossless, uint64_t bitrate, uint32_t width,
                          uint32_t height, uint32_t frameRate, const char* preset = nullptr);

private:
    uint32_t codePicture(Forced forced) override;

    const Api* api = nullptr;
    x264_t* encoder = nullptr;
    x264_picture_t input;  // points at the planes
    int64_t nextPts = 0;
};
