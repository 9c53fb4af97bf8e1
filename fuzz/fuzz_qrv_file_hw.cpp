// A QRV file through the C interface on a hardware pipe (NVDEC played by the fake CUVID driver
// on the host device table): the tracker, then a bounded number of sequential reads, seeks and
// sample look-ups chosen by the input, with every data format's unpacking. No driver contract
// breach, device fault, or driver object or device memory left behind is allowed.
//
// Input: u16 width - 1, u16 height - 1 (modulo 1024), a pipe byte (bit 0 the codec, 0 H.264 or
// 1 HEVC; the rest modulo 6 the data format), 8 operation bytes as in fuzz_qrv_file, then the
// file.
#include "fake_hardware.h"
#include "fuzz_input.h"
#include "kernels/packing.h"

namespace {

constexpr int kOperations = 8;
FakeHardware* hardware;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hardware = new FakeHardware;  // for the whole run
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const PipeSize pipeSize = readPipeSize(in);
    const uint8_t pipeByte = in.u8();
    const uint32_t codec = pipeByte & 1, dataFormat = uint32_t(pipeByte >> 1) % 6;
    uint8_t operations[kOperations];
    for (uint8_t& operation : operations) operation = in.u8();
    std::vector<uint8_t> bytes = in.rest();
    MemoryFile file = openMemory(bytes);
    if (!file) return 0;
    {
        Pipe pipe(ZOHW_CreateDecoder(dataFormat, codec, pipeSize.width, pipeSize.height, 0), &ZOHW_Destroy);
        // The fake takes every picture from its minimum size up; smaller ones decode in software.
        const bool hardwareSize = packing::pictureWidth(dataFormat, pipeSize.width) >= fakeCuvid().minWidth &&
                                  pipeSize.height >= fakeCuvid().minHeight;
        if (!pipe || (ZOHW_GetDecoderType(pipe.get()) == 1) != hardwareSize) abort();
        if (!hardwareSize) return 0;
        const int start = 0;
        if (ZOHW_StartDecoding(pipe.get(), &start) == 0 && ZOHW_CreateQRVTracker(pipe.get(), file.get()) == 0) {
            std::vector<uint8_t> frame(packing::packedSize(dataFormat, pipeSize.width, pipeSize.height));
            for (uint8_t operation : operations) runFileCall(pipe.get(), file.get(), operation, frame);
        }
    }
    hardware->checkAndReset();
    return 0;
}
