// zoqrv record: encodes raw frames of caller data from a file or standard input into a QRV file
// through the recording API (zoqrv.h). Without a choice of its own in ZOQRV_ENCODER it records
// with NVENC where it can and with the codec's software encoder elsewhere.
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

#include "commands.h"
#include "kernels/packing.h"
#include "recording/recording_header.h"
#include "zoqrv.h"

namespace {

const char kUsage[] =
    "record --kind bgra|uyvy|u4|u8|u16|u32 --size WxH --fps N [--lossless | --lossy | --bitrate B]\n"
    "                    [--codec h264|hevc] [--sync-every SECONDS] [--force] OUT.qrv [IN]\n"
    "  --codec: HEVC where NVENC records, else lossless-friendly H.264 (libx264), unless named.\n"
    "  u4, u8, u16 and u32 are coded lossless unless --lossy or --bitrate asks otherwise;\n"
    "  bgra and uyvy at 8000000 bit/s (CBR) unless --lossless or --bitrate.\n"
    "  --sync-every: fdatasync the file every SECONDS (0: after every frame).\n"
    "  --force: replace an existing OUT.qrv (never the input). SIGINT/SIGTERM end the recording\n"
    "  with its index written (exit status 130/143); status 1 when a frame was not stored.";
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
    int32_t codec = ZOQRV_CODEC_DEFAULT;
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
        } else if (args[i] == "--codec" && hasValue) {
            const std::string name = args[++i];
            if (name != "h264" && name != "hevc") return false;
            options.codec = name == "h264" ? ZOQRV_CODEC_H264 : ZOQRV_CODEC_HEVC;
        } else if (args[i] == "--force") {
            options.force = true;
        } else if (args[i].rfind("--", 0) != 0) {
            paths.push_back(args[i]);
        } else {
            return false;
        }
    }
    if (!kind || !size || !fps || paths.empty() || paths.size() > 2) return false;
    options.output = paths[0];
    options.input = paths.size() == 2 ? paths[1] : "-";
    return true;
}

bool isLossless(const Options& options) {
    if (options.coding != Coding::KindDefault) return options.coding == Coding::Lossless;
    return options.header.kind != packing::kColour32 && options.header.kind != packing::kUyvy;
}

// The recording must not replace its own input: compared by device and inode, so that no name of
// it (a link, "./", standard input redirected from it) is truncated. The writer itself refuses an
// existing OUT without --force.
std::string inputAsOutput(const Options& options, int inputFd) {
    struct stat input {}, existing {};
    if (stat(options.output.c_str(), &existing) != 0 || fstat(inputFd, &input) != 0 ||
        input.st_dev != existing.st_dev || input.st_ino != existing.st_ino)
        return {};
    return options.output + " is the input (" + (options.input == "-" ? "standard input" : options.input) +
           "): a recording never replaces what it records";
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

struct WriterCloser {
    void operator()(zoqrv_writer* writer) const { zoqrv_writer_close(writer); }
};

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
    if (const std::string refusal = inputAsOutput(options, inputFd); !refusal.empty()) return fail(refusal);
    const sigset_t waiting = catchStopSignals();
    signal(SIGXFSZ, SIG_IGN);  // a file size limit fails the frames that pass it, not the recording

    const bool lossless = isLossless(options);
    zoqrv_writer_options writerOptions;
    zoqrv_writer_options_init(&writerOptions, header.kind, header.width, header.height, header.frameRate);
    writerOptions.codec = options.codec;
    writerOptions.lossless = lossless ? 1 : 0;
    writerOptions.bitrate = lossless ? 0 : options.bitrate;
    writerOptions.overwrite = options.force ? 1 : 0;
    zoqrv_writer* opened = nullptr;
    const zoqrv_status status = zoqrv_writer_open(options.output.c_str(), &writerOptions, &opened);
    if (status == ZOQRV_ERROR_EXISTS)
        return fail(options.output + " exists: give --force to replace it (the output comes first: OUT.qrv [IN])");
    if (status != ZOQRV_OK) return fail(zoqrv_last_error());
    std::unique_ptr<zoqrv_writer, WriterCloser> writer(opened);
    zoqrv_writer_info info;
    zoqrv_writer_get_info(writer.get(), &info);
    const std::string coding = lossless ? "lossless" : std::to_string(options.bitrate) + " bit/s";
    const std::string encoder = std::string(info.encoder) + (info.codec == ZOQRV_CODEC_H264 ? " H.264" : " HEVC");
    fprintf(stderr, "zoqrv: recording %s %ux%u at %u frames/s, %s, encoder %s\n", kindName(header.kind),
            header.width, header.height, header.frameRate, coding.c_str(), encoder.c_str());

    std::vector<uint8_t> frame(frameBytes);
    uint32_t metadata[kMetadataWords] = {};
    const bool terminal = isatty(fileno(stderr));
    uint32_t frames = 0, stored = 0;
    std::string problem;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto synced = start;
    const auto sync = [&] {
        if (zoqrv_writer_sync(writer.get()) != ZOQRV_OK) fail(zoqrv_writer_error(writer.get()));
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
        if (zoqrv_writer_write(writer.get(), frame.data(), packing::tightPitch(header.kind, header.width), captureTime,
                               metadata, ZOQRV_METADATA_WORDS) != ZOQRV_OK) {
            fail("frame " + std::to_string(frames) + " not stored: " + zoqrv_writer_error(writer.get()));
            continue;
        }
        ++stored;
        if (options.syncEvery >= 0 && std::chrono::duration<double>(Clock::now() - synced).count() >= options.syncEvery)
            sync();
        if (terminal && stored % 10 == 0) fprintf(stderr, "\rframe %u", stored);
    }
    if (terminal) fprintf(stderr, "\r\033[K");
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    // Every frame recorded so far stays in a valid file, whatever ended the input.
    if (options.syncEvery >= 0) sync();
    const bool written = zoqrv_writer_close(writer.release()) == ZOQRV_OK;
    if (!written) fail(zoqrv_last_error());
    struct stat recorded {};
    const uint64_t bytes = stat(options.output.c_str(), &recorded) == 0 ? uint64_t(recorded.st_size) : 0;
    const uint32_t lost = frames - stored;
    printf("%u frames, %" PRIu64 " bytes, encoder %s, %s, %.1f frames/s\n", stored, bytes, encoder.c_str(),
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
