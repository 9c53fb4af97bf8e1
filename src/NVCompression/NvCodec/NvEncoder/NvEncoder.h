// One NVENC encode session: loads the interface, opens the session, fills default parameters,
// creates the encoder with its ring of input frames and bitstream buffers, submits frames and
// hands back their packets in submission order. The device subclass provides the input frames.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "NVCompression/NvCodec/DriverApi.h"
#include "NVCompression/NvCodec/NvEncoder/NvCodecException.h"
#include "NVCompression/NvCodec/NvEncoder/NvEncoderCapabilities.h"

// The presets of interfaces before 10.0, which the header marks deprecated.
constexpr GUID kNvEncPresetDefaultGuid = {0xb2dfb705, 0x4ebd, 0x4c49, {0x9b, 0x5f, 0x24, 0xa7, 0x77, 0xd3, 0xe5, 0x87}};
constexpr GUID kNvEncPresetLowLatencyHqGuid = {0xc5f733b9, 0xea97, 0x4cf9, {0xbe, 0xc2, 0xbf, 0x78, 0xa7, 0x4f, 0xd1, 0x05}};
constexpr GUID kNvEncPresetLosslessDefaultGuid = {0xd5bfb716, 0xc604, 0x44e7, {0x9b, 0xb8, 0xde, 0xa5, 0x51, 0x0f, 0xc3, 0xac}};
constexpr GUID kNvEncPresetLosslessHpGuid = {0x149998e7, 0x2364, 0x411d, {0x82, 0xef, 0x17, 0x98, 0x88, 0x09, 0x34, 0x09}};

inline bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

struct NvEncInputFrame {
    void* inputPtr = nullptr;
    uint32_t chromaOffsets[2] = {0, 0};
    uint32_t numChromaPlanes = 0;
    uint32_t pitch = 0;
    uint32_t chromaPitch = 0;
    NV_ENC_BUFFER_FORMAT bufferFormat = NV_ENC_BUFFER_FORMAT_UNDEFINED;
};

class NvEncoder {
public:
    virtual ~NvEncoder();
    NvEncoder(const NvEncoder&) = delete;
    NvEncoder& operator=(const NvEncoder&) = delete;

    // Fills the parameters and their configuration for a codec and preset; the tuning info is
    // used by interfaces without legacy presets.
    void CreateDefaultEncoderParams(NV_ENC_INITIALIZE_PARAMS* pIntializeParams, GUID codecGuid,
                                    GUID presetGuid, uint32_t gopLength,
                                    NV_ENC_TUNING_INFO tuningInfo = NV_ENC_TUNING_INFO_UNDEFINED);
    void CreateEncoder(const NV_ENC_INITIALIZE_PARAMS* pEncoderParams);
    // Copies out what the encoder was created with; the configuration goes where the caller's
    // parameters point.
    void GetInitializeParams(NV_ENC_INITIALIZE_PARAMS* pInitializeParams) const;
    void DestroyEncoder();

    const NvEncInputFrame* GetNextInputFrame();
    // Returns the picture type of the last packet delivered, 0 when none was.
    uint32_t EncodeFrame(std::vector<std::vector<uint8_t>>& vPacket, NV_ENC_PIC_PARAMS* pPicParams = nullptr);
    // Sends end of stream and drains every outstanding packet.
    uint32_t EndEncode(std::vector<std::vector<uint8_t>>& vPacket);

    bool IsEncoderCreated() const { return m_bEncoderCreated; }
    const NvEncInterface& GetInterface() const { return m_interface; }

    static uint32_t GetChromaHeight(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaHeight);
    static uint32_t GetChromaWidthInBytes(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaWidth);
    static uint32_t GetNumChromaPlanes(NV_ENC_BUFFER_FORMAT bufferFormat);
    static uint32_t GetChromaPitch(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaPitch);
    static void GetChromaSubPlaneOffsets(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t pitch, uint32_t height,
                                         std::vector<uint32_t>& chromaOffsets);
    static uint32_t GetWidthInBytes(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t width);
    static uint32_t GetFrameSize(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t width, uint32_t height);

protected:
    NvEncoder(NV_ENC_DEVICE_TYPE eDeviceType, void* pDevice, uint32_t nWidth, uint32_t nHeight,
              NV_ENC_BUFFER_FORMAT eBufferFormat, uint32_t nExtraOutputDelay, bool bMotionEstimationOnly,
              const NvEncInterface& nvencInterface);

    bool IsHWEncoderInitialized() const { return m_hEncoder != nullptr && m_bEncoderCreated; }
    // Sends end of stream and drops what comes out: the driver wants its encoder flushed before
    // any of its resources are released. Never throws.
    void FlushBeforeRelease();
    // Registers every frame of m_vInputFrames that is not registered yet and completes its record.
    void RegisterResources(NV_ENC_INPUT_RESOURCE_TYPE eResourceType, uint32_t width, uint32_t height,
                           uint32_t pitch, NV_ENC_BUFFER_FORMAT bufferFormat);
    void UnregisterResources();
    uint32_t GetMaxEncodeWidth() const { return m_nMaxEncodeWidth; }
    uint32_t GetMaxEncodeHeight() const { return m_nMaxEncodeHeight; }
    NV_ENC_BUFFER_FORMAT GetPixelFormat() const { return m_eBufferFormat; }

    virtual void AllocateInputBuffers(int32_t numInputBuffers) = 0;
    virtual void ReleaseInputBuffers() = 0;

    // Releases the library when the constructor throws after loading it.
    struct LoadedLibrary {
        NvencFunctions* functions = nullptr;
        LoadedLibrary() = default;
        LoadedLibrary(const LoadedLibrary&) = delete;
        LoadedLibrary& operator=(const LoadedLibrary&) = delete;
        ~LoadedLibrary();
    };

    bool m_bMotionEstimationOnly;
    LoadedLibrary m_library;
    void* m_hEncoder = nullptr;
    NV_ENCODE_API_FUNCTION_LIST m_nvenc = {};
    std::vector<NvEncInputFrame> m_vInputFrames;
    std::vector<NV_ENC_REGISTERED_PTR> m_vRegisteredResources;
    uint32_t m_nWidth;
    uint32_t m_nHeight;
    NV_ENC_BUFFER_FORMAT m_eBufferFormat;
    void* m_pDevice;
    NV_ENC_DEVICE_TYPE m_eDeviceType;
    NV_ENC_INITIALIZE_PARAMS m_initializeParams = {};
    NV_ENC_CONFIG m_encodeConfig = {};
    bool m_bEncoderCreated = false;
    uint32_t m_nExtraOutputDelay;
    std::vector<NV_ENC_INPUT_PTR> m_vMappedInputBuffers;
    std::vector<NV_ENC_OUTPUT_PTR> m_vBitstreamOutputBuffer;
    // Linux has no asynchronous mode: there are no completion events, and collection waits
    // in the blocking bitstream lock instead.
    uint32_t m_nMaxEncodeWidth = 0;
    uint32_t m_nMaxEncodeHeight = 0;
    int32_t m_iToSend = 0;
    int32_t m_iGot = 0;
    // Frames submitted up to the last successful submission: a frame the driver held back
    // (NV_ENC_ERR_NEED_MORE_INPUT) may not be locked before a later submission succeeds.
    int32_t m_iSubmittedToLastSuccess = 0;
    int32_t m_nEncoderBuffer = 0;
    int32_t m_nOutputDelay = 0;
    NvEncInterface m_interface;

private:
    void LoadNvEncApi();
    // Fetches the configuration of a preset: the legacy query or, without legacy presets, the
    // query with tuning info.
    void GetPresetConfig(GUID codecGuid, GUID presetGuid, NV_ENC_TUNING_INFO tuningInfo,
                         NV_ENC_PRESET_CONFIG& presetConfig);
    void MapResources(uint32_t bfrIdx);
    NVENCSTATUS DoEncode(NV_ENC_INPUT_PTR inputBuffer, NV_ENC_OUTPUT_PTR outputBuffer, NV_ENC_PIC_PARAMS* pPicParams);
    uint32_t GetEncodedPacket(std::vector<std::vector<uint8_t>>& vPacket, bool bOutputDelay);
    void DestroyHWEncoder();
};
