#include "kernels/packing_reference.h"

#include "device/device_api.h"
#include "kernels/host_threads.h"
#include "kernels/packing.h"
#include "kernels/packing_threads.h"

namespace {

using ThreadWork = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned,
                            unsigned, unsigned, unsigned);

// Grid rows [first, end). The arguments are values, which stores through `dst` cannot alias, so
// they stay in registers.
template <ThreadWork work>
void runRows(unsigned columns, size_t first, size_t end, const unsigned char* src, unsigned srcPitch,
             unsigned char* dst, unsigned dstPitch, unsigned width, unsigned height) {
    for (size_t y = first; y < end; ++y)
        for (unsigned x = 0; x < columns; ++x)
            work(src, srcPitch, dst, dstPitch, width, height, x, static_cast<unsigned>(y));
}

// The grid's rows are spread over the CPU's threads: each grid thread writes only its own bytes.
// The work is a template argument so that it inlines into the row loop.
template <ThreadWork work>
void runGrid(const packing::LaunchGeometry& geometry, const unsigned char* src, unsigned srcPitch,
             unsigned char* dst, unsigned dstPitch, unsigned width, unsigned height) {
    const unsigned columns = geometry.gridX * geometry.blockX;
    const size_t rows = static_cast<size_t>(geometry.gridY) * geometry.blockY;
    // A part of at least 2^18 grid threads, so that starting a thread stays small beside its work.
    splitOverThreads(rows, (1u << 18) / columns, [=](size_t first, size_t end) {
        runRows<work>(columns, first, end, src, srcPitch, dst, dstPitch, width, height);
    });
}

}  // namespace

#define ZOQRV_DEFINE_PACKING_REFERENCE(name, work, geometry)                                      \
    void name##_reference(const unsigned char* src, unsigned int srcPitch, unsigned char* dst, \
                          unsigned int dstPitch, unsigned int width, unsigned int height) {    \
        runGrid<work>(geometry, src, srcPitch, dst, dstPitch, width, height);                  \
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
    using Grid = void (*)(const packing::LaunchGeometry&, const unsigned char*, unsigned, unsigned char*,
                          unsigned, unsigned, unsigned);
    static const Grid grids[] = {
        runGrid<packing::unpackSample<4>>,   runGrid<packing::packSample<4>>, runGrid<packing::unpackSample<2>>,
        runGrid<packing::packSample<2>>,     runGrid<packing::unpackUyvy>,    runGrid<packing::packUyvy>,
        runGrid<packing::unpackSample<1>>,   runGrid<packing::packSample<1>>, runGrid<packing::unpackNibblePair>,
        runGrid<packing::packNibble>,
    };
    grids[static_cast<uint32_t>(launch.kernel)](launch.geometry, static_cast<const unsigned char*>(launch.src),
                                                launch.srcPitch, static_cast<unsigned char*>(launch.dst),
                                                launch.dstPitch, launch.width, launch.height);
}
