// Software decoding speed: frames per second through ZOHW_DecodeFrameAndMetadata on a
// software pipe, against the decoder library alone on the same access units: for HEVC libde265
// decoding them as one continuous stream (push all, flush, decode), which is as fast as libde265
// goes; for H.264 libavcodec with the pipe's settings (one thread, low delay), a packet each.
// libavcodec also decodes the HEVC streams, for comparison with libde265.
//
// Data: scripts/make-test-data.sh DIR build/tools/zoqrv bench and bench_sw_encoder with
// ZOQRV_BENCH_DATA=DIR, then run with ZOQRV_BENCH_DATA=DIR (default: bench-data in the working
// directory).
#include <benchmark/benchmark.h>
#include <libde265/de265.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "container/qrv_file.h"
#include "zo_qrv64.h"

namespace {

struct BenchStream {
    const char* name;
    uint32_t width;
    uint32_t height;
    uint32_t codec;  // 0 H.264, 1 HEVC
};
constexpr BenchStream kStreams[] = {{"bench_640x480", 640, 480, 1},
                                    {"bench_1920x1080", 1920, 1080, 1},
                                    {"h264_bench_640x480", 640, 480, 0},
                                    {"h264_bench_1920x1080", 1920, 1080, 0},
                                    {"h264_lossless_bench_640x480", 640, 480, 0},
                                    // bench_sw_encoder's recordings through the library's own
                                    // libx264: 16-bit depth (a 1280-wide picture) lossless, colour CBR.
                                    {"recorded_depth_640x480_x264", 1280, 480, 0},
                                    {"recorded_colour_1920x1080_x264", 1920, 1080, 0}};

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File openStream(const BenchStream& s, benchmark::State& state) {
    const char* dir = std::getenv("ZOQRV_BENCH_DATA");
    const std::string path = std::string(dir && *dir ? dir : "bench-data") + "/" + s.name + ".qrv";
    File file(fopen(path.c_str(), "rb"), &fclose);
    if (!file) state.SkipWithError((path + " missing: run scripts/make-test-data.sh DIR ZOQRV bench").c_str());
    return file;
}

void pipeDecode(benchmark::State& state, BenchStream s) {
    File file = openStream(s, state);
    if (!file) return;
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe(ZOHW_CreateDecoder(1, s.codec, s.width, s.height, 0),
                                                       &ZOHW_Destroy);
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != 2 || ZOHW_CreateQRVTracker(pipe.get(), file.get()) != 0 ||
        ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0) != 0) {
        state.SkipWithError("no software pipe on the stream");
        return;
    }
    std::vector<uint8_t> frame(size_t(s.width) * s.height * 2);
    uint8_t metadata[256];
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t captureTime = 0;
    int64_t frames = 0;
    for (auto _ : state) {
        if (ZOHW_DecodeFrameAndMetadata(pipe.get(), file.get(), frame.data(), &frameNumber, &captureTime,
                                        &frameType, metadata) != 0) {
            // Past the last record: start again from the first, which is a key frame.
            state.PauseTiming();
            ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0);
            state.ResumeTiming();
            continue;
        }
        ++frames;
    }
    state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}

// The access units of the stream's records; none when it cannot be read.
std::vector<std::vector<uint8_t>> accessUnits(const BenchStream& s, benchmark::State& state) {
    File file = openStream(s, state);
    if (!file) return {};
    QrvSoftwareIndex tables;
    std::vector<std::vector<uint8_t>> units;
    if (qrvReadSoftwareIndex(file.get(), tables))
        for (const QrvIndexEntry& entry : tables.frameList) {
            QrvRecordHead head;
            uint32_t bytes = 0;
            units.emplace_back();
            if (!qrvReadRecordAt(file.get(), entry.recordOffset, head, bytes, &units.back())) units.clear();
        }
    if (units.empty()) state.SkipWithError("unreadable stream");
    return units;
}

void continuousDecode(benchmark::State& state, BenchStream s) {
    const std::vector<std::vector<uint8_t>> units = accessUnits(s, state);
    if (units.empty()) return;
    std::unique_ptr<de265_decoder_context, de265_error (*)(de265_decoder_context*)> decoder(
        de265_new_decoder(), &de265_free_decoder);
    de265_start_worker_threads(decoder.get(), 4);
    int64_t frames = 0;
    for (auto _ : state) {
        for (const auto& unit : units)
            de265_push_data(decoder.get(), unit.data(), int(unit.size()), 0, nullptr);
        de265_flush_data(decoder.get());
        for (int more = 1; more;) {
            de265_decode(decoder.get(), &more);
            while (de265_get_next_picture(decoder.get())) ++frames;
        }
    }
    state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}

void libavcodecDecode(benchmark::State& state, BenchStream s) {
    std::vector<std::vector<uint8_t>> units = accessUnits(s, state);
    if (units.empty()) return;
    for (auto& unit : units) unit.resize(unit.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    const AVCodec* codec = avcodec_find_decoder(s.codec == 0 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    context->thread_count = 1;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    if (avcodec_open2(context, codec, nullptr) < 0) state.SkipWithError("libavcodec does not open");
    int64_t frames = 0;
    for (auto _ : state) {
        for (auto& unit : units) {
            packet->data = unit.data();
            packet->size = int(unit.size() - AV_INPUT_BUFFER_PADDING_SIZE);
            avcodec_send_packet(context, packet);
            for (; avcodec_receive_frame(context, frame) == 0; av_frame_unref(frame)) ++frames;
        }
    }
    state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
}

// libde265 decodes on its worker threads, so wall-clock time is what counts.
const bool registered = [] {
    for (const BenchStream& s : kStreams) {
        benchmark::RegisterBenchmark((std::string("PipeDecode/") + s.name).c_str(), pipeDecode, s)->UseRealTime();
        if (s.codec == 1)
            benchmark::RegisterBenchmark((std::string("Libde265Continuous/") + s.name).c_str(), continuousDecode, s)
                ->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Libavcodec/") + s.name).c_str(), libavcodecDecode, s)
            ->UseRealTime();
    }
    return true;
}();

}  // namespace
