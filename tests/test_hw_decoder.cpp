// Hardware decoding pipes through the C interface on the fake CUVID driver and the host device
// table, with x265 and x264 streams (some with a coded size larger than their display area)
// against ffmpeg's decode: every data format in order, the seek limit, retries, texts, capability
// refusals and cleanup when any driver call fails.
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>

#include "hw_pipes.h"
#include "support/fake_cuvid.h"
#include "support/host_device.h"

int runExtract(const std::vector<std::string>& args);  // tools/zoqrv/commands.h, whose File clashes with support.h

namespace {

using device::HostCall;
const Bytes kDelimiterOnly = {0, 0, 0, 1, 0x46, 0x01, 0x50};  // a record without a picture: an HEVC AUD

// On the HEVC 200 x 120 recording; fails on any breach of the CUVID contract, any driver object
// or device allocation left behind, and any device fault.
class Decoding : public OnHostDevice {
protected:
    Decoding() : driver_(fake.driverApi()), scopedDriver_(driver_) { device::hostDevice().deferKernels = true; }
    void TearDown() override {
        for (const std::string& breach : fake.faults) ADD_FAILURE() << breach;
        EXPECT_EQ(fake.liveObjects(), 0u) << "CUVID object left alive";
        OnHostDevice::TearDown();
    }
    Bytes luma(size_t i) const { return Bytes(reference[i].begin(), reference[i].begin() + stream.width * stream.height); }

    FakeCuvid& fake = (resetFakeCuvid(), fakeCuvid());
    const HevcStream stream = hevcStream(kHevc200.name, kHevc200.set);
    const std::vector<Bytes> payloads = stream.payloads(), reference = referenceNv12Frames(stream);

private:
    DriverApi driver_;
    ScopedDriverApi scopedDriver_;
};
class HwPipes : public Decoding, public testing::WithParamInterface<std::tuple<StreamCase, uint32_t>> {};

TEST_P(HwPipes, ReadInOrderAsTheCpuTwinUnpacksTheReference) {
    const auto [c, code] = GetParam();
    expectPipeReadsAsTheReference(hevcStream(c.name, c.set), c.codec, code);
}
INSTANTIATE_TEST_SUITE_P(Formats, HwPipes, kPipes);

// A sample is decoded up to three times, a record read up to four; of several pictures the last
// one is delivered.
TEST_F(Decoding, DecodingRetriesThriceAndSequentialReadingTriesFourRecords) {
    Pipe p = decoderPipe(kUint8, 1, 200, 120);
    Bytes out(200 * 120), two = payloads[0];
    two.insert(two.end(), payloads[1].begin(), payloads[1].end());
    EXPECT_EQ(ZOHW_Decode(p.get(), kDelimiterOnly.data(), kDelimiterOnly.size(), out.data()), 1u);
    EXPECT_EQ(fake.packetTimestamps, (std::vector<int64_t>{0, 1, 2})) << "three attempts, each a new timestamp";
    EXPECT_EQ(ZOHW_Decode(p.get(), two.data(), two.size(), out.data()), 0u);
    EXPECT_EQ(fake.packetTimestamps.back(), 3);
    EXPECT_TRUE(out == luma(1)) << "the later of the two pictures";
    // A device destination is written directly, and finished when the call returns.
    DeviceBuffer device(Bytes(out.size()));
    EXPECT_EQ(ZOHW_Decode(p.get(), payloads[2].data(), payloads[2].size(), device.get()), 0u);
    EXPECT_TRUE(Bytes(device.get(), device.get() + out.size()) == luma(2));
    // A decoder that holds pictures back (a stream that reorders) gets each sample once, and a picture
    // goes out only for its own sample.
    fake.heldPictures = 1;
    p = decoderPipe(kUint8, 1, 200, 120);
    fake.packetTimestamps.clear();
    for (size_t i = 0; i < 4; ++i)
        EXPECT_TRUE(ZOHW_Decode(p.get(), payloads[i].data(), payloads[i].size(), out.data()) || out == luma(i)) << i;
    EXPECT_EQ(fake.packetTimestamps, (std::vector<int64_t>{0, 1, 2, 3}));
    fake.heldPictures = 0;

    for (uint32_t empties : {3u, 4u}) {
        SCOPED_TRACE(std::to_string(empties) + " records without a picture");
        QrvBuilder b;
        uint32_t number = 0;
        for (uint32_t i = 0; i < empties; ++i) b.add(++number, 0, 1, kDelimiterOnly);
        for (size_t i = 0; i < 3; ++i) b.add(++number, 1000 * i, i ? 1 : 3, payloads[i]);
        TestFile file = openBytes(b.bytes());
        p = decoderPipe(kUint8, 1, 200, 120);
        ASSERT_EQ(ZOHW_CreateQRVTracker(p.get(), file.get()), 0u);
        DecodedFrame r = decodeNext(p.get(), file.get(), 200 * 120);
        if (empties == 4) {
            EXPECT_EQ(r.status, 1u);
            r = decodeNext(p.get(), file.get(), 200 * 120);
        }
        ASSERT_EQ(r.status, 0u);
        EXPECT_EQ(r.number, empties + 1);
        EXPECT_TRUE(r.data == luma(0));
        EXPECT_EQ(r.metadata[0] | r.metadata[1] << 8, int(empties * 64)) << "the metadata of the record that gave the frame";
    }
}
// A GPU without the codec or our kernels, a driver older than the runtime, a picture below the
// decoder's minimum and an unknown codec fall back to software decoding, saying why where the user
// can act; a picture larger than the GPU decodes fails the call with the decoder's text, one beyond
// its macroblock limit silently.
TEST_F(Decoding, RefusalsFallBackOrFailWithTheirTexts) {
    const struct { uint32_t codec, type; int runtime; bool noImage; unsigned minWidth, maxWidth, maxMBs; const char* printed; } kRows[] = {
        {2, kSoftware, 0, false, 48, 4096, 65536, ""}, {1, kSoftware, 0, false, 201, 4096, 65536, ""},
        {1, kSoftware, device::kInsufficientDriver, false, 48, 4096, 65536, "Failed to create decoder (CUDA driver version is "
         "insufficient for CUDA runtime version: the CUDA 13 runtime in this library needs NVIDIA driver 580.65.06"},
        {1, kSoftware, 0, true, 48, 4096, 65536, "Failed to create decoder (no kernel image is available for execution on "
         "the device: the kernels of this library need a GPU of compute capability 7.5 or newer)"},
        {1, kHardware, 0, false, 48, 199, 65536, "Max Supported (wxh) : 199x4096\nResolution not supported on this GPU at "},
        {1, kHardware, 0, false, 48, 4096, 10, ""}};
    for (const auto& r : kRows) {
        device::hostDevice().runtimeFailure = r.runtime, device::hostDevice().noKernelImage = r.noImage;
        fake.minWidth = r.minWidth, fake.maxWidth = r.maxWidth, fake.maxMBCount = r.maxMBs;
        testing::internal::CaptureStdout();
        Bytes out(200 * 120);
        Pipe p = decoderPipe(kUint8, r.codec, 200, 120);
        EXPECT_EQ(ZOHW_GetDecoderType(p.get()), r.type);
        EXPECT_EQ(ZOHW_Decode(p.get(), payloads[0].data(), payloads[0].size(), out.data()), 1u);
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(printed.find(r.printed) != std::string::npos && printed.empty() == !*r.printed) << printed;
    }
    fake.supported.clear();
    EXPECT_EQ(ZOHW_GetDecoderType(decoderPipe(kUint8, 1, 200, 120).get()), kSoftware);
}
// The host's contexts stay as they were: teardown frees in ours, and a push that fails is never
// followed by a pop. A staging buffer that cannot be allocated fails the call, not the GPU.
TEST_F(Decoding, TheHostsContextsAndAFailedStagingAllocation) {
    static int hostContext;
    const auto host = reinterpret_cast<CUcontext>(&hostContext);
    Bytes out(200 * 120);
    for (bool pushFails : {false, true}) {
        Pipe p = decoderPipe(kUint8, 1, 200, 120);
        device::hostDevice().failNext(HostCall::Allocate, 2);  // after the mapping's and the pool frame's
        EXPECT_EQ(ZOHW_Decode(p.get(), payloads[0].data(), payloads[0].size(), out.data()), 1u);
        EXPECT_EQ(ZOHW_Decode(p.get(), payloads[0].data(), payloads[0].size(), out.data()), 0u);
        EXPECT_TRUE(out == luma(0));
        device::api().setCurrentContext(host);
        if (pushFails) device::hostDevice().failNext(HostCall::PushContext);
        p.reset();
        CUcontext current = nullptr;
        EXPECT_EQ((device::api().getCurrentContext(&current), current), host);
        device::api().popContext();
    }
    // The staging buffer of the context that could not be pushed stays with that context.
    EXPECT_EQ(device::hostDevice().liveAllocations(), 1u);
    ASSERT_TRUE(device::hostDevice().faults.empty()) << device::hostDevice().faults.front();
    device::hostDevice().reset();
}
// What a host sees of a recording through a pipe: the tracker's status, every sample's time and metadata,
// a seek to each of the `records` samples with the read after it, and sequential reading from the first.
Bytes pipeView(ZoHwPipe* p, FILE* f, int32_t records) {
    Bytes view;
    const auto put = [&](const void* data, size_t bytes) {
        view.insert(view.end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + bytes);
    };
    const auto putFrame = [&](const DecodedFrame& d) {
        const uint64_t fields[] = {d.status, d.number, d.type, d.time};
        put(fields, sizeof fields), put(d.data.data(), d.data.size()), put(d.metadata, sizeof d.metadata);
    };
    const uint32_t tracker = ZOHW_CreateQRVTracker(p, f);
    put(&tracker, 4);
    for (int32_t s = 0; !tracker && s <= records; ++s) {
        uint64_t time = 0;
        uint8_t metadata[256] = {};
        const uint32_t statuses[] = {ZOHW_GetTimeStampForSample(p, f, s, &time), ZOHW_GetMetadataForSample(p, f, metadata, s)};
        put(statuses, sizeof statuses), put(&time, 8), put(metadata, 256);
    }
    for (int32_t s = records - 1; !tracker && s >= 0; --s) {
        const uint32_t status = ZOHW_SetHEVCPositionInFile(p, f, s);
        put(&status, 4);
        if (!status) putFrame(decodeNext(p, f, 200 * 120 * 2));
    }
    const bool atFirstRecord = !tracker && !ZOHW_SetHEVCPositionInFile(p, f, 0);
    for (int32_t i = 0; atFirstRecord && i <= records; ++i) putFrame(decodeNext(p, f, 200 * 120 * 2));
    return view;
}
// Cut in or right after each record, a recording reads through both pipes as the file closed after its complete records.
TEST_F(Decoding, CutRecordingsReadAsTheFileClosedAfterTheirCompleteRecords) {
    const Bytes whole = readFile(stream.qrvPath);
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(openBytes(whole).get(), tables));
    QrvBuilder recording(Bytes(whole.begin(), whole.begin() + long(tables.found.recordsEnd)));
    recording.index = tables.frameList;
    for (bool hardware : {true, false}) {
        if (!hardware) fake.supported.clear();
        for (size_t k = 0; k <= recording.index.size(); ++k) {
            const size_t end = k < recording.index.size() ? recording.recordOffset(k) : recording.records.size();
            const Bytes closed = recording.closedAfter(k);
            for (size_t cut : {end, std::min(end + 300, whole.size() - 1)}) {
                SCOPED_TRACE((hardware ? "hardware, " : "software, ") + std::to_string(k) + " records, cut at " + std::to_string(cut));
                Pipe p = decoderPipe(kUint8, 1, 200, 120);
                ASSERT_EQ(ZOHW_GetDecoderType(p.get()), hardware ? kHardware : kSoftware);
                const Bytes view = pipeView(p.get(), openBytes(Bytes(whole.begin(), whole.begin() + long(cut))).get(), int32_t(k));
                EXPECT_EQ(view.size() == 4, k == 0) << "refused only without a complete record";
                EXPECT_TRUE(k == 0 || view == pipeView(p.get(), openBytes(closed).get(), int32_t(k)));
            }
        }
    }
}
// A CUVID entry point failing at every call, or a device call failing once (at the second record),
// at any point of creation and decoding: no leak, no fault, no crash, and the line printed for the
// first failure of creation and of mapping. Failing destroy and unmap calls leave their object in
// the driver, and the status of cuvidDecodePicture is not examined, so those are not among them.
class HwFailures : public Decoding,
                   public testing::WithParamInterface<std::tuple<const char*, device::HostCall>> {};

TEST_P(HwFailures, LeaveNothingBehind) {
    const auto [entry, call] = GetParam();
    const std::map<std::string, std::string> texts = {
        {"cuvidCtxLockCreate", "Failed to create decoder (NvDecoder::NvDecoder : cuvidCtxLockCreate(&m_ctxLock, "
                               "cuContext) returned error 2 at "},
        {"cuvidMapVideoFrame64", "Decode failed (NvDecoder::HandlePictureDisplay : cuvidMapVideoFrame(m_hDecoder, "
                                 "pDispInfo->picture_index, &dpSrcFrame, &nSrcPitch, &videoProcessingParameters) "
                                 "returned error 2 at "}};
    if (*entry) fake.failing[entry] = CUresult(2);
    TestFile f(fopen(stream.qrvPath.c_str(), "rb"));
    testing::internal::CaptureStdout();
    Pipe p = decoderPipe(kUint8, 1, 200, 120);
    ZOHW_CreateQRVTracker(p.get(), f.get());
    ZOHW_SetHEVCPositionInFile(p.get(), f.get(), 0);
    std::vector<uint32_t> statuses;
    for (int i = 0; i < 4; ++i) {
        if (!*entry && i == 1) device::hostDevice().failNext(call);
        statuses.push_back(decodeNext(p.get(), f.get(), 200 * 120 * 2).status);  // software decoding gives YUYV
    }
    p.reset();
    const std::string printed = testing::internal::GetCapturedStdout();
    if (texts.count(entry)) { EXPECT_EQ(printed.rfind(texts.at(entry), 0), 0u) << printed; }
    if (!*entry) { EXPECT_EQ(statuses.front() + statuses.back(), 0u); }
}
const auto kCuvidEntries = testing::Values("cuvidCtxLockCreate", "cuvidCreateVideoParser", "cuvidParseVideoData",
                                           "cuvidGetDecoderCaps", "cuvidCreateDecoder", "cuvidMapVideoFrame64");
const auto kDeviceCalls = testing::Values(HostCall::PushContext, HostCall::PopContext, HostCall::Allocate,
                                          HostCall::DriverCopy2D, HostCall::StreamSynchronize, HostCall::Copy,
                                          HostCall::Launch);
INSTANTIATE_TEST_SUITE_P(Cuvid, HwFailures, testing::Combine(kCuvidEntries, testing::Values(HostCall::Count)));
INSTANTIATE_TEST_SUITE_P(Device, HwFailures, testing::Combine(testing::Values(""), kDeviceCalls));

TEST_F(Decoding, APipeWiderThanThePictureFailsTheCall) {
    // A pipe wider than the decoded picture would read outside the frame.
    Bytes out(216 * 120 * 2);
    for (const auto& [code, width] : {std::pair{kUint8, 216u}, std::pair{uint32_t(packing::kUint16), 108u}})
        EXPECT_EQ(ZOHW_Decode(decoderPipe(code, 1, width, 120).get(), payloads[0].data(), payloads[0].size(), out.data()),
                  1u);
}
// Data of format `code` carried by lossless H.264: libx264 -qp 0 (High 4:4:4 Predictive) on the NV12
// pictures the CPU twins pack, odd sizes padded by repeating the last row; wrapped by `zoqrv import`.
struct LosslessRecording {
    std::vector<Bytes> data;
    HevcStream stream;  // of the padded picture, with ffmpeg's decode
};
LosslessRecording losslessRecording(uint32_t code, uint32_t w, uint32_t h, uint32_t frames, uint32_t keyint) {
    const uint32_t W = packing::nv12Pitch(packing::pictureWidth(code, w)), H = h + (h & 1);
    const std::string dir = makeTestDirectory();
    LosslessRecording r{{}, {dir + "/lossless.qrv", dir + "/lossless.yuv", W, H, frames, keyint}};
    std::ofstream raw(dir + "/lossless.nv12", std::ios::binary);
    for (uint32_t i = 0; i < frames; ++i) {
        Bytes d = randomBytes(packing::packedSize(code, w, h), code * 100 + i), nv12(packing::nv12Bytes(W, h), 0);
        for (size_t k = 0; k < d.size(); ++k) d[k] = uint8_t(k / 5 + 9 * i) ^ (d[k] & 0x07);  // noise of 3 bits
        packing::packOnHost(code, d.data(), packing::tightPitch(code, w), nv12.data(), W, w, h);
        raw.write(reinterpret_cast<const char*>(nv12.data()), std::streamsize(W) * h);
        raw.write(reinterpret_cast<const char*>(nv12.data() + W * (h - 1)), (h & 1) * std::streamsize(W));
        raw.write(reinterpret_cast<const char*>(nv12.data() + W * h), std::streamsize(nv12.size() - W * h));
        r.data.push_back(d);
    }
    raw.close();
    const std::string ff = "ffmpeg -nostdin -loglevel error -y ", k = std::to_string(keyint);
    EXPECT_EQ(runCommand(ff + "-f rawvideo -pix_fmt nv12 -s " + std::to_string(W) + "x" + std::to_string(H) + " -i " + dir +
                         "/lossless.nv12 -c:v libx264 -preset ultrafast -qp 0 -bf 0 -sc_threshold 0 -g " + k +
                         " -keyint_min " + k + " -f h264 " + dir + "/lossless.h264 && " + ZOQRV_BINARY_DIR +
                         "/tools/zoqrv import " + dir + "/lossless.h264 " + r.stream.qrvPath + " --fps 25 --header 16 >/dev/null && " +
                         ff + "-i " + dir + "/lossless.h264 -pix_fmt yuv420p -f rawvideo " + r.stream.yuvPath), 0);
    return r;
}
// A lossless H.264 recording, which the fake CUVID decodes wrongly without a word (as a GPU might):
// a hardware pipe decodes it on the CPU into the caller's format, to host or device memory, and a
// software pipe as ffmpeg does; both give the data back bit for bit, in order across GOPs and after a
// seek into the second GOP.
struct LosslessCase {
    uint32_t code, w, h;
};
void PrintTo(const LosslessCase& c, std::ostream* out) { *out << "format" << c.code << "_" << c.w << "x" << c.h; }
class LosslessH264 : public Decoding, public testing::WithParamInterface<LosslessCase> {};

TEST_P(LosslessH264, RoundTripsBitForBit) {
    const auto [code, w, h] = GetParam();
    const LosslessRecording r = losslessRecording(code, w, h, 7, 3);
    const std::vector<Bytes> yuyv = r.stream.pictures();
    const uint32_t W = r.stream.width, bytes = packing::packedSize(code, w, h);
    Pipe first = decoderPipe(code, 0, w, h);  // makes the device's context current
    DeviceBuffer device(Bytes(bytes, 0));
    const Bytes payload = r.stream.payloads()[0];
    EXPECT_EQ(ZOHW_Decode(first.get(), payload.data(), payload.size(), device.get()), 0u);
    EXPECT_TRUE(device.download() == r.data[0]) << "to device memory";
    for (const uint32_t type : {kHardware, kSoftware}) {
        SCOPED_TRACE(type);
        fake.supported = type == kHardware ? fake.supported : std::set<cudaVideoCodec>{};
        // The software pipe writes YUYV of the whole picture, which carries the data in its luma.
        Pipe p = type == kHardware ? decoderPipe(code, 0, w, h) : decoderPipe(code, 0, W, r.stream.height);
        ASSERT_EQ(ZOHW_GetDecoderType(p.get()), type);
        TestFile f(fopen(r.stream.qrvPath.c_str(), "rb"));
        ASSERT_EQ(ZOHW_CreateQRVTracker(p.get(), f.get()) + ZOHW_SetHEVCPositionInFile(p.get(), f.get(), 0), 0u);
        // In order (the hardware reader never delivers the last record), then after a seek to sample 4.
        std::vector<uint32_t> order(type == kHardware ? 6 : 7);
        std::iota(order.begin(), order.end(), 0u);
        order.insert(order.end(), {4, 5});
        for (size_t n = 0; n < order.size(); ++n) {
            const uint32_t i = order[n];
            if (n + 2 == order.size()) { ASSERT_EQ(ZOHW_SetHEVCPositionInFile(p.get(), f.get(), 4), 0u); }
            const DecodedFrame d = decodeNext(p.get(), f.get(), type == kHardware ? bytes : yuyv[0].size());
            ASSERT_EQ(d.status, 0u) << "record " << i;
            EXPECT_EQ(d.number, i + 1);
            Bytes data = d.data;
            if (type == kSoftware) {
                EXPECT_TRUE(d.data == yuyv[i]) << "record " << i << " differs from ffmpeg's picture";
                packing::unpackYuyvOnHost(code, d.data.data(), W, data.data(), w, h);
                data.resize(bytes);
            }
            EXPECT_TRUE(data == r.data[i]) << "record " << i;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(EvenAndOddSizes, LosslessH264,
                         testing::Values(LosslessCase{2, 64, 48}, LosslessCase{2, 50, 29}, LosslessCase{3, 64, 48},
                                         LosslessCase{3, 49, 29}, LosslessCase{4, 32, 24}, LosslessCase{4, 37, 29},
                                         LosslessCase{5, 32, 32}, LosslessCase{5, 37, 29}));

// zoqrv extract writes the same lines and files from a hardware pipe (decoding with libavcodec
// here) as from a software one (libde265): every kind, pictures or raw data, all records (the
// last one included) or some, starting between two key frames.
class Extract : public Decoding, public testing::WithParamInterface<std::tuple<std::string, bool>> {};

TEST_P(Extract, HardwarePipesWriteWhatSoftwarePipesWrite) {
    const auto [options, some] = GetParam();
    const std::string dir = makeTestDirectory() + "/out";
    std::vector<std::string> args = {stream.qrvPath, "--out", dir};
    std::string word;
    for (std::istringstream words(options); words >> word;) args.push_back(word);
    if (some) args.insert(args.end(), {"--from", "3", "--count", "6"});
    const auto extract = [&](bool hardware) {
        fake.supported = hardware ? std::set{cudaVideoCodec_HEVC} : std::set<cudaVideoCodec>{};
        std::filesystem::remove_all(dir);
        testing::internal::CaptureStdout();
        EXPECT_EQ(runExtract(args), 0) << (hardware ? "hardware" : "software");
        const std::string printed = testing::internal::GetCapturedStdout();
        std::map<std::string, Bytes> written = {{"stdout", Bytes(printed.begin(), printed.end())}};
        for (const auto& entry : std::filesystem::directory_iterator(dir)) written[entry.path().string()] = readFile(entry.path());
        return written;
    };
    const auto software = extract(false);
    EXPECT_EQ(software.size(), (some ? 6 : stream.frames) + 1u);
    EXPECT_TRUE(extract(true) == software);
    for (const auto& [path, data] : software)  // --raw: frame_N.bin is the CPU twin's unpacking of ffmpeg's picture N
        EXPECT_TRUE(options.find("--raw") == std::string::npos || path == "stdout" ||
                    data == unpackedByTheCpuTwin(4, reference.at(std::stoul(path.substr(path.size() - 10)) - 1), 200, 100, 120)) << path;
    std::filesystem::remove_all(std::filesystem::path(dir).parent_path());
}
const auto kOptions = testing::Values("", "--as bgra", "--as uyvy", "--as u4", "--as u8", "--as u16", "--as u32", "--as u16 --raw");
INSTANTIATE_TEST_SUITE_P(Kinds, Extract, testing::Combine(kOptions, testing::Bool()));

}  // namespace
