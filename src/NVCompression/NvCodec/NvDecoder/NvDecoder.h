// The NVDEC decoder: a CUVID parser and hardware decoder over one CUDA context. Every
// displayed picture is copied out of the driver's surface into a pooled NV12 frame of its own.
#pragma once

#include <cstdint>
#include <exception>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"
#include "NVCompression/NvCodec/NvEncoder/NvCodecException.h"

struct Rect {
    int l, t, r, b;
};
struct Dim {
    int w, h;
};

class NvDecoder {
public:
    // nWidth and nHeight are not used: the frame size comes from the stream. Throws
    // NVDECException when the context lock or the parser cannot be created.
    NvDecoder(CUcontext cuContext, int nWidth, int nHeight, bool bUseDeviceFrame, cudaVideoCodec eCodec,
              std::mutex* pMutex = nullptr, bool bLowLatency = false, bool bDeviceFramePitched = false,
              const Rect* pCropRect = nullptr, const Dim* pResizeDim = nullptr);
    ~NvDecoder();
    NvDecoder(const NvDecoder&) = delete;
    NvDecoder& operator=(const NvDecoder&) = delete;

    // Parses one packet; the pictures it displays are returned in *pppFrame (valid until the
    // next call, owned by the decoder) with their timestamps. A null or empty packet ends the
    // stream. False without a parser; NVDECException on driver failures.
    bool Decode(const uint8_t* pData, int nSize, uint8_t*** pppFrame, int* pnFrameReturned,
                uint32_t flags = 0, int64_t** ppTimestamp = nullptr, int64_t timestamp = 0,
                CUstream stream = 0);

    int GetWidth() const { return m_width; }
    int GetHeight() const { return m_height; }
    int GetBitDepth() const { return m_bitDepthMinus8 + 8; }
    int GetBpp() const { return m_bitDepthMinus8 ? 2 : 1; }
    int GetDeviceFramePitch() const { return m_framePitch ? int(m_framePitch) : m_width * GetBpp(); }
    int GetFrameSize() const;
    // Pictures the last Decode call decoded, displayed or held back for display later.
    int GetDecodedPictureCount() const { return m_picturesDecoded; }
    // The "Video Input Information" and "Video Decoding Params:" blocks of the sequences seen.
    std::string GetVideoInfo() const { return m_info.str(); }

private:
    // Parser callbacks. An exception is kept and rethrown by Decode once the parser has
    // returned, so that none unwinds through the driver's frames.
    static int CUDAAPI HandleVideoSequenceProc(void* pUserData, CUVIDEOFORMAT* pVideoFormat);
    static int CUDAAPI HandlePictureDecodeProc(void* pUserData, CUVIDPICPARAMS* pPicParams);
    static int CUDAAPI HandlePictureDisplayProc(void* pUserData, CUVIDPARSERDISPINFO* pDispInfo);
    template <typename Handler>
    int Forward(Handler handler);

    int HandleVideoSequence(CUVIDEOFORMAT* pVideoFormat);
    int HandlePictureDecode(CUVIDPICPARAMS* pPicParams);
    int HandlePictureDisplay(CUVIDPARSERDISPINFO* pDispInfo);
    uint8_t* NextPoolFrame();
    std::unique_lock<std::mutex> LockExternal();

    CUcontext m_context = nullptr;
    CUvideoctxlock m_ctxLock = nullptr;
    std::mutex* m_externalMutex = nullptr;
    CUvideoparser m_hParser = nullptr;
    CUvideodecoder m_hDecoder = nullptr;
    bool m_deviceFrames = false;
    int m_width = 0;
    int m_height = 0;
    int m_surfaceHeight = 0;
    cudaVideoCodec m_codec = cudaVideoCodec_NumCodecs;
    cudaVideoChromaFormat m_chromaFormat = cudaVideoChromaFormat_420;
    int m_bitDepthMinus8 = 0;
    CUVIDEOFORMAT m_format = {};
    std::vector<uint8_t*> m_frames;
    std::vector<uint8_t*> m_framesReturned;
    std::vector<int64_t> m_timestamps;
    int m_decodedCount = 0;
    int m_picturesDecoded = 0;
    std::mutex m_poolMutex;
    int m_framesAllocated = 0;
    CUstream m_stream = nullptr;
    bool m_pitchedFrames = false;
    size_t m_framePitch = 0;
    Rect m_crop = {};
    Dim m_resize = {};
    std::ostringstream m_info;
    std::exception_ptr m_callbackFailure;
};
