// A fake NVENC driver built from the contract in nvEncodeAPI.h's comments. It keeps sessions,
// bitstream buffers, registered resources and mappings, checks every structure's version word
// against the session's interface version, and records each breach of the contract (and each
// resource still held, and each session not flushed, when a session is destroyed) in `faults`.
// Configurations the header calls invalid are refused. A picture's "bitstream" is its frame
// index, picture type and a hash of the registered input surface as it was encoded.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"

struct FakeNvenc {
    // ---- How the driver behaves
    uint32_t maxVersion = (11 << 4) | 1;
    bool legacyPresets = true;        // false: a driver of the 590 series on
    bool hevc = true;                 // HEVC in the capability query
    uint16_t lookaheadDepth = 0;      // what the presets deliver
    uint32_t minWidth = 8, minHeight = 4, maxTemporalLayers = 4;  // the capabilities
    std::set<uint32_t> heldBack;      // frame indexes held (NEED_MORE_INPUT) until a later success
    std::map<uint32_t, size_t> packetBytes;      // frame index → payload padded to this size
    std::map<std::string, NVENCSTATUS> failing;  // entry point → its status ("load": no library)

    // ---- What happened
    std::map<std::string, size_t> calls;  // entry point → how often it was called
    std::vector<uint32_t> pictureFlags;   // of each picture encoded (a forced IDR restarts the IDR period)
    std::vector<std::string> faults;
    NV_ENC_INITIALIZE_PARAMS initParams = {};  // of the last initialisation, its configuration below
    NV_ENC_CONFIG config = {};
    int librariesLoaded = 0;  // minus those freed
    size_t openSessions() const;

    // Starts a fresh driver: no sessions, and this fake's behaviour.
    DriverApi driverApi();
    // The payload of a picture: index, type and a hash of the surface's visible part (NV12: luma
    // and chroma rows of `width` bytes; ARGB: rows of 4 · width), zero-padded to `bytes`.
    static std::vector<uint8_t> payload(uint32_t index, uint32_t type, const uint8_t* surface, uint32_t pitch,
                                        uint32_t width, uint32_t height, NV_ENC_BUFFER_FORMAT format, size_t bytes = 0);
};

// The fake that driverApi() tables call into.
FakeNvenc& fakeNvenc();

inline uint32_t nvencStructVersion(uint32_t api, uint32_t n, bool extended) {
    return api | (n << 16) | (0x7u << 28) | (extended ? 1u << 31 : 0u);
}
