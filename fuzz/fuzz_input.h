// What the harnesses share: the leading fields of an input that choose how the library is
// driven, stdio streams over memory, the calls of the whole-file sequence, a recording made
// through the library, and the bound on the time of one call.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "zo_qrv64.h"

// Reads little-endian fields from the front of an input; an exhausted input reads zeros.
class InputReader {
public:
    InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return position_ < size_ ? data_[position_++] : 0; }
    uint16_t u16() { return uint16_t(u8() | u8() << 8); }
    std::vector<uint8_t> rest() const {
        return position_ < size_ ? std::vector<uint8_t>(data_ + position_, data_ + size_) : std::vector<uint8_t>();
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

// The pipe's width and height, 1 to 1024 each: two u16 fields holding width - 1 and height - 1.
struct PipeSize {
    uint32_t width, height;
};
inline PipeSize readPipeSize(InputReader& in) {
    const uint32_t width = 1u + in.u16() % 1024;
    return {width, 1u + in.u16() % 1024};
}

struct MemoryFileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using MemoryFile = std::unique_ptr<FILE, MemoryFileCloser>;

// A read-only stream over `bytes`, which must outlive it; null for no bytes.
inline MemoryFile openMemory(std::vector<uint8_t>& bytes) {
    return MemoryFile(bytes.empty() ? nullptr : fmemopen(bytes.data(), bytes.size(), "rb"));
}

// Runs `call` and aborts, so that the fuzzer keeps the input, when it took longer than `bound`.
template <class Call>
auto withinBound(std::chrono::milliseconds bound, const char* what, Call call) {
    const auto start = std::chrono::steady_clock::now();
    auto result = call();
    const auto took = std::chrono::steady_clock::now() - start;
    if (took > bound) {
        fprintf(stderr, "%s took %lld ms, over its bound of %lld ms\n", what,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()),
                static_cast<long long>(bound.count()));
        abort();
    }
    return result;
}

using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;

// One call of the whole-file sequence on a decoding pipe. The operation byte holds the call in
// its top two bits (0 read the next record into `frame`, 1 seek, 2 time stamp, 3 metadata) and
// the sample number plus 1 in its low six bits. No exception may leave a call (one reaches the
// fuzzer).
inline void runFileCall(ZoHwPipe* pipe, FILE* file, uint8_t operation, std::vector<uint8_t>& frame) {
    const int32_t sample = int32_t(operation & 63) - 1;
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t time = 0;
    uint32_t status = 0;
    switch (operation >> 6) {
        case 0:
            status = ZOHW_DecodeFrameAndMetadata(pipe, file, frame.data(), &frameNumber, &time, &frameType, metadata);
            break;
        case 1: status = ZOHW_SetHEVCPositionInFile(pipe, file, sample); break;
        case 2: status = ZOHW_GetTimeStampForSample(pipe, file, sample, &time); break;
        default: status = ZOHW_GetMetadataForSample(pipe, file, metadata, sample); break;
    }
    if (status > 1) abort();
}

// A recording of `frames` w x h images of 8-bit samples (data format 3) made through the
// library with its software encoder of `codec` (0 libx264, 1 libx265), an IDR every `gop`
// frames, each record with a timestamp and 64 metadata words of its own; the process keeps
// choosing software encoders afterwards. Aborts when no recording can be made.
inline std::vector<uint8_t> recordInSoftware(uint32_t codec, uint32_t w, uint32_t h, uint32_t frames, uint32_t gop) {
    setenv("ZOQRV_ENCODER", "software", 1);
    Pipe encoder(ZOHW_CreateEncoder(3, codec, 0, w, h, 100000, gop), &ZOHW_Destroy);
    char* buffer = nullptr;
    size_t bytes = 0;
    FILE* stream = open_memstream(&buffer, &bytes);
    if (!encoder || !stream) abort();
    const uint8_t header[16] = {'Q', 'R', 'V'};
    bool stored = ZOHW_CreateQRVContainer(encoder.get(), stream, header, sizeof header) == 0;
    std::vector<uint8_t> image(size_t(w) * h);
    uint32_t metadata[64];
    for (uint32_t i = 0; i < frames; ++i) {
        // A gradient that moves with the frame, so that every picture differs.
        for (uint32_t y = 0; y < h; ++y)
            for (uint32_t x = 0; x < w; ++x) image[size_t(y) * w + x] = uint8_t(3 * x + 2 * y + 11 * i);
        for (uint32_t k = 0; k < 64; ++k) metadata[k] = i * 1000 + k;
        uint64_t size = 0;
        stored = stored && ZOHW_Encode_And_Store(encoder.get(), stream, &size, image.data(), w,
                                                 40000ull * (i + 1), metadata, 64) == 0;
    }
    stored = stored && ZOHW_CloseQRVContainer(encoder.get(), stream) == 0;
    fclose(stream);
    std::vector<uint8_t> file(buffer, buffer + bytes);
    free(buffer);
    if (!stored) abort();
    return file;
}
