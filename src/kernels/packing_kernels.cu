// The packing kernels: one thread per data sample (per output byte when joining 4-bit pairs).
#include "kernels/packing_threads.h"

#define ZOQRV_PACKING_KERNEL(name, work)                                                        \
    __global__ void name(const unsigned char* src, unsigned int srcPitch, unsigned char* dst,   \
                         unsigned int dstPitch, unsigned int width, unsigned int height) {      \
        work(src, srcPitch, dst, dstPitch, width, height, blockIdx.x * blockDim.x + threadIdx.x, \
             blockIdx.y * blockDim.y + threadIdx.y);                                            \
    }

// nvcc registers a file's kernels in the reverse order of their definitions; this order makes
// the module register nv12_to_uint32 first and uint4_to_nv12 last.
ZOQRV_PACKING_KERNEL(uint4_to_nv12, packing::packNibble)
ZOQRV_PACKING_KERNEL(nv12_to_uint4, packing::unpackNibblePair)
ZOQRV_PACKING_KERNEL(uint8_to_nv12, packing::packSample<1>)
ZOQRV_PACKING_KERNEL(nv12_to_uint8, packing::unpackSample<1>)
ZOQRV_PACKING_KERNEL(uyvy_to_nv12, packing::packUyvy)
ZOQRV_PACKING_KERNEL(nv12_to_uyvy, packing::unpackUyvy)
ZOQRV_PACKING_KERNEL(uint16_to_nv12, packing::packSample<2>)
ZOQRV_PACKING_KERNEL(nv12_to_uint16, packing::unpackSample<2>)
ZOQRV_PACKING_KERNEL(uint32_to_nv12, packing::packSample<4>)
ZOQRV_PACKING_KERNEL(nv12_to_uint32, packing::unpackSample<4>)
