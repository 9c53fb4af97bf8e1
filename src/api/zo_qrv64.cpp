// The exported C interface: argument checks, error texts, the decoder's retry loops
// and the copies into caller memory. The codec objects do the work.
#include <cuda_runtime_api.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>

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

// A pipe whose error text already has room for the longest text that a call sets, so that a
// failing call never needs memory to report itself; null when memory is short.
std::unique_ptr<ZoHwPipe> newPipe() {
    try {
        auto pipe = std::make_unique<ZoHwPipe>();
        pipe->error.reserve(std::max(sizeof kNoEncoder, sizeof kNoDecoder));
        return pipe;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
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

// Running out of memory while encoding, reading or decoding a file or keeping the index is a
// failed call, not an exception for a C host (even when it is the text of an encoding
// Exception that cannot be made). The exceptions that hosts are promised (Exception, the
// codec exceptions, "invalid vector<T> subscript") still pass.
template <class Call>
uint32_t failOnExhaustion(Call call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return kFailed;
    } catch (const std::length_error&) {
        return kFailed;
    }
}

// A frame that failed, or was encoded and not stored, must not stay a reference for the frames
// after it: the encoder makes the next one an IDR. Exceptions pass on unchanged.
template <class Call>
uint32_t restartStreamOnFailure(Encoder& encoder, Call call) {
    try {
        const uint32_t result = call();
        if (result != kOk) encoder.requestKeyFrame();
        return result;
    } catch (...) {
        encoder.requestKeyFrame();
        throw;
    }
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

void setLibraryError(const char* literal) { libraryErrorText.store(literal); }

const char* libraryError() { return libraryErrorText.load(); }

extern "C" {

ZOHW_API ZoHwPipe* ZOHW_CreateEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                      uint32_t width, uint32_t height, uint64_t bitrate,
                                      uint32_t frameRate) {
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
}

ZOHW_API ZoHwPipe* ZOHW_CreateDecoder(uint32_t dataFormat, uint32_t codec, uint32_t width,
                                      uint32_t height, uint32_t swReserved) {
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
}

ZOHW_API void ZOHW_Destroy(ZoHwPipe* pipe) { delete pipe; }

ZOHW_API uint32_t ZOHW_Encode(ZoHwPipe* pipe, uint64_t* outSize, const void* frame,
                              uint64_t framePitch, void* outBitstream) {
    if (!isEncoderPipe(pipe)) return kFailed;
    return restartStreamOnFailure(*pipe->encoder, [&] { return failOnExhaustion([&] {
        uint32_t pictureType = 0;
        *outSize = pipe->encoder->encode(frame, framePitch, pipe->width, pipe->height, &pictureType, false);
        if (*outSize == 0) return kFailed;
        // Hosts give room for w × h × 4 bytes, the cap this call always had. A frame above it
        // (16- and 32-bit data may take up to maxAccessUnitBytes) fails rather than overrun
        // their buffer; ZOHW_Encode_And_Store stores such frames.
        if (*outSize > uint64_t(pipe->width) * pipe->height * 4) {
            *outSize = 0;
            throw Exception("Encode output buffer overflow");
        }
        std::memcpy(outBitstream, pipe->encoder->outputBuffer(), *outSize);
        return kOk;
    }); });
}

ZOHW_API uint32_t ZOHW_Encode_And_Store(ZoHwPipe* pipe, FILE* stream, uint64_t* outSize,
                                        const void* frame, uint64_t framePitch,
                                        uint64_t timestamp, const uint32_t* metadata,
                                        int32_t metadataWords) {
    if (!isEncoderPipe(pipe)) return kFailed;
    return restartStreamOnFailure(*pipe->encoder, [&] { return failOnExhaustion([&] {
        uint32_t frameType = 0;
        *outSize = pipe->encoder->encode(frame, framePitch, pipe->width, pipe->height, &frameType, false);
        if (*outSize == 0 || !stream) return kFailed;
        Encoder& encoder = *pipe->encoder;
        encoder.appendIndexEntry(static_cast<uint64_t>(qrvTell(stream)), frameType);
        qrvWriteRecord(stream, QrvRecord{encoder.encodedFrames(), timestamp, frameType,
                                         encoder.outputBuffer(), *outSize, metadata, metadataWords});
        return kOk;
    }); });
}

ZOHW_API uint32_t ZOHW_Decode(ZoHwPipe* pipe, const void* bitstream, uint64_t size,
                              void* outFrame) {
    if (!isDecoderPipe(pipe)) return kFailed;
    // A software pipe keeps a hardware decoder that is not ready (or none when its
    // allocation failed); its decode fails.
    if (!pipe->hwDecoder) return kFailed;
    try {
        return pipe->hwDecoder->decode(static_cast<const uint8_t*>(bitstream), size, outFrame) != 0
                   ? kOk
                   : kFailed;
    } catch (const Exception&) {
        return kFailed;
    }
}

ZOHW_API uint32_t ZOHW_DecodeFrameAndMetadata(ZoHwPipe* pipe, FILE* stream, void* outFrame,
                                              uint32_t* outFrameNumber,
                                              uint64_t* outCaptureTime,
                                              uint32_t* outFrameType, void* outMetadata) {
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!stream || !outFrame || !outFrameNumber || !outCaptureTime || !outFrameType ||
        !outMetadata)
        return kFailed;
    QrvSampleInfo info;
    auto* infoBytes = reinterpret_cast<uint8_t*>(&info);
    // Both modes take the lock (software reading was once left unlocked), so that a seek and a
    // sequential read on one pipe never run inside the decoder at the same time.
    std::lock_guard<std::mutex> guard(pipe->lock);
    const uint32_t read = failOnExhaustion([&] {
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: {
                int result = 0;
                for (int tries = 0; tries < kRecordTries && result < 1; ++tries)
                    result = pipe->hwDecoder->decodeNextRecord(stream, outFrame, outFrameNumber,
                                                               outCaptureTime, outFrameType, infoBytes,
                                                               pipe->width, pipe->height);
                if (result != 1) return kFailed;
                break;
            }
            case DecodeMode::Software: {
                auto decodeOnce = [&] {
                    return pipe->swDecoder->decodeNextRecord(
                        stream, static_cast<uint8_t*>(outFrame), outFrameNumber, outCaptureTime,
                        outFrameType, infoBytes, pipe->width, pipe->height, true);
                };
                if (!decodeOnce() && !decodeOnce()) return kFailed;
                break;
            }
            case DecodeMode::None: return kFailed;
        }
        return kOk;
    });
    if (read != kOk) return kFailed;
    std::memcpy(outMetadata, info.metadata, sizeof info.metadata);
    return kOk;
}

ZOHW_API uint32_t ZOHW_StartDecoding(ZoHwPipe* pipe, const void* arg) {
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!arg) return kFailed;
    return decodeMode(*pipe) == DecodeMode::None ? kFailed : kOk;
}

ZOHW_API uint32_t ZOHW_GetDecoderType(ZoHwPipe* pipe) {
    if (!isDecoderPipe(pipe)) return 0;
    switch (decodeMode(*pipe)) {
        case DecodeMode::Hardware: return 1;
        case DecodeMode::Software: return 2;
        case DecodeMode::None: break;
    }
    return 0;
}

ZOHW_API uint32_t ZOHW_GetEncCapabilities(uint32_t* h264Supported, uint32_t* hevcSupported) {
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
}

ZOHW_API const char* ZOHW_GetError(ZoHwPipe* pipe) {
    return pipe ? pipe->error.c_str() : libraryError();
}

ZOHW_API uint32_t ZOHW_GetVersion(void) { return kVersion; }

ZOHW_API uint32_t ZOHW_GetMetadataForSample(ZoHwPipe* pipe, FILE* stream, void* outMetadata,
                                            int32_t sample) {
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!stream) return kFailed;
    QrvSampleInfo info;
    if (!lookUpSampleInfo(*pipe, sample, info) || !outMetadata) return kFailed;
    std::memcpy(outMetadata, info.metadata, sizeof info.metadata);
    return kOk;
}

ZOHW_API uint32_t ZOHW_GetTimeStampForSample(ZoHwPipe* pipe, FILE* stream, int32_t sample,
                                             uint64_t* outTimestamp) {
    if (outTimestamp) *outTimestamp = 0;
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!stream || !outTimestamp) return kFailed;
    QrvSampleInfo info;
    if (!lookUpSampleInfo(*pipe, sample, info)) return kFailed;
    *outTimestamp = info.sampleTime;
    return kOk;
}

ZOHW_API uint32_t ZOHW_SetHEVCPositionInFile(ZoHwPipe* pipe, FILE* stream, int32_t sample) {
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!stream) return kFailed;
    std::lock_guard<std::mutex> guard(pipe->lock);
    return failOnExhaustion([&] {
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
    if (!isEncoderPipe(pipe)) return kFailed;
    if (!stream || headerBytes < 0 || (headerBytes > 0 && !header)) return kFailed;
    if (headerBytes > 0) std::fwrite(header, 1, static_cast<size_t>(headerBytes), stream);
    return kOk;
}

ZOHW_API uint32_t ZOHW_CloseQRVContainer(ZoHwPipe* pipe, FILE* stream) {
    if (!isEncoderPipe(pipe)) return kFailed;
    if (!stream) return kFailed;
    return failOnExhaustion([&] {
        pipe->encoder->writeIndex(stream);
        return kOk;
    });
}

ZOHW_API uint32_t ZOHW_CreateQRVTracker(ZoHwPipe* pipe, FILE* stream) {
    if (!isDecoderPipe(pipe)) return kFailed;
    if (!stream) return kFailed;
    return failOnExhaustion([&] {
        switch (decodeMode(*pipe)) {
            case DecodeMode::Hardware: return pipe->hwDecoder->readIndex(stream) ? kOk : kFailed;
            case DecodeMode::Software: return pipe->swDecoder->readIndex(stream) ? kOk : kFailed;
            case DecodeMode::None: break;
        }
        return kFailed;
    });
}

}  // extern "C"
