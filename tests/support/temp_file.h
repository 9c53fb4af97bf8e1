// A file under the system's temporary directory, removed when the object goes away.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class TempFile {
public:
    explicit TempFile(const std::string& suffix = ".qrv");
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return path_; }
    // Opens the file with the given stdio mode; the caller closes it.
    FILE* open(const char* mode) const;
    std::vector<uint8_t> read() const;
    void write(const std::vector<uint8_t>& bytes) const;

private:
    std::string path_;
};
