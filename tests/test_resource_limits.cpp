// Inputs that once crashed, hung or blew up memory, and calls that run out of memory: each
// call must end in its result, within its bound and within a memory cap, never in an exception
// thrown into a C host. This program's operators new refuse allocations above a cap, and count
// the refusals.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "container/annexb.h"
#include "support.h"
#include "zo_qrv64.h"

namespace {
std::atomic<size_t> allocationCap{SIZE_MAX};
std::atomic<size_t> refusedAllocations{0};

void* allocate(size_t size) {
    if (size <= allocationCap) return std::malloc(size ? size : 1);
    ++refusedAllocations;
    return nullptr;
}

// Allocations above `bytes` fail while it lives.
struct AllocationCap {
    explicit AllocationCap(size_t bytes) { refusedAllocations = 0, allocationCap = bytes; }
    ~AllocationCap() { allocationCap = SIZE_MAX; }
};
}  // namespace

void* operator new(size_t size) {
    if (void* memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
// The matching deletes: the operators new above take their memory from malloc.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace {

constexpr size_t kCap = 32 << 20;

Pipe softwarePipe(uint32_t width, uint32_t height) {
    Pipe pipe = decoderPipe(1, 1, width, height);
    const int start = 0;
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != 2 || ZOHW_StartDecoding(pipe.get(), &start) != 0)
        ADD_FAILURE() << "no software pipe";
    return pipe;
}

// Inputs that the fuzzers found (a 64 x 48 recording whose parameter sets claim 8192 x 8192
// pictures, data ending in a start code, ...) go through what they reach: the Annex-B scanner and
// a 64 x 48 software pipe reading, seeking and looking up samples. Each ends within a second
// (a huge picture claim is refused before it is decoded) and under the cap. Inputs in the
// harness-named folders are in their harness's own form: scripts/fuzz.sh runs them through it.
TEST(FuzzRegressions, KeptInputsEndQuickly) {
    for (const auto& entry : std::filesystem::directory_iterator(ZOQRV_SOURCE_DIR "/tests/data/fuzz")) {
        if (!entry.is_regular_file()) continue;
        SCOPED_TRACE(entry.path().filename().string());
        const Bytes bytes = readFile(entry.path());  // exactly these bytes, so the sanitizer sees their end
        Pipe pipe = softwarePipe(64, 48);
        const AllocationCap cap(kCap);
        const auto start = std::chrono::steady_clock::now();
        std::vector<HevcPictureSize> sizes;
        hevcDeclaredPictureSizes(bytes.data(), bytes.size(), sizes);
        for (AnnexBCodec codec : {AnnexBCodec::H264, AnnexBCodec::Hevc}) {
            size_t covered = 0;
            for (const AccessUnit& unit : annexBSplitAccessUnits(bytes.data(), bytes.size(), codec)) covered += unit.bytes;
            EXPECT_LE(covered, bytes.size());
            annexBHasRandomAccessPicture(bytes.data(), bytes.size(), codec);
        }
        TestFile file = openBytes(bytes);
        uint64_t time = 0;
        if (ZOHW_CreateQRVTracker(pipe.get(), file.get()) == 0)
            for (int32_t sample = 0; sample < 4; ++sample) {
                decodeNext(pipe.get(), file.get(), 64 * 48 * 2);
                // A seek past the last sample fails with "invalid vector<T> subscript": only served samples.
                if (sample == 0 || ZOHW_GetTimeStampForSample(pipe.get(), file.get(), sample, &time) == 0)
                    ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), sample);
            }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(refusedAllocations, 0u);
    }
}

// An encoder whose buffers cannot be had is one that cannot be made; a decoder takes its payload
// buffer as records need it (never more than the file holds), so a large one is made in 1 GB.
TEST(OutOfMemory, CreationFailsWithItsTextAndANullPipe) {
    const AllocationCap cap(size_t(1) << 30);
    EXPECT_TRUE(Pipe(ZOHW_CreateDecoder(3, 1, 40000, 40000, 0), &ZOHW_Destroy));
    EXPECT_EQ(ZOHW_CreateEncoder(3, 1, 0, 40000, 40000, 1000000, 30), nullptr);
    EXPECT_STREQ(ZOHW_GetError(nullptr), "unsupported hardware or codec for encoding");
}

// Without memory a read or an index read fails with its result and the exception's text, and a call on
// the wrong kind of pipe still sets its text; none throws std::bad_alloc into the C host.
TEST(OutOfMemory, DecodingAndErrorTextsFailWithoutThrowing) {
    TestFile file = openBytes(readFile(ZOQRV_SOURCE_DIR "/tests/data/fuzz/huge-picture-claim.qrv"));
    Pipe pipe = softwarePipe(64, 48);
    ASSERT_EQ(ZOHW_CreateQRVTracker(pipe.get(), file.get()), 0u);
    ASSERT_EQ(ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0), 0u);
    std::vector<uint8_t> frame(64 * 48 * 2);
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t time = 0, size = 0;
    uint32_t read = 0, encode = 0, index = 0;
    {
        const AllocationCap cap(0);  // checks come after it: a failing check needs memory
        read = ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), frame.data(), &frameNumber, &time, &frameType,
                                           metadata);
        index = ZOHW_CreateQRVTracker(pipe.get(), file.get());
        EXPECT_STREQ(ZOHW_GetError(pipe.get()), "std::bad_alloc");  // allocates only when it fails
        encode = ZOHW_Encode(pipe.get(), &size, frame.data(), 128, frame.data());
    }
    EXPECT_EQ(std::make_tuple(read, encode, index), std::make_tuple(1u, 1u, 1u));
    EXPECT_STREQ(ZOHW_GetError(pipe.get()), "Invalid ZoHwPipe encoder.");
    EXPECT_GT(refusedAllocations, 0u);
    EXPECT_EQ(ZOHW_CreateQRVTracker(pipe.get(), file.get()), 0u) << "the index is read once there is memory";
}

}  // namespace
