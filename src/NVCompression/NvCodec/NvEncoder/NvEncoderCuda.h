// The CUDA-device NVENC session: input frames are pitched device allocations in the session's
// context, registered with NVENC as CUDA device pointers.
#pragma once

#include "NVCompression/NvCodec/NvEncoder/NvEncoder.h"

class NvEncoderCuda : public NvEncoder {
public:
    NvEncoderCuda(CUcontext cuContext, uint32_t nWidth, uint32_t nHeight, NV_ENC_BUFFER_FORMAT eBufferFormat,
                  uint32_t nExtraOutputDelay = 3, bool bMotionEstimationOnly = false,
                  const NvEncInterface& nvencInterface = kNvEncInterface8_1);
    ~NvEncoderCuda() override;

    // Copies a picture plane by plane from host or device memory into an input frame.
    static void CopyToDeviceFrame(CUcontext device, void* pSrcFrame, uint32_t nSrcPitch, CUdeviceptr pDstFrame,
                                  uint32_t dstPitch, int width, int height, CUmemorytype srcMemoryType,
                                  NV_ENC_BUFFER_FORMAT pixelFormat, const uint32_t dstChromaOffsets[],
                                  uint32_t numChromaPlanes, bool bUnAlignedDeviceCopy = false);

protected:
    void AllocateInputBuffers(int32_t numInputBuffers) override;
    void ReleaseInputBuffers() override;

private:
    void ReleaseCudaResources();

    CUcontext m_cuContext;
    size_t m_cudaPitch = 0;
};
