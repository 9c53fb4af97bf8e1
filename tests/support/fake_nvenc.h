// A fake NVENC driver built from the contract in nvEncodeAPI.h's comments. It keeps sessions,
// bitstream buffers, registered resources and mappings, checks every structure's version word
// against the session's interface version, and records each breach of the contract (and each
// resource still held when a session is destroyed) in `faults`. A picture's "bitstream" is its
// frame index, picture type and a hash of the registered input surface as it was encoded.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"

struct FakeNvencSession {
    uint32_t api = 0;
    bool initialized = false;
    uint32_t idrPeriod = 0;
    uint32_t frames = 0;
    struct Buffer {
        std::vector<uint8_t> bytes;
        uint32_t pictureType = 0;
        bool ready = false, pending = false, locked = false;
    };
    struct Resource {
        NV_ENC_REGISTER_RESOURCE registration;
        bool mapped = false;
    };
    std::map<void*, Buffer> buffers;
    std::map<void*, Resource> resources;  // by registered handle; the mapped handle is handle + 1
};

struct FakeNvenc {
    // ---- How the driver behaves
    uint32_t maxVersion = (11 << 4) | 1;
    bool legacyPresets = true;       // false: a driver of the 590 series on
    bool refuseAtInitialize = false;  // without legacy presets: the query works, initialisation refuses
    bool hevc = true;                 // HEVC in the capability query
    uint32_t lookaheadDepth = 0;      // what the presets deliver
    std::set<uint32_t> needMoreInput;  // frame indices answered NV_ENC_ERR_NEED_MORE_INPUT
    std::map<uint32_t, size_t> packetBytes;  // frame index → payload padded to this size
    std::map<std::string, NVENCSTATUS> failing;  // entry point name → status it returns

    // ---- What happened
    std::vector<std::string> calls;
    std::vector<std::string> faults;
    NV_ENC_INITIALIZE_PARAMS initParams = {};  // of the last initialisation, its config below
    NV_ENC_CONFIG config = {};
    std::vector<NV_ENC_PIC_PARAMS> pictures;
    int librariesLoaded = 0;  // minus those freed
    std::map<void*, FakeNvencSession> sessions;
    uint32_t functionListApi = 0;

    // Installs this fake as the NVENC library for the lifetime of the returned table's use.
    DriverApi driverApi();
    // Hash of the visible part of a surface (NV12: luma and chroma rows; ARGB: 4·width bytes a row).
    static uint64_t surfaceHash(const uint8_t* surface, uint32_t pitch, uint32_t width, uint32_t height,
                                NV_ENC_BUFFER_FORMAT format);
    // The payload the fake produces: frame index, picture type, surface hash, zero padding.
    static std::vector<uint8_t> payload(uint32_t frameIndex, uint32_t pictureType, uint64_t hash, size_t bytes);
};

// The fake that driverApi() tables call into; tests set up a fresh one each.
FakeNvenc& fakeNvenc();

inline uint32_t nvencStructVersion(uint32_t api, uint32_t n, bool extended) {
    return api | (n << 16) | (0x7u << 28) | (extended ? 1u << 31 : 0u);
}
