#include "container/file_ranges.h"

#include <algorithm>
#include <cerrno>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "container/qrv_file.h"

bool rangeInFile(int64_t size, uint64_t offset, uint64_t bytes) {
    return size >= 0 && offset <= uint64_t(size) && bytes <= uint64_t(size) - offset;
}

FileBytes::FileBytes(FILE* stream) : stream_(stream) {
    fflush(stream);
#ifndef _WIN32
    struct stat status;
    const int fd = fileno(stream);
    if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        fd_ = fd;
        size_ = status.st_size;
        return;
    }
#endif
    if (qrvSeek(stream, 0, SEEK_END) == 0) size_ = qrvTell(stream);
}

size_t FileBytes::read(uint64_t offset, void* destination, size_t bytes) const {
    if (!rangeInFile(size_, offset, bytes)) return 0;
#ifndef _WIN32
    if (fd_ >= 0) {
        size_t done = 0;
        while (done < bytes) {
            const ssize_t got = pread(fd_, static_cast<uint8_t*>(destination) + done, bytes - done,
                                      off_t(offset + done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            done += size_t(got);
        }
        return done;
    }
#endif
    if (qrvSeek(stream_, int64_t(offset), SEEK_SET) != 0) return 0;
    return fread(destination, 1, bytes, stream_);
}

FileRangeReader::FileRangeReader(const FileBytes& file, size_t count, std::function<FileRange(size_t)> range)
    : file_(file), count_(count), range_(std::move(range)), readableBytes_(std::max<int64_t>(file.size(), 0)) {}

bool FileRangeReader::usable(const FileRange& r) const {
    return r.bytes <= kWindowBytes && rangeInFile(int64_t(readableBytes_), r.offset, r.bytes);
}

bool FileRangeReader::inWindow(const FileRange& r) const {
    // Usable ranges lie within the file, so these sums cannot overflow.
    return r.offset >= windowStart_ && r.offset + r.bytes <= windowStart_ + windowBytes_;
}

const uint8_t* FileRangeReader::at(size_t j) {
    const FileRange r = range_(j);
    if (!usable(r)) return nullptr;
    if (!inWindow(r)) fetch(j, r);
    return inWindow(r) ? window_.data() + (r.offset - windowStart_) : nullptr;
}

void FileRangeReader::fetch(size_t j, const FileRange& first) {
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
