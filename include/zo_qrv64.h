/* zo_qrv64: records image streams through NVIDIA's video engines into QRV files
 * and plays them back.
 *
 * A host creates one pipe for encoding or for decoding and drives it through the
 * calls below. Calls return 0 on success and 1 on failure unless noted; the text of
 * the last failure is read with ZOHW_GetError. No call lets a C++ exception out. */
#ifndef ZO_QRV64_H
#define ZO_QRV64_H

#include <stdint.h>
#include <stdio.h>

#if defined(_WIN32)
#  if defined(ZOHW_BUILDING_LIBRARY)
#    define ZOHW_API __declspec(dllexport)
#  else
#    define ZOHW_API __declspec(dllimport)
#  endif
#else
#  define ZOHW_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque pipe instance. */
typedef struct ZoHwPipe ZoHwPipe;

/* Data formats: 0 BGRA colour image, 1 UYVY, 2 4-bit, 3 8-bit, 4 16-bit, 5 32-bit samples.
 * Codecs: 0 H.264, 1 HEVC. */

ZOHW_API ZoHwPipe* ZOHW_CreateEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless,
                                      uint32_t width, uint32_t height, uint64_t bitrate,
                                      uint32_t frameRate);
ZOHW_API ZoHwPipe* ZOHW_CreateDecoder(uint32_t dataFormat, uint32_t codec, uint32_t width,
                                      uint32_t height, uint32_t swReserved);
ZOHW_API void ZOHW_Destroy(ZoHwPipe* pipe);

/* outBitstream needs room for width x height x 4 bytes; a frame that needs more fails. */
ZOHW_API uint32_t ZOHW_Encode(ZoHwPipe* pipe, uint64_t* outSize, const void* frame,
                              uint64_t framePitch, void* outBitstream);
/* Appends one frame record to the file and flushes it. metadataWords: 0 to 64 (fewer are
 * padded with zero words); a failed write leaves the file as it was before the call. */
ZOHW_API uint32_t ZOHW_Encode_And_Store(ZoHwPipe* pipe, FILE* stream, uint64_t* outSize,
                                        const void* frame, uint64_t framePitch,
                                        uint64_t timestamp, const uint32_t* metadata,
                                        int32_t metadataWords);

ZOHW_API uint32_t ZOHW_Decode(ZoHwPipe* pipe, const void* bitstream, uint64_t size,
                              void* outFrame);
/* outMetadata receives 256 bytes. */
ZOHW_API uint32_t ZOHW_DecodeFrameAndMetadata(ZoHwPipe* pipe, FILE* stream, void* outFrame,
                                              uint32_t* outFrameNumber,
                                              uint64_t* outCaptureTime,
                                              uint32_t* outFrameType, void* outMetadata);
ZOHW_API uint32_t ZOHW_StartDecoding(ZoHwPipe* pipe, const void* arg);
/* 1 hardware, 2 software, 0 none or error. */
ZOHW_API uint32_t ZOHW_GetDecoderType(ZoHwPipe* pipe);

/* Returns the CUDA driver result of the probe's final context destruction (0 success).
 * Without an NVIDIA driver both flags are 0 and the result is 3 (CUDA_ERROR_NOT_INITIALIZED). */
ZOHW_API uint32_t ZOHW_GetEncCapabilities(uint32_t* h264Supported, uint32_t* hevcSupported);
/* pipe may be NULL: then the library-wide text (creation failures, null-pipe calls). */
ZOHW_API const char* ZOHW_GetError(ZoHwPipe* pipe);
ZOHW_API uint32_t ZOHW_GetVersion(void);

ZOHW_API uint32_t ZOHW_GetMetadataForSample(ZoHwPipe* pipe, FILE* stream, void* outMetadata,
                                            int32_t sample);
ZOHW_API uint32_t ZOHW_GetTimeStampForSample(ZoHwPipe* pipe, FILE* stream, int32_t sample,
                                             uint64_t* outTimestamp);
ZOHW_API uint32_t ZOHW_SetHEVCPositionInFile(ZoHwPipe* pipe, FILE* stream, int32_t sample);

ZOHW_API uint32_t ZOHW_CreateQRVContainer(ZoHwPipe* pipe, FILE* stream, const uint8_t* header,
                                          int32_t headerBytes);
ZOHW_API uint32_t ZOHW_CloseQRVContainer(ZoHwPipe* pipe, FILE* stream);
ZOHW_API uint32_t ZOHW_CreateQRVTracker(ZoHwPipe* pipe, FILE* stream);

#ifdef __cplusplus
}
#endif

#endif /* ZO_QRV64_H */
