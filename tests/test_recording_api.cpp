// The recording API: the C host's round trip on a hardware reader over the fake CUVID (the C host
// itself reads in software through the shared library), its failures as statuses, and unclosed,
// cut and damaged recordings read through it.
#include <fstream>
#include <thread>

#include "kernels/packing.h"

#include "support.h"
#include "support/fake_cuvid.h"
#include "support/host_device.h"
#include "zoqrv.h"

extern "C" int writeAndReadThroughTheApi(const char* path, uint32_t decoder);  // c_recording_host.c

namespace {

constexpr uint32_t kWidth = 64, kHeight = 32, kFrames = 9;  // GOPs of 3 at 6 frames a second, lossless

Bytes frameBytes(uint32_t i) { return randomBytes(kWidth * kHeight, 7 + i); }

struct RecordingApi : OnHostDevice {
    RecordingApi() { setenv("ZOQRV_ENCODER", "software", 1); }
    ~RecordingApi() override { unsetenv("ZOQRV_ENCODER"); }
    // A lossless u8 recording of kFrames frames; the file's bytes after each stored frame in `grown`.
    Bytes record(std::vector<size_t>* grown = nullptr) {
        zoqrv_writer_options o;
        zoqrv_writer_options_init(&o, ZOQRV_KIND_U8, kWidth, kHeight, 6);
        o.codec = ZOQRV_CODEC_HEVC;
        zoqrv_writer* w = nullptr;
        EXPECT_EQ(zoqrv_writer_open(path.c_str(), &o, &w), ZOQRV_OK) << zoqrv_last_error();
        for (uint32_t i = 0; w && i < kFrames; ++i) {
            EXPECT_EQ(zoqrv_writer_write(w, frameBytes(i).data(), kWidth, 1000 * i, &i, 1), ZOQRV_OK);
            if (grown) grown->push_back(readFile(path).size());
        }
        EXPECT_EQ(zoqrv_writer_close(w), ZOQRV_OK);
        return readFile(path);
    }
    // Reads every frame in order: statuses, and the frames that came back equal to what was written.
    std::pair<std::vector<zoqrv_status>, size_t> readAll(const Bytes& file) {
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), long(file.size()));
        zoqrv_reader* r = nullptr;
        std::vector<zoqrv_status> statuses;
        size_t exact = 0;
        if (zoqrv_reader_open(path.c_str(), nullptr, &r) != ZOQRV_OK) return {{}, 0};
        Bytes frame(kWidth * kHeight);
        zoqrv_frame_info info;
        for (zoqrv_status s; (s = zoqrv_reader_read_next(r, frame.data(), kWidth, &info)) != ZOQRV_END;) {
            exact += s == ZOQRV_OK && frame == frameBytes(uint32_t(info.index)) && info.timestamp == 1000 * info.index &&
                     info.metadata[0] == info.index;
            statuses.push_back(s);
        }
        zoqrv_reader_close(r);
        return {statuses, exact};
    }
    const std::string path = makeTestDirectory() + "/r.qrv";
};

TEST_F(RecordingApi, TheCHostReadsEveryFrameExactlyOnTheFakeNvdecAsInSoftware) {
    resetFakeCuvid();
    DriverApi driver = fakeCuvid().driverApi();
    ScopedDriverApi scoped(driver);
    EXPECT_EQ(writeAndReadThroughTheApi(path.c_str(), ZOQRV_DECODER_HARDWARE), 0);
    for (const std::string& breach : fakeCuvid().faults) ADD_FAILURE() << breach;
    EXPECT_GT(fakeCuvid().packetTimestamps.size(), 12u) << "the frames went through NVDEC";
}

TEST_F(RecordingApi, FailuresAreStatusesWithTexts) {
    zoqrv_writer_options o;
    zoqrv_writer_options_init(&o, ZOQRV_KIND_U8, kWidth, kHeight, 6);
    zoqrv_writer* w = nullptr;
    zoqrv_reader* r = nullptr;
    std::ofstream(path) << "not a recording, but long enough to be scanned for one";
    using Outcome = std::pair<zoqrv_status, std::string>;  // the status and zoqrv_last_error()
    struct Case { const char* what; Outcome outcome; zoqrv_status expected; const char* text; };
    const auto open = [&](zoqrv_writer_options changed, const std::string& at) {
        const zoqrv_status s = zoqrv_writer_open(at.c_str(), &changed, &w);
        if (s == ZOQRV_OK) zoqrv_writer_close(w);
        return Outcome{s, zoqrv_last_error()};
    };
    const auto read = [&](const std::string& at) {
        return Outcome{zoqrv_reader_open(at.c_str(), nullptr, &r), zoqrv_last_error()};
    };
    const Case cases[] = {
        {"an existing file", open(o, path), ZOQRV_ERROR_EXISTS, "File exists"},
        {"a missing folder", open(o, path.substr(0, path.rfind('/')) + "/missing/y.qrv"), ZOQRV_ERROR_NOT_FOUND, ""},
        {"kind 6", open({6, kWidth, kHeight, 6, 1, 1, 0, 0, 1, 1000}, path), ZOQRV_ERROR_ARGUMENT, "kind"},
        {"no height", open({3, kWidth, 0, 6, 1, 1, 0, 0, 1, 1000}, path), ZOQRV_ERROR_ARGUMENT, "size"},
        {"odd 4-bit rows", open({2, 63, kHeight, 6, 1, 1, 0, 0, 1, 1000}, path), ZOQRV_ERROR_ARGUMENT, "even width"},
        {"no frame rate", open({3, kWidth, kHeight, 0, 1, 1, 0, 0, 1, 1000}, path), ZOQRV_ERROR_ARGUMENT, "frame rate"},
        {"codec 2", open({3, kWidth, kHeight, 6, 2, 1, 0, 0, 1, 1000}, path), ZOQRV_ERROR_ARGUMENT, "codec"},
        {"reading a missing file", read(path + "x"), ZOQRV_ERROR_NOT_FOUND, "No such file"},
        {"reading a text", read(path), ZOQRV_ERROR_FORMAT, "not a recording"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.outcome.first, c.expected) << c.what;
        EXPECT_NE(c.outcome.second.find(c.text), std::string::npos) << c.what << ": " << c.outcome.second;
    }
    o.overwrite = 1;
    ASSERT_EQ(zoqrv_writer_open(path.c_str(), &o, &w), ZOQRV_OK) << zoqrv_last_error();
    const uint32_t words[65] = {};
    EXPECT_EQ(zoqrv_writer_write(w, frameBytes(0).data(), kWidth, 0, words, 65), ZOQRV_ERROR_ARGUMENT);
    EXPECT_EQ(zoqrv_writer_write(w, frameBytes(0).data(), kWidth - 1, 0, words, 0), ZOQRV_ERROR_ARGUMENT);
    EXPECT_NE(std::string(zoqrv_writer_error(w)).find("pitch"), std::string::npos);
    zoqrv_writer_info info;
    EXPECT_EQ(zoqrv_writer_get_info(w, &info), ZOQRV_OK);
    EXPECT_EQ(std::string(info.encoder) + "/" + std::to_string(info.codec), "libx264/0");
    EXPECT_EQ(zoqrv_writer_close(w), ZOQRV_OK);
}

// A recording cut anywhere reads as its complete frames; a damaged record fails with its GOP,
// the others still read.
TEST_F(RecordingApi, CutAndDamagedRecordingsGiveBackEveryCompleteUndamagedFrame) {
    std::vector<size_t> grown;
    const Bytes whole = record(&grown);
    EXPECT_EQ(readAll(whole).second, kFrames);
    for (size_t k = 1; k < kFrames; ++k)
        for (size_t cut : {grown[k - 1], grown[k] - 1}) {
            const auto [statuses, exact] = readAll(Bytes(whole.begin(), whole.begin() + long(cut)));
            EXPECT_EQ(statuses.size(), k) << "cut at " << cut;
            EXPECT_EQ(exact, k) << "cut at " << cut;
        }
    Bytes damaged = whole;
    damaged[grown[3] + 40] ^= 1;  // the payload of frame 4, in the second GOP (frames 3 to 5)
    const auto [statuses, exact] = readAll(damaged);
    const std::vector<zoqrv_status> expected = {ZOQRV_OK, ZOQRV_OK, ZOQRV_OK, ZOQRV_OK, ZOQRV_ERROR_DAMAGED,
                                                ZOQRV_ERROR_DAMAGED, ZOQRV_OK, ZOQRV_OK, ZOQRV_OK};
    EXPECT_EQ(statuses, expected);
    EXPECT_EQ(exact, kFrames - 2);
}

// A recording of a version 1 header ("ZQRH", six words: microseconds) reads by the scan after it.
TEST_F(RecordingApi, VersionOneRecordingsReadWithTheirHeader) {
    Bytes old = record();
    old[3] = 'H';
    old.erase(old.begin() + 24, old.begin() + 28);
    EXPECT_EQ(readAll(old).second, kFrames);
    zoqrv_reader* r = nullptr;
    ASSERT_EQ(zoqrv_reader_open(path.c_str(), nullptr, &r), ZOQRV_OK);
    zoqrv_recording_info info;
    zoqrv_reader_get_info(r, &info);
    zoqrv_reader_close(r);
    EXPECT_TRUE(info.has_header && !info.closed && info.time_unit_ns == 1000 && info.width == kWidth && info.kind == ZOQRV_KIND_U8);
}

// Writers and readers of distinct recordings in distinct threads at once, both software codecs,
// each thread's recording exact: the codecs' shared libraries and tables take concurrent users.
TEST_F(RecordingApi, DistinctObjectsWorkInDistinctThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<int> exact(4, -1);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const std::string at = path + std::to_string(t);
            zoqrv_writer_options o;
            zoqrv_writer_options_init(&o, ZOQRV_KIND_U8, kWidth, kHeight, 6);
            o.codec = t % 2;
            zoqrv_writer* w = nullptr;
            zoqrv_reader* r = nullptr;
            if (zoqrv_writer_open(at.c_str(), &o, &w) != ZOQRV_OK) return;
            for (uint32_t i = 0; i < kFrames; ++i) zoqrv_writer_write(w, frameBytes(i + t).data(), kWidth, i, nullptr, 0);
            if (zoqrv_writer_close(w) != ZOQRV_OK || zoqrv_reader_open(at.c_str(), nullptr, &r) != ZOQRV_OK) return;
            Bytes frame(kWidth * kHeight);
            exact[t] = 0;
            while (zoqrv_reader_read_next(r, frame.data(), kWidth, nullptr) == ZOQRV_OK)
                exact[t] += frame == frameBytes(uint32_t(exact[t]) + t);
            zoqrv_reader_close(r);
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(exact, std::vector<int>(4, int(kFrames)));
}

// Every kind, lossy colour included, gives the same bytes on the fake NVDEC as in software, frames
// read in any order; lossless kinds give back what was written.
struct Kinds : RecordingApi, testing::WithParamInterface<std::pair<uint32_t, uint32_t>> {};
TEST_P(Kinds, HardwareAndSoftwareReadersGiveTheSameBytes) {
    const auto [kind, width] = GetParam();
    zoqrv_writer_options o;
    zoqrv_writer_options_init(&o, kind, width, kHeight, 6);
    zoqrv_writer* w = nullptr;
    ASSERT_EQ(zoqrv_writer_open(path.c_str(), &o, &w), ZOQRV_OK) << zoqrv_last_error();
    const uint32_t row = packing::tightPitch(kind, width);
    for (uint32_t i = 0; i < 7; ++i) EXPECT_EQ(zoqrv_writer_write(w, randomBytes(row * kHeight, i).data(), row, i, nullptr, 0), ZOQRV_OK);
    EXPECT_EQ(zoqrv_writer_close(w), ZOQRV_OK);
    resetFakeCuvid();
    DriverApi driver = fakeCuvid().driverApi();
    ScopedDriverApi scoped(driver);
    std::vector<Bytes> frames[2];
    for (uint32_t decoder : {ZOQRV_DECODER_SOFTWARE, ZOQRV_DECODER_HARDWARE}) {
        zoqrv_reader_options options;
        zoqrv_reader_options_init(&options);
        options.decoder = decoder;
        zoqrv_reader* r = nullptr;
        ASSERT_EQ(zoqrv_reader_open(path.c_str(), &options, &r), ZOQRV_OK) << zoqrv_last_error();
        Bytes out(row * kHeight);
        for (uint64_t i : {0, 1, 2, 3, 4, 5, 6, 5, 1, 6, 4, 3}) {
            EXPECT_EQ(zoqrv_reader_read(r, i, out.data(), row, nullptr), ZOQRV_OK) << zoqrv_reader_error(r);
            frames[decoder - 1].push_back(out);
        }
        zoqrv_reader_close(r);
    }
    ASSERT_TRUE(frames[0].size() == 12 && frames[0] == frames[1]);
    EXPECT_EQ(frames[0][5] == randomBytes(row * kHeight, 5) && frames[0][8] == randomBytes(row * kHeight, 1),
              kind >= ZOQRV_KIND_U4);
    for (const std::string& breach : fakeCuvid().faults) ADD_FAILURE() << breach;
}
INSTANTIATE_TEST_SUITE_P(AllKinds, Kinds,
                         testing::Values(std::pair{ZOQRV_KIND_BGRA, 64u}, std::pair{ZOQRV_KIND_UYVY, 64u}, std::pair{ZOQRV_KIND_U4, 98u},
                                         std::pair{ZOQRV_KIND_U16, 40u}, std::pair{ZOQRV_KIND_U32, 24u}));

}  // namespace
