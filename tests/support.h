// Test helpers: random data, temporary files, shell commands, QRV files built byte by byte (apart from
// the library's writer), and x265 streams with ffmpeg's decode.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "container/qrv_file.h"
#include "zo_qrv64.h"

using Bytes = std::vector<uint8_t>;

inline Bytes randomBytes(size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (auto& b : bytes) b = uint8_t(generator());
    return bytes;
}
// A pipe of the C interface, destroyed at scope end.
using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;
inline Pipe decoderPipe(uint32_t code, uint32_t codec, uint32_t width, uint32_t height) {
    return Pipe(ZOHW_CreateDecoder(code, codec, width, height, 0), &ZOHW_Destroy);
}
// One ZOHW_DecodeFrameAndMetadata into a buffer of `bytes`, filled with 0xEE beforehand.
struct DecodedFrame {
    uint32_t status = 1, number = 0, type = 0;
    uint64_t time = 0;
    Bytes data;
    uint8_t metadata[256] = {};
};
inline DecodedFrame decodeNext(ZoHwPipe* pipe, FILE* file, size_t bytes) {
    DecodedFrame d;
    d.data.assign(bytes, 0xEE);
    d.status = ZOHW_DecodeFrameAndMetadata(pipe, file, d.data.data(), &d.number, &d.time, &d.type, d.metadata);
    return d;
}
struct FileCloser { void operator()(FILE* f) const { fclose(f); } };
using TestFile = std::unique_ptr<FILE, FileCloser>;

// A temporary file holding `bytes`, at its start.
inline TestFile openBytes(const Bytes& bytes) {
    TestFile file(tmpfile());
    if (!file || (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()))
        throw std::runtime_error("cannot write a temporary file");
    rewind(file.get());
    return file;
}
// Everything in the file (none for a null one); leaves the position at its end.
inline Bytes readAll(FILE* file) {
    Bytes out;
    uint8_t chunk[65536];
    if (!file || fflush(file) != 0) return out;
    rewind(file);
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, file)) > 0;) out.insert(out.end(), chunk, chunk + got);
    return out;
}
inline Bytes readFile(const std::string& path) { return readAll(TestFile(fopen(path.c_str(), "rb")).get()); }

inline std::string makeTestDirectory() {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/zoqrv_test_XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
    return pattern;
}
// The exit status of a shell command; its standard output in `output` when given.
inline int runCommand(const std::string& command, std::string* output = nullptr) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        if (output) output->append(chunk, got);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
// Writes the `bytes` low bytes of `value` little-endian at `at`, growing `out` as needed.
inline void putLittleEndian(Bytes& out, size_t at, uint64_t value, int bytes) {
    if (out.size() < at + size_t(bytes)) out.resize(at + size_t(bytes));
    for (int i = 0; i < bytes; ++i) out[at + size_t(i)] = uint8_t(value >> (8 * i));
}
// The sample info of record r as the builder and `zoqrv import` write it: metadata word k = r * 64 + k.
inline QrvSampleInfo testSampleInfo(uint64_t captureTime, uint32_t record) {
    QrvSampleInfo info{captureTime / 1000, {}};
    for (uint32_t k = 0, word = record * 64; k < kMetadataWords; ++k, ++word) memcpy(info.metadata + 4 * k, &word, 4);
    return info;
}
// A QRV file laid out by hand. Damage is patched into bytes() at recordOffset(r) (frame number;
// + 16: payload size), at indexOffset(r) (record offset) or in the last 4 bytes (frame count).
struct QrvBuilder {
    explicit QrvBuilder(Bytes header = {}) : records(std::move(header)) {}
    void add(uint32_t frameNumber, uint64_t captureTime, uint32_t frameType, const Bytes& payload) {
        const size_t at = records.size();
        const QrvSampleInfo info = testSampleInfo(captureTime, uint32_t(index.size()));
        index.push_back({at, frameType, 0});
        putLittleEndian(records, at, frameNumber, 4);
        putLittleEndian(records, at + 4, captureTime, 8);
        putLittleEndian(records, at + 12, frameType, 4);
        putLittleEndian(records, at + 16, payload.size(), 4);
        records.insert(records.end(), payload.begin(), payload.end());
        records.insert(records.end(), reinterpret_cast<const uint8_t*>(&info), reinterpret_cast<const uint8_t*>(&info + 1));
    }
    Bytes bytes() const {
        Bytes out = records;
        for (const QrvIndexEntry& entry : index) {
            putLittleEndian(out, out.size(), entry.recordOffset, 8);
            putLittleEndian(out, out.size(), entry.frameType | uint64_t(entry.reserved) << 32, 8);  // the checksum word
        }
        putLittleEndian(out, out.size(), index.size(), 4);
        return out;
    }
    // The file closed after its first `count` records.
    Bytes closedAfter(size_t count) const {
        QrvBuilder first(Bytes(records.begin(), records.begin() + long(count < index.size() ? recordOffset(count) : records.size())));
        first.index.assign(index.begin(), index.begin() + long(count));
        return first.bytes();
    }
    uint64_t recordOffset(size_t r) const { return index.at(r).recordOffset; }
    size_t indexOffset(size_t r) const { return records.size() + 16 * r; }

    Bytes records;  // header and records
    std::vector<QrvIndexEntry> index;
};
// An x265 stream of scripts/make-test-data.sh, wrapped by `zoqrv import`, with ffmpeg's decode.
struct HevcStream {
    std::string qrvPath, yuvPath;
    uint32_t width = 0, height = 0, frames = 0, keyint = 0;

    // ffmpeg's pictures as tightly packed YUV 4:2:0 planes.
    std::vector<Bytes> yuv420Frames() const {
        std::ifstream in(yuvPath, std::ios::binary);
        std::vector<Bytes> frames;
        for (Bytes yuv(size_t(width) * height + 2 * ((width + 1) / 2) * ((height + 1) / 2));
             in.read(reinterpret_cast<char*>(yuv.data()), std::streamsize(yuv.size()));)
            frames.push_back(yuv);
        return frames;
    }
    // ffmpeg's pictures as packed YUYV: Y, then Cb for even x and Cr for odd x.
    std::vector<Bytes> pictures() const {
        const size_t cw = (width + 1) / 2, chroma = cw * ((height + 1) / 2), luma = size_t(width) * height;
        std::vector<Bytes> frames;
        for (const Bytes& yuv : yuv420Frames()) {
            frames.emplace_back(luma * 2);
            for (size_t i = 0; i < luma; ++i) {
                frames.back()[2 * i] = yuv[i];
                frames.back()[2 * i + 1] = yuv[luma + (i % width % 2) * chroma + i / width / 2 * cw + i % width / 2];
            }
        }
        return frames;
    }
    // The records' payloads, read as `zoqrv import --header 16` lays out the file.
    std::vector<Bytes> payloads() const {
        const Bytes file = readFile(qrvPath);
        std::vector<Bytes> payloads;
        for (size_t at = 16; payloads.size() < frames; at += 20 + payloads.back().size() + 264) {
            uint32_t size = 0;
            memcpy(&size, &file.at(at + 16), 4);
            payloads.emplace_back(file.begin() + long(at + 20), file.begin() + long(at + 20 + size));
        }
        return payloads;
    }
};
// A stream of `set` ("tests": x265, "h264": x264), made into the build tree once, and again when
// the script or zoqrv changed; or as made beforehand in $ZOQRV_TEST_DATA/SET (where no encoder is).
inline HevcStream hevcStream(const std::string& name, const std::string& set = "tests") {
    namespace fs = std::filesystem;
    const fs::path script = fs::path(ZOQRV_SOURCE_DIR) / "scripts/make-test-data.sh";
    const fs::path zoqrv = fs::path(ZOQRV_BINARY_DIR) / "tools/zoqrv";
    const char* prepared = getenv("ZOQRV_TEST_DATA");
    const fs::path dir = fs::path(prepared ? prepared : ZOQRV_BINARY_DIR "/test-data") / set, list = dir / "streams.txt";
    // Test programs run in parallel: one makes the streams while the others wait.
    const int lock = prepared ? -1 : (fs::create_directories(dir), open((dir / ".lock").c_str(), O_CREAT | O_RDWR, 0644));
    if (!prepared && (lock < 0 || flock(lock, LOCK_EX) != 0)) throw std::runtime_error("cannot lock " + dir.string());
    if (!prepared && (!fs::exists(list) || fs::last_write_time(list) < std::max(fs::last_write_time(script), fs::last_write_time(zoqrv)))) {
        const std::string command = "'" + script.string() + "' '" + dir.string() + "' '" + zoqrv.string() + "' " + set;
        if (runCommand(command) != 0) throw std::runtime_error("failed: " + command);
    }
    if (!prepared) close(lock);
    std::ifstream in(list);
    HevcStream s{(dir / (name + ".qrv")).string(), (dir / (name + ".yuv")).string()};
    for (std::string listed; in >> listed >> s.width >> s.height >> s.frames >> s.keyint;)
        if (listed == name) return s;
    throw std::runtime_error("no test stream " + name);
}
