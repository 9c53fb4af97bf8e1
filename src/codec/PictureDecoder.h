// The codec-specific part of software decoding: one access unit in, its picture out in the same
// call. SwDecoder reads the records, keeps the reference chains and writes the pictures; a
// backend only decodes (libde265 for HEVC, libavcodec for H.264).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "container/annexb.h"

// A decoded picture, owned by the backend and valid until its next call. Only 8-bit 4:2:0
// pictures carry planes; others come out with planar420 false so that callers refuse them.
struct DecodedPicture {
    bool planar420 = false;
    uint32_t width = 0, height = 0;  // the display size (cropped)
    const uint8_t* planes[3] = {};   // Y, Cb, Cr
    int strides[3] = {};
};

class PictureDecoder {
public:
    explicit PictureDecoder(AnnexBCodec codec) : codec(codec) {}
    virtual ~PictureDecoder() = default;
    PictureDecoder(const PictureDecoder&) = delete;
    PictureDecoder& operator=(const PictureDecoder&) = delete;

    bool isReady() const { return ready; }
    // Decodes one access unit; false when it gave no picture (it never waits for one).
    virtual bool decode(const uint8_t* accessUnit, uint32_t bytes, DecodedPicture& picture) = 0;
    // Whether the access unit holds a picture that needs no earlier one.
    bool startsReferenceChain(const uint8_t* accessUnit, uint32_t bytes) const {
        return annexBHasRandomAccessPicture(accessUnit, bytes, codec);
    }

protected:
    bool ready = false;  // set by the backend's constructor

private:
    AnnexBCodec codec;
};

// Codec 0 is H.264 (libavcodec), any other HEVC (libde265). Never null; isReady() tells whether
// it can decode. Pictures larger than a pipe of width × height takes are refused before they are
// decoded: the area, not each side, is bounded (by the size rounded up to whole 64 x 64 blocks), so
// a pipe narrower than its pictures still gets their top-left part.
std::unique_ptr<PictureDecoder> makePictureDecoder(uint32_t codec, uint32_t width, uint32_t height);

// The HEVC backend, which makePictureDecoder uses; maxPixels bounds the declared picture area.
std::unique_ptr<PictureDecoder> makeLibde265Decoder(uint64_t maxPixels);

// Why a decoder for this codec cannot be made ready on this machine (a missing library), or null.
const char* pictureDecoderMissingText(uint32_t codec);

// The caller's width × height data of `dataFormat` carried by a decoded picture (of the packing's
// picture width): its NV12 picture, made in `nv12`, unpacked by the packing kernels' CPU twins
// into `out` (packing::packedSize bytes, tight rows; bytes the unpacking leaves are 0), as the GPU
// unpacks NVDEC's pictures. False when the picture is smaller or not 8-bit 4:2:0.
bool unpackDecodedPicture(const DecodedPicture& picture, uint32_t dataFormat, uint32_t width, uint32_t height,
                          std::vector<uint8_t>& nv12, uint8_t* out);

// The largest payload that a record of a width × height picture may hold: twice the raw NV12
// picture (the encoders' cap), and for H.264 at least 4 bytes a pixel.
uint64_t recordPayloadLimit(uint32_t pictureWidth, uint32_t pictureHeight, uint32_t codec);
