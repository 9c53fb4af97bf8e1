// Real HEVC test streams: made by scripts/make-test-data.sh with x265, wrapped into QRV files
// by `zoqrv import`, with ffmpeg's decode of each as the reference picture source.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct HevcStream {
    std::string name;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t frames = 0;
    uint32_t keyint = 0;  // an IDR frame every keyint frames, from frame 0
    std::string hevcPath;
    std::string qrvPath;
    std::string yuvPath;  // ffmpeg's decode, raw YUV 4:2:0
};

// The streams of `set` ("tests" or "bench"), made into the build tree the first time and
// again when the script or zoqrv changed. Empty, with `whyMissing` set, when x265 or ffmpeg
// is not installed; a failing script throws.
std::vector<HevcStream> hevcStreams(const std::string& set, std::string& whyMissing);
const HevcStream& hevcStream(const std::vector<HevcStream>& streams, const std::string& name);

// Packed YUYV 4:2:2 (2 * w bytes a row) from tightly packed YUV 4:2:0 planes of w x h:
// out[r * 2w + 2x] = Y(r, x), out[... + 1] = Cb(r / 2, x / 2) for even x, Cr for odd x.
std::vector<uint8_t> yuv420ToYuyv(const uint8_t* yuv, uint32_t w, uint32_t h);
// The reference pictures of `stream`, one per frame: tightly packed YUV 4:2:0, and as YUYV.
std::vector<std::vector<uint8_t>> referenceYuv420Frames(const HevcStream& stream);
std::vector<std::vector<uint8_t>> referenceYuyvFrames(const HevcStream& stream);

// The payloads of the records of a QRV file, in index order (one access unit each).
std::vector<std::vector<uint8_t>> qrvPayloads(const std::string& qrvPath);

// Skips the test when the tools that make the streams are not installed.
#define HEVC_STREAMS_OR_SKIP(var, set)                  \
    std::string var##WhyMissing;                        \
    const auto var = hevcStreams(set, var##WhyMissing); \
    if (var.empty()) GTEST_SKIP() << var##WhyMissing
