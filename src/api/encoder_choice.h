// Which encoder a new encoding pipe gets, from the environment variable ZOQRV_ENCODER:
// unset (or empty) or "nvenc" NVENC only; "auto" NVENC when it can be made ready, else the
// software encoder of the pipe's codec; "software" (or "x264", or "x265") the software encoder
// of the pipe's codec always: libx264 for H.264, libx265 for HEVC.
#pragma once

#include <cstdint>
#include <memory>

#include "codec/Encoder.h"

enum class EncoderChoice { Nvenc, Auto, Software, Unknown };

// The choice that ZOQRV_ENCODER names; `unset` where it is unset or empty.
EncoderChoice environmentEncoderChoice(EncoderChoice unset);
extern const char kUnknownEncoderChoice[];

// A ready encoder of that choice, or null. A failure with a text of its own (an unknown choice, a
// software encoder tried whose library is missing) points *failure at it, a literal; otherwise
// *failure is left alone. Never throws.
std::unique_ptr<Encoder> createEncoder(EncoderChoice choice, uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                       uint64_t bitrate, uint32_t width, uint32_t height, uint32_t frameRate,
                                       const char** failure);
// The pipes' encoder: the environment's choice, NVENC where it is unset.
std::unique_ptr<Encoder> createChosenEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                             uint64_t bitrate, uint32_t width, uint32_t height,
                                             uint32_t frameRate, const char** failure);

// The codec (0 H.264, 1 HEVC) that new recordings take when their writer names none: HEVC where
// NVENC can be made ready (and ZOQRV_ENCODER does not ask for software), otherwise H.264, whose
// software encoder records depth losslessly in real time where libx265 does not
// (docs/software-encoding.md).
uint32_t defaultRecordingCodec(EncoderChoice choice);
uint32_t defaultRecordingCodec();  // for the environment's choice

// "NVENC", "libx264" or "libx265".
const char* encoderName(const Encoder& encoder);
