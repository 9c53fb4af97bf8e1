// Running out of memory anywhere in the library's own code: the K-th allocation through the
// operators new made inside the library's calls (those of libde265 and libx265, which are not
// ours to harden, excepted) fails, once or from then on, while an encoding pipe (libx265)
// records a file and a software decoding pipe reads a real recording. Every call must end in
// its result, with the creation texts where a pipe could not be made; no exception may reach
// the host.
// After the calls, with memory back, the decoding pipe must still read the recording's first
// frame as a fresh pipe does, and LeakSanitizer finds nothing left behind.
//
// Input: u16 K (bit 15: fail from the K-th allocation on; the low 15 bits modulo 2048, 0 fails
// none), an encoder byte (data format modulo 6 in bits 0-2, bit 3 lossless), then up to 12
// operation bytes for the decoding pipe as in fuzz_qrv_file.
#include <dlfcn.h>

#include <algorithm>
#include <new>

#include "fuzz_input.h"
#include "kernels/packing.h"

namespace {

// Counting and failing happen only on the thread that calls the library, and only while it does.
thread_local bool armed = false;
uint32_t allocations = 0, failAt = 0;
bool persistent = false;

bool fromCodecLibrary(void* caller) {
    Dl_info info;
    return dladdr(caller, &info) && info.dli_fname &&
           (strstr(info.dli_fname, "libde265") || strstr(info.dli_fname, "libx265"));
}

void* allocate(size_t size, void* caller) {
    if (armed && failAt && !fromCodecLibrary(caller)) {
        ++allocations;
        if (allocations == failAt || (persistent && allocations > failAt)) return nullptr;
    }
    return std::malloc(size ? size : 1);
}

}  // namespace

void* operator new(size_t size) {
    if (void* memory = allocate(size, __builtin_return_address(0))) return memory;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    if (void* memory = allocate(size, __builtin_return_address(0))) return memory;
    throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size, __builtin_return_address(0)); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, __builtin_return_address(0));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

constexpr uint32_t kWidth = 64, kHeight = 48, kEncodeWidth = 32, kEncodeHeight = 24, kHevc = 1;
constexpr size_t kMaxOperations = 12;

std::vector<uint8_t> recording;
std::vector<uint8_t> firstFrame;  // the recording's first frame as a fresh software pipe reads it

struct Armed {
    Armed() { armed = true; }
    ~Armed() { armed = false; }
};

// One call into the library with failing allocations; aborts when an exception escapes (the
// interface lets none out), or a status is neither 0 nor 1.
template <class Call>
auto guarded(const char* name, Call call) -> decltype(call()) {
    try {
        const Armed armedCall;
        return call();
    } catch (const std::exception& e) {
        fprintf(stderr, "%s let \"%s\" escape\n", name, e.what());
        abort();
    }
    return decltype(call())();
}
uint32_t status(const char* name, uint32_t result) {
    if (result > 1) {
        fprintf(stderr, "%s returned %u\n", name, result);
        abort();
    }
    return result;
}
#define CALL(call) status(#call, guarded(#call, [&] { return call; }))

void expectCreationText(const char* text) {
    if (strcmp(ZOHW_GetError(nullptr), text) != 0) {
        fprintf(stderr, "a failed creation left \"%s\", not \"%s\"\n", ZOHW_GetError(nullptr), text);
        abort();
    }
}

// Records three frames and stores the bitstream of a fourth, with calls that only the other
// kind of pipe takes in between.
void encode(uint32_t dataFormat, uint32_t lossless) {
    Pipe pipe(guarded("ZOHW_CreateEncoder", [&] {
                  return ZOHW_CreateEncoder(dataFormat, kHevc, lossless, kEncodeWidth, kEncodeHeight, 16000, 2);
              }),
              &ZOHW_Destroy);
    if (!pipe) return expectCreationText("unsupported hardware or codec for encoding");
    char* buffer = nullptr;
    size_t bytes = 0;
    MemoryFile file(open_memstream(&buffer, &bytes));
    if (!file) abort();
    std::vector<uint8_t> image(packing::packedSize(dataFormat, kEncodeWidth, kEncodeHeight));
    const uint64_t pitch = packing::tightPitch(dataFormat, kEncodeWidth);
    std::vector<uint8_t> bitstream(size_t(kEncodeWidth) * kEncodeHeight * 4);
    const uint8_t header[16] = {};
    const uint32_t metadata[64] = {};
    uint64_t size = 0;
    CALL(ZOHW_CreateQRVContainer(pipe.get(), file.get(), header, sizeof header));
    for (uint64_t i = 0; i < 3; ++i) {
        for (size_t k = 0; k < image.size(); ++k) image[k] = uint8_t(k * 7 + i * 13);
        CALL(ZOHW_Encode_And_Store(pipe.get(), file.get(), &size, image.data(), pitch, 40000 * i, metadata, 64));
    }
    CALL(ZOHW_Encode(pipe.get(), &size, image.data(), pitch, bitstream.data()));
    CALL(ZOHW_GetDecoderType(pipe.get()));
    CALL(ZOHW_CreateQRVTracker(pipe.get(), file.get()));
    CALL(ZOHW_CloseQRVContainer(pipe.get(), file.get()));
    guarded("ZOHW_Destroy", [&] { return pipe.reset(), 0; });
    file.reset();
    free(buffer);
}

std::vector<uint8_t> readFirstFrame(ZoHwPipe* pipe, FILE* file) {
    std::vector<uint8_t> frame(size_t(kWidth) * kHeight * 2);
    uint8_t metadata[256];
    uint32_t number = 0, type = 0;
    uint64_t time = 0;
    if (ZOHW_CreateQRVTracker(pipe, file) || ZOHW_SetHEVCPositionInFile(pipe, file, 0) ||
        ZOHW_DecodeFrameAndMetadata(pipe, file, frame.data(), &number, &time, &type, metadata) || number != 1)
        return {};
    return frame;
}

void decode(const uint8_t* operations, size_t count) {
    MemoryFile file = openMemory(recording);
    Pipe pipe(guarded("ZOHW_CreateDecoder", [&] { return ZOHW_CreateDecoder(3, kHevc, kWidth, kHeight, 0); }),
              &ZOHW_Destroy);
    if (!pipe) return expectCreationText("Unsupported hardware or codec for decoding");
    const int start = 0;
    CALL(ZOHW_StartDecoding(pipe.get(), &start));
    CALL(ZOHW_CreateQRVTracker(pipe.get(), file.get()));
    std::vector<uint8_t> frame(size_t(kWidth) * kHeight * 2), bitstream(recording.begin() + 16, recording.end());
    for (size_t i = 0; i < count; ++i)
        guarded("a file call", [&] { return runFileCall(pipe.get(), file.get(), operations[i], frame), 0; });
    CALL(ZOHW_Decode(pipe.get(), bitstream.data(), bitstream.size(), frame.data()));
    uint64_t size = 0;
    CALL(ZOHW_Encode(pipe.get(), &size, frame.data(), kWidth, bitstream.data()));
    CALL(ZOHW_CloseQRVContainer(pipe.get(), file.get()));
    if (readFirstFrame(pipe.get(), file.get()) != firstFrame) {
        fprintf(stderr, "the pipe no longer reads the recording as a fresh one does\n");
        abort();
    }
    guarded("ZOHW_Destroy", [&] { return pipe.reset(), 0; });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!freopen("/dev/null", "w", stdout)) return 1;  // the creation failure's line
    recording = recordInSoftware(1, kWidth, kHeight, 6, 3);
    MemoryFile file = openMemory(recording);
    Pipe pipe(ZOHW_CreateDecoder(3, kHevc, kWidth, kHeight, 0), &ZOHW_Destroy);
    if (!pipe || (firstFrame = readFirstFrame(pipe.get(), file.get())).empty()) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const uint16_t k = in.u16();
    const uint8_t encoderByte = in.u8();
    const std::vector<uint8_t> operations = in.rest();
    allocations = 0;
    failAt = k & 0x7FF;
    persistent = k >> 15;
    encode(uint32_t(encoderByte & 7) % 6, (encoderByte >> 3) & 1);
    decode(operations.data(), std::min(operations.size(), kMaxOperations));
    failAt = 0;
    return 0;
}
