#include "NVCompression/NvCodec/NvEncoder/NvEncoder.h"

#include <algorithm>

namespace {

bool isYuv444(NV_ENC_BUFFER_FORMAT format) {
    return format == NV_ENC_BUFFER_FORMAT_YUV444 || format == NV_ENC_BUFFER_FORMAT_YUV444_10BIT;
}
bool isTenBit(NV_ENC_BUFFER_FORMAT format) {
    return format == NV_ENC_BUFFER_FORMAT_YUV420_10BIT || format == NV_ENC_BUFFER_FORMAT_YUV444_10BIT;
}
bool isPackedRgb(NV_ENC_BUFFER_FORMAT format) {
    switch (format) {
    case NV_ENC_BUFFER_FORMAT_ARGB:
    case NV_ENC_BUFFER_FORMAT_ARGB10:
    case NV_ENC_BUFFER_FORMAT_AYUV:
    case NV_ENC_BUFFER_FORMAT_ABGR:
    case NV_ENC_BUFFER_FORMAT_ABGR10: return true;
    default: return false;
    }
}

// Constant QP of the defaults: P 28, B 31, I 25.
void setDefaultConstQp(NV_ENC_CONFIG& config) {
    config.rcParams.rateControlMode = NV_ENC_PARAMS_RC_CONSTQP;
    config.rcParams.constQP = {28, 31, 25};
}

}  // namespace

NvEncoder::LoadedLibrary::~LoadedLibrary() {
    if (functions) driverApi().freeNvenc(&functions);
}

NvEncoder::NvEncoder(NV_ENC_DEVICE_TYPE eDeviceType, void* pDevice, uint32_t nWidth, uint32_t nHeight,
                     NV_ENC_BUFFER_FORMAT eBufferFormat, uint32_t nExtraOutputDelay, bool bMotionEstimationOnly,
                     const NvEncInterface& nvencInterface)
    : m_bMotionEstimationOnly(bMotionEstimationOnly), m_nWidth(nWidth), m_nHeight(nHeight),
      m_eBufferFormat(eBufferFormat), m_pDevice(pDevice), m_eDeviceType(eDeviceType),
      m_nExtraOutputDelay(nExtraOutputDelay), m_interface(nvencInterface) {
    LoadNvEncApi();
    if (!m_nvenc.nvEncOpenEncodeSessionEx) NVENC_THROW_ERROR("EncodeAPI not found", NV_ENC_ERR_NO_ENCODE_DEVICE);
    NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS encodeSessionExParams = {};
    encodeSessionExParams.version = m_interface.openSessionParams;
    encodeSessionExParams.device = m_pDevice;
    encodeSessionExParams.deviceType = m_eDeviceType;
    encodeSessionExParams.apiVersion = m_interface.apiVersion;
    void* hEncoder = nullptr;
    try {
        NVENC_API_CALL(m_nvenc.nvEncOpenEncodeSessionEx(&encodeSessionExParams, &hEncoder));
    } catch (const NVENCException&) {
        // A failed open may still hand back a session, which the driver wants destroyed.
        if (hEncoder) m_nvenc.nvEncDestroyEncoder(hEncoder);
        throw;
    }
    m_hEncoder = hEncoder;
}

void NvEncoder::LoadNvEncApi() {
    const DriverApi& api = driverApi();
    if (!api.loadNvenc || api.loadNvenc(&m_library.functions) != 0)
        NVENC_THROW_ERROR("NVENC library file is not found. Please ensure NV driver is installed",
                          NV_ENC_ERR_NO_ENCODE_DEVICE);
    NvencFunctions& library = *m_library.functions;
    uint32_t version = 0;
    NVENC_API_CALL(library.NvEncodeAPIGetMaxSupportedVersion(&version));
    if (version < m_interface.requiredMaxVersion())
        NVENC_THROW_ERROR("Current Driver Version does not support this NvEncodeAPI version, please upgrade driver",
                          NV_ENC_ERR_INVALID_VERSION);
    if (!library.NvEncodeAPICreateInstance)
        NVENC_THROW_ERROR("Cannot find NvEncodeAPICreateInstance() entry in NVENC library",
                          NV_ENC_ERR_NO_ENCODE_DEVICE);
    m_nvenc = {};
    m_nvenc.version = m_interface.functionList;
    NVENC_API_CALL(library.NvEncodeAPICreateInstance(&m_nvenc));
}

NvEncoder::~NvEncoder() { DestroyHWEncoder(); }

void NvEncoder::GetPresetConfig(GUID codecGuid, GUID presetGuid, NV_ENC_TUNING_INFO tuningInfo,
                                NV_ENC_PRESET_CONFIG& presetConfig) {
    presetConfig = {};
    presetConfig.version = m_interface.presetConfig;
    presetConfig.presetCfg.version = m_interface.config;
    if (m_interface.hasLegacyPresets())
        NVENC_API_CALL(m_nvenc.nvEncGetEncodePresetConfig(m_hEncoder, codecGuid, presetGuid, &presetConfig));
    else
        NVENC_API_CALL(
            m_nvenc.nvEncGetEncodePresetConfigEx(m_hEncoder, codecGuid, presetGuid, tuningInfo, &presetConfig));
}

void NvEncoder::CreateDefaultEncoderParams(NV_ENC_INITIALIZE_PARAMS* pIntializeParams, GUID codecGuid,
                                           GUID presetGuid, uint32_t gopLength, NV_ENC_TUNING_INFO tuningInfo) {
    if (!m_hEncoder) NVENC_THROW_ERROR("Encoder Initialization failed", NV_ENC_ERR_NO_ENCODE_DEVICE);
    if (!pIntializeParams || !pIntializeParams->encodeConfig)
        NVENC_THROW_ERROR("pInitializeParams and pInitializeParams->encodeConfig can't be NULL",
                          NV_ENC_ERR_INVALID_PTR);
    NV_ENC_CONFIG* config = pIntializeParams->encodeConfig;
    *config = {};
    *pIntializeParams = {};
    pIntializeParams->encodeConfig = config;
    config->version = m_interface.config;
    pIntializeParams->version = m_interface.initializeParams;
    pIntializeParams->encodeGUID = codecGuid;
    pIntializeParams->presetGUID = presetGuid;
    pIntializeParams->encodeWidth = pIntializeParams->darWidth = m_nWidth;
    pIntializeParams->encodeHeight = pIntializeParams->darHeight = m_nHeight;
    pIntializeParams->frameRateNum = 30;
    pIntializeParams->frameRateDen = 1;
    // Linux has no asynchronous mode: the session is synchronous and uses no completion events.
    pIntializeParams->enableEncodeAsync = 0;
    pIntializeParams->enablePTD = 1;
    pIntializeParams->reportSliceOffsets = 0;
    pIntializeParams->enableSubFrameWrite = 0;
    pIntializeParams->enableMEOnlyMode = m_bMotionEstimationOnly;
    pIntializeParams->maxEncodeWidth = m_nWidth;
    pIntializeParams->maxEncodeHeight = m_nHeight;
    if (!m_interface.hasLegacyPresets()) pIntializeParams->tuningInfo = tuningInfo;

    NV_ENC_PRESET_CONFIG presetConfig;
    GetPresetConfig(codecGuid, presetGuid, tuningInfo, presetConfig);
    *config = presetConfig.presetCfg;
    config->frameIntervalP = 1;
    config->gopLength = gopLength;
    config->rcParams.rateControlMode = NV_ENC_PARAMS_RC_CONSTQP;
    const bool lossless = sameGuid(presetGuid, kNvEncPresetLosslessDefaultGuid) ||
                          sameGuid(presetGuid, kNvEncPresetLosslessHpGuid) ||
                          (!m_interface.hasLegacyPresets() && tuningInfo == NV_ENC_TUNING_INFO_LOSSLESS);
    if (!lossless) setDefaultConstQp(*config);

    if (sameGuid(codecGuid, NV_ENC_CODEC_H264_GUID)) {
        if (isYuv444(m_eBufferFormat)) config->encodeCodecConfig.h264Config.chromaFormatIDC = 3;
        config->encodeCodecConfig.h264Config.idrPeriod = gopLength;
    } else if (sameGuid(codecGuid, NV_ENC_CODEC_HEVC_GUID)) {
        NV_ENC_CONFIG_HEVC& hevc = config->encodeCodecConfig.hevcConfig;
        hevc.pixelBitDepthMinus8 = isTenBit(m_eBufferFormat) ? 2 : 0;
        if (isYuv444(m_eBufferFormat)) hevc.chromaFormatIDC = 3;
        hevc.idrPeriod = gopLength;
    }
}

void NvEncoder::CreateEncoder(const NV_ENC_INITIALIZE_PARAMS* pEncoderParams) {
    if (!m_hEncoder) NVENC_THROW_ERROR("Encoder Initialization failed", NV_ENC_ERR_NO_ENCODE_DEVICE);
    if (!pEncoderParams) NVENC_THROW_ERROR("Invalid NV_ENC_INITIALIZE_PARAMS ptr", NV_ENC_ERR_INVALID_PTR);
    if (pEncoderParams->encodeWidth == 0 || pEncoderParams->encodeHeight == 0)
        NVENC_THROW_ERROR("Invalid encoder width and height", NV_ENC_ERR_INVALID_PARAM);
    const bool h264 = sameGuid(pEncoderParams->encodeGUID, NV_ENC_CODEC_H264_GUID);
    if (!h264 && !sameGuid(pEncoderParams->encodeGUID, NV_ENC_CODEC_HEVC_GUID))
        NVENC_THROW_ERROR("Invalid codec guid", NV_ENC_ERR_INVALID_PARAM);
    const NV_ENC_CONFIG* config = pEncoderParams->encodeConfig;
    if (h264 && isTenBit(m_eBufferFormat))
        NVENC_THROW_ERROR("10-bit format isn't supported by H264 encoder", NV_ENC_ERR_INVALID_PARAM);
    if (h264 && isYuv444(m_eBufferFormat) && config && config->encodeCodecConfig.h264Config.chromaFormatIDC != 3)
        NVENC_THROW_ERROR("Invalid ChromaFormatIDC", NV_ENC_ERR_INVALID_PARAM);
    if (!h264 && config) {
        if (isTenBit(m_eBufferFormat) && config->encodeCodecConfig.hevcConfig.pixelBitDepthMinus8 != 2)
            NVENC_THROW_ERROR("Invalid PixelBitdepth", NV_ENC_ERR_INVALID_PARAM);
        if (isYuv444(m_eBufferFormat) && config->encodeCodecConfig.hevcConfig.chromaFormatIDC != 3)
            NVENC_THROW_ERROR("Invalid ChromaFormatIDC", NV_ENC_ERR_INVALID_PARAM);
    }

    m_initializeParams = *pEncoderParams;
    if (config) {
        m_encodeConfig = *config;
    } else {
        // Without legacy presets the default preset is P4 tuned for quality.
        const bool legacy = m_interface.hasLegacyPresets();
        NV_ENC_PRESET_CONFIG presetConfig;
        GetPresetConfig(pEncoderParams->encodeGUID, legacy ? kNvEncPresetDefaultGuid : NV_ENC_PRESET_P4_GUID,
                        NV_ENC_TUNING_INFO_HIGH_QUALITY, presetConfig);
        m_encodeConfig = presetConfig.presetCfg;
        setDefaultConstQp(m_encodeConfig);
    }
    m_initializeParams.encodeConfig = &m_encodeConfig;
    NVENC_API_CALL(m_nvenc.nvEncInitializeEncoder(m_hEncoder, &m_initializeParams));
    m_bEncoderCreated = true;
    m_nWidth = m_initializeParams.encodeWidth;
    m_nHeight = m_initializeParams.encodeHeight;
    m_nMaxEncodeWidth = m_initializeParams.maxEncodeWidth;
    m_nMaxEncodeHeight = m_initializeParams.maxEncodeHeight;

    m_nEncoderBuffer = static_cast<int32_t>(m_encodeConfig.frameIntervalP + m_encodeConfig.rcParams.lookaheadDepth +
                                            m_nExtraOutputDelay);
    m_nOutputDelay = m_nEncoderBuffer - 1;
    m_vMappedInputBuffers.assign(m_nEncoderBuffer, nullptr);
    for (int32_t i = 0; i < m_nEncoderBuffer; ++i) {
        NV_ENC_CREATE_BITSTREAM_BUFFER createBitstreamBuffer = {};
        createBitstreamBuffer.version = m_interface.createBitstreamBuffer;
        NVENC_API_CALL(m_nvenc.nvEncCreateBitstreamBuffer(m_hEncoder, &createBitstreamBuffer));
        m_vBitstreamOutputBuffer.push_back(createBitstreamBuffer.bitstreamBuffer);
    }
    AllocateInputBuffers(m_nEncoderBuffer);
}

void NvEncoder::GetInitializeParams(NV_ENC_INITIALIZE_PARAMS* pInitializeParams) const {
    if (!pInitializeParams || !pInitializeParams->encodeConfig)
        NVENC_THROW_ERROR("Both pInitializeParams and pInitializeParams->encodeConfig can't be NULL",
                          NV_ENC_ERR_INVALID_PTR);
    NV_ENC_CONFIG* config = pInitializeParams->encodeConfig;
    *config = m_encodeConfig;
    *pInitializeParams = m_initializeParams;
    pInitializeParams->encodeConfig = config;
}

void NvEncoder::DestroyEncoder() {
    if (!m_hEncoder) return;
    FlushBeforeRelease();
    ReleaseInputBuffers();
    DestroyHWEncoder();
}

void NvEncoder::DestroyHWEncoder() {
    if (!m_hEncoder) return;
    for (NV_ENC_OUTPUT_PTR buffer : m_vBitstreamOutputBuffer)
        if (buffer) m_nvenc.nvEncDestroyBitstreamBuffer(m_hEncoder, buffer);
    m_vBitstreamOutputBuffer.clear();
    m_nvenc.nvEncDestroyEncoder(m_hEncoder);
    m_hEncoder = nullptr;
    m_bEncoderCreated = false;
}

void NvEncoder::RegisterResources(NV_ENC_INPUT_RESOURCE_TYPE eResourceType, uint32_t width, uint32_t height,
                                  uint32_t pitch, NV_ENC_BUFFER_FORMAT bufferFormat) {
    for (size_t i = m_vRegisteredResources.size(); i < m_vInputFrames.size(); ++i) {
        NV_ENC_REGISTER_RESOURCE registerResource = {};
        registerResource.version = m_interface.registerResource;
        registerResource.resourceType = eResourceType;
        registerResource.resourceToRegister = m_vInputFrames[i].inputPtr;
        registerResource.width = width;
        registerResource.height = height;
        registerResource.pitch = pitch;
        registerResource.bufferFormat = bufferFormat;
        NVENC_API_CALL(m_nvenc.nvEncRegisterResource(m_hEncoder, &registerResource));
        m_vRegisteredResources.push_back(registerResource.registeredResource);

        NvEncInputFrame& frame = m_vInputFrames[i];
        std::vector<uint32_t> chromaOffsets;
        GetChromaSubPlaneOffsets(bufferFormat, pitch, height, chromaOffsets);
        for (size_t plane = 0; plane < chromaOffsets.size(); ++plane) frame.chromaOffsets[plane] = chromaOffsets[plane];
        frame.numChromaPlanes = GetNumChromaPlanes(bufferFormat);
        frame.pitch = pitch;
        frame.chromaPitch = GetChromaPitch(bufferFormat, pitch);
        frame.bufferFormat = bufferFormat;
    }
}

// Inputs still mapped after a failed submission are unmapped first, so nothing stays held.
void NvEncoder::UnregisterResources() {
    for (NV_ENC_INPUT_PTR& mapped : m_vMappedInputBuffers) {
        if (mapped) m_nvenc.nvEncUnmapInputResource(m_hEncoder, mapped);
        mapped = nullptr;
    }
    for (NV_ENC_REGISTERED_PTR resource : m_vRegisteredResources)
        if (resource) m_nvenc.nvEncUnregisterResource(m_hEncoder, resource);
    m_vRegisteredResources.clear();
}

const NvEncInputFrame* NvEncoder::GetNextInputFrame() {
    return &m_vInputFrames[static_cast<size_t>(m_iToSend % m_nEncoderBuffer)];
}

void NvEncoder::MapResources(uint32_t bfrIdx) {
    NV_ENC_MAP_INPUT_RESOURCE mapInputResource = {};
    mapInputResource.version = m_interface.mapInputResource;
    mapInputResource.registeredResource = m_vRegisteredResources[bfrIdx];
    NVENC_API_CALL(m_nvenc.nvEncMapInputResource(m_hEncoder, &mapInputResource));
    m_vMappedInputBuffers[bfrIdx] = mapInputResource.mappedResource;
}

uint32_t NvEncoder::EncodeFrame(std::vector<std::vector<uint8_t>>& vPacket, NV_ENC_PIC_PARAMS* pPicParams) {
    vPacket.clear();
    if (!IsHWEncoderInitialized()) NVENC_THROW_ERROR("Encoder device not found", NV_ENC_ERR_NO_ENCODE_DEVICE);
    const uint32_t bfrIdx = static_cast<uint32_t>(m_iToSend % m_nEncoderBuffer);
    MapResources(bfrIdx);
    const NVENCSTATUS status = DoEncode(m_vMappedInputBuffers[bfrIdx], m_vBitstreamOutputBuffer[bfrIdx], pPicParams);
    if (status != NV_ENC_SUCCESS && status != NV_ENC_ERR_NEED_MORE_INPUT) {
        // The picture never reached the encoder: its input is free again for the next frame.
        m_nvenc.nvEncUnmapInputResource(m_hEncoder, m_vMappedInputBuffers[bfrIdx]);
        m_vMappedInputBuffers[bfrIdx] = nullptr;
        NVENC_THROW_ERROR("nvEncEncodePicture API failed", status);
    }
    ++m_iToSend;
    if (status == NV_ENC_SUCCESS) m_iSubmittedToLastSuccess = m_iToSend;
    return GetEncodedPacket(vPacket, true);
}

NVENCSTATUS NvEncoder::DoEncode(NV_ENC_INPUT_PTR inputBuffer, NV_ENC_OUTPUT_PTR outputBuffer,
                                NV_ENC_PIC_PARAMS* pPicParams) {
    NV_ENC_PIC_PARAMS picParams = pPicParams ? *pPicParams : NV_ENC_PIC_PARAMS{};
    picParams.version = m_interface.picParams;
    picParams.inputBuffer = inputBuffer;
    picParams.bufferFmt = m_eBufferFormat;
    picParams.inputWidth = m_nWidth;
    picParams.inputHeight = m_nHeight;
    picParams.pictureStruct = NV_ENC_PIC_STRUCT_FRAME;
    picParams.outputBitstream = outputBuffer;
    return m_nvenc.nvEncEncodePicture(m_hEncoder, &picParams);
}

uint32_t NvEncoder::EndEncode(std::vector<std::vector<uint8_t>>& vPacket) {
    vPacket.clear();
    if (!IsHWEncoderInitialized()) NVENC_THROW_ERROR("Encoder device not initialized", NV_ENC_ERR_NO_ENCODE_DEVICE);
    NV_ENC_PIC_PARAMS picParams = {};
    picParams.version = m_interface.picParams;
    picParams.encodePicFlags = NV_ENC_PIC_FLAG_EOS;
    NVENC_API_CALL(m_nvenc.nvEncEncodePicture(m_hEncoder, &picParams));
    m_iSubmittedToLastSuccess = m_iToSend;
    return GetEncodedPacket(vPacket, false);
}

void NvEncoder::FlushBeforeRelease() {
    if (!IsHWEncoderInitialized()) return;
    std::vector<std::vector<uint8_t>> packets;
    try {
        EndEncode(packets);
    } catch (const std::exception&) {
        // The resources are released regardless; nothing is left to wait for.
    }
}

// Without completion events the blocking lock is what waits for each picture.
uint32_t NvEncoder::GetEncodedPacket(std::vector<std::vector<uint8_t>>& vPacket, bool bOutputDelay) {
    const int32_t iEnd = std::min(bOutputDelay ? m_iToSend - m_nOutputDelay : m_iToSend, m_iSubmittedToLastSuccess);
    uint32_t pictureType = 0;
    for (; m_iGot < iEnd; ++m_iGot) {
        NV_ENC_LOCK_BITSTREAM lockBitstreamData = {};
        lockBitstreamData.version = m_interface.lockBitstream;
        lockBitstreamData.outputBitstream = m_vBitstreamOutputBuffer[m_iGot % m_nEncoderBuffer];
        lockBitstreamData.doNotWait = 0;
        NVENC_API_CALL(m_nvenc.nvEncLockBitstream(m_hEncoder, &lockBitstreamData));
        const auto* bytes = static_cast<const uint8_t*>(lockBitstreamData.bitstreamBufferPtr);
        vPacket.emplace_back(bytes, bytes + lockBitstreamData.bitstreamSizeInBytes);
        pictureType = lockBitstreamData.pictureType;
        NVENC_API_CALL(m_nvenc.nvEncUnlockBitstream(m_hEncoder, lockBitstreamData.outputBitstream));
        if (m_vMappedInputBuffers[m_iGot % m_nEncoderBuffer]) {
            NVENC_API_CALL(m_nvenc.nvEncUnmapInputResource(m_hEncoder, m_vMappedInputBuffers[m_iGot % m_nEncoderBuffer]));
            m_vMappedInputBuffers[m_iGot % m_nEncoderBuffer] = nullptr;
        }
    }
    return pictureType;
}

// ---- Buffer-format geometry ------------------------------------------------------------------

uint32_t NvEncoder::GetChromaHeight(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaHeight) {
    switch (bufferFormat) {
    case NV_ENC_BUFFER_FORMAT_YV12:
    case NV_ENC_BUFFER_FORMAT_IYUV:
    case NV_ENC_BUFFER_FORMAT_NV12:
    case NV_ENC_BUFFER_FORMAT_YUV420_10BIT: return (lumaHeight + 1) / 2;
    case NV_ENC_BUFFER_FORMAT_YUV444:
    case NV_ENC_BUFFER_FORMAT_YUV444_10BIT: return lumaHeight;
    default:
        if (isPackedRgb(bufferFormat)) return 0;
        NVENC_THROW_ERROR("Invalid Buffer format", NV_ENC_ERR_INVALID_PARAM);
    }
}

uint32_t NvEncoder::GetChromaWidthInBytes(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaWidth) {
    switch (bufferFormat) {
    case NV_ENC_BUFFER_FORMAT_YV12:
    case NV_ENC_BUFFER_FORMAT_IYUV: return (lumaWidth + 1) / 2;
    case NV_ENC_BUFFER_FORMAT_NV12:
    case NV_ENC_BUFFER_FORMAT_YUV444: return lumaWidth;
    case NV_ENC_BUFFER_FORMAT_YUV420_10BIT:
    case NV_ENC_BUFFER_FORMAT_YUV444_10BIT: return 2 * lumaWidth;
    default:
        if (isPackedRgb(bufferFormat)) return 0;
        NVENC_THROW_ERROR("Invalid Buffer format", NV_ENC_ERR_INVALID_PARAM);
    }
}

uint32_t NvEncoder::GetNumChromaPlanes(NV_ENC_BUFFER_FORMAT bufferFormat) {
    switch (bufferFormat) {
    case NV_ENC_BUFFER_FORMAT_NV12:
    case NV_ENC_BUFFER_FORMAT_YUV420_10BIT: return 1;
    case NV_ENC_BUFFER_FORMAT_YV12:
    case NV_ENC_BUFFER_FORMAT_IYUV:
    case NV_ENC_BUFFER_FORMAT_YUV444:
    case NV_ENC_BUFFER_FORMAT_YUV444_10BIT: return 2;
    default:
        if (isPackedRgb(bufferFormat)) return 0;
        NVENC_THROW_ERROR("Invalid Buffer format", NV_ENC_ERR_INVALID_PARAM);
    }
}

uint32_t NvEncoder::GetChromaPitch(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t lumaPitch) {
    switch (bufferFormat) {
    case NV_ENC_BUFFER_FORMAT_YV12:
    case NV_ENC_BUFFER_FORMAT_IYUV: return (lumaPitch + 1) / 2;
    default: return GetNumChromaPlanes(bufferFormat) ? lumaPitch : 0;
    }
}

void NvEncoder::GetChromaSubPlaneOffsets(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t pitch, uint32_t height,
                                         std::vector<uint32_t>& chromaOffsets) {
    chromaOffsets.clear();
    const uint32_t planes = GetNumChromaPlanes(bufferFormat);
    const uint32_t chromaPlaneBytes = GetChromaPitch(bufferFormat, pitch) * GetChromaHeight(bufferFormat, height);
    for (uint32_t plane = 0; plane < planes; ++plane) chromaOffsets.push_back(pitch * height + plane * chromaPlaneBytes);
}

uint32_t NvEncoder::GetWidthInBytes(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t width) {
    if (isPackedRgb(bufferFormat)) return 4 * width;
    if (isTenBit(bufferFormat)) return 2 * width;
    GetNumChromaPlanes(bufferFormat);  // throws for an unknown format
    return width;
}

uint32_t NvEncoder::GetFrameSize(NV_ENC_BUFFER_FORMAT bufferFormat, uint32_t width, uint32_t height) {
    const uint32_t lumaBytes = GetWidthInBytes(bufferFormat, width) * height;
    return lumaBytes + GetNumChromaPlanes(bufferFormat) * GetChromaWidthInBytes(bufferFormat, width) *
                           GetChromaHeight(bufferFormat, height);
}
