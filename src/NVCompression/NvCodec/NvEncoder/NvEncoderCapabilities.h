// Which codecs the GPU's NVENC can encode, asked without creating an encoder; and the interface
// versions this library speaks.
#pragma once

#include "NVCompression/NvCodec/DriverApi.h"

// An interface version a session speaks and the version words of the structures it uses.
struct NvEncInterface {
    uint32_t apiVersion;  // major | minor << 24
    uint32_t functionList, openSessionParams, capsParam, initializeParams, config, presetConfig, picParams,
        lockBitstream, createBitstreamBuffer, mapInputResource, registerResource;

    // The driver's maximum version must be at least (major << 4) | minor.
    constexpr uint32_t requiredMaxVersion() const { return ((apiVersion & 0xFF) << 4) | (apiVersion >> 24); }
    // Interfaces before 10.0 know the legacy presets; later ones take presets with tuning info.
    constexpr bool hasLegacyPresets() const { return (apiVersion & 0xFF) < 10; }
};

// NVENC interface 8.1, the version this library speaks first.
constexpr uint32_t kNvEncApiVersion = 8u | (1u << 24);
// The header's NVENCAPI_STRUCT_VERSION, for API 8.1 in place of the header's own version; the
// parameter, configuration and picture structures add the high bit, as the header does.
constexpr uint32_t nvEnc8_1StructVersion(uint32_t ver, bool extended = false) {
    return kNvEncApiVersion | (ver << 16) | (0x7u << 28) | (extended ? 1u << 31 : 0u);
}
constexpr NvEncInterface kNvEncInterface8_1{
    kNvEncApiVersion,           nvEnc8_1StructVersion(2),       nvEnc8_1StructVersion(1),
    nvEnc8_1StructVersion(1),   nvEnc8_1StructVersion(5, true), nvEnc8_1StructVersion(7, true),
    nvEnc8_1StructVersion(4, true), nvEnc8_1StructVersion(4, true), nvEnc8_1StructVersion(1),
    nvEnc8_1StructVersion(1),   nvEnc8_1StructVersion(4),       nvEnc8_1StructVersion(3)};
static_assert(kNvEncInterface8_1.initializeParams == 0xF1050008 && kNvEncInterface8_1.config == 0xF1070008 &&
                  kNvEncInterface8_1.presetConfig == 0xF1040008 && kNvEncInterface8_1.picParams == 0xF1040008 &&
                  kNvEncInterface8_1.functionList == 0x71020008 && kNvEncInterface8_1.openSessionParams == 0x71010008 &&
                  kNvEncInterface8_1.mapInputResource == 0x71040008 && kNvEncInterface8_1.lockBitstream == 0x71010008 &&
                  kNvEncInterface8_1.createBitstreamBuffer == 0x71010008 && kNvEncInterface8_1.capsParam == 0x71010008,
              "NVENC 8.1 structure versions");
// The newest interface the header defines, for drivers without the legacy presets: its words are
// the header's, so a newer header brings its own.
constexpr NvEncInterface kNvEncInterfaceNewest{
    NVENCAPI_VERSION,          NV_ENCODE_API_FUNCTION_LIST_VER, NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS_VER,
    NV_ENC_CAPS_PARAM_VER,     NV_ENC_INITIALIZE_PARAMS_VER,    NV_ENC_CONFIG_VER,
    NV_ENC_PRESET_CONFIG_VER,  NV_ENC_PIC_PARAMS_VER,           NV_ENC_LOCK_BITSTREAM_VER,
    NV_ENC_CREATE_BITSTREAM_BUFFER_VER, NV_ENC_MAP_INPUT_RESOURCE_VER, NV_ENC_REGISTER_RESOURCE_VER};

struct EncoderCapabilities {
    bool h264 = false;
    bool hevc = false;
};

// Opens an NVENC session on `context` and asks each codec for its maximum width.
// Every failure leaves the flags false.
EncoderCapabilities probeEncoderCapabilities(CUcontext context);
