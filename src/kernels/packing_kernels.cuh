// Declarations of the packing kernels for launches from other CUDA sources.
#pragma once

#define ZOQRV_DECLARE_PACKING_KERNEL(name)                                                  \
    __global__ void name(const unsigned char* src, unsigned int srcPitch, unsigned char* dst, \
                         unsigned int dstPitch, unsigned int width, unsigned int height)

ZOQRV_DECLARE_PACKING_KERNEL(uint4_to_nv12);
ZOQRV_DECLARE_PACKING_KERNEL(nv12_to_uint4);
ZOQRV_DECLARE_PACKING_KERNEL(uint8_to_nv12);
ZOQRV_DECLARE_PACKING_KERNEL(nv12_to_uint8);
ZOQRV_DECLARE_PACKING_KERNEL(uint16_to_nv12);
ZOQRV_DECLARE_PACKING_KERNEL(nv12_to_uint16);
ZOQRV_DECLARE_PACKING_KERNEL(uint32_to_nv12);
ZOQRV_DECLARE_PACKING_KERNEL(nv12_to_uint32);
ZOQRV_DECLARE_PACKING_KERNEL(uyvy_to_nv12);
ZOQRV_DECLARE_PACKING_KERNEL(nv12_to_uyvy);

#undef ZOQRV_DECLARE_PACKING_KERNEL
