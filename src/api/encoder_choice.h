// Which encoder a new encoding pipe gets, from the environment variable ZOQRV_ENCODER:
// unset (or empty) or "nvenc" NVENC only; "auto" NVENC when it can be made ready, else libx265;
// "x265" libx265 always.
#pragma once

#include <cstdint>
#include <memory>

#include "codec/Encoder.h"

// A ready encoder, or null. A failure with a text of its own (an unknown choice, libx265 asked
// for and missing) points *failure at it, a literal; otherwise *failure is left alone. Never
// throws.
std::unique_ptr<Encoder> createChosenEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                             uint64_t bitrate, uint32_t width, uint32_t height,
                                             uint32_t frameRate, const char** failure);
