// Inputs that once crashed, hung or blew up memory, replayed through the C interface on a
// software pipe: each call must end in its result, within its bound and within a memory cap.
// This program's operator new refuses allocations above the cap.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>

#include "container/annexb.h"
#include "support/temp_file.h"
#include "zo_qrv64.h"

namespace {
std::atomic<size_t> allocationCap{SIZE_MAX};
}  // namespace

void* operator new(size_t size) {
    void* memory = size <= allocationCap ? std::malloc(size ? size : 1) : nullptr;
    if (!memory) throw std::bad_alloc();
    return memory;
}
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace {

constexpr size_t kCap = 32 << 20;
using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;
struct Closer {
    void operator()(FILE* f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, Closer>;

Pipe softwarePipe(uint32_t width, uint32_t height) {
    Pipe pipe(ZOHW_CreateDecoder(1, 1, width, height, 0), &ZOHW_Destroy);
    const int start = 0;
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != 2 || ZOHW_StartDecoding(pipe.get(), &start) != 0)
        ADD_FAILURE() << "no software pipe";
    return pipe;
}

// A 64 x 48 recording of four records whose parameter sets claim 8192 x 8192 pictures: each
// read fails at once instead of decoding hundreds of megabytes of concealed picture for seconds.
TEST(FuzzRegressions, RecordsClaimingHugePicturesFailFast) {
    File file(fopen(ZOQRV_SOURCE_DIR "/tests/data/fuzz/huge-picture-claim.qrv", "rb"));
    ASSERT_TRUE(file);
    std::vector<uint8_t> record(954);
    ASSERT_EQ(fseek(file.get(), 36, SEEK_SET), 0);
    ASSERT_EQ(fread(record.data(), 1, record.size(), file.get()), record.size());
    std::vector<HevcPictureSize> sizes;
    ASSERT_TRUE(hevcDeclaredPictureSizes(record.data(), record.size(), sizes));
    ASSERT_EQ(sizes.size(), 1u);
    EXPECT_EQ(sizes[0].width, 8192u);
    EXPECT_EQ(sizes[0].height, 8192u);
    // The parameter set cut short before its size is unreadable.
    const uint8_t spsStart[] = {0, 0, 1, 0x42, 0x01};
    const size_t sps = size_t(std::search(record.begin(), record.end(), spsStart, spsStart + 5) - record.begin());
    ASSERT_LT(sps, record.size());
    EXPECT_FALSE(hevcDeclaredPictureSizes(record.data(), sps + 16, sizes));

    Pipe pipe = softwarePipe(64, 48);
    ASSERT_EQ(ZOHW_CreateQRVTracker(pipe.get(), file.get()), 0u);
    std::vector<uint8_t> frame(64 * 48 * 2);
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t time = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int call = 0; call < 2; ++call)  // two records a call
        EXPECT_EQ(ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), frame.data(), &frameNumber, &time,
                                              &frameType, metadata), 1u);
    EXPECT_EQ(ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 3), 0u);  // a key frame: nothing decoded
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// A zero-filled sparse file whose trailer claims as many entries as its size can hold: the
// 264-byte sample infos are not reserved from that count, so the index reads under the cap.
TEST(FuzzRegressions, TrailerCountDoesNotSizeTheSampleInfos) {
    TempFile temp;
    const uint32_t fileBytes = 4 << 20, count = (fileBytes - 4) / 16;
    {
        File file(temp.open("wb"));
        ASSERT_EQ(ftruncate(fileno(file.get()), fileBytes - 4), 0);
        ASSERT_EQ(fseek(file.get(), 0, SEEK_END), 0);
        ASSERT_EQ(fwrite(&count, 4, 1, file.get()), 1u);
    }
    File file(temp.open("rb"));
    Pipe pipe = softwarePipe(64, 48);
    allocationCap = kCap;
    const uint32_t status = ZOHW_CreateQRVTracker(pipe.get(), file.get());
    allocationCap = SIZE_MAX;
    EXPECT_EQ(status, 0u);
}

}  // namespace

namespace {

// Data that ends with a start code: no NAL unit header is read past its end.
TEST(FuzzRegressions, StartCodeAtTheEndOfTheData) {
    File file(fopen(ZOQRV_SOURCE_DIR "/tests/data/fuzz/start-code-at-end.h264", "rb"));
    ASSERT_TRUE(file);
    std::vector<uint8_t> bytes(1 << 16);
    bytes.resize(fread(bytes.data(), 1, bytes.size(), file.get()));
    ASSERT_GE(bytes.size(), 3u);
    // Copied so that the sanitizer sees the end of exactly these bytes.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    for (AnnexBCodec codec : {AnnexBCodec::H264, AnnexBCodec::Hevc}) {
        size_t covered = 0;
        for (const AccessUnit& unit : annexBSplitAccessUnits(exact.get(), bytes.size(), codec)) covered += unit.bytes;
        EXPECT_EQ(covered, bytes.size());
        annexBHasRandomAccessPicture(exact.get(), bytes.size(), codec);
    }
}

}  // namespace
