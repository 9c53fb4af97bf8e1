// The packing launches of both wrappers on the host device table: the surfaces they produce
// against the CPU twins, staging, and what a GPU would fault on.
#include "codec/Exception.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"
#include "support/host_device.h"

namespace {

using PackingFunction = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned, unsigned);
struct Format {
    uint32_t code, lumaBytesPerPixel;
    PackingFunction pack, unpack;
};
const Format kFormats[] = {
    {packing::kUyvy, 1, uyvy_to_nv12_reference, nv12_to_uyvy_reference},
    {packing::kUint4, 1, uint4_to_nv12_reference, nv12_to_uint4_reference},
    {packing::kUint8, 1, uint8_to_nv12_reference, nv12_to_uint8_reference},
    {packing::kUint16, 2, uint16_to_nv12_reference, nv12_to_uint16_reference},
    {packing::kUint32, 4, uint32_to_nv12_reference, nv12_to_uint32_reference},
};
const std::pair<uint32_t, uint32_t> kSizes[] = {{1, 1}, {3, 3}, {17, 5}, {64, 8}, {33, 9}};

}  // namespace

// Host input with rows wider than the data and device input are packed as the CPU twin packs
// them; the decoder side writes exactly the packed size, and the bytes its kernel leaves (4-bit
// rows of odd width) come out as 0, never as stale device memory.
TEST_F(OnHostDevice, PackingAndUnpackingEqualTheCpuTwinForEveryPitchAndMemory) {
    uint32_t seed = 1;
    for (const Format& format : kFormats)
        for (const auto& [w, h] : kSizes)
            for (uint32_t padding : {0u, 7u})
                for (bool onDevice : {false, true}) {
                    SCOPED_TRACE(testing::Message() << "code " << format.code << " " << w << "x" << h << " padding "
                                                    << padding << (onDevice ? " device" : " host"));
                    const uint32_t pitch = packing::tightPitch(format.code, w) + padding;
                    const Bytes image = randomBytes(size_t(pitch) * h, seed++);
                    const uint32_t framePitch = w * format.lumaBytesPerPixel + 3;
                    Bytes expected(size_t(framePitch) * (h + (h + 1) / 2), 0xCD);
                    format.pack(image.data(), pitch, expected.data(), framePitch, w, h);
                    DeviceBuffer frame(Bytes(expected.size(), 0xCD)), source(image);
                    packing::StagingBuffer staging;
                    packing::launchPackForEncode(format.code, onDevice ? source.get() : image.data(), pitch,
                                                 frame.get(), framePitch, w, h, staging);
                    EXPECT_EQ(frame.download(), expected);
                    EXPECT_EQ(staging.ptr == nullptr, onDevice);

                    // Unpacking the random picture (its pitch wider than the luma rows).
                    const uint32_t packed = packing::packedSize(format.code, w, h);
                    const Bytes nv12 = randomBytes(expected.size(), seed++);
                    Bytes unpacked(packed, 0), hostOut(packed, 0xEE);
                    format.unpack(nv12.data(), framePitch, unpacked.data(), packing::tightPitch(format.code, w), w, h);
                    DeviceBuffer picture(nv12), deviceOut(Bytes(packed, 0xEE));
                    EXPECT_EQ(packing::launchUnpackForDecode(format.code, picture.get(), framePitch,
                                                             onDevice ? deviceOut.get() : hostOut.data(), w, h, staging),
                              packed);
                    EXPECT_EQ(onDevice ? deviceOut.download() : hostOut, unpacked);
                    device::api().free(staging.ptr);
                    expectNoFaults();
                }
}

TEST_F(OnHostDevice, AFailedStagingAllocationLeavesNoFreedPointerBehind) {
    packing::StagingBuffer staging;
    packing::growEncoderStaging(staging, 100);
    device::hostDevice().failNext(device::HostCall::Allocate);
    EXPECT_THROW(packing::growEncoderStaging(staging, 200), Exception);
    EXPECT_EQ(staging.ptr, nullptr);
    EXPECT_EQ(staging.capacity, 200u);  // the capacity is recorded before the allocation
    EXPECT_EQ(device::hostDevice().liveAllocations(), 0u);

    // The next host frame allocates again and is packed correctly.
    const Bytes image = randomBytes(200, 7);
    DeviceBuffer frame(Bytes(400));
    packing::launchPackForEncode(packing::kUint8, image.data(), 20, frame.get(), 20, 20, 10, staging);
    EXPECT_NE(staging.ptr, nullptr);
    const Bytes packed = frame.download();
    EXPECT_EQ(Bytes(packed.begin(), packed.begin() + 200), image);
    device::api().free(staging.ptr);
}
