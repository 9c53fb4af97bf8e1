// zoqrv record: encodes raw frames of caller data through the C interface into a QRV file, as
// a recording host does, and reports the encoding frame rate.
#include <chrono>
#include <cstdlib>
#include <vector>

#include "commands.h"
#include "kernels/packing.h"
#include "zo_qrv64.h"

namespace {

const char kUsage[] = "record RAW FILE KIND WIDTH HEIGHT [--lossy BITRATE]";

}  // namespace

int runRecord(const Arguments& args) {
    if (args.size() != 5 && !(args.size() == 7 && args[5] == "--lossy")) return usage(kUsage);
    const uint32_t kind = std::strtoul(args[2].c_str(), nullptr, 10);
    const uint32_t width = std::strtoul(args[3].c_str(), nullptr, 10);
    const uint32_t height = std::strtoul(args[4].c_str(), nullptr, 10);
    const uint64_t bitrate = args.size() == 7 ? std::strtoull(args[6].c_str(), nullptr, 10) : 0;
    const uint32_t frameBytes = packing::packedSize(kind, width, height);
    if (frameBytes == 0) return usage(kUsage);
    File raw = openFile(args[0], "rb");
    File out = openFile(args[1], "wb");
    if (!raw || !out) return fail("cannot open " + (raw ? args[1] : args[0]));
    ZoHwPipe* pipe = ZOHW_CreateEncoder(kind, 1, bitrate ? 0 : 1, width, height, bitrate ? bitrate : 1000000, 30);
    if (!pipe) return fail(ZOHW_GetError(nullptr));
    std::vector<uint8_t> frame(frameBytes);
    const uint32_t metadata[64] = {};
    uint32_t frames = 0;
    uint64_t size = 0;
    double seconds = 0;
    while (fread(frame.data(), 1, frame.size(), raw.get()) == frame.size()) {
        const auto start = std::chrono::steady_clock::now();
        const uint32_t failed = ZOHW_Encode_And_Store(pipe, out.get(), &size, frame.data(),
                                                      packing::tightPitch(kind, width), frames * 33333ull, metadata, 64);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (failed) {
            ZOHW_Destroy(pipe);
            return fail("frame " + std::to_string(frames) + " failed to encode");
        }
        ++frames;
    }
    ZOHW_CloseQRVContainer(pipe, out.get());
    ZOHW_Destroy(pipe);
    printf("%u frames, %.1f frames/s\n", frames, seconds > 0 ? frames / seconds : 0.0);
    return 0;
}
