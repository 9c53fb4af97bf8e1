// Calls that run out of memory end in their failure result instead of throwing into a C host.
// This program's global operator new can be made to fail from a given size on.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "support/qrv_builder.h"
#include "zo_qrv64.h"

namespace {
std::atomic<size_t> failFrom{SIZE_MAX};

// Allocations of `bytes` or more fail while it lives.
struct FailingAllocations {
    explicit FailingAllocations(size_t bytes) { failFrom = bytes; }
    ~FailingAllocations() { failFrom = SIZE_MAX; }
};
}  // namespace

void* operator new(size_t size) {
    void* memory = size < failFrom ? std::malloc(size ? size : 1) : nullptr;
    if (!memory) throw std::bad_alloc();
    return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return size < failFrom ? std::malloc(size ? size : 1) : nullptr;
}
// The matching deletes: the operators new above take their memory from malloc.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

// A decoder for a frame whose buffers cannot be had is one that cannot be made.
TEST(OutOfMemory, CreationFailsWithItsTextAndANullPipe) {
    const FailingAllocations failing(size_t(1) << 30);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZOHW_CreateDecoder(3, 1, 40000, 40000, 0), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(ZOHW_GetError(nullptr), "Unsupported hardware or codec for decoding");
    EXPECT_EQ(ZOHW_CreateEncoder(3, 1, 0, 40000, 40000, 1000000, 30), nullptr);
    EXPECT_STREQ(ZOHW_GetError(nullptr), "unsupported hardware or codec for encoding");
}

TEST(OutOfMemory, ReadingTheIndexFails) {
    QrvBuilder builder;
    for (uint32_t i = 1; i <= 8; ++i) builder.addRecord(i, i * 1000, 3, {0, 0, 1, 0x26});
    QrvTestFile file = qrvOpenBytes(builder.bytes());
    ZoHwPipe* pipe = ZOHW_CreateDecoder(3, 1, 64, 48, 0);
    ASSERT_NE(pipe, nullptr);
    {
        const FailingAllocations failing(64);
        EXPECT_EQ(ZOHW_CreateQRVTracker(pipe, file.get()), 1u);
    }
    EXPECT_EQ(ZOHW_CreateQRVTracker(pipe, file.get()), 0u);
    ZOHW_Destroy(pipe);
}
