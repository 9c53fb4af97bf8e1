// The zoqrv tool run as a user runs it, on streams from real encoders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "container/qrv_file.h"
#include "support/qrv_builder.h"
#include "support/test_streams.h"

namespace {

const std::string kTool = ZOQRV_BINARY_DIR "/tools/zoqrv";

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

ToolRun zoqrv(const std::string& directory, const std::string& arguments) {
    ToolRun run;
    const std::string errPath = directory + "/stderr.txt";
    run.status = runCommand("'" + kTool + "' " + arguments + " 2>'" + errPath + "'", &run.out);
    const std::vector<uint8_t> err = readFileBytes(errPath);
    run.err.assign(err.begin(), err.end());
    return run;
}

size_t lineCount(const std::string& text) { return size_t(std::count(text.begin(), text.end(), '\n')); }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

int probedFrames(const std::string& path) {
    std::string out;
    if (runCommand("ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 '" +
                       path + "'", &out) != 0)
        return -1;
    return std::stoi(out);
}

class ToolRoundTrip : public ::testing::TestWithParam<AnnexBCodec> {};

}  // namespace

TEST_P(ToolRoundTrip, ImportInfoExport) {
    const AnnexBCodec codec = GetParam();
    const std::string dir = makeTestDirectory();
    const std::string stream = dir + "/in.bin";
    if (!encodeTestStream(codec, 24, 8, 0, stream)) GTEST_SKIP() << "ffmpeg cannot encode here";
    const std::string qrv = dir + "/file.qrv";

    ToolRun run = zoqrv(dir, "import '" + stream + "' '" + qrv + "' --fps 25 --header 77");
    ASSERT_EQ(run.status, 0) << run.err;

    // The file itself, through the library's reader.
    QrvTestFile file(fopen(qrv.c_str(), "rb"));
    ASSERT_TRUE(file);
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), tables));
    const int frames = probedFrames(stream);
    ASSERT_EQ(tables.sampleCount, frames < 0 ? 24 : frames);
    ASSERT_EQ(tables.frameList.size(), size_t(tables.sampleCount));
    EXPECT_EQ(tables.frameList[0].recordOffset, 77u);
    for (size_t i = 0; i < tables.frameList.size(); ++i) {
        EXPECT_EQ(tables.frameList[i].frameType == kKeyFrameType, i % 8 == 0) << i;
        EXPECT_EQ(tables.recordHeads[i].frameNumber, i + 1);
        EXPECT_EQ(tables.recordHeads[i].captureTime, i * 40000);  // microseconds at 25 fps
        EXPECT_EQ(tables.sampleInfos[i].sampleTime, i * 40);
        uint32_t word5;
        memcpy(&word5, tables.sampleInfos[i].metadata + 20, 4);
        EXPECT_EQ(word5, i * 64 + 5);
    }

    run = zoqrv(dir, "info '" + qrv + "'");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "frames: 24\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "records: 24\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "key frames: 3\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "capture times: 0 to 920000")) << run.out;
    EXPECT_TRUE(contains(run.out, std::string("codec: ") + annexBCodecName(codec) + "\n")) << run.out;

    run = zoqrv(dir, "info '" + qrv + "' --records --metadata 2");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "record 8: frame 9 time 320000 type 3 payload ")) << run.out;
    EXPECT_TRUE(contains(run.out, "offset 77\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "sample 2: sample time 80\n128 129 130 131 132 133 134 135\n")) << run.out;

    const std::string exported = dir + "/out.bin";
    run = zoqrv(dir, "export '" + qrv + "' '" + exported + "'");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFileBytes(exported), readFileBytes(stream));
}

INSTANTIATE_TEST_SUITE_P(Codecs, ToolRoundTrip, ::testing::Values(AnnexBCodec::Hevc, AnnexBCodec::H264));

TEST(Tool, RejectsFilesThatAreNotWhatTheCommandReads) {
    const std::string dir = makeTestDirectory();
    const std::string text = dir + "/text.txt";
    FILE* f = fopen(text.c_str(), "wb");
    ASSERT_TRUE(f);
    fputs("this is neither an elementary stream nor a recording\n", f);
    fclose(f);
    for (const std::string& arguments :
         {"import '" + text + "' '" + dir + "/x.qrv'", "info '" + text + "'", "export '" + text + "' '" + dir + "/x.bin'",
          "info '" + dir + "/missing.qrv'"}) {
        const ToolRun run = zoqrv(dir, arguments);
        EXPECT_EQ(run.status, 1) << arguments;
        EXPECT_EQ(lineCount(run.err), 1u) << run.err;
        EXPECT_TRUE(run.out.empty()) << arguments;
    }
}

TEST(Tool, DamagedRecordingFailsExport) {
    const std::string dir = makeTestDirectory();
    QrvBuilder builder;
    builder.addRecord(1, 0, kKeyFrameType, {0, 0, 1, 0x40, 0x01});
    builder.addRecord(2, 0, 1, std::vector<uint8_t>(100, 7));
    builder.setPayloadBytesField(1, 0xFFFFFFF0u);
    const std::vector<uint8_t> bytes = builder.bytes();
    const std::string qrv = dir + "/damaged.qrv";
    FILE* f = fopen(qrv.c_str(), "wb");
    ASSERT_TRUE(f);
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    const ToolRun run = zoqrv(dir, "export '" + qrv + "' '" + dir + "/out.bin'");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lineCount(run.err), 1u) << run.err;
}

TEST(Tool, UsageErrors) {
    const std::string dir = makeTestDirectory();
    for (const char* arguments : {"", "frobnicate", "info", "import only-one", "export a", "import a b --fps 0",
                                  "info a --bogus"}) {
        const ToolRun run = zoqrv(dir, arguments);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_TRUE(contains(run.err, "usage: zoqrv")) << arguments;
    }
}
