// CPU twins of the packing kernels: same arguments, same bytes. Each walks the thread grid of
// its kernel's launch, so threads outside width × height do nothing here as on the GPU.
#pragma once

#define ZOQRV_DECLARE_PACKING_REFERENCE(name)                                                     \
    void name##_reference(const unsigned char* src, unsigned int srcPitch, unsigned char* dst, \
                          unsigned int dstPitch, unsigned int width, unsigned int height)

ZOQRV_DECLARE_PACKING_REFERENCE(uint4_to_nv12);
ZOQRV_DECLARE_PACKING_REFERENCE(nv12_to_uint4);
ZOQRV_DECLARE_PACKING_REFERENCE(uint8_to_nv12);
ZOQRV_DECLARE_PACKING_REFERENCE(nv12_to_uint8);
ZOQRV_DECLARE_PACKING_REFERENCE(uint16_to_nv12);
ZOQRV_DECLARE_PACKING_REFERENCE(nv12_to_uint16);
ZOQRV_DECLARE_PACKING_REFERENCE(uint32_to_nv12);
ZOQRV_DECLARE_PACKING_REFERENCE(nv12_to_uint32);
ZOQRV_DECLARE_PACKING_REFERENCE(uyvy_to_nv12);
ZOQRV_DECLARE_PACKING_REFERENCE(nv12_to_uyvy);

#undef ZOQRV_DECLARE_PACKING_REFERENCE
