#include "support/temp_file.h"

#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

TempFile::TempFile(const std::string& suffix) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/zoqrv-XXXXXX" + suffix;
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fd < 0) throw std::runtime_error("cannot create a temporary file from " + pattern);
    close(fd);
    path_ = name.data();
}

TempFile::~TempFile() { std::remove(path_.c_str()); }

FILE* TempFile::open(const char* mode) const { return std::fopen(path_.c_str(), mode); }

std::vector<uint8_t> TempFile::read() const {
    std::vector<uint8_t> bytes;
    if (FILE* f = open("rb")) {
        uint8_t buffer[65536];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
        std::fclose(f);
    }
    return bytes;
}

void TempFile::write(const std::vector<uint8_t>& bytes) const {
    FILE* f = open("wb");
    if (!f) throw std::runtime_error("cannot write " + path_);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}
