// Reading untrusted byte ranges of the file behind a stdio stream without a system call for
// every range: the index readers ask for a head or a sample info of every record.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// True when [offset, offset + bytes) lies within a file of `size` bytes (a size below 0 is
// a file that cannot be read at all).
bool rangeInFile(int64_t size, uint64_t offset, uint64_t bytes);

// The bytes of the file behind a stream, read at given offsets. A regular file is read with
// pread on its descriptor, which leaves the stream alone; other streams (in-memory ones) are
// read through the stream, which moves its position. Writes pending in the stream are
// flushed first, so they are part of the file.
class FileBytes {
public:
    explicit FileBytes(FILE* stream);

    // The file's size, or -1 when the stream cannot tell it.
    int64_t size() const { return size_; }

    // Copies the range at `offset` and returns the number of bytes copied: all of them, 0 when
    // the range does not lie within the file, fewer only when a read comes up short.
    size_t read(uint64_t offset, void* destination, size_t bytes) const;

private:
    FILE* stream_;
    int fd_ = -1;  // set for regular files
    int64_t size_ = -1;
};

struct FileRange {
    uint64_t offset;
    uint64_t bytes;
};
// A range that lies in no file.
constexpr FileRange kNoFileRange{UINT64_MAX, 1};

// A sequence of ranges of one file, asked for in order, fetched in windows: a window starts
// at the range asked for and takes in the ranges after it while each begins within
// kGapBytes of the window so far (and not before it), up to kWindowBytes. A file of small
// records costs one read per window instead of one per record; an index whose offsets jump
// about costs one small read per range, since every byte read lies at most kGapBytes before
// a range that is asked for. Range is a callable, size_t -> FileRange; opening a recording
// asks for millions of ranges, so it is a template parameter that the compiler can inline.
template <typename Range>
class FileRangeReader {
public:
    static constexpr uint64_t kWindowBytes = 1 << 20;
    // Ranges closer than this are fetched together: reading the bytes between them costs
    // less than another system call.
    static constexpr uint64_t kGapBytes = 4096;

    // range(j) is the j-th of `count` ranges.
    FileRangeReader(const FileBytes& file, size_t count, Range range)
        : file_(file), count_(count), range_(std::move(range)),
          readableBytes_(uint64_t(std::max<int64_t>(file.size(), 0))) {}

    // The bytes of range j, or null when they do not lie within the file or cannot be read.
    // Valid until the next call.
    const uint8_t* at(size_t j) {
        const FileRange r = range_(j);
        if (!usable(r)) return nullptr;
        if (!inWindow(r)) fetch(j, r);
        return inWindow(r) ? window_.data() + (r.offset - windowStart_) : nullptr;
    }

private:
    bool usable(const FileRange& r) const {
        return r.bytes <= kWindowBytes && rangeInFile(int64_t(readableBytes_), r.offset, r.bytes);
    }
    bool inWindow(const FileRange& r) const {
        // Usable ranges lie within the file, so these sums cannot overflow.
        return r.offset >= windowStart_ && r.offset + r.bytes <= windowStart_ + windowBytes_;
    }
    // Reads range j together with the ranges after it that fit one window.
    void fetch(size_t j, const FileRange& first) {
        uint64_t end = first.offset + first.bytes;
        for (size_t k = j + 1; k < count_; ++k) {
            const FileRange next = range_(k);
            if (!usable(next)) continue;  // needs no bytes
            if (next.offset < first.offset || next.offset > end + kGapBytes ||
                next.offset + next.bytes - first.offset > kWindowBytes)
                break;
            end = std::max(end, next.offset + next.bytes);
        }
        window_.resize(size_t(end - first.offset));
        windowStart_ = first.offset;
        windowBytes_ = file_.read(first.offset, window_.data(), window_.size());
        // A short read means the file ends there now (it was cut short, or cannot be read
        // further): ranges beyond are not asked for again, each with a read of its own.
        if (windowBytes_ < window_.size()) readableBytes_ = first.offset + windowBytes_;
    }

    const FileBytes& file_;
    size_t count_;
    Range range_;
    std::vector<uint8_t> window_;
    uint64_t windowStart_ = 0;
    uint64_t windowBytes_ = 0;  // bytes read into the window
    uint64_t readableBytes_;    // the file's size, until a read finds it shorter
};
