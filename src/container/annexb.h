// H.264 and HEVC elementary streams in Annex-B byte-stream format (start-code delimited
// NAL units): codec detection from NAL unit headers and splitting into access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

enum class AnnexBCodec { Unknown, H264, Hevc };

const char* annexBCodecName(AnnexBCodec codec);

// The codec whose NAL unit headers the stream carries: the stream must begin with a start
// code, the headers of its first NAL units must all be valid for exactly one codec, and that
// codec's parameter sets must be among them. Unknown otherwise.
AnnexBCodec annexBDetectCodec(const uint8_t* data, size_t bytes);

// Whether the data holds a picture from which decoding can start with no earlier picture: an
// HEVC IRAP picture (NAL unit types 16 to 23) or an H.264 IDR picture.
bool annexBHasRandomAccessPicture(const uint8_t* data, size_t bytes, AnnexBCodec codec);

struct AccessUnit {
    size_t offset;
    size_t bytes;
    bool idr;  // holds an IDR picture (H.264 type 5; HEVC IDR_W_RADL or IDR_N_LP)
};

// The stream's access units, back to back: together they cover every byte in order.
// Boundaries: an access unit delimiter; parameter sets, prefix SEI and the other NAL types
// that may only lead an access unit, once the current one has a slice; and the first slice
// of a picture (first_mb_in_slice == 0, first_slice_segment_in_pic_flag) after a slice.
std::vector<AccessUnit> annexBSplitAccessUnits(const uint8_t* data, size_t bytes, AnnexBCodec codec);

// Coded picture size that an HEVC sequence parameter set declares (pic_width_in_luma_samples,
// pic_height_in_luma_samples).
struct HevcPictureSize {
    uint32_t width;
    uint32_t height;
};

// The sizes declared by every HEVC sequence parameter set in the data, in order. False when one
// of them ends, or holds an invalid Exp-Golomb code, before its size. Reads nothing beyond each
// NAL unit and removes emulation prevention bytes.
bool hevcDeclaredPictureSizes(const uint8_t* data, size_t bytes, std::vector<HevcPictureSize>& sizes);

// profile_idc of the last H.264 sequence parameter set in the data; -1 when there is none.
int h264SequenceProfile(const uint8_t* data, size_t bytes);
