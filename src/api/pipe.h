// The pipe instance behind the opaque ZoHwPipe handle.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "codec/HwDecoder.h"
#include "codec/HwEncoder.h"  // the NVENC encoder, which hosts of the pipe make too
#include "codec/SwDecoder.h"
#include "zo_qrv64.h"

// Members are destroyed in reverse order: the mutex, the error text, then the software
// decoder, the hardware decoder and the encoder.
struct ZoHwPipe {
    std::unique_ptr<Encoder> encoder;  // NVENC or libx265, as ZOQRV_ENCODER chooses
    std::unique_ptr<HwDecoder> hwDecoder;  // kept even when not ready
    std::unique_ptr<SwDecoder> swDecoder;  // made only when the hardware decoder is not ready
    uint32_t width = 0;
    uint32_t height = 0;
    std::string error;
    std::mutex lock;  // keeps a seek and a sequential read on one file from interleaving
};

// The text that calls without a pipe, and failed creations, leave for ZOHW_GetError(NULL).
// Every such text is a string literal or an interned copy that is never freed, and the slot
// holds a pointer to it that is swapped atomically: threads failing at the same time cannot
// corrupt it, and a pointer once returned stays valid for ever. (A reader may still see another
// thread's latest text.)
void setLibraryError(const char* lastingText);
const char* libraryError();
