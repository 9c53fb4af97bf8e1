// Which codecs the GPU's NVENC can encode, asked without creating an encoder.
#pragma once

#include "NVCompression/NvCodec/DriverApi.h"

// NVENC interface 8.1, the version this library speaks.
constexpr uint32_t kNvEncApiVersion = 8u | (1u << 24);
constexpr uint32_t kNvEncRequiredMaxVersion = (8u << 4) | 1u;
constexpr uint32_t kNvEncFunctionListVersion = 0x71020008;
constexpr uint32_t kNvEncOpenSessionParamsVersion = 0x71010008;
constexpr uint32_t kNvEncCapsParamVersion = 0x71010008;

struct EncoderCapabilities {
    bool h264 = false;
    bool hevc = false;
};

// Opens an NVENC session on `context` and asks each codec for its maximum width.
// Every failure leaves the flags false.
EncoderCapabilities probeEncoderCapabilities(CUcontext context);
