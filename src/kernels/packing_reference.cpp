#include "kernels/packing_reference.h"

#include "device/device_api.h"
#include "kernels/packing.h"
#include "kernels/packing_threads.h"

namespace {

using ThreadWork = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned,
                            unsigned, unsigned, unsigned);

void runGrid(const packing::LaunchGeometry& geometry, ThreadWork work, const unsigned char* src,
             unsigned srcPitch, unsigned char* dst, unsigned dstPitch, unsigned width,
             unsigned height) {
    const unsigned columns = geometry.gridX * geometry.blockX;
    const unsigned rows = geometry.gridY * geometry.blockY;
    for (unsigned y = 0; y < rows; ++y)
        for (unsigned x = 0; x < columns; ++x) work(src, srcPitch, dst, dstPitch, width, height, x, y);
}

}  // namespace

#define ZOQRV_DEFINE_PACKING_REFERENCE(name, work, geometry)                                      \
    void name##_reference(const unsigned char* src, unsigned int srcPitch, unsigned char* dst, \
                          unsigned int dstPitch, unsigned int width, unsigned int height) {    \
        runGrid(geometry, work, src, srcPitch, dst, dstPitch, width, height);                  \
    }

using packing::decodeGeometry;
using packing::encodeGeometry;

ZOQRV_DEFINE_PACKING_REFERENCE(uint4_to_nv12, packing::packNibble, encodeGeometry(width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(nv12_to_uint4, packing::unpackNibblePair,
                               decodeGeometry(packing::kUint4, width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(uint8_to_nv12, packing::packSample<1>, encodeGeometry(width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(nv12_to_uint8, packing::unpackSample<1>,
                               decodeGeometry(packing::kUint8, width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(uint16_to_nv12, packing::packSample<2>, encodeGeometry(width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(nv12_to_uint16, packing::unpackSample<2>,
                               decodeGeometry(packing::kUint16, width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(uint32_to_nv12, packing::packSample<4>, encodeGeometry(width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(nv12_to_uint32, packing::unpackSample<4>,
                               decodeGeometry(packing::kUint32, width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(uyvy_to_nv12, packing::packUyvy, encodeGeometry(width, height))
ZOQRV_DEFINE_PACKING_REFERENCE(nv12_to_uyvy, packing::unpackUyvy,
                               decodeGeometry(packing::kUyvy, width, height))

void device::runPackingOnHost(const PackingLaunch& launch) {
    // In the order of PackingKernel.
    static const ThreadWork work[] = {
        packing::unpackSample<4>, packing::packSample<4>, packing::unpackSample<2>, packing::packSample<2>,
        packing::unpackUyvy,      packing::packUyvy,      packing::unpackSample<1>, packing::packSample<1>,
        packing::unpackNibblePair, packing::packNibble,
    };
    runGrid(launch.geometry, work[static_cast<uint32_t>(launch.kernel)],
            static_cast<const unsigned char*>(launch.src), launch.srcPitch,
            static_cast<unsigned char*>(launch.dst), launch.dstPitch, launch.width, launch.height);
}
