// What the two software encoders (libx265: SwEncoder, libx264: X264Encoder) share: the caller's
// frame packed as the NVENC path packs it (non-video data in NV12 by the packing kernels' CPU
// twins, BGRA converted to 4:2:0 with BT.709), moved into padded I420 planes, and the access unit
// joined under the per-frame cap, with an IDR after any frame whose bytes did not come out whole.
#pragma once

#include <cstdint>
#include <vector>

#include "codec/Encoder.h"

// The text of a macro's value, for sonames and entry points that carry a build number.
#define ZOQRV_TEXT(x) #x
#define ZOQRV_VALUE_TEXT(x) ZOQRV_TEXT(x)

class SoftwareEncoder : public Encoder {
public:
    // Frames of another size than the creation's give no bytes.
    uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                    uint32_t* pictureType, bool forceIntra) final;
    const uint8_t* outputBuffer() const final { return output.data(); }

    // The coded size of a picture side: even, and at least minimumSize.
    static uint32_t paddedSize(uint32_t size, uint32_t minimumSize);
    // The GOP as on NVENC, at least 1: a frame rate of 1 lossless would give 0, which neither
    // library takes; every frame is then an IDR.
    static int gopFrames(uint32_t lossless, uint32_t frameRate);
    // CBR in the libraries' kilobits a second: the one-frame VBV of Encoder::lossyRate for the
    // picture (unpadded, as the cap). False for rates they cannot take.
    struct KilobitRate {
        int bitrate, vbvBuffer;
    };
    static bool kilobitRate(uint64_t bitrate, uint32_t frameRate, uint32_t width, uint32_t height, KilobitRate& rate);

protected:
    enum class Forced { None, Intra, Idr };
    // Picture types by libx264's and libx265's numbering, which is the same: what to ask for,
    // and NVENC's number for what came out, so that files from any encoder carry the same
    // frame types.
    static int libraryPictureType(Forced forced);
    static uint32_t nvencPictureType(int libraryType);
    // Pictures are coded padded to even sizes of at least minimumSize each way. No buffer is
    // made for a data format or size that cannot be packed: planeBytes() is then 0.
    SoftwareEncoder(uint32_t dataFormat, uint32_t width, uint32_t height, uint32_t minimumSize);

    // Codes the I420 picture at plane(0..2), adding its NAL units with appendUnit, and returns the
    // picture type by NVENC's numbering. Throws Exception when the library refuses it.
    virtual uint32_t codePicture(Forced forced) = 0;
    // Throws Exception("Encode output buffer overflow") when the unit would pass the cap.
    void appendUnit(const uint8_t* payload, uint64_t bytes);

    uint32_t frameWidth() const { return nv12Width; }  // of the NV12 picture that carries the data
    uint32_t frameHeight() const { return height; }
    uint32_t planeWidth() const { return paddedWidth; }
    uint32_t planeHeight() const { return paddedHeight; }
    size_t planeBytes() const { return planes.size(); }
    uint8_t* plane(int index);  // 0 luma, 1 Cb, 2 Cr

private:
    void fillPlanes();

    uint32_t dataFormat;
    uint32_t width, height;  // of the caller's data
    uint32_t nv12Width, framePitch;
    uint32_t paddedWidth, paddedHeight;
    std::vector<uint8_t> hostCopy;  // the caller's frame when it lives in device memory
    std::vector<uint8_t> frame;     // NV12 at framePitch, chroma `height` rows below luma
    std::vector<uint8_t> planes;    // I420 luma, Cb, Cr
    std::vector<uint8_t> output;
    uint64_t outputBytes = 0;
};
