// Encodes one frame of caller data per call into one HEVC access unit with libx265, for
// machines without NVENC. The frames reach libx265 as the NVENC path packs them: non-video data
// in NV12 by the packing kernels' CPU twins, BGRA converted to 4:2:0 with BT.709. libx265 is
// loaded at run time, so the library neither links it nor needs it.
#pragma once

#include <x265.h>

#include <cstdint>
#include <vector>

#include "codec/Encoder.h"

class SwEncoder : public Encoder {
public:
    SwEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate, uint32_t width,
              uint32_t height, uint32_t frameRate);
    ~SwEncoder() override;
    SwEncoder(const SwEncoder&) = delete;
    SwEncoder& operator=(const SwEncoder&) = delete;

    bool isReady() const override { return encoder != nullptr; }
    // Frames of another size than the creation's give no bytes.
    uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                    uint32_t* pictureType, bool forceIntra) override;
    const uint8_t* outputBuffer() const override { return output.data(); }

    // libx265's interface, loaded once per process; null when the library is missing or was
    // built for another interface.
    static const x265_api* library();
    // The failure text of a software encoder asked for while library() is null.
    static const char kMissingLibraryText[];
    // The settings of a picture of width × height, coded padded to even sizes of at least 16
    // each way; false for settings libx265 cannot take. The benchmark's baseline uses them too.
    static bool configure(const x265_api& api, x265_param* param, uint32_t lossless, uint64_t bitrate,
                          uint32_t width, uint32_t height, uint32_t frameRate);

private:
    // Moves the NV12 frame into the I420 planes of the size libx265 takes.
    void fillPlanes();

    uint32_t dataFormat;
    uint32_t width, height;        // of the caller's data
    uint32_t frameWidth;           // NV12 picture width of the data
    uint32_t framePitch;
    uint32_t planeWidth, planeHeight;  // the encoded picture: the frame, padded
    const x265_api* api = nullptr;
    x265_param* param = nullptr;
    x265_encoder* encoder = nullptr;
    x265_picture input;  // points at `planes`
    std::vector<uint8_t> hostCopy;  // the caller's frame when it lives in device memory
    std::vector<uint8_t> frame;     // NV12 at framePitch, chroma `height` rows below luma
    std::vector<uint8_t> planes;    // I420 luma, Cb, Cr
    std::vector<uint8_t> output;
};
