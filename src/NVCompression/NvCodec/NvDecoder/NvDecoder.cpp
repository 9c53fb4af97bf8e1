#include "NVCompression/NvCodec/NvDecoder/NvDecoder.h"

#include <iostream>

#include "device/device_api.h"

#define CUDA_DRVAPI_CALL(call)                                                                         \
    do {                                                                                               \
        const int result_ = (call);                                                                    \
        throwIfCudaDriverCallFailed<NVDECException>(result_, device::api().driverErrorName, result_,   \
                                                    NVCODEC_FUNCTION, __FILE__, __LINE__);             \
    } while (0)

namespace {

constexpr CUresult kNotSupported = static_cast<CUresult>(801);

// The loaded CUVID entry points under their own names, so that a failed call's text is the
// call as written here. Without the library (or without the optional capability query)
// every call fails as an uninitialised driver would.
template <typename Entry, typename... Args>
CUresult callCuvid(Entry CuvidFunctions::*entry, Args... args) {
    const CuvidFunctions* cuvid = driverApi().cuvid;
    return cuvid && cuvid->*entry ? (cuvid->*entry)(args...) : kCudaErrorNotInitialized;
}
CUresult cuvidCtxLockCreate(CUvideoctxlock* lock, CUcontext context) {
    return callCuvid(&CuvidFunctions::cuvidCtxLockCreate, lock, context);
}
CUresult cuvidCtxLockDestroy(CUvideoctxlock lock) { return callCuvid(&CuvidFunctions::cuvidCtxLockDestroy, lock); }
CUresult cuvidCreateVideoParser(CUvideoparser* parser, CUVIDPARSERPARAMS* params) {
    return callCuvid(&CuvidFunctions::cuvidCreateVideoParser, parser, params);
}
CUresult cuvidParseVideoData(CUvideoparser parser, CUVIDSOURCEDATAPACKET* packet) {
    return callCuvid(&CuvidFunctions::cuvidParseVideoData, parser, packet);
}
CUresult cuvidDestroyVideoParser(CUvideoparser parser) {
    return callCuvid(&CuvidFunctions::cuvidDestroyVideoParser, parser);
}
CUresult cuvidGetDecoderCaps(CUVIDDECODECAPS* caps) { return callCuvid(&CuvidFunctions::cuvidGetDecoderCaps, caps); }
CUresult cuvidCreateDecoder(CUvideodecoder* decoder, CUVIDDECODECREATEINFO* info) {
    return callCuvid(&CuvidFunctions::cuvidCreateDecoder, decoder, info);
}
CUresult cuvidDestroyDecoder(CUvideodecoder decoder) { return callCuvid(&CuvidFunctions::cuvidDestroyDecoder, decoder); }
CUresult cuvidDecodePicture(CUvideodecoder decoder, CUVIDPICPARAMS* params) {
    return callCuvid(&CuvidFunctions::cuvidDecodePicture, decoder, params);
}
CUresult cuvidMapVideoFrame(CUvideodecoder decoder, int picture, unsigned long long* frame, unsigned int* pitch,
                            CUVIDPROCPARAMS* params) {
    return callCuvid(&CuvidFunctions::cuvidMapVideoFrame, decoder, picture, frame, pitch, params);
}
CUresult cuvidUnmapVideoFrame(CUvideodecoder decoder, unsigned long long frame) {
    return callCuvid(&CuvidFunctions::cuvidUnmapVideoFrame, decoder, frame);
}

// Unmaps a mapped surface on the way out of a failing display callback; the normal path
// unmaps it checked and releases the guard.
class MappedFrame {
public:
    MappedFrame(CUvideodecoder decoder, unsigned long long frame) : decoder_(decoder), frame_(frame) {}
    ~MappedFrame() {
        if (frame_) cuvidUnmapVideoFrame(decoder_, frame_);
    }
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;
    void release() { frame_ = 0; }

private:
    CUvideodecoder decoder_;
    unsigned long long frame_;
};

const char* codecName(cudaVideoCodec codec) {
    static const char* const names[] = {
        "MPEG-1",   "MPEG-2",     "MPEG-4 (ASP)", "VC-1/WMV",   "AVC/H.264",  "M-JPEG",
        "H.264/SVC", "H.264/MVC", "H.265/HEVC",   "VP8",        "VP9",        "Invalid",
        "YUV  4:2:0", "YV12 4:2:0", "NV12 4:2:0", "YUYV 4:2:2", "UYVY 4:2:2",
    };
    static const cudaVideoCodec uncompressed[] = {cudaVideoCodec_YUV420, cudaVideoCodec_YV12, cudaVideoCodec_NV12,
                                                  cudaVideoCodec_YUYV, cudaVideoCodec_UYVY};
    const unsigned value = static_cast<unsigned>(codec);
    if (value <= 11) return names[value];
    for (cudaVideoCodec known : uncompressed)
        // The name would be looked up at the position of the codec value itself, which lies
        // past the end of the table: such a codec is shown without a name.
        if (known == codec) return "";
    return "Unknown";
}

const char* chromaName(cudaVideoChromaFormat format) {
    switch (format) {
    case cudaVideoChromaFormat_Monochrome: return "YUV 400 (Monochrome)";
    case cudaVideoChromaFormat_420: return "YUV 420";
    case cudaVideoChromaFormat_422: return "YUV 422";
    case cudaVideoChromaFormat_444: return "YUV 444";
    default: return "Unknown";
    }
}

const char* deinterlaceName(cudaVideoDeinterlaceMode mode) {
    static const char* const names[] = {"Weave", "Bob", "Adaptive"};
    return static_cast<unsigned>(mode) < 3 ? names[mode] : "Unknown";
}

int decodeSurfaces(cudaVideoCodec codec, unsigned width, unsigned height) {
    switch (codec) {
    case cudaVideoCodec_VP9: return 12;
    case cudaVideoCodec_H264:
    case cudaVideoCodec_H264_SVC:
    case cudaVideoCodec_H264_MVC: return 20;
    case cudaVideoCodec_HEVC: {
        const uint64_t pixels = uint64_t(width) * height;
        return pixels <= 8912896 ? 20 : pixels <= 17825792 ? 16 : pixels <= 26738688 ? 12 : 10;
    }
    default: return 8;
    }
}

}  // namespace

NvDecoder::NvDecoder(CUcontext cuContext, int, int, bool bUseDeviceFrame, cudaVideoCodec eCodec, std::mutex* pMutex,
                     bool bLowLatency, bool bDeviceFramePitched, const Rect* pCropRect, const Dim* pResizeDim)
    : m_context(cuContext), m_externalMutex(pMutex), m_deviceFrames(bUseDeviceFrame), m_codec(eCodec),
      m_pitchedFrames(bDeviceFramePitched) {
    if (pCropRect) m_crop = *pCropRect;
    if (pResizeDim) m_resize = *pResizeDim;
    NVDEC_API_CALL(cuvidCtxLockCreate(&m_ctxLock, cuContext));

    CUVIDPARSERPARAMS videoParserParameters = {};
    videoParserParameters.CodecType = eCodec;
    videoParserParameters.ulMaxNumDecodeSurfaces = 1;
    videoParserParameters.ulMaxDisplayDelay = bLowLatency ? 0 : 1;
    videoParserParameters.pUserData = this;
    videoParserParameters.pfnSequenceCallback = HandleVideoSequenceProc;
    videoParserParameters.pfnDecodePicture = HandlePictureDecodeProc;
    videoParserParameters.pfnDisplayPicture = HandlePictureDisplayProc;
    try {
        std::unique_lock<std::mutex> lock = LockExternal();
        NVDEC_API_CALL(cuvidCreateVideoParser(&m_hParser, &videoParserParameters));
    } catch (...) {
        // No destructor runs for an object whose constructor throws.
        cuvidCtxLockDestroy(m_ctxLock);
        throw;
    }
}

// The frames are freed with our context pushed, whatever the host has current, and the context is
// popped only when the push worked: a pop after a failed push would take the host's own context
// off its thread. Frames of a context that cannot be pushed stay with it.
NvDecoder::~NvDecoder() {
    const device::Api& api = device::api();
    device::PushedContext context(api.pushContext(m_context) == 0);
    if (m_hParser) cuvidDestroyVideoParser(m_hParser);
    if (m_hDecoder) {
        std::unique_lock<std::mutex> lock = LockExternal();
        cuvidDestroyDecoder(m_hDecoder);
    }
    {
        std::lock_guard<std::mutex> pool(m_poolMutex);
        for (uint8_t* frame : m_frames) {
            if (!m_deviceFrames) {
                delete[] frame;
            } else if (context.pushed()) {
                std::unique_lock<std::mutex> lock = LockExternal();
                api.freePitched(reinterpret_cast<CUdeviceptr>(frame));
            }
        }
    }
    cuvidCtxLockDestroy(m_ctxLock);
}

std::unique_lock<std::mutex> NvDecoder::LockExternal() {
    return m_externalMutex ? std::unique_lock<std::mutex>(*m_externalMutex) : std::unique_lock<std::mutex>();
}

int NvDecoder::GetFrameSize() const {
    return m_bitDepthMinus8 ? m_height * m_width * 3 : (m_height * m_width * 3) / 2;
}

template <typename Handler>
int NvDecoder::Forward(Handler handler) {
    try {
        return handler();
    } catch (...) {
        m_callbackFailure = std::current_exception();
        return 0;
    }
}

int CUDAAPI NvDecoder::HandleVideoSequenceProc(void* pUserData, CUVIDEOFORMAT* pVideoFormat) {
    auto* self = static_cast<NvDecoder*>(pUserData);
    return self->Forward([&] { return self->HandleVideoSequence(pVideoFormat); });
}
int CUDAAPI NvDecoder::HandlePictureDecodeProc(void* pUserData, CUVIDPICPARAMS* pPicParams) {
    auto* self = static_cast<NvDecoder*>(pUserData);
    return self->Forward([&] { return self->HandlePictureDecode(pPicParams); });
}
int CUDAAPI NvDecoder::HandlePictureDisplayProc(void* pUserData, CUVIDPARSERDISPINFO* pDispInfo) {
    auto* self = static_cast<NvDecoder*>(pUserData);
    return self->Forward([&] { return self->HandlePictureDisplay(pDispInfo); });
}

int NvDecoder::HandleVideoSequence(CUVIDEOFORMAT* pVideoFormat) {
    const CUVIDEOFORMAT& format = *pVideoFormat;
    m_info << "Video Input Information" << std::endl
           << "\tCodec        : " << codecName(format.codec) << std::endl
           << "\tFrame rate   : " << format.frame_rate.numerator << "/" << format.frame_rate.denominator << " = "
           << 1.0 * format.frame_rate.numerator / format.frame_rate.denominator << " fps" << std::endl
           << "\tSequence     : " << (format.progressive_sequence ? "Progressive" : "Interlaced") << std::endl
           << "\tCoded size   : [" << format.coded_width << ", " << format.coded_height << "]" << std::endl
           << "\tDisplay area : [" << format.display_area.left << ", " << format.display_area.top << ", "
           << format.display_area.right << ", " << format.display_area.bottom << "]" << std::endl
           << "\tChroma       : " << chromaName(format.chroma_format) << std::endl
           << "\tBit depth    : " << format.bit_depth_luma_minus8 + 8 << std::endl;

    const int nDecodeSurface = decodeSurfaces(format.codec, format.coded_width, format.coded_height);

    CUVIDDECODECAPS decodecaps = {};
    decodecaps.eCodecType = format.codec;
    decodecaps.eChromaFormat = format.chroma_format;
    decodecaps.nBitDepthMinus8 = format.bit_depth_luma_minus8;
    const device::Api& api = device::api();
    CUDA_DRVAPI_CALL(api.pushContext(m_context));
    {
        device::PushedContext context(true);
        NVDEC_API_CALL(cuvidGetDecoderCaps(&decodecaps));
        CUDA_DRVAPI_CALL(context.pop());
    }
    if (!decodecaps.bIsSupported) NVDEC_THROW_ERROR("Codec not supported on this GPU", kNotSupported);
    // Departure: the minimum size is checked too; the driver refuses a decoder below it.
    const bool tooSmall = format.coded_width < decodecaps.nMinWidth || format.coded_height < decodecaps.nMinHeight;
    if (tooSmall || format.coded_width > decodecaps.nMaxWidth || format.coded_height > decodecaps.nMaxHeight) {
        std::ostringstream text;
        text << std::endl << "Resolution          : " << format.coded_width << "x" << format.coded_height << std::endl;
        if (tooSmall) text << "Min Supported (wxh) : " << decodecaps.nMinWidth << "x" << decodecaps.nMinHeight;
        else text << "Max Supported (wxh) : " << decodecaps.nMaxWidth << "x" << decodecaps.nMaxHeight;
        text << std::endl << "Resolution not supported on this GPU";
        NVDEC_THROW_ERROR(text.str(), kNotSupported);
    }
    // A picture beyond the macroblock limit makes no decoder and no error: the parser goes on,
    // and no frame ever comes out. Unlike the resolution check, this path stays silent.
    // (The decode and display callbacks then drop the pictures.)
    if ((format.coded_width >> 4) * (format.coded_height >> 4) > decodecaps.nMaxMBCount) return nDecodeSurface;
    // A later sequence (a new size among them) leaves the decoder as it is.
    if (m_width && m_height) return nDecodeSurface;

    m_codec = format.codec;
    m_chromaFormat = format.chroma_format;
    m_bitDepthMinus8 = format.bit_depth_luma_minus8;
    m_format = format;

    CUVIDDECODECREATEINFO videoDecodeCreateInfo = {};
    videoDecodeCreateInfo.ulWidth = format.coded_width;
    videoDecodeCreateInfo.ulHeight = format.coded_height;
    videoDecodeCreateInfo.ulNumDecodeSurfaces = nDecodeSurface;
    videoDecodeCreateInfo.CodecType = format.codec;
    videoDecodeCreateInfo.ChromaFormat = format.chroma_format;
    videoDecodeCreateInfo.ulCreationFlags = cudaVideoCreate_PreferCUVID;
    videoDecodeCreateInfo.bitDepthMinus8 = format.bit_depth_luma_minus8;
    videoDecodeCreateInfo.OutputFormat =
        format.bit_depth_luma_minus8 ? cudaVideoSurfaceFormat_P016 : cudaVideoSurfaceFormat_NV12;
    videoDecodeCreateInfo.DeinterlaceMode = cudaVideoDeinterlaceMode_Weave;
    videoDecodeCreateInfo.ulNumOutputSurfaces = 2;
    videoDecodeCreateInfo.vidLock = m_ctxLock;
    auto& display = videoDecodeCreateInfo.display_area;
    const bool crop = m_crop.r && m_crop.b;
    const bool resize = m_resize.w && m_resize.h;
    if (!crop && !resize) {
        m_width = format.display_area.right - format.display_area.left;
        m_height = format.display_area.bottom - format.display_area.top;
        videoDecodeCreateInfo.ulTargetWidth = format.coded_width;
        videoDecodeCreateInfo.ulTargetHeight = format.coded_height;
    } else {
        if (resize) {
            display.left = short(format.display_area.left);
            display.top = short(format.display_area.top);
            display.right = short(format.display_area.right);
            display.bottom = short(format.display_area.bottom);
            m_width = m_resize.w;
            m_height = m_resize.h;
        }
        if (crop) {
            display.left = short(m_crop.l);
            display.top = short(m_crop.t);
            display.right = short(m_crop.r);
            display.bottom = short(m_crop.b);
            m_width = m_crop.r - m_crop.l;
            m_height = m_crop.b - m_crop.t;
        }
        videoDecodeCreateInfo.ulTargetWidth = m_width;
        videoDecodeCreateInfo.ulTargetHeight = m_height;
    }
    m_surfaceHeight = int(videoDecodeCreateInfo.ulTargetHeight);

    m_info << "Video Decoding Params:" << std::endl
           << "\tNum Surfaces : " << videoDecodeCreateInfo.ulNumDecodeSurfaces << std::endl
           << "\tCrop         : [" << display.left << ", " << display.top << ", " << display.right << ", "
           << display.bottom << "]" << std::endl
           << "\tResize       : " << videoDecodeCreateInfo.ulTargetWidth << "x"
           << videoDecodeCreateInfo.ulTargetHeight << std::endl
           << "\tDeinterlace  : " << deinterlaceName(videoDecodeCreateInfo.DeinterlaceMode) << std::endl
           << std::endl;

    CUDA_DRVAPI_CALL(api.pushContext(m_context));
    device::PushedContext context(true);
    NVDEC_API_CALL(cuvidCreateDecoder(&m_hDecoder, &videoDecodeCreateInfo));
    CUDA_DRVAPI_CALL(context.pop());
    return nDecodeSurface;
}

// Without a decoder (a picture beyond the macroblock limit) the picture is dropped, silently. The
// parser takes a 0 from a callback for a failure and ends the parse with an error, so the
// picture counts as handled, and its display is skipped too.
int NvDecoder::HandlePictureDecode(CUVIDPICPARAMS* pPicParams) {
    if (!m_hDecoder) return 1;
    cuvidDecodePicture(m_hDecoder, pPicParams);
    ++m_picturesDecoded;
    return 1;
}

uint8_t* NvDecoder::NextPoolFrame() {
    std::lock_guard<std::mutex> pool(m_poolMutex);
    if (size_t(++m_decodedCount) > m_frames.size()) {
        ++m_framesAllocated;
        uint8_t* frame = nullptr;
        if (m_deviceFrames) {
            const device::Api& api = device::api();
            CUdeviceptr allocation = 0;
            CUDA_DRVAPI_CALL(api.pushContext(m_context));
            device::PushedContext context(true);
            if (m_pitchedFrames)
                CUDA_DRVAPI_CALL(api.allocatePitch(&allocation, &m_framePitch, size_t(m_width) * GetBpp(),
                                                   size_t(m_height) * 3 / 2, 16));
            else
                CUDA_DRVAPI_CALL(api.driverAllocate(&allocation, size_t(GetFrameSize())));
            frame = reinterpret_cast<uint8_t*>(allocation);
            // The frame is the pool's from here on, so a failing pop cannot leak it.
            m_frames.push_back(frame);
            CUDA_DRVAPI_CALL(context.pop());
        } else {
            m_frames.push_back(new uint8_t[size_t(GetFrameSize())]);
        }
    }
    return m_frames[size_t(m_decodedCount) - 1];
}

int NvDecoder::HandlePictureDisplay(CUVIDPARSERDISPINFO* pDispInfo) {
    if (!m_hDecoder) return 1;
    CUVIDPROCPARAMS videoProcessingParameters = {};
    videoProcessingParameters.progressive_frame = pDispInfo->progressive_frame;
    videoProcessingParameters.second_field = pDispInfo->repeat_first_field + 1;
    videoProcessingParameters.top_field_first = pDispInfo->top_field_first;
    videoProcessingParameters.unpaired_field = pDispInfo->repeat_first_field < 0;
    videoProcessingParameters.output_stream = m_stream;

    unsigned long long dpSrcFrame = 0;
    unsigned int nSrcPitch = 0;
    NVDEC_API_CALL(cuvidMapVideoFrame(m_hDecoder, pDispInfo->picture_index, &dpSrcFrame, &nSrcPitch,
                                      &videoProcessingParameters));
    MappedFrame mapped(m_hDecoder, dpSrcFrame);

    uint8_t* pDecodedFrame = NextPoolFrame();
    const device::Api& api = device::api();
    const device::CopyKind kind = m_deviceFrames ? device::CopyKind::DeviceToDevice : device::CopyKind::DeviceToHost;
    const size_t pitch = size_t(GetDeviceFramePitch());
    const size_t rowBytes = size_t(m_width) * GetBpp();
    const auto* source = reinterpret_cast<const uint8_t*>(dpSrcFrame);
    CUDA_DRVAPI_CALL(api.pushContext(m_context));
    {
        device::PushedContext context(true);
        CUDA_DRVAPI_CALL(
            api.driverCopy2DAsync(pDecodedFrame, pitch, source, nSrcPitch, rowBytes, size_t(m_height), kind, m_stream));
        // The driver's chroma starts below the whole target surface, the frame's below its own rows.
        CUDA_DRVAPI_CALL(api.driverCopy2DAsync(pDecodedFrame + pitch * m_height, pitch,
                                               source + size_t(nSrcPitch) * m_surfaceHeight, nSrcPitch, rowBytes,
                                               size_t(m_height / 2), kind, m_stream));
        CUDA_DRVAPI_CALL(api.streamSynchronize(m_stream));
        CUDA_DRVAPI_CALL(context.pop());
    }

    if (int(m_timestamps.size()) < m_decodedCount) m_timestamps.resize(m_frames.size());
    m_timestamps[size_t(m_decodedCount) - 1] = pDispInfo->timestamp;

    mapped.release();
    NVDEC_API_CALL(cuvidUnmapVideoFrame(m_hDecoder, dpSrcFrame));
    return 1;
}

bool NvDecoder::Decode(const uint8_t* pData, int nSize, uint8_t*** pppFrame, int* pnFrameReturned, uint32_t flags,
                       int64_t** ppTimestamp, int64_t timestamp, CUstream stream) {
    if (!m_hParser) {
        std::cout << " Parser not initialized" << std::endl;
        return false;
    }
    m_decodedCount = 0;
    m_picturesDecoded = 0;
    CUVIDSOURCEDATAPACKET packet = {};
    packet.payload = pData;
    packet.payload_size = nSize > 0 ? nSize : 0;
    packet.flags = flags | CUVID_PKT_TIMESTAMP;
    packet.timestamp = timestamp;
    if (!pData || nSize == 0) packet.flags |= CUVID_PKT_ENDOFSTREAM;
    m_stream = stream;
    m_callbackFailure = nullptr;
    try {
        std::unique_lock<std::mutex> lock = LockExternal();
        NVDEC_API_CALL(cuvidParseVideoData(m_hParser, &packet));
    } catch (const NVDECException&) {
        // A callback's own failure is what made the parser fail.
        m_stream = nullptr;
        if (m_callbackFailure) std::rethrow_exception(m_callbackFailure);
        throw;
    }
    m_stream = nullptr;
    if (m_callbackFailure) std::rethrow_exception(m_callbackFailure);

    if (m_decodedCount > 0) {
        if (pppFrame) {
            std::lock_guard<std::mutex> pool(m_poolMutex);
            m_framesReturned.assign(m_frames.begin(), m_frames.begin() + m_decodedCount);
            *pppFrame = m_framesReturned.data();
        }
        if (ppTimestamp) *ppTimestamp = m_timestamps.data();
    }
    if (pnFrameReturned) *pnFrameReturned = m_decodedCount;
    return true;
}
