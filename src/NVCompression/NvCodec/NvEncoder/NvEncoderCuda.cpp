#include "NVCompression/NvCodec/NvEncoder/NvEncoderCuda.h"

#include "device/device_api.h"

// A failed CUDA driver call: its error name, code NV_ENC_ERR_GENERIC.
#define CUDA_DRVAPI_CALL(call)                                                                       \
    throwIfCudaDriverCallFailed<NVENCException>((call), device::api().driverErrorName, NV_ENC_ERR_GENERIC, \
                                                NVCODEC_FUNCTION, __FILE__, __LINE__)

using device::PushedContext;

NvEncoderCuda::NvEncoderCuda(CUcontext cuContext, uint32_t nWidth, uint32_t nHeight,
                             NV_ENC_BUFFER_FORMAT eBufferFormat, uint32_t nExtraOutputDelay,
                             bool bMotionEstimationOnly, const NvEncInterface& nvencInterface)
    : NvEncoder(NV_ENC_DEVICE_TYPE_CUDA, cuContext, nWidth, nHeight, eBufferFormat, nExtraOutputDelay,
                bMotionEstimationOnly, nvencInterface),
      m_cuContext(cuContext) {
    if (!m_hEncoder) NVENC_THROW_ERROR("Encoder Initialization failed", NV_ENC_ERR_INVALID_DEVICE);
    if (!m_cuContext) NVENC_THROW_ERROR("Invalid Cuda Context", NV_ENC_ERR_INVALID_DEVICE);
}

NvEncoderCuda::~NvEncoderCuda() {
    FlushBeforeRelease();
    ReleaseCudaResources();
}

void NvEncoderCuda::AllocateInputBuffers(int32_t numInputBuffers) {
    if (!IsHWEncoderInitialized())
        NVENC_THROW_ERROR("Encoder intialization failed", NV_ENC_ERR_ENCODER_NOT_INITIALIZED);
    const device::Api& api = device::api();
    const NV_ENC_BUFFER_FORMAT format = GetPixelFormat();
    // YV12 and IYUV keep both half-width chroma planes in the rows of one chroma height.
    const bool planar420 = format == NV_ENC_BUFFER_FORMAT_YV12 || format == NV_ENC_BUFFER_FORMAT_IYUV;
    const uint32_t chromaRows =
        (planar420 ? 1 : GetNumChromaPlanes(format)) * GetChromaHeight(format, GetMaxEncodeHeight());
    CUDA_DRVAPI_CALL(api.pushContext(m_cuContext));
    PushedContext context(true);
    for (int32_t i = 0; i < numInputBuffers; ++i) {
        CUdeviceptr frame = 0;
        CUDA_DRVAPI_CALL(api.allocatePitch(&frame, &m_cudaPitch, GetWidthInBytes(format, GetMaxEncodeWidth()),
                                           GetMaxEncodeHeight() + chromaRows, 16));
        NvEncInputFrame record;
        record.inputPtr = reinterpret_cast<void*>(frame);
        m_vInputFrames.push_back(record);
    }
    CUDA_DRVAPI_CALL(context.pop());
    RegisterResources(NV_ENC_INPUT_RESOURCE_TYPE_CUDADEVICEPTR, GetMaxEncodeWidth(), GetMaxEncodeHeight(),
                      static_cast<uint32_t>(m_cudaPitch), format);
}

void NvEncoderCuda::ReleaseInputBuffers() { ReleaseCudaResources(); }

void NvEncoderCuda::ReleaseCudaResources() {
    if (!m_hEncoder || !m_cuContext) return;
    UnregisterResources();
    const device::Api& api = device::api();
    // A failed push must not be followed by a pop, which would take the caller's own context.
    PushedContext context(api.pushContext(m_cuContext) == 0);
    for (const NvEncInputFrame& frame : m_vInputFrames)
        if (frame.inputPtr) api.freePitched(reinterpret_cast<CUdeviceptr>(frame.inputPtr));
    m_vInputFrames.clear();
}

void NvEncoderCuda::CopyToDeviceFrame(CUcontext device, void* pSrcFrame, uint32_t nSrcPitch, CUdeviceptr pDstFrame,
                                      uint32_t dstPitch, int width, int height, CUmemorytype srcMemoryType,
                                      NV_ENC_BUFFER_FORMAT pixelFormat, const uint32_t dstChromaOffsets[],
                                      uint32_t numChromaPlanes, bool bUnAlignedDeviceCopy) {
    const device::Api& api = device::api();
    const device::CopyKind kind =
        srcMemoryType == CU_MEMORYTYPE_HOST ? device::CopyKind::HostToDevice : device::CopyKind::DeviceToDevice;
    CUDA_DRVAPI_CALL(api.pushContext(device));
    PushedContext context(true);
    const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    if (nSrcPitch == 0) nSrcPitch = GetWidthInBytes(pixelFormat, w);
    auto* source = static_cast<uint8_t*>(pSrcFrame);
    auto* destination = reinterpret_cast<uint8_t*>(pDstFrame);
    CUDA_DRVAPI_CALL(api.driverCopy2D(destination, dstPitch, source, nSrcPitch, GetWidthInBytes(pixelFormat, w), h,
                                      kind, bUnAlignedDeviceCopy));
    std::vector<uint32_t> srcChromaOffsets;
    GetChromaSubPlaneOffsets(pixelFormat, nSrcPitch, h, srcChromaOffsets);
    const uint32_t chromaHeight = GetChromaHeight(pixelFormat, h);
    const uint32_t srcChromaPitch = GetChromaPitch(pixelFormat, nSrcPitch);
    const uint32_t dstChromaPitch = GetChromaPitch(pixelFormat, dstPitch);
    const uint32_t chromaWidthInBytes = GetChromaWidthInBytes(pixelFormat, w);
    for (uint32_t plane = 0; plane < numChromaPlanes && chromaHeight; ++plane)
        CUDA_DRVAPI_CALL(api.driverCopy2D(destination + dstChromaOffsets[plane], dstChromaPitch,
                                          source + srcChromaOffsets[plane], srcChromaPitch, chromaWidthInBytes,
                                          chromaHeight, kind, bUnAlignedDeviceCopy));
    CUDA_DRVAPI_CALL(context.pop());
}
