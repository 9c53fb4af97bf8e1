// What the harnesses share: the leading fields of an input that choose how the library is
// driven, stdio streams over memory, and the bound on the time of one call.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

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
