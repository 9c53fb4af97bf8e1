#include "container/file_ranges.h"

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
