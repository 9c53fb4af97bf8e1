// A fake CUVID driver that decodes for real with libavcodec. Its parser calls the sequence, decode
// and display callbacks as the interface's comments describe, synchronously inside
// cuvidParseVideoData, takes a 0 from one for a failure, and can hold pictures back as a decoder
// of a stream that reorders does. It takes packets of whole pictures without a display delay, as
// NvDecoder sends them, and refuses others and decoders outside its sizes. Its decoder keeps
// coded-size surfaces; a mapped frame is host-table device memory with a pitch wider than the
// picture and the chroma plane below the whole target height. Lossless H.264 comes out wrong,
// silently. Handles, call order and map/unmap pairing are checked; breaches go to `faults`.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"

struct FakeCuvid {
    // ---- How the driver behaves
    std::set<cudaVideoCodec> supported = {cudaVideoCodec_H264, cudaVideoCodec_HEVC};  // 8-bit 4:2:0
    unsigned maxWidth = 4096, minWidth = 48, minHeight = 16, maxMBCount = 65536;  // the header's example
    unsigned heldPictures = 0;  // displayed only once this many later ones are decoded
    std::map<std::string, CUresult> failing;  // entry point name → status of its every call

    // ---- What happened
    std::vector<std::string> faults;
    std::vector<int64_t> packetTimestamps;  // of every packet parsed

    // Parsers, decoders, context locks and mapped frames still alive.
    size_t liveObjects() const;
    // The CUVID table; the CUDA driver entries stay null (tests use the host device table).
    DriverApi driverApi();
};

// The fake the driverApi() tables call into: reset (freeing anything left) for each test.
FakeCuvid& fakeCuvid();
void resetFakeCuvid();
