// A QRV file through the C interface on a software pipe: the tracker, then a bounded number of
// sequential reads, seeks and sample look-ups chosen by the input.
//
// Input: u16 width - 1, u16 height - 1 (modulo 1024; bit 15 of the first set for an H.264 pipe,
// clear for HEVC), 8 operation bytes, then the file. Each
// operation byte holds the call in its top two bits (0 read the next record, 1 seek, 2 time
// stamp, 3 metadata) and the sample number plus 1 in its low six bits.
#include "fuzz_input.h"

namespace {

constexpr int kOperations = 8;
constexpr uint32_t kUyvy = 1, kH264 = 0, kHevc = 1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint32_t codec = size > 1 && (data[1] & 0x80) ? kH264 : kHevc;
    InputReader in(data, size);
    const PipeSize pipeSize = readPipeSize(in);
    uint8_t operations[kOperations];
    for (uint8_t& operation : operations) operation = in.u8();
    std::vector<uint8_t> bytes = in.rest();
    MemoryFile file = openMemory(bytes);
    if (!file) return 0;

    Pipe pipe(ZOHW_CreateDecoder(kUyvy, codec, pipeSize.width, pipeSize.height, 0), &ZOHW_Destroy);
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != 2) abort();  // a software pipe of this size must exist
    const int start = 0;
    if (ZOHW_StartDecoding(pipe.get(), &start) != 0 || ZOHW_CreateQRVTracker(pipe.get(), file.get()) != 0) return 0;
    std::vector<uint8_t> frame(size_t(pipeSize.width) * pipeSize.height * 2);
    for (uint8_t operation : operations) runFileCall(pipe.get(), file.get(), operation, frame);
    return 0;
}
