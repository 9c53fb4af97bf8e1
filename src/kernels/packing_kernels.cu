// The packing kernels: one thread per data sample (per output byte when joining 4-bit pairs).
#include "device/device_api.h"
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

// The colour kernels are built for the same GPUs, so one kernel answers for all of them.
int device::checkKernelsOnGpu() {
    cudaFuncAttributes attributes;
    const int result = cudaFuncGetAttributes(&attributes, nv12_to_uint8);
    if (result) cudaGetLastError();  // not to linger as the thread's last error
    return result;
}

int device::launchPackingOnGpu(const PackingLaunch& launch) {
    using Kernel = void (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int, unsigned int,
                            unsigned int);
    // In the order of PackingKernel.
    static const Kernel kernels[] = {nv12_to_uint32, uint32_to_nv12, nv12_to_uint16, uint16_to_nv12,
                                     nv12_to_uyvy,   uyvy_to_nv12,   nv12_to_uint8,  uint8_to_nv12,
                                     nv12_to_uint4,  uint4_to_nv12};
    const packing::LaunchGeometry& g = launch.geometry;
    // A configuration that cannot be pushed skips the kernel; the caller ignores the result.
    kernels[static_cast<uint32_t>(launch.kernel)]<<<dim3(g.gridX, g.gridY, 1), dim3(g.blockX, g.blockY, 1)>>>(
        static_cast<const unsigned char*>(launch.src), launch.srcPitch, static_cast<unsigned char*>(launch.dst),
        launch.dstPitch, launch.width, launch.height);
    return cudaGetLastError();
}
