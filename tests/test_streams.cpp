// Annex-B streams from real encoders: codec detection and access-unit splitting against ffprobe, and
// the zoqrv tool run as a user runs it.
#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include <sstream>

#include "container/annexb.h"
#include "support.h"

namespace {
// `frames` 320x240 pictures encoded by ffmpeg's libx265 or libx264: an IDR picture every `keyint`
// (closed GOPs), `bframes` B-frames. False when ffmpeg cannot.
bool encode(AnnexBCodec codec, int frames, int keyint, int bframes, const std::string& path) {
    const std::string k = std::to_string(keyint), b = std::to_string(bframes);
    const std::string encoder = codec == AnnexBCodec::Hevc
                                    ? "-c:v libx265 -x265-params keyint=" + k + ":min-keyint=" + k + ":bframes=" + b +
                                          ":open-gop=0:scenecut=0:repeat-headers=1:log-level=error -f hevc"
                                    : "-c:v libx264 -g " + k + " -keyint_min " + k + " -sc_threshold 0 -bf " + b + " -f h264";
    return runCommand("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=30 -frames:v " +
                      std::to_string(frames) + " " + encoder + " '" + path + "' 2>/dev/null") == 0;
}

struct ToolRun { int status; std::string out, err; };

ToolRun zoqrv(const std::string& dir, const std::string& arguments) {
    ToolRun run;
    run.status = runCommand("'" ZOQRV_BINARY_DIR "/tools/zoqrv' " + arguments + " 2>'" + dir + "/err'", &run.out);
    const Bytes err = readFile(dir + "/err");
    run.err.assign(err.begin(), err.end());
    return run;
}

class RealStreams : public ::testing::TestWithParam<std::pair<AnnexBCodec, int>> {};
}  // namespace

// One access unit per picture, back to back over the stream, where ffprobe's parsers split it (give or take
// the zero_byte of a four-byte start code, which they may leave with the previous packet). `zoqrv import`
// makes a record of each (numbered from 1, capture times in microseconds from the frame rate, type 3 on IDR
// access units, numbered metadata); info reports the file; export gives the stream back.
TEST_P(RealStreams, SplitImportInfoExport) {
    const auto [codec, bframes] = GetParam();
    const std::string dir = makeTestDirectory(), stream = dir + "/in.bin", qrv = dir + "/file.qrv";
    if (!encode(codec, 24, 8, bframes, stream)) GTEST_SKIP() << "ffmpeg cannot encode here";
    const Bytes bytes = readFile(stream);
    ASSERT_EQ(annexBDetectCodec(bytes.data(), bytes.size()), codec);
    const std::vector<AccessUnit> units = annexBSplitAccessUnits(bytes.data(), bytes.size(), codec);
    std::string sizes;
    ASSERT_EQ(runCommand("ffprobe -v error -show_entries packet=size -of csv=p=0 '" + stream + "'", &sizes), 0);
    std::istringstream probed(sizes);
    size_t next = 0, probedStart = 0;
    ASSERT_EQ(units.size(), 24u);
    for (size_t i = 0, size = 0; i < units.size(); ++i, probedStart += size, next += units[i - 1].bytes) {
        EXPECT_EQ(std::make_pair(units[i].offset, units[i].idr), std::make_pair(next, i % 8 == 0)) << i;
        EXPECT_TRUE(probedStart == next || (probedStart == next + 1 && bytes[next] == 0)) << i << ": " << probedStart;
        probed >> size;
    }
    EXPECT_EQ(next, bytes.size());
    ToolRun run = zoqrv(dir, "import '" + stream + "' '" + qrv + "' --fps 25 --header 77");
    ASSERT_EQ(run.status, 0) << run.err;
    TestFile file(fopen(qrv.c_str(), "rb"));
    QrvSoftwareIndex tables;
    ASSERT_TRUE(file && qrvReadSoftwareIndex(file.get(), tables));
    ASSERT_EQ(tables.sampleCount, 24);
    for (size_t i = 0; i < 24; ++i) {
        const QrvRecordHead& head = tables.recordHeads[i];
        const QrvSampleInfo info = testSampleInfo(i * 40000, uint32_t(i));
        EXPECT_EQ(std::make_tuple(tables.frameList[i].recordOffset, head.frameNumber, head.captureTime, head.frameType),
                  std::make_tuple(77 + units[i].offset + i * (20 + 264), uint32_t(i + 1), uint64_t(i * 40000),
                                  units[i].idr ? kKeyFrameType : 0u)) << i;
        EXPECT_EQ(memcmp(&tables.sampleInfos[i], &info, sizeof info), 0) << i;
    }
    run = zoqrv(dir, "info '" + qrv + "' --records --metadata 2");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string codecLine = "codec: " + std::string(annexBCodecName(codec)) + "\n";
    for (const char* line : {"frames: 24\n", "records: 24\n", "key frames: 3\n", "capture times: 0 to 920000", codecLine.c_str(),
                             "record 8: frame 9 time 320000 type 3 payload ", "offset 77\n",
                             "sample 2: sample time 80\n128 129 130 131 132 133 134 135\n"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << " in\n" << run.out;
    run = zoqrv(dir, "export '" + qrv + "' '" + dir + "/out.bin'");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(dir + "/out.bin"), bytes);
}

INSTANTIATE_TEST_SUITE_P(Encoders, RealStreams,
                         ::testing::Values(std::pair{AnnexBCodec::Hevc, 0}, std::pair{AnnexBCodec::Hevc, 2},
                                           std::pair{AnnexBCodec::H264, 0}, std::pair{AnnexBCodec::H264, 2}));

TEST(AnnexB, DetectionNeedsValidHeadersOfOneCodecAndAllItsParameterSets) {
    const std::pair<Bytes, AnnexBCodec> cases[] = {
        {{'h', 'e', 'l', 'l', 'o'}, AnnexBCodec::Unknown}, {{}, AnnexBCodec::Unknown},
        {{0, 0, 0, 1, 0x41, 0x9A, 0x00, 0x10}, AnnexBCodec::Unknown},  // a slice alone proves neither codec
        {{0, 0, 1, 0x40, 1, 0xAA, 0, 0, 1, 0x42, 1, 0xBB, 0, 0, 1, 0x44, 1, 0xCC}, AnnexBCodec::Hevc},
        {{0, 0, 1, 0x40, 1, 0xAA, 0, 0, 1, 0x42, 1, 0xBB}, AnnexBCodec::Unknown},  // no PPS
        {{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE}, AnnexBCodec::H264},
        {{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x80}, AnnexBCodec::Unknown}};  // forbidden bit set
    for (const auto& [bytes, codec] : cases) EXPECT_EQ(annexBDetectCodec(bytes.data(), bytes.size()), codec) << bytes.size();
}

// Bad inputs fail with one line on stderr that says why (status 1), wrong arguments give the usage (2);
// record replaces no existing file without --force, and its input (here through a hard link) never.
TEST(Tool, RejectsBadInputsAndArguments) {
    const std::string dir = makeTestDirectory(), text = dir + "/text.txt", damaged = dir + "/damaged.qrv";
    const std::string record = "record --kind u8 --size 8x8 --fps 5 ";
    QrvBuilder builder;
    builder.add(1, 0, kKeyFrameType, {0, 0, 1, 0x40, 0x01});
    builder.add(2, 0, 1, Bytes(100, 7));
    Bytes bytes = builder.bytes();
    putLittleEndian(bytes, builder.recordOffset(1) + 16, 0xFFFFFFF0u, 4);  // a payload past the end
    for (const auto& [path, contents] : {std::pair{text, Bytes(50, 'x')}, {damaged, bytes}})
        fwrite(contents.data(), 1, contents.size(), TestFile(fopen(path.c_str(), "wb")).get());
    ASSERT_EQ(link(text.c_str(), (dir + "/link").c_str()), 0);
    const struct { std::string arguments; int status; const char* says = ""; } cases[] = {
        {"import '" + text + "' '" + dir + "/x.qrv'", 1}, {"info '" + dir + "/none'", 1},
        {"export '" + damaged + "' '" + dir + "/x.bin'", 1}, {"", 2}, {"import only-one", 2}, {"import a b --fps 0", 2},
        {"info a --bogus", 2}, {record + "'" + text + "' '" + damaged + "'", 1, "exists: give --force"},
        {record + "--force '" + dir + "/link' '" + text + "'", 1, "is the input"},
        {record + "--force '" + text + "' < '" + dir + "/link'", 1, "is the input (standard input)"},
        {record + "--lossless --bitrate 9 x.qrv", 2}, {record + "--sync-every -1 x.qrv", 2}};
    for (const auto& c : cases) {
        const ToolRun run = zoqrv(dir, c.arguments);
        EXPECT_EQ(std::make_tuple(run.status, run.out), std::make_tuple(c.status, std::string())) << c.arguments;
        EXPECT_TRUE(c.status != 1 || (run.err.rfind("zoqrv: ", 0) == 0 && run.err.find('\n') + 1 == run.err.size())) << run.err;
        EXPECT_NE(run.err.find(c.status == 1 ? c.says : "usage: zoqrv"), std::string::npos) << run.err;
    }
    EXPECT_EQ(std::make_pair(readFile(text), readFile(damaged)), std::make_pair(Bytes(50, 'x'), bytes));
}

// u16 fed through a pipe left open after the last frame (closed where no signal comes): every frame comes
// back bit for bit (zoqrv extract, ffmpeg), lossless unasked, and the status tells how recording ended.
TEST(Tool, RecordKeepsEveryFrameWhenStopped) {
    const std::string dir = makeTestDirectory(), qrv = dir + "/r.qrv";
    const Bytes noise = randomBytes(320 * 240 * 4, 3);  // 4 frames
    Bytes raw;
    for (size_t i = 0; i < noise.size(); ++i)
        putLittleEndian(raw, 2 * i, (i % 320 * 5 + i / 320 * 3) * 16 + (noise[i] & 15), 2);  // moves 3 a frame
    const struct { const char* options; int signal, status; } cases[] = {
        {"", 0, 0}, {"--sync-every 0", SIGINT, 130}, {"", SIGTERM, 143}};
    for (const auto& c : cases) {
        std::filesystem::remove_all(dir + "/png"), std::filesystem::remove(qrv);
        FILE* feed = popen(("echo $$ >'" + dir + "/pid'; exec '" ZOQRV_BINARY_DIR "/tools/zoqrv' record --kind u16 "
                            "--size 320x240 --fps 30 " + c.options + " '" + qrv + "' >/dev/null 2>'" + dir + "/err'").c_str(), "w");
        ASSERT_TRUE(feed && fwrite(raw.data(), 1, raw.size(), feed) == raw.size() && fflush(feed) == 0);
        for (int queued = 1; c.signal && ioctl(fileno(feed), FIONREAD, &queued) == 0 && queued > 0;) usleep(10000);
        const Bytes pid = readFile(dir + "/pid");
        if (c.signal) kill(pid_t(std::stol(std::string(pid.begin(), pid.end()))), c.signal);
        const int status = pclose(feed);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, c.status) << c.options;
        ASSERT_EQ(zoqrv(dir, "extract '" + qrv + "' --out '" + dir + "/png'").status, 0);
        ASSERT_EQ(runCommand("ffmpeg -nostdin -v error -y -i '" + dir + "/png/frame_%06d.png' -f rawvideo -pix_fmt gray16le '" +
                             dir + "/back.raw'"), 0);
        EXPECT_TRUE(readFile(dir + "/back.raw") == raw) << c.options << c.signal;
    }
}

// Frames past a file size limit are reported by number and the library's text, and counted; the status tells.
TEST(Tool, RecordReportsFramesNotStored) {
    std::string err;
    const int status = runCommand("head -c 9216 /dev/zero | prlimit --fsize=100 '" ZOQRV_BINARY_DIR "/tools/zoqrv' record "
                                  "--kind u8 --size 64x48 --fps 5 '" + makeTestDirectory() + "/r.qrv' 2>&1 >/dev/null", &err);
    for (const char* text : {"frame 0 not stored: ", "frame 2 not stored: ", "File too large\n", "3 of 3 frames not stored\n"})
        EXPECT_NE(err.find(text), std::string::npos) << text << " in\n" << err;
    EXPECT_EQ(status, 1);
}
