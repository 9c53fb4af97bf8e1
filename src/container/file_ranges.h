// Reading untrusted byte ranges of the file behind a stdio stream without a system call for
// every range: the index readers ask for a head or a sample info of every record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
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
// a range that is asked for.
class FileRangeReader {
public:
    static constexpr uint64_t kWindowBytes = 1 << 20;
    // Ranges closer than this are fetched together: reading the bytes between them costs
    // less than another system call.
    static constexpr uint64_t kGapBytes = 4096;

    // range(j) is the j-th of `count` ranges.
    FileRangeReader(const FileBytes& file, size_t count, std::function<FileRange(size_t)> range);

    // The bytes of range j, or null when they do not lie within the file or cannot be read.
    // Valid until the next call.
    const uint8_t* at(size_t j);

private:
    bool usable(const FileRange& r) const;
    bool inWindow(const FileRange& r) const;
    // Reads range j together with the ranges after it that fit one window.
    void fetch(size_t j, const FileRange& first);

    const FileBytes& file_;
    size_t count_;
    std::function<FileRange(size_t)> range_;
    std::vector<uint8_t> window_;
    uint64_t windowStart_ = 0;
    uint64_t windowBytes_ = 0;  // bytes read into the window
    uint64_t readableBytes_;    // the file's size, until a read finds it shorter
};
