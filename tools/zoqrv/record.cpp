// zoqrv record: encodes raw frames of caller data from a file or standard input through the C
// interface into a QRV file, as a recording host does. Without a choice of its own in
// ZOQRV_ENCODER it records with NVENC where it can and with libx265 elsewhere.
//
// What a recording host must not lose, it keeps: data kinds are coded lossless unless lossy
// coding is asked for; SIGINT and SIGTERM end the recording at a frame boundary with its index
// written; a frame that cannot be stored is reported and the recording goes on; an existing file
// is replaced only with --force, and the input never.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "api/pipe.h"
#include "codec/SwEncoder.h"
#include "commands.h"
#include "kernels/packing.h"
#include "recording/recording_header.h"
#include "zo_qrv64.h"

namespace {

const char kUsage[] =
    "record --kind bgra|uyvy|u4|u8|u16|u32 --size WxH --fps N [--lossless | --lossy | --bitrate B]\n"
    "                    [--sync-every SECONDS] [--force] OUT.qrv [IN]\n"
    "  u4, u8, u16 and u32 are coded lossless unless --lossy or --bitrate asks otherwise;\n"
    "  bgra and uyvy at 8000000 bit/s (CBR) unless --lossless or --bitrate.\n"
    "  --sync-every: fdatasync the file every SECONDS (0: after every frame).\n"
    "  --force: replace an existing OUT.qrv (never the input). SIGINT/SIGTERM end the recording\n"
    "  with its index written (exit status 130/143); status 1 when a frame was not stored.";
constexpr uint32_t kHevc = 1;
constexpr uint64_t kDefaultBitrate = 8000000;

bool parseUnsigned(const std::string& text, uint64_t& value) {
    char* end = nullptr;
    if (text.empty() || text[0] == '-') return false;
    value = std::strtoull(text.c_str(), &end, 10);
    return *end == '\0' && value > 0;
}

bool parseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(seconds) && seconds >= 0;
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

enum class Coding { KindDefault, Lossless, Lossy };

struct Options {
    RecordingHeader header;
    Coding coding = Coding::KindDefault;
    uint64_t bitrate = kDefaultBitrate;
    double syncEvery = -1;  // seconds between fdatasync calls; below 0 never
    bool force = false;
    std::string output, input;
};

// The coding choice is made once: --lossless contradicts --lossy and --bitrate.
bool choose(Coding& coding, Coding choice) {
    if (coding != Coding::KindDefault && coding != choice) return false;
    coding = choice;
    return true;
}

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
            if (!parseUnsigned(args[++i], options.bitrate) || !choose(options.coding, Coding::Lossy)) return false;
        } else if (args[i] == "--lossless" || args[i] == "--lossy") {
            if (!choose(options.coding, args[i] == "--lossy" ? Coding::Lossy : Coding::Lossless)) return false;
        } else if (args[i] == "--sync-every" && hasValue) {
            if (!parseSeconds(args[++i], options.syncEvery)) return false;
        } else if (args[i] == "--force") {
            options.force = true;
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

bool isLossless(const Options& options) {
    if (options.coding != Coding::KindDefault) return options.coding == Coding::Lossless;
    return options.header.kind != packing::kColour32 && options.header.kind != packing::kUyvy;
}

// Creates OUT for writing. The input is compared by device and inode, so no name of it (a link,
// "./", standard input redirected from it) is truncated; an existing OUT is kept without --force
// (O_EXCL, so a file that appears meanwhile is kept too).
File createOutput(const Options& options, int inputFd, std::string& refusal) {
    const std::string& out = options.output;
    struct stat input {}, existing {};
    if (stat(out.c_str(), &existing) == 0) {
        if (fstat(inputFd, &input) == 0 && input.st_dev == existing.st_dev && input.st_ino == existing.st_ino) {
            refusal = out + " is the input (" + (options.input == "-" ? "standard input" : options.input) +
                      "): a recording never replaces what it records";
            return nullptr;
        }
    }
    const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (options.force ? O_TRUNC : O_EXCL), 0666);
    if (fd < 0 && errno == EEXIST)
        refusal = out + " exists: give --force to replace it (the output comes first: OUT.qrv [IN])";
    else if (fd < 0)
        refusal = "cannot create " + out + ": " + strerror(errno);
    File file(fd < 0 ? nullptr : fdopen(fd, "wb"));
    if (fd >= 0 && !file) close(fd);
    return file;
}

// Set by SIGINT and SIGTERM. They are blocked except while the loop waits for input, so they end
// a wait at once and never cut into an encode or a record.
volatile sig_atomic_t stopSignal = 0;
void noteStop(int signal) { stopSignal = signal; }

sigset_t catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = noteStop;  // no SA_RESTART: the wait for input ends
    sigemptyset(&action.sa_mask);
    sigset_t stops, waiting;
    sigemptyset(&stops);
    for (int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
        sigaddset(&stops, signal);
    }
    // Before the encoder's threads start, so that they inherit the mask and only the waiting
    // main thread takes the signals.
    sigprocmask(SIG_BLOCK, &stops, &waiting);
    for (int signal : {SIGINT, SIGTERM}) sigdelset(&waiting, signal);
    return waiting;
}

enum class Input { Frame, End, Stopped, Failed };

// Takes a stop signal that is pending: ppoll returns at once, without taking it, when input (or
// its end) is ready, so one that came during an encode, or together with the end of the input,
// waits here.
bool stopPending(const sigset_t& waiting) {
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, &waiting, &blocked);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    return stopSignal != 0;
}

// Reads one whole frame; `got` tells how much of it came when it did not.
Input readFrame(int fd, std::vector<uint8_t>& frame, size_t& got, const sigset_t& waiting) {
    if (stopPending(waiting)) return Input::Stopped;
    for (got = 0; got < frame.size();) {
        pollfd ready{fd, POLLIN, 0};
        if (ppoll(&ready, 1, nullptr, &waiting) < 0) {
            if (errno != EINTR) return Input::Failed;
            if (stopSignal) return Input::Stopped;
            continue;
        }
        const ssize_t n = read(fd, frame.data() + got, frame.size() - got);
        if (n == 0) return stopPending(waiting) ? Input::Stopped : Input::End;
        if (n < 0 && errno != EINTR && errno != EAGAIN) return Input::Failed;
        if (n > 0) got += size_t(n);
    }
    return Input::Frame;
}

const char* encoderName(ZoHwPipe* pipe) {
    return dynamic_cast<const SwEncoder*>(pipe->encoder.get()) ? "x265 (software)" : "NVENC";
}

// Encodes and stores one frame; the library's text when it did not.
std::string store(ZoHwPipe* pipe, FILE* out, const uint8_t* frame, uint64_t pitch, uint64_t captureTime,
                  const uint32_t* metadata, uint64_t& size) {
    if (ZOHW_Encode_And_Store(pipe, out, &size, frame, pitch, captureTime, metadata, int32_t(kMetadataWords)) == 0)
        return {};
    const std::string text = ZOHW_GetError(pipe);
    return text.empty() ? "the encoder gave no bytes" : text;
}

}  // namespace

int runRecord(const Arguments& args) {
    Options options;
    if (!parseOptions(args, options)) return usage(kUsage);
    const RecordingHeader& header = options.header;
    const uint32_t frameBytes = packing::packedSize(header.kind, header.width, header.height);
    if (frameBytes == 0) return fail("--size: a frame of this kind and size holds no bytes");

    File input(options.input == "-" ? nullptr : fopen(options.input.c_str(), "rb"));
    if (options.input != "-" && !input) return fail("cannot open " + options.input);
    const int inputFd = input ? fileno(input.get()) : STDIN_FILENO;
    std::string refusal;
    File out = createOutput(options, inputFd, refusal);
    if (!out) return fail(refusal);
    const sigset_t waiting = catchStopSignals();
    signal(SIGXFSZ, SIG_IGN);  // a file size limit fails the frames that pass it, not the recording

    setenv("ZOQRV_ENCODER", "auto", 0);  // the user's own choice stands
    const bool lossless = isLossless(options);
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(
        ZOHW_CreateEncoder(header.kind, header.codec, lossless ? 1 : 0, header.width, header.height,
                           lossless ? 0 : options.bitrate, header.frameRate),
        &ZOHW_Destroy);
    if (!pipe) return fail(ZOHW_GetError(nullptr));
    const std::vector<uint8_t> fileHeader = encodeRecordingHeader(header);
    if (ZOHW_CreateQRVContainer(pipe.get(), out.get(), fileHeader.data(), int32_t(fileHeader.size())) != 0)
        return fail(ZOHW_GetError(pipe.get()));
    const std::string coding = lossless ? "lossless" : std::to_string(options.bitrate) + " bit/s";
    fprintf(stderr, "zoqrv: recording %s %ux%u at %u frames/s, %s, encoder %s\n", kindName(header.kind),
            header.width, header.height, header.frameRate, coding.c_str(), encoderName(pipe.get()));

    std::vector<uint8_t> frame(frameBytes);
    uint32_t metadata[kMetadataWords] = {};
    const bool terminal = isatty(fileno(stderr));
    uint32_t frames = 0, stored = 0;
    uint64_t bytes = 0;
    std::string problem;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto synced = start;
    const auto sync = [&] {
        if (fflush(out.get()) != 0 || fdatasync(fileno(out.get())) != 0)
            fail("cannot sync " + options.output + " to disk: " + strerror(errno));
        synced = Clock::now();
    };
    for (size_t got = 0;; ++frames) {
        const Input read = readFrame(inputFd, frame, got, waiting);
        if (read == Input::Failed) problem = "cannot read " + options.input + ": " + strerror(errno);
        if (read == Input::End && got > 0)
            problem = options.input + ": the input ends " + std::to_string(got) + " bytes into frame " +
                      std::to_string(frames) + " (a frame is " + std::to_string(frameBytes) +
                      " bytes: is --kind or --size right?)";
        if (read != Input::Frame) break;
        metadata[0] = frames;
        const uint64_t captureTime = uint64_t(std::llround(double(frames) * 1e6 / header.frameRate));
        uint64_t size = 0;
        const std::string failure = store(pipe.get(), out.get(), frame.data(),
                                          packing::tightPitch(header.kind, header.width), captureTime, metadata, size);
        if (!failure.empty()) {
            fail("frame " + std::to_string(frames) + " not stored: " + failure);
            continue;
        }
        ++stored;
        bytes += size;
        if (options.syncEvery >= 0 && std::chrono::duration<double>(Clock::now() - synced).count() >= options.syncEvery)
            sync();
        if (terminal && stored % 10 == 0) fprintf(stderr, "\rframe %u, %" PRIu64 " bytes", stored, bytes);
    }
    if (terminal) fprintf(stderr, "\r\033[K");
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    // Every frame recorded so far stays in a valid file, whatever ended the input.
    const bool indexed = ZOHW_CloseQRVContainer(pipe.get(), out.get()) == 0;
    if (options.syncEvery >= 0) sync();
    // (The stream's error flag stays set after a record that the library rolled back.)
    const bool written = indexed && fclose(out.release()) == 0;
    const uint32_t lost = frames - stored;
    printf("%u frames, %" PRIu64 " bytes, encoder %s, %s, %.1f frames/s\n", stored, bytes, encoderName(pipe.get()),
           coding.c_str(), seconds > 0 ? stored / seconds : 0.0);
    if (lost > 0) fail(std::to_string(lost) + " of " + std::to_string(frames) + " frames not stored");
    if (!problem.empty()) fail(problem + "; the " + std::to_string(stored) + " frames stored before it are kept");
    if (!written) return fail("cannot write " + options.output);
    if (stopSignal) {
        fail(std::string("stopped by ") + (stopSignal == SIGINT ? "SIGINT" : "SIGTERM") + ": " +
             std::to_string(stored) + " frames kept");
        return 128 + stopSignal;
    }
    return lost > 0 || !problem.empty() ? 1 : 0;
}
