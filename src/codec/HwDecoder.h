// Decodes samples on NVDEC and unpacks each picture into the caller's data format, on the GPU,
// into device memory or (through a staging buffer) host memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "NVCompression/NvCodec/NvDecoder/NvDecoder.h"
#include "codec/PictureDecoder.h"
#include "container/qrv_file.h"
#include "kernels/packing.h"

class HwDecoder {
public:
    // Never throws for a failed creation: isReady() tells.
    HwDecoder(uint32_t dataFormat, uint32_t codec, uint32_t width, uint32_t height);
    ~HwDecoder();
    HwDecoder(const HwDecoder&) = delete;
    HwDecoder& operator=(const HwDecoder&) = delete;

    bool isReady() const { return ready; }
    // Packed bytes written to out; 0 when no frame came out.
    uint32_t decode(const uint8_t* sample, uint64_t sampleBytes, void* out);

    bool readIndex(FILE* stream) { return reader.readIndex(stream); }
    int decodeNextRecord(FILE* stream, void* out, uint32_t* frameNumber, uint64_t* captureTime,
                         uint32_t* frameType, uint8_t* sampleInfo, uint32_t w, uint32_t h);
    bool lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const {
        return reader.lookUpSampleInfo(sample, sampleInfo);
    }
    bool seekToSample(FILE* stream, int32_t sample);

private:
    bool create(uint32_t codec, uint32_t w, uint32_t h);
    QrvDecodeStep decodeStep();
    // Lossless H.264 (High 4:4:4 Predictive), which NVDEC does not take: decoded by libavcodec
    // and unpacked by the packing kernels' CPU twins into the same layout.
    uint32_t decodeOnCpu(const uint8_t* sample, uint64_t sampleBytes, void* out);

    uint32_t dataFormat;
    uint32_t width = 0;
    uint32_t height = 0;
    std::unique_ptr<NvDecoder> decoder;
    uint32_t frameCounter = 0;
    bool ready = false;
    CUcontext context = nullptr;
    uint32_t codec;
    packing::StagingBuffer staging;
    QrvHardwareReader reader;  // the index, the sample infos and the payload buffer
    bool losslessStream = false;  // the last H.264 sequence parameter set has profile 244
    std::unique_ptr<PictureDecoder> cpuDecoder;  // made for the first such stream
    std::vector<uint8_t> cpuFrame, cpuOut;       // its NV12 picture and the unpacked data
};
