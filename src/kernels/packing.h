// Packing of non-video data into NV12 pictures and back: sizes, launch geometry, staging
// buffers and the launches that the encoder and decoder wrappers make.
#pragma once

#include <cstddef>
#include <cstdint>

namespace packing {

// Data-format codes shared with the exported interface.
enum DataFormat : uint32_t {
    kColour32 = 0,  // BGRA image, no packing
    kUyvy = 1,
    kUint4 = 2,     // two samples per byte
    kUint8 = 3,
    kUint16 = 4,
    kUint32 = 5,
};

// Bytes of one w × h image in the caller's layout (0 for an unknown code), in u32 arithmetic.
uint32_t packedSize(uint32_t code, uint32_t width, uint32_t height);

// Bytes of one tight row in the caller's layout (the decode kernels' destination pitch).
uint32_t tightPitch(uint32_t code, uint32_t width);

// Width of the NV12 picture that carries a w-wide image: 16- and 32-bit samples take 2 and 4
// luma bytes each, every other code one luma sample a pixel.
uint32_t pictureWidth(uint32_t code, uint32_t width);

// The most bytes one frame's access unit may take, for the encoders that make it and the readers
// that take it back: twice the raw NV12 picture that carries the frame (pictureWidth × height
// × 3/2 × 2). Not the data's own size: lossless coding of 32-bit samples, whose bytes look like
// noise to the codec, often needs more than that.
inline uint64_t maxAccessUnitBytes(uint32_t pictureWidth, uint32_t pictureHeight) {
    return uint64_t(pictureWidth) * pictureHeight * 3;
}

struct LaunchGeometry {
    uint32_t gridX, gridY, blockX, blockY;
};

// Encode kernels run one thread per sample; the 4-bit decode kernel one per output byte.
LaunchGeometry encodeGeometry(uint32_t width, uint32_t height);
LaunchGeometry decodeGeometry(uint32_t code, uint32_t width, uint32_t height);

// Grow-only device buffer for callers whose pixels live in host memory.
struct StagingBuffer {
    void* ptr = nullptr;
    uint32_t capacity = 0;
};

// Makes the buffer hold at least `size` bytes. The capacity is recorded before the allocation
// runs, so a failed allocation leaves the new size recorded and a null pointer, which the next
// call allocates again. The encoder side throws Exception with "Failed to allocate temporary
// device memory" on failure; the decoder side returns the allocation's result.
void growEncoderStaging(StagingBuffer& staging, uint32_t size);
int growDecoderStaging(StagingBuffer& staging, uint32_t size);

// Codes 1–5: packs the caller's image (host or device) into the NV12 frame at `frame` with
// `framePitch`. Host input is staged row by row with the caller's pitch, so any pitch works.
// Unknown codes do nothing. All device work goes through device::api().
void launchPackForEncode(uint32_t code, const void* src, uint32_t srcPitch, void* frame,
                         uint32_t framePitch, uint32_t width, uint32_t height,
                         StagingBuffer& staging);

// Code 0 on the encode side: copies the BGRA image into the frame, rows framePitch apart.
void copyColourForEncode(const void* src, uint32_t srcPitch, void* frame, uint32_t framePitch,
                         uint32_t width, uint32_t height);

// Unpacks a decoded NV12 frame (device memory) into `out` (host or device) in the caller's
// layout; code 0 converts to BGRA with BT.709 and reads the frame with pitch `width`. Bytes of
// the packed size that the kernel does not write (4-bit data of odd width) are zeroed.
// Returns the packed size once the result is in `out`; 0 for an unknown code (nothing
// launched) and when the staging allocation, the kernel or the delivery failed.
uint32_t launchUnpackForDecode(uint32_t code, const void* frame, uint32_t framePitch, void* out,
                               uint32_t width, uint32_t height, StagingBuffer& staging);

// The software codecs' twins of the two launches, on host memory: code 0 converts BGRA to NV12
// (and back) with the BT.709 matrix of the decoder's colour conversion, codes 1–5 run the
// packing kernels' CPU twins. The NV12 chroma plane starts `height` rows below the luma plane.
// False for an unknown code.
bool packOnHost(uint32_t code, const void* src, uint32_t srcPitch, uint8_t* frame, uint32_t framePitch,
                uint32_t width, uint32_t height);
bool unpackOnHost(uint32_t code, const uint8_t* frame, uint32_t framePitch, void* out, uint32_t width,
                  uint32_t height);

// The software codecs' NV12 pictures on the host: rows of the width rounded up to even, so
// that an odd width's last chroma pair has room for its V byte; (h + 1) / 2 chroma rows.
uint32_t nv12Pitch(uint32_t width);
size_t nv12Bytes(uint32_t width, uint32_t height);
// The NV12 picture behind the software decoder's packed YUYV (w × h, 2w bytes a row): luma as
// is, each chroma pair from the even row that carries it (odd rows repeat it). An odd width's
// last V, which YUYV does not carry, is 128.
void nv12FromYuyv(const uint8_t* yuyv, uint32_t width, uint32_t height, uint8_t* nv12);
// The NV12 picture (layout as above) of the top-left width × height of an 8-bit 4:2:0 picture
// in three planes, rows `strides` bytes apart.
void nv12FromPlanes(const uint8_t* const planes[3], const int strides[3], uint32_t width, uint32_t height,
                    uint8_t* nv12);
// The caller's data carried by such a YUYV picture of pictureWidth × height, through the NV12
// picture behind it and unpackOnHost. False for an unknown code.
bool unpackYuyvOnHost(uint32_t code, const uint8_t* yuyv, uint32_t pictureWidth, void* out, uint32_t width,
                      uint32_t height);

}  // namespace packing
