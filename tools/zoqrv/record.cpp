// zoqrv record: encodes raw frames of caller data from a file or standard input through the C
// interface into a QRV file, as a recording host does. Without a choice of its own in
// ZOQRV_ENCODER it records with NVENC where it can and with libx265 elsewhere.
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "api/pipe.h"
#include "codec/Exception.h"
#include "codec/SwEncoder.h"
#include "commands.h"
#include "kernels/packing.h"
#include "recording_header.h"
#include "zo_qrv64.h"

namespace {

const char kUsage[] =
    "record --kind bgra|uyvy|u4|u8|u16|u32 --size WxH --fps N [--lossless] [--bitrate B] OUT.qrv [IN]";
constexpr uint32_t kHevc = 1;
constexpr uint64_t kDefaultBitrate = 8000000;

bool parseUnsigned(const std::string& text, uint64_t& value) {
    char* end = nullptr;
    if (text.empty() || text[0] == '-') return false;
    value = std::strtoull(text.c_str(), &end, 10);
    return *end == '\0' && value > 0;
}

bool parseSize(const std::string& text, uint32_t& width, uint32_t& height) {
    const size_t x = text.find('x');
    uint64_t w = 0, h = 0;
    if (x == std::string::npos || !parseUnsigned(text.substr(0, x), w) || !parseUnsigned(text.substr(x + 1), h))
        return false;
    if (w > 65536 || h > 65536) return false;
    width = uint32_t(w);
    height = uint32_t(h);
    return true;
}

struct Options {
    RecordingHeader header;
    bool lossless = false;
    uint64_t bitrate = kDefaultBitrate;
    std::string output, input;
};

bool parseOptions(const Arguments& args, Options& options) {
    bool kind = false, size = false, fps = false;
    std::vector<std::string> paths;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        uint64_t number = 0;
        if (args[i] == "--kind" && hasValue) {
            if (!(kind = kindFromName(args[++i], options.header.kind))) return false;
        } else if (args[i] == "--size" && hasValue) {
            if (!(size = parseSize(args[++i], options.header.width, options.header.height))) return false;
        } else if (args[i] == "--fps" && hasValue) {
            if (!(fps = parseUnsigned(args[++i], number) && number <= 1000)) return false;
            options.header.frameRate = uint32_t(number);
        } else if (args[i] == "--bitrate" && hasValue) {
            if (!parseUnsigned(args[++i], options.bitrate)) return false;
        } else if (args[i] == "--lossless") {
            options.lossless = true;
        } else if (args[i].rfind("--", 0) != 0) {
            paths.push_back(args[i]);
        } else {
            return false;
        }
    }
    if (!kind || !size || !fps || paths.empty() || paths.size() > 2) return false;
    options.header.codec = kHevc;
    options.output = paths[0];
    options.input = paths.size() == 2 ? paths[1] : "-";
    return true;
}

const char* encoderName(ZoHwPipe* pipe) {
    return dynamic_cast<const SwEncoder*>(pipe->encoder.get()) ? "x265 (software)" : "NVENC";
}

}  // namespace

int runRecord(const Arguments& args) {
    Options options;
    if (!parseOptions(args, options)) return usage(kUsage);
    const RecordingHeader& header = options.header;
    const uint32_t frameBytes = packing::packedSize(header.kind, header.width, header.height);
    if (frameBytes == 0) return fail("--size: a frame of this kind and size holds no bytes");

    File input(options.input == "-" ? nullptr : fopen(options.input.c_str(), "rb"));
    FILE* in = options.input == "-" ? stdin : input.get();
    if (!in) return fail("cannot open " + options.input);
    File out = openFile(options.output, "wb");
    if (!out) return fail("cannot create " + options.output);

    setenv("ZOQRV_ENCODER", "auto", 0);  // the user's own choice stands
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(
        ZOHW_CreateEncoder(header.kind, header.codec, options.lossless ? 1 : 0, header.width, header.height,
                           options.lossless ? 0 : options.bitrate, header.frameRate),
        &ZOHW_Destroy);
    if (!pipe) return fail(ZOHW_GetError(nullptr));
    const std::vector<uint8_t> fileHeader = encodeRecordingHeader(header);
    ZOHW_CreateQRVContainer(pipe.get(), out.get(), fileHeader.data(), int32_t(fileHeader.size()));

    std::vector<uint8_t> frame(frameBytes);
    uint32_t metadata[kMetadataWords] = {};
    const bool terminal = isatty(fileno(stderr));
    uint32_t frames = 0;
    uint64_t bytes = 0;
    std::string problem;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const size_t got = fread(frame.data(), 1, frame.size(), in);
        if (got == 0) break;
        if (got < frame.size()) {
            problem = options.input + ": the input ends " + std::to_string(got) + " bytes into frame " +
                      std::to_string(frames) + " (a frame is " + std::to_string(frameBytes) +
                      " bytes: is --kind or --size right?)";
            break;
        }
        metadata[0] = frames;
        const uint64_t captureTime = uint64_t(std::llround(double(frames) * 1e6 / header.frameRate));
        uint64_t size = 0;
        try {
            if (ZOHW_Encode_And_Store(pipe.get(), out.get(), &size, frame.data(),
                                      packing::tightPitch(header.kind, header.width), captureTime, metadata,
                                      int32_t(kMetadataWords)) != 0)
                problem = "frame " + std::to_string(frames) + " failed to encode";
        } catch (const Exception& e) {
            problem = "frame " + std::to_string(frames) + ": " + e.message();
        }
        if (!problem.empty()) break;
        ++frames;
        bytes += size;
        if (terminal && frames % 10 == 0) fprintf(stderr, "\rframe %u, %" PRIu64 " bytes", frames, bytes);
    }
    if (terminal) fprintf(stderr, "\r\033[K");
    if (ferror(in)) problem = "cannot read " + options.input;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Every frame recorded so far stays in a valid file, whatever ended the input.
    ZOHW_CloseQRVContainer(pipe.get(), out.get());
    if (ferror(out.get()) || fclose(out.release()) != 0) return fail("cannot write " + options.output);
    printf("%u frames, %" PRIu64 " bytes, encoder %s, %.1f frames/s\n", frames, bytes, encoderName(pipe.get()),
           seconds > 0 ? frames / seconds : 0.0);
    return problem.empty() ? 0 : fail(problem + "; the " + std::to_string(frames) + " frames before it are kept");
}
