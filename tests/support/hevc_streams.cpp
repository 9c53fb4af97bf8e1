#include "support/hevc_streams.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "container/qrv_file.h"

namespace fs = std::filesystem;

namespace {

bool onPath(const std::string& tool) {
    return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// Test executables may run in parallel; one makes the data while the others wait.
class DirectoryLock {
public:
    explicit DirectoryLock(const fs::path& file) : fd(open(file.c_str(), O_CREAT | O_RDWR, 0644)) {
        if (fd < 0 || flock(fd, LOCK_EX) != 0) throw std::runtime_error("cannot lock " + file.string());
    }
    ~DirectoryLock() { close(fd); }

private:
    int fd;
};

std::vector<HevcStream> readList(const fs::path& dir) {
    std::ifstream list(dir / "streams.txt");
    std::vector<HevcStream> streams;
    HevcStream s;
    while (list >> s.name >> s.width >> s.height >> s.frames >> s.keyint) {
        s.hevcPath = (dir / (s.name + ".hevc")).string();
        s.qrvPath = (dir / (s.name + ".qrv")).string();
        s.yuvPath = (dir / (s.name + ".yuv")).string();
        streams.push_back(s);
    }
    return streams;
}

}  // namespace

std::vector<HevcStream> hevcStreams(const std::string& set, std::string& whyMissing) {
    for (const char* tool : {"x265", "ffmpeg"}) {
        if (!onPath(tool)) {
            whyMissing = std::string(tool) + " is not installed (scripts/install-deps.sh installs it)";
            return {};
        }
    }
    const fs::path script = fs::path(ZOQRV_SOURCE_DIR) / "scripts" / "make-test-data.sh";
    const fs::path zoqrv = fs::path(ZOQRV_BINARY_DIR) / "tools" / "zoqrv";
    const fs::path dir = fs::path(ZOQRV_BINARY_DIR) / "test-data" / set;
    if (!fs::exists(zoqrv)) throw std::runtime_error(zoqrv.string() + " is not built");
    fs::create_directories(dir);

    DirectoryLock lock(dir / ".lock");
    const fs::path list = dir / "streams.txt";
    const bool current = fs::exists(list) && fs::last_write_time(list) > fs::last_write_time(script) &&
                         fs::last_write_time(list) > fs::last_write_time(zoqrv);
    if (!current) {
        const std::string command = "'" + script.string() + "' '" + dir.string() + "' '" +
                                    zoqrv.string() + "' " + set;
        if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    }
    return readList(dir);
}

const HevcStream& hevcStream(const std::vector<HevcStream>& streams, const std::string& name) {
    for (const HevcStream& s : streams)
        if (s.name == name) return s;
    throw std::runtime_error("no test stream " + name);
}

std::vector<uint8_t> yuv420ToYuyv(const uint8_t* yuv, uint32_t w, uint32_t h) {
    const size_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    const uint8_t* y = yuv;
    const uint8_t* cb = y + size_t(w) * h;
    const uint8_t* cr = cb + cw * ch;
    std::vector<uint8_t> out(size_t(w) * h * 2);
    for (size_t r = 0; r < h; ++r) {
        for (size_t x = 0; x < w; ++x) {
            out[r * 2 * w + 2 * x] = y[r * w + x];
            const uint8_t* chroma = (x % 2 == 0) ? cb : cr;
            out[r * 2 * w + 2 * x + 1] = chroma[(r / 2) * cw + x / 2];
        }
    }
    return out;
}

std::vector<std::vector<uint8_t>> referenceYuv420Frames(const HevcStream& stream) {
    const size_t frameBytes = size_t(stream.width) * stream.height +
                              2 * size_t((stream.width + 1) / 2) * ((stream.height + 1) / 2);
    std::ifstream in(stream.yuvPath, std::ios::binary);
    std::vector<std::vector<uint8_t>> frames;
    std::vector<uint8_t> frame(frameBytes);
    while (in.read(reinterpret_cast<char*>(frame.data()), std::streamsize(frameBytes))) frames.push_back(frame);
    return frames;
}

std::vector<std::vector<uint8_t>> referenceYuyvFrames(const HevcStream& stream) {
    std::vector<std::vector<uint8_t>> frames;
    for (const auto& frame : referenceYuv420Frames(stream))
        frames.push_back(yuv420ToYuyv(frame.data(), stream.width, stream.height));
    return frames;
}

std::vector<std::vector<uint8_t>> qrvPayloads(const std::string& qrvPath) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(qrvPath.c_str(), "rb"), &std::fclose);
    QrvSoftwareIndex tables;
    if (!f || !qrvReadSoftwareIndex(f.get(), tables)) throw std::runtime_error("cannot index " + qrvPath);
    std::vector<std::vector<uint8_t>> payloads;
    for (const QrvIndexEntry& entry : tables.frameList) {
        QrvRecordHead head;
        uint32_t bytes = 0;
        std::vector<uint8_t> payload;
        if (!qrvReadRecordAt(f.get(), entry.recordOffset, head, bytes, &payload))
            throw std::runtime_error("unreadable record in " + qrvPath);
        payloads.push_back(std::move(payload));
    }
    return payloads;
}
