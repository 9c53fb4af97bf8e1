#include "container/annexb.h"

namespace {

struct NalUnit {
    size_t unitStart;  // first byte of its start code, a leading zero_byte included
    size_t header;     // first byte of the NAL unit header
    size_t end;        // one past its last byte
};

std::vector<NalUnit> findNalUnits(const uint8_t* data, size_t bytes, size_t limit) {
    std::vector<NalUnit> units;
    for (size_t i = 0; i + 2 < bytes && units.size() < limit; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
        const size_t unitStart = i > 0 && data[i - 1] == 0 ? i - 1 : i;
        if (!units.empty()) units.back().end = unitStart;
        units.push_back({unitStart, i + 3, bytes});
        i += 2;
    }
    return units;
}

// Whether the byte after the NAL unit header starts with a 1 bit: first_mb_in_slice == 0
// (its ue(v) code is "1") in H.264, first_slice_segment_in_pic_flag in HEVC.
bool firstSliceOfPicture(const uint8_t* data, const NalUnit& unit, size_t headerBytes) {
    return unit.header + headerBytes < unit.end && (data[unit.header + headerBytes] & 0x80) != 0;
}

struct NalKind {
    bool valid;
    int parameterSetBit;  // detection needs them all: H.264 SPS, PPS; HEVC VPS, SPS, PPS
    bool vcl;
    bool delimiter;
    bool leadsAccessUnit;  // may only appear before the first slice of an access unit
    bool idr;
    bool randomAccess;  // decodable without any earlier picture
    size_t headerBytes;
};

NalKind h264Kind(const uint8_t* data, const NalUnit& unit) {
    NalKind kind{};
    kind.headerBytes = 1;
    // A start code that ends the data has no header.
    if (unit.header >= unit.end) return kind;
    const uint8_t b = data[unit.header];
    const int type = b & 0x1F;
    const int refIdc = (b >> 5) & 3;
    const bool referenceRequired = type == 5 || type == 7 || type == 8;
    const bool referenceForbidden = type == 6 || (type >= 9 && type <= 12);
    kind.valid = (b & 0x80) == 0 && type >= 1 && type <= 21 && !(referenceRequired && refIdc == 0) &&
                 !(referenceForbidden && refIdc != 0);
    kind.parameterSetBit = type == 7 ? 1 : type == 8 ? 2 : 0;
    kind.vcl = type == 1 || type == 5;
    kind.delimiter = type == 9;
    kind.leadsAccessUnit = type == 6 || type == 7 || type == 8 || (type >= 14 && type <= 18);
    kind.idr = type == 5;
    kind.randomAccess = kind.idr;
    return kind;
}

NalKind hevcKind(const uint8_t* data, const NalUnit& unit) {
    NalKind kind{};
    kind.headerBytes = 2;
    if (unit.header + 1 >= unit.end) return kind;
    const uint8_t b0 = data[unit.header];
    const uint8_t b1 = data[unit.header + 1];
    const int type = (b0 >> 1) & 0x3F;
    const int layer = ((b0 & 1) << 5) | (b1 >> 3);
    const int temporalIdPlus1 = b1 & 7;
    const bool definedType = type <= 9 || (type >= 16 && type <= 21) || (type >= 32 && type <= 40);
    kind.valid = (b0 & 0x80) == 0 && definedType && layer == 0 && temporalIdPlus1 != 0;
    kind.parameterSetBit = type >= 32 && type <= 34 ? 1 << (type - 32) : 0;
    kind.vcl = type < 32;
    kind.delimiter = type == 35;
    kind.leadsAccessUnit = (type >= 32 && type <= 34) || type == 39 || (type >= 41 && type <= 44) ||
                           (type >= 48 && type <= 55);
    kind.idr = type == 19 || type == 20;
    kind.randomAccess = type >= 16 && type <= 23;  // BLA, IDR, CRA and the reserved IRAP types
    return kind;
}

NalKind kindOf(AnnexBCodec codec, const uint8_t* data, const NalUnit& unit) {
    return codec == AnnexBCodec::H264 ? h264Kind(data, unit) : hevcKind(data, unit);
}

bool startsWithStartCode(const uint8_t* data, size_t bytes) {
    size_t zeros = 0;
    while (zeros < bytes && data[zeros] == 0) ++zeros;
    return zeros >= 2 && zeros < bytes && data[zeros] == 1;
}

// The first NAL units suffice: encoders put the parameter sets before the first picture.
constexpr size_t kDetectionUnits = 32;

bool plausible(AnnexBCodec codec, const uint8_t* data, const std::vector<NalUnit>& units) {
    const int allParameterSets = codec == AnnexBCodec::H264 ? 0x3 : 0x7;
    int parameterSets = 0;
    for (const NalUnit& unit : units) {
        const NalKind kind = kindOf(codec, data, unit);
        if (!kind.valid) return false;
        parameterSets |= kind.parameterSetBit;
    }
    return parameterSets == allParameterSets;
}

// Reads the bits of one NAL unit's payload (RBSP): each 0x03 that follows two zero bytes is an
// emulation prevention byte and is dropped. Reading past the end sets `ok` to false and yields 0s.
class RbspReader {
public:
    RbspReader(const uint8_t* data, size_t bytes) : data_(data), bytes_(bytes) {}

    bool ok = true;

    uint32_t bit() {
        if (bitsLeft_ == 0 && !nextByte()) {
            ok = false;
            return 0;
        }
        --bitsLeft_;
        return (current_ >> bitsLeft_) & 1;
    }
    // count ≤ 32.
    uint32_t bits(int count) {
        uint32_t value = 0;
        while (count-- > 0) value = value << 1 | bit();
        return value;
    }
    void skip(int count) {
        while (count-- > 0) bit();
    }
    // Unsigned Exp-Golomb; more than 31 leading zeros do not fit 32 bits and are invalid.
    uint32_t ue() {
        int leadingZeros = 0;
        while (ok && bit() == 0)
            if (++leadingZeros > 31) ok = false;
        if (!ok) return 0;
        return uint32_t((uint64_t(1) << leadingZeros) - 1 + bits(leadingZeros));
    }

private:
    bool nextByte() {
        while (position_ < bytes_) {
            const uint8_t byte = data_[position_++];
            if (zeros_ >= 2 && byte == 3) {
                zeros_ = 0;
                continue;
            }
            zeros_ = byte == 0 ? zeros_ + 1 : 0;
            current_ = byte;
            bitsLeft_ = 8;
            return true;
        }
        return false;
    }

    const uint8_t* data_;
    size_t bytes_;
    size_t position_ = 0;
    int zeros_ = 0;
    uint8_t current_ = 0;
    int bitsLeft_ = 0;
};

constexpr int kHevcSpsType = 33;

// seq_parameter_set_rbsp up to pic_height_in_luma_samples, NAL unit header included.
bool readSpsPictureSize(const uint8_t* nal, size_t bytes, HevcPictureSize& size) {
    RbspReader r(nal, bytes);
    r.skip(16);  // NAL unit header
    r.skip(4);   // sps_video_parameter_set_id
    const uint32_t maxSubLayersMinus1 = r.bits(3);
    r.skip(1);   // sps_temporal_id_nesting_flag
    // profile_tier_level(1, maxSubLayersMinus1): the general part is 96 bits.
    r.skip(96);
    bool subLayerProfile[8] = {}, subLayerLevel[8] = {};
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        subLayerProfile[i] = r.bit();
        subLayerLevel[i] = r.bit();
    }
    if (maxSubLayersMinus1 > 0) r.skip(2 * int(8 - maxSubLayersMinus1));  // reserved_zero_2bits
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if (subLayerProfile[i]) r.skip(88);
        if (subLayerLevel[i]) r.skip(8);
    }
    r.ue();  // sps_seq_parameter_set_id
    if (r.ue() == 3) r.skip(1);  // chroma_format_idc 4:4:4: separate_colour_plane_flag
    size.width = r.ue();
    size.height = r.ue();
    return r.ok;
}

}  // namespace

bool hevcDeclaredPictureSizes(const uint8_t* data, size_t bytes, std::vector<HevcPictureSize>& sizes) {
    sizes.clear();
    for (const NalUnit& nal : findNalUnits(data, bytes, SIZE_MAX)) {
        if (nal.header >= nal.end || ((data[nal.header] >> 1) & 0x3F) != kHevcSpsType) continue;
        HevcPictureSize size{};
        if (!readSpsPictureSize(data + nal.header, nal.end - nal.header, size)) return false;
        sizes.push_back(size);
    }
    return true;
}

int h264SequenceProfile(const uint8_t* data, size_t bytes) {
    constexpr int kSpsType = 7;
    int profile = -1;
    // profile_idc is the byte after the header: no emulation prevention byte can precede it.
    for (const NalUnit& nal : findNalUnits(data, bytes, SIZE_MAX))
        if (nal.header + 1 < nal.end && (data[nal.header] & 0x1F) == kSpsType) profile = data[nal.header + 1];
    return profile;
}

const char* annexBCodecName(AnnexBCodec codec) {
    switch (codec) {
        case AnnexBCodec::H264: return "H.264";
        case AnnexBCodec::Hevc: return "HEVC";
        default: return "unknown";
    }
}

AnnexBCodec annexBDetectCodec(const uint8_t* data, size_t bytes) {
    if (!startsWithStartCode(data, bytes)) return AnnexBCodec::Unknown;
    const std::vector<NalUnit> units = findNalUnits(data, bytes, kDetectionUnits);
    const bool h264 = plausible(AnnexBCodec::H264, data, units);
    const bool hevc = plausible(AnnexBCodec::Hevc, data, units);
    if (h264 == hevc) return AnnexBCodec::Unknown;
    return h264 ? AnnexBCodec::H264 : AnnexBCodec::Hevc;
}

bool annexBHasRandomAccessPicture(const uint8_t* data, size_t bytes, AnnexBCodec codec) {
    if (codec == AnnexBCodec::Unknown) return false;
    for (const NalUnit& nal : findNalUnits(data, bytes, SIZE_MAX))
        if (kindOf(codec, data, nal).randomAccess) return true;
    return false;
}

std::vector<AccessUnit> annexBSplitAccessUnits(const uint8_t* data, size_t bytes, AnnexBCodec codec) {
    std::vector<AccessUnit> units;
    if (bytes == 0 || codec == AnnexBCodec::Unknown) return units;
    units.push_back({0, 0, false});
    bool unitHasNal = false;
    bool unitHasSlice = false;
    for (const NalUnit& nal : findNalUnits(data, bytes, SIZE_MAX)) {
        const NalKind kind = kindOf(codec, data, nal);
        const bool firstSlice = kind.vcl && firstSliceOfPicture(data, nal, kind.headerBytes);
        const bool boundary = (kind.delimiter && unitHasNal) ||
                              (unitHasSlice && (kind.leadsAccessUnit || firstSlice));
        if (boundary && nal.unitStart > units.back().offset) {
            units.back().bytes = nal.unitStart - units.back().offset;
            units.push_back({nal.unitStart, 0, false});
            unitHasSlice = false;
        }
        unitHasNal = true;
        unitHasSlice |= kind.vcl;
        units.back().idr |= kind.idr;
    }
    units.back().bytes = bytes - units.back().offset;
    return units;
}
