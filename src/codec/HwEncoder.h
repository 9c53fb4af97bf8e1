// Encodes one frame of caller data per call with NVENC and keeps the file's index. Non-video
// data is packed into NV12 pictures on the GPU first; the session follows the frame geometry.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/NvEncoder/NvEncoderCuda.h"
#include "codec/Encoder.h"
#include "kernels/packing.h"

class HwEncoder : public Encoder {
public:
    HwEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate,
              uint32_t width, uint32_t height, uint32_t frameRate);
    ~HwEncoder();
    HwEncoder(const HwEncoder&) = delete;
    HwEncoder& operator=(const HwEncoder&) = delete;

    bool isReady() const override { return ready; }
    uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                    uint32_t* pictureType, bool forceIntra) override;
    const uint8_t* outputBuffer() const override { return output.data(); }

    // Which NVENC interface the process's driver takes is decided once; this forgets the
    // decision (for a driver that changed, as in tests).
    static void forgetInterfaceChoice();

private:
    enum class SessionResult { Created, PresetsRefused, Failed };

    bool setUpSession(uint32_t width, uint32_t height);
    // A failure leaves the driver's reason in `failure`.
    SessionResult createSession(const NvEncInterface& nvencInterface, uint32_t width, uint32_t height,
                                std::string& failure);
    static bool printSetUpFailure(const std::string& failure);
    uint64_t collect(uint8_t* out, uint64_t capacity, uint32_t* pictureType, bool forceIntra);

    uint32_t dataFormat;
    uint32_t lossless;
    uint32_t codec;
    uint64_t bitrate;
    uint32_t frameRate;
    uint32_t sessionWidth = 0;
    uint32_t sessionHeight = 0;
    bool ready = false;
    std::unique_ptr<NvEncoderCuda> encoder;
    CUcontext context = nullptr;
    packing::StagingBuffer staging;
    std::vector<uint8_t> output;
    std::vector<std::vector<uint8_t>> packets;
};
