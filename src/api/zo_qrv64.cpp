// The exported C interface: argument checks, error texts, the decoder's retry loops
// and the copies into caller memory. The codec objects do the work.
#include <cuda_runtime_api.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iostream>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <system_error>

#include "NVCompression/NvCodec/NvEncoder/NvEncoderCapabilities.h"
#include "api/encoder_choice.h"
#include "api/codec_object.h"
#include "api/pipe.h"
#include "codec/Exception.h"
#include "device/device_api.h"

extern "C" ZOHW_API const uint32_t NvOptimusEnablementCuda = 1;

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFailed = 1;
constexpr uint32_t kVersion = 100;
// Sequential hardware reading gives up after this many records without a frame.
constexpr int kRecordTries = 4;

const char kNullInstance[] = "Invalid ZoHwPipe instance NULL";
const char kNoEncoder[] = "Invalid ZoHwPipe encoder.";
const char kNoDecoder[] = "Invalid ZoHwPipe decoder.";
const char kDecoderUnsupported[] = "Unsupported hardware or codec for decoding";
const char kEncoderUnsupported[] = "unsupported hardware or codec for encoding";
const char kBadMetadata[] = "Metadata word count must be 0 to 64, with a non-null pointer above 0";
// Stands in for a text that cannot be kept for want of memory.
const char kOutOfMemory[] = "Out of memory";

// Room that every pipe's error text has from the start: the longest fixed text that a call sets,
// so that reporting a failure (running out of memory included) never needs memory.
constexpr size_t kFixedTextRoom = std::max({sizeof kNoEncoder, sizeof kNoDecoder, sizeof kBadMetadata,
                                            sizeof kOutOfMemory, sizeof kUnknownExceptionText});

// A pipe whose error text already has that room; null when memory is short.
std::unique_ptr<ZoHwPipe> newPipe() {
    try {
        auto pipe = std::make_unique<ZoHwPipe>();
        pipe->error.reserve(kFixedTextRoom);
        return pipe;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Library-wide texts other than literals are interned: copied once into one of these slots and
// never freed, so that a pointer once returned by ZOHW_GetError(NULL) stays valid and threads
// failing together cannot tear a text. The slots are few because the texts are: each is a
// failure's fixed message, at most with a driver call's status in it.
constexpr size_t kInternedTexts = 64;
std::atomic<const char*> internedTexts[kInternedTexts];
const char kTooManyTexts[] = "Too many different error texts to keep (see the pipe's own text)";

const char* internText(const char* text) {
    char* copy = nullptr;
    for (std::atomic<const char*>& slot : internedTexts) {
        const char* held = slot.load();
        while (!held) {
            if (!copy) {
                copy = static_cast<char*>(std::malloc(std::strlen(text) + 1));
                if (!copy) return kOutOfMemory;
                std::strcpy(copy, text);
            }
            if (slot.compare_exchange_strong(held, copy)) return copy;
        }
        if (std::strcmp(held, text) == 0) {
            std::free(copy);
            return held;
        }
    }
    std::free(copy);
    return kTooManyTexts;
}

// Gives a failure's text to the pipe, or to the library-wide text where there is no pipe.
void reportFailure(ZoHwPipe* pipe, const char* text) noexcept {
    if (!pipe) {
        setLibraryError(internText(text));
        return;
    }
    try {
        pipe->error = text;
    } catch (...) {
        pipe->error = kOutOfMemory;  // fits the room the text was given at creation
    }
}

// Runs the work of an exported call so that no exception reaches the C host: one that escapes
// fails the call with `failure`, and its own text ("Encode output buffer overflow", "invalid
// vector<T> subscript", an NVENC or NVDEC message, "std::bad_alloc") becomes the pipe's text, or
// the library-wide text where there is no pipe. C hosts cannot catch C++ exceptions; the texts
// are those that hosts used to read from the exceptions.
template <class Result, class Call>
Result guarded(ZoHwPipe* pipe, Result failure, Call call) noexcept {
    return catchEverything(failure, call, [pipe](const char* text) { reportFailure(pipe, text); });
}

// A failed write of the file, with the C library's text for its errno:
// "<what>: No space left on device".
[[noreturn]] void throwWriteError(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

bool isEncoderPipe(ZoHwPipe* pipe) {
    if (!pipe) {
        setLibraryError(kNullInstance);
        return false;
    }
    if (!pipe->encoder) {
        pipe->error = kNoEncoder;
        return false;
    }
    return true;
}

bool isDecoderPipe(ZoHwPipe* pipe) {
    if (!pipe) {
        setLibraryError(kNullInstance);
        return false;
    }
    if (!pipe->hwDecoder && !pipe->swDecoder) {
        pipe->error = kNoDecoder;
        return false;
    }
    return true;
}

enum class DecodeMode { Hardware, Software, None };

// Derived on every call from the decoders' readiness; the pipe stores no mode.
DecodeMode decodeMode(const ZoHwPipe& pipe) {
    if (pipe.hwDecoder && pipe.hwDecoder->isReady()) return DecodeMode::Hardware;
    if (pipe.swDecoder && pipe.swDecoder->isReady()) return DecodeMode::Software;
    return DecodeMode::None;
}

bool lookUpSampleInfo(const ZoHwPipe& pipe, int32_t sample, QrvSampleInfo& info) {
    auto* bytes = reinterpret_cast<uint8_t*>(&info);
    switch (decodeMode(pipe)) {
        case DecodeMode::Hardware: return pipe.hwDecoder->lookUpSampleInfo(sample, bytes);
        case DecodeMode::Software: return pipe.swDecoder->lookUpSampleInfo(sample, bytes);
        case DecodeMode::None: break;
    }
    return false;
}

}  // namespace

namespace {
std::atomic<const char*> libraryErrorText{""};
}  // namespace

void setLibraryError(const char* lastingText) { libraryErrorText.store(lastingText); }

const char* libraryError() { return libraryErrorText.load(); }

extern "C" {

// Every export runs its work through guarded(): none lets an exception out.

ZOHW_API ZoHwPipe* ZOHW_CreateEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                      uint32_t width, uint32_t height, uint64_t bitrate,
                                      uint32_t frameRate) {
    return guarded(nullptr, static_cast<ZoHwPipe*>(nullptr), [&]() -> ZoHwPipe* {
        const char* failure = kEncoderUnsupported;
        std::unique_ptr<ZoHwPipe> pipe = newPipe();
        if (pipe) {
            pipe->encoder =
                createChosenEncoder(dataFormat, codec, lossless, bitrate, width, height, frameRate, &failure);
            pipe->width = width;
            pipe->height = height;
            if (pipe->encoder) return pipe.release();
        }
        setLibraryError(failure);
        return nullptr;
    });
}

ZOHW_API ZoHwPipe* ZOHW_CreateDecoder(uint32_t dataFormat, uint32_t codec, uint32_t width,
                                      uint32_t height, uint32_t swReserved) {
    return guarded(nullptr, static_cast<ZoHwPipe*>(nullptr), [&]() -> ZoHwPipe* {
        std::unique_ptr<ZoHwPipe> pipe = newPipe();
        if (pipe) {
            pipe->hwDecoder = makeCodecObject<HwDecoder>(dataFormat, codec, width, height);
            const bool hardware = pipe->hwDecoder && pipe->hwDecoder->isReady();
            if (!hardware) pipe->swDecoder = makeCodecObject<SwDecoder>(width, height, swReserved, codec);
            if (hardware || (pipe->swDecoder && pipe->swDecoder->isReady())) {
                pipe->width = width;
                pipe->height = height;
                return pipe.release();
            }
        }
        // A software decoder that lacks its library says which one.
        const char* missing = pictureDecoderMissingText(codec);
        const char* failure = missing ? missing : kDecoderUnsupported;
        setLibraryError(failure);
        std::cout << failure << std::endl;
        return nullptr;
    });
}

ZOHW_API void ZOHW_Destroy(ZoHwPipe* pipe) { delete pipe; }

ZOHW_API uint32_t ZOHW_Encode(ZoHwPipe* pipe, uint64_t* outSize, const void* frame,
                              uint64_t framePitch, void* outBitstream) {
    return guarded(pipe, kFailed, [&] {
        if (!isEncoderPipe(pipe)) return kFailed;
        return pipe->encoder->keyFrameAfterFailure([&] {
            uint32_t pictureType = 0;
            *outSize = pipe->encoder->encode(frame, framePitch, pipe->width, pipe->height, &pictureType, false);
            if (*outSize == 0) return false;
            // Hosts give room for w × h × 4 bytes, the cap this call always had. A frame above it
            // (16- and 32-bit data may take up to maxAccessUnitBytes) fails rather than overrun
            // their buffer; ZOHW_Encode_And_Store stores such frames.
            if (*outSize > uint64_t(pipe->width) * pipe->height * 4) {
                *outSize = 0;
                throw Exception("Encode output buffer overflow");
            }
            std::memcpy(outBitstream, pipe->encoder->outputBuffer(), *outSize);
            return true;
        }) ? kOk : kFailed;
    });
}

ZOHW_API uint32_t ZOHW_Encode_And_Store(ZoHwPipe* pipe, FILE* stream, uint64_t* outSize,
                                        const void* frame, uint64_t framePitch,
                                        uint64_t timestamp, const uint32_t* metadata,
                                        int32_t metadataWords) {
    // The arguments are checked before the frame is encoded: a frame encoded but not stored
    // would be missing from the references of the frames stored after it.
    if (!isEncoderPipe(pipe) || !stream) return kFailed;
    if (!qrvMetadataFits(metadata, metadataWords)) {
        reportFailure(pipe, kBadMetadata);
        return kFailed;
    }
    return guarded(pipe, kFailed, [&] {
        return pipe->encoder->encodeAndStore(stream, frame, framePitch, pipe->width, pipe->height, timestamp,
                                             metadata, metadataWords, outSize) ? kOk : kFailed;
    });
}

ZOHW_API uint32_t ZOHW_Decode(ZoHwPipe* pipe, const void* bitstream, uint64_t size,
                              void* outFrame) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        // A software pipe keeps a hardware decoder that is not ready (or none when its
        // allocation failed); its decode fails.
        if (!pipe->hwDecoder) return kFailed;
        return pipe->hwDecoder->decode(static_cast<const uint8_t*>(bitstream), size, outFrame) != 0 ? kOk
                                                                                                     : kFailed;
    });
}

ZOHW_API uint32_t ZOHW_DecodeFrameAndMetadata(ZoHwPipe* pipe, FILE* stream, void* outFrame,
                                              uint32_t* outFrameNumber,
                                              uint64_t* outCaptureTime,
                                              uint32_t* outFrameType, void* outMetadata) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!stream || !outFrame || !outFrameNumber || !outCaptureTime || !outFrameType || !outMetadata)
            return kFailed;
        QrvSampleInfo info;
        auto* infoBytes = reinterpret_cast<uint8_t*>(&info);
        // Both modes take the lock (software reading was once left unlocked), so that a seek and a
        // sequential read on one pipe never run inside the decoder at the same time.
        std::lock_guard<std::mutex> guard(pipe->lock);
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: {
                int result = 0;
                for (int tries = 0; tries < kRecordTries && result < 1; ++tries)
                    result = pipe->hwDecoder->decodeNextRecord(stream, outFrame, outFrameNumber, outCaptureTime,
                                                               outFrameType, infoBytes, pipe->width, pipe->height);
                if (result != 1) return kFailed;
                break;
            }
            case DecodeMode::Software: {
                auto decodeOnce = [&] {
                    return pipe->swDecoder->decodeNextRecord(stream, static_cast<uint8_t*>(outFrame), outFrameNumber,
                                                             outCaptureTime, outFrameType, infoBytes, pipe->width,
                                                             pipe->height, true);
                };
                if (!decodeOnce() && !decodeOnce()) return kFailed;
                break;
            }
            case DecodeMode::None: return kFailed;
        }
        std::memcpy(outMetadata, info.metadata, sizeof info.metadata);
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_StartDecoding(ZoHwPipe* pipe, const void* arg) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!arg) return kFailed;
        return decodeMode(*pipe) == DecodeMode::None ? kFailed : kOk;
    });
}

ZOHW_API uint32_t ZOHW_GetDecoderType(ZoHwPipe* pipe) {
    return guarded(pipe, 0u, [&] {
        if (!isDecoderPipe(pipe)) return 0u;
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: return 1u;
            case DecodeMode::Software: return 2u;
            case DecodeMode::None: break;
        }
        return 0u;
    });
}

ZOHW_API uint32_t ZOHW_GetEncCapabilities(uint32_t* h264Supported, uint32_t* hevcSupported) {
    return guarded(nullptr, kFailed, [&]() -> uint32_t {
        const DriverApi& api = driverApi();
        if (!api.cuda) {
            *h264Supported = 0;
            *hevcSupported = 0;
            return kCudaErrorNotInitialized;
        }
        // Results of the set-up are not checked: a failed one shows as no encoder and as
        // the result of the context destruction.
        api.cuda->cuInit(0);
        // The host's runtime device is put back afterwards. Where our kernels cannot run (a driver
        // older than the runtime, a GPU without our kernel images) there is no encoder at all.
        int hostDevice = 0;
        const bool hostHasDevice = cudaGetDevice(&hostDevice) == cudaSuccess;
        cudaSetDevice(0);
        const bool runtimeWorks = device::checkDeviceReady() == 0;
        CUdevice device = 0;
        api.cuda->cuDeviceGet(&device, 0);
        CUcontext context = nullptr;
        api.cuda->cuCtxCreate(&context, 0, device);
        const EncoderCapabilities caps = probeEncoderCapabilities(context);
        *h264Supported = runtimeWorks && caps.h264 ? 1 : 0;
        *hevcSupported = runtimeWorks && caps.hevc ? 1 : 0;
        if (hostHasDevice) cudaSetDevice(hostDevice);
        return api.cuda->cuCtxDestroy(context);
    });
}

ZOHW_API const char* ZOHW_GetError(ZoHwPipe* pipe) {
    return pipe ? pipe->error.c_str() : libraryError();
}

ZOHW_API uint32_t ZOHW_GetVersion(void) { return kVersion; }

ZOHW_API uint32_t ZOHW_GetMetadataForSample(ZoHwPipe* pipe, FILE* stream, void* outMetadata,
                                            int32_t sample) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!stream) return kFailed;
        QrvSampleInfo info;
        if (!lookUpSampleInfo(*pipe, sample, info) || !outMetadata) return kFailed;
        std::memcpy(outMetadata, info.metadata, sizeof info.metadata);
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_GetTimeStampForSample(ZoHwPipe* pipe, FILE* stream, int32_t sample,
                                             uint64_t* outTimestamp) {
    return guarded(pipe, kFailed, [&] {
        if (outTimestamp) *outTimestamp = 0;
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!stream || !outTimestamp) return kFailed;
        QrvSampleInfo info;
        if (!lookUpSampleInfo(*pipe, sample, info)) return kFailed;
        *outTimestamp = info.sampleTime;
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_SetHEVCPositionInFile(ZoHwPipe* pipe, FILE* stream, int32_t sample) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!stream) return kFailed;
        std::lock_guard<std::mutex> guard(pipe->lock);
        bool found = false;
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: found = pipe->hwDecoder->seekToSample(stream, sample); break;
            case DecodeMode::Software: found = pipe->swDecoder->seekToSample(stream, sample); break;
            case DecodeMode::None: break;
        }
        return found ? kOk : kFailed;
    });
}

ZOHW_API uint32_t ZOHW_CreateQRVContainer(ZoHwPipe* pipe, FILE* stream, const uint8_t* header,
                                          int32_t headerBytes) {
    return guarded(pipe, kFailed, [&] {
        if (!isEncoderPipe(pipe)) return kFailed;
        if (!stream || headerBytes < 0 || (headerBytes > 0 && !header)) return kFailed;
        // Checked, unlike the format's first writer: a recording whose header was lost is one that
        // its tools cannot read.
        const int error = qrvWriteHeader(stream, header, static_cast<size_t>(headerBytes));
        if (error != 0) throwWriteError(error, "Cannot write the recording header");
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_CloseQRVContainer(ZoHwPipe* pipe, FILE* stream) {
    return guarded(pipe, kFailed, [&] {
        if (!isEncoderPipe(pipe)) return kFailed;
        if (!stream) return kFailed;
        const int error = pipe->encoder->writeIndex(stream);
        if (error != 0) throwWriteError(error, "Cannot write the sample index");
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_CreateQRVTracker(ZoHwPipe* pipe, FILE* stream) {
    return guarded(pipe, kFailed, [&] {
        if (!isDecoderPipe(pipe)) return kFailed;
        if (!stream) return kFailed;
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: return pipe->hwDecoder->readIndex(stream) ? kOk : kFailed;
            case DecodeMode::Software: return pipe->swDecoder->readIndex(stream) ? kOk : kFailed;
            case DecodeMode::None: break;
        }
        return kFailed;
    });
}

}  // extern "C"
