// A QRV file through the C interface on a software pipe: the tracker, then a bounded number of
// sequential reads, seeks and sample look-ups chosen by the input.
//
// Input: u16 width - 1, u16 height - 1 (modulo 1024), 8 operation bytes, then the file. Each
// operation byte holds the call in its top two bits (0 read the next record, 1 seek, 2 time
// stamp, 3 metadata) and the sample number plus 1 in its low six bits.
#include <cstring>
#include <stdexcept>

#include "fuzz_input.h"
#include "zo_qrv64.h"

namespace {

constexpr int kOperations = 8;
constexpr uint32_t kUyvy = 1, kHevc = 1;

using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;

void run(ZoHwPipe* pipe, FILE* file, uint8_t operation, std::vector<uint8_t>& frame) {
    const int32_t sample = int32_t(operation & 63) - 1;
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t time = 0;
    switch (operation >> 6) {
        case 0:
            ZOHW_DecodeFrameAndMetadata(pipe, file, frame.data(), &frameNumber, &time, &frameType, metadata);
            break;
        case 1: ZOHW_SetHEVCPositionInFile(pipe, file, sample); break;
        case 2: ZOHW_GetTimeStampForSample(pipe, file, sample, &time); break;
        default: ZOHW_GetMetadataForSample(pipe, file, metadata, sample); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const PipeSize pipeSize = readPipeSize(in);
    uint8_t operations[kOperations];
    for (uint8_t& operation : operations) operation = in.u8();
    std::vector<uint8_t> bytes = in.rest();
    MemoryFile file = openMemory(bytes);
    if (!file) return 0;

    Pipe pipe(ZOHW_CreateDecoder(kUyvy, kHevc, pipeSize.width, pipeSize.height, 0), &ZOHW_Destroy);
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != 2) abort();  // a software pipe of this size must exist
    const int start = 0;
    if (ZOHW_StartDecoding(pipe.get(), &start) != 0 || ZOHW_CreateQRVTracker(pipe.get(), file.get()) != 0) return 0;
    std::vector<uint8_t> frame(size_t(pipeSize.width) * pipeSize.height * 2);
    for (uint8_t operation : operations) {
        try {
            run(pipe.get(), file.get(), operation, frame);
        } catch (const std::out_of_range& e) {
            // Samples beyond the index are promised to raise exactly this.
            if (strcmp(e.what(), "invalid vector<T> subscript") != 0) abort();
        }
    }
    return 0;
}
