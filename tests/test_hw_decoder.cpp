// Hardware decoding pipes through the C interface, on the fake CUVID driver and the host device
// table: x265 and x264 recordings read in order and by seeking, each data format compared with
// the CPU twins' unpacking of ffmpeg's decode; the retry loops, the texts on standard output,
// and cleanup when any driver call fails.
#include <gmock/gmock.h>

#include <memory>

#include "kernels/packing.h"
#include "support/decoding.h"
#include "support/qrv_builder.h"
#include "zo_qrv64.h"

namespace {

using testing::HasSubstr;
constexpr uint32_t kHardware = 1, kSoftware = 2, kUint8 = 3;

struct StreamCase {
    const char* set;
    const char* name;
    uint32_t codec;
};

class HwDecoding : public Decoding {
protected:
    void load(const StreamCase& c) { loadStream(c.set, c.name); }
    Pipe pipe(uint32_t code, uint32_t codec, uint32_t w, uint32_t h) {
        return Pipe(ZOHW_CreateDecoder(code, codec, w, h, 0), &ZOHW_Destroy);
    }
    Frame next(ZoHwPipe* p, FILE* f, size_t bytes) { return decodeRecord(p, f, bytes); }
    Bytes luma(size_t i) const { return Bytes(reference[i].begin(), reference[i].begin() + stream.width * stream.height); }
    // The parameter sets that lead the first access unit, without its picture.
    Bytes parameterSetsOnly() const {
        const Bytes& au = payloads[0];
        for (size_t i = 0; i + 4 < au.size(); ++i)
            if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1 && ((au[i + 3] >> 1) & 0x3F) < 32)
                return Bytes(au.begin(), au.begin() + long(i));
        return {};
    }
};

class HwPipes : public HwDecoding, public testing::WithParamInterface<std::tuple<StreamCase, uint32_t>> {};

TEST_P(HwPipes, ReadInOrderAndBySeekingAsTheCpuTwinUnpacksTheReference) {
    const auto [c, code] = GetParam();
    load(c);
    if (IsSkipped()) return;
    expectPipeReadsAsTheReference(stream, c.codec, code, kHardware);
}

INSTANTIATE_TEST_SUITE_P(Formats, HwPipes,
                         testing::Combine(testing::Values(StreamCase{"tests", "gop5_200x120", 1},
                                                          StreamCase{"tests", "gop4_198x118", 1},
                                                          StreamCase{"h264", "h264_gop5_200x120", 0},
                                                          StreamCase{"h264", "h264_gop4_198x118", 0}),
                                          testing::Values(0u, 1u, 2u, 3u, 4u, 5u)));

const StreamCase kHevc200 = {"tests", "gop5_200x120", 1};

TEST_F(HwDecoding, DecodeRetriesThriceAndKeepsTheLastOfSeveralPictures) {
    load(kHevc200);
    if (IsSkipped()) return;
    Pipe p = pipe(kUint8, 1, 200, 120);
    Bytes out(200 * 120);
    const Bytes noPicture = parameterSetsOnly();
    EXPECT_EQ(ZOHW_Decode(p.get(), noPicture.data(), noPicture.size(), out.data()), 1u);
    EXPECT_EQ(fake.packetTimestamps, (std::vector<int64_t>{0, 1, 2})) << "three attempts, each a new timestamp";
    const Bytes two = joined(payloads[0], payloads[1]);
    EXPECT_EQ(ZOHW_Decode(p.get(), two.data(), two.size(), out.data()), 0u);
    EXPECT_EQ(fake.packetTimestamps.back(), 3);
    EXPECT_TRUE(out == luma(1)) << "the later of the two pictures";

    // A device destination is written directly.
    DeviceBuffer device(out.size());
    EXPECT_EQ(ZOHW_Decode(p.get(), payloads[2].data(), payloads[2].size(), device.get()), 0u);
    EXPECT_TRUE(device.download() == luma(2));
}

TEST_F(HwDecoding, SequentialReadingTriesFourRecords) {
    load(kHevc200);
    if (IsSkipped()) return;
    for (uint32_t empties : {3u, 4u}) {
        SCOPED_TRACE(std::to_string(empties) + " records without a picture");
        QrvBuilder b;
        uint32_t number = 0;
        for (uint32_t i = 0; i < empties; ++i) b.addRecord(++number, 0, 1, parameterSetsOnly());
        for (size_t i = 0; i < 3; ++i) b.addRecord(++number, 1000 * i, i ? 1 : 3, payloads[i]);
        QrvTestFile file = qrvOpenBytes(b.bytes());
        Pipe p = pipe(kUint8, 1, 200, 120);
        ASSERT_EQ(ZOHW_CreateQRVTracker(p.get(), file.get()), 0u);
        Frame r = next(p.get(), file.get(), 200 * 120);
        if (empties == 4) {
            EXPECT_EQ(r.status, 1u);
            r = next(p.get(), file.get(), 200 * 120);
        }
        ASSERT_EQ(r.status, 0u);
        EXPECT_EQ(r.number, empties + 1);
        EXPECT_TRUE(r.data == luma(0));
        uint32_t firstWord = 0;
        std::memcpy(&firstWord, r.metadata.data(), 4);
        EXPECT_EQ(firstWord, empties * 64) << "the metadata of the record that gave the frame";
    }
}

// What creation or decoding refuses, and the line each prints.
struct RefusalCase {
    const char* name;
    void (*before)(FakeCuvid&);  // before creation
    void (*after)(FakeCuvid&);   // after creation
    uint32_t codec;
    uint32_t type;
    const char* printed;  // start of standard output
};
void none(FakeCuvid&) {}
class HwRefusals : public HwDecoding, public testing::WithParamInterface<RefusalCase> {};

TEST_P(HwRefusals, FallBackOrFailWithTheirTexts) {
    load(kHevc200);
    if (IsSkipped()) return;
    const RefusalCase& c = GetParam();
    c.before(fake);
    testing::internal::CaptureStdout();
    Pipe p = pipe(kUint8, c.codec, 200, 120);
    ASSERT_TRUE(p);
    EXPECT_EQ(ZOHW_GetDecoderType(p.get()), c.type);
    c.after(fake);
    Bytes out(200 * 120);
    if (c.type == kHardware) {
        EXPECT_EQ(ZOHW_Decode(p.get(), payloads[0].data(), payloads[0].size(), out.data()), 1u);
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind(c.printed, 0), 0u) << printed;
    if (*c.printed) {
        EXPECT_EQ(printed.find(c.printed, 1), std::string::npos) << "printed once";
    }
    p.reset();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HwRefusals,
    testing::Values(
        RefusalCase{"NoHevcOnThisGpu", [](FakeCuvid& f) { f.supported.clear(); }, none, 1, kSoftware, ""},
        RefusalCase{"CodecTwo", none, none, 2, kSoftware, ""},
        RefusalCase{"ContextLock", [](FakeCuvid& f) { f.failing["cuvidCtxLockCreate"] = CUresult(2); }, none, 1,
                    kSoftware,
                    "Failed to create decoder (NvDecoder::NvDecoder : cuvidCtxLockCreate(&m_ctxLock, cuContext) "
                    "returned error 2 at "},
        RefusalCase{"Parser", [](FakeCuvid& f) { f.failing["cuvidCreateVideoParser"] = CUresult(2); }, none, 1,
                    kSoftware,
                    "Failed to create decoder (NvDecoder::NvDecoder : cuvidCreateVideoParser(&m_hParser, "
                    "&videoParserParameters) returned error 2 at "},
        RefusalCase{"SequenceCodec", none, [](FakeCuvid& f) { f.supported.clear(); }, 1, kHardware,
                    "Decode failed (NvDecoder::HandleVideoSequence : Codec not supported on this GPU at "},
        RefusalCase{"SequenceResolution", none, [](FakeCuvid& f) { f.maxWidth = 199; }, 1, kHardware,
                    "Decode failed (NvDecoder::HandleVideoSequence : \nResolution          : 200x120\n"
                    "Max Supported (wxh) : 199x4096\nResolution not supported on this GPU at "},
        RefusalCase{"Map", none, [](FakeCuvid& f) { f.failing["cuvidMapVideoFrame64"] = CUresult(999); }, 1,
                    kHardware,
                    "Decode failed (NvDecoder::HandlePictureDisplay : cuvidMapVideoFrame(m_hDecoder, "
                    "pDispInfo->picture_index, &dpSrcFrame, &nSrcPitch, &videoProcessingParameters) returned error "
                    "999 at "},
        RefusalCase{"MacroblocksSilently", none, [](FakeCuvid& f) { f.maxMBCount = 1; }, 1, kHardware, ""}),
    [](const auto& info) { return std::string(info.param.name); });

// A failing driver call at any point of creation and decoding: no leak, no fault, no crash.
// Failing destroy and unmap calls leave their object in the driver, and the status of
// cuvidDecodePicture is not examined, so those are not among them.
class HwFailures : public HwDecoding, public testing::WithParamInterface<std::string> {};

TEST_P(HwFailures, LeaveNothingBehind) {
    load(kHevc200);
    if (IsSkipped()) return;
    static const std::map<std::string, device::HostCall> hostCalls = {
        {"PushContext", device::HostCall::PushContext}, {"PopContext", device::HostCall::PopContext},
        {"Allocate", device::HostCall::Allocate},       {"DriverCopy2D", device::HostCall::DriverCopy2D},
        {"StreamSynchronize", device::HostCall::StreamSynchronize}, {"Copy", device::HostCall::Copy},
        {"Launch", device::HostCall::Launch}};
    File f(fopen(stream.qrvPath.c_str(), "rb"), &fclose);
    testing::internal::CaptureStdout();
    auto host = hostCalls.find(GetParam());
    if (host == hostCalls.end()) fake.failing[GetParam()] = CUresult(2);
    Pipe p = pipe(kUint8, 1, 200, 120);
    ZOHW_CreateQRVTracker(p.get(), f.get());
    for (int i = 0; i < 4; ++i) {
        if (host != hostCalls.end() && i == 1) device::hostDevice().failNext(host->second);
        next(p.get(), f.get(), 200 * 120);
    }
    p.reset();
    testing::internal::GetCapturedStdout();
}

INSTANTIATE_TEST_SUITE_P(Calls, HwFailures,
                         testing::Values("cuvidCtxLockCreate", "cuvidCreateVideoParser", "cuvidParseVideoData",
                                         "cuvidGetDecoderCaps", "cuvidCreateDecoder", "cuvidMapVideoFrame64", "PushContext", "PopContext", "Allocate",
                                         "DriverCopy2D", "StreamSynchronize", "Copy", "Launch"));

TEST_F(HwDecoding, UntrustedFilesAndSizesFailTheCall) {
    load(kHevc200);
    if (IsSkipped()) return;
    // A pipe wider than the decoded picture would read outside the frame.
    Bytes out(216 * 120 * 2);
    Pipe wide = pipe(kUint8, 1, 216, 120);
    EXPECT_EQ(ZOHW_Decode(wide.get(), payloads[0].data(), payloads[0].size(), out.data()), 1u);
    Pipe wide16 = pipe(packing::kUint16, 1, 108, 120);
    EXPECT_EQ(ZOHW_Decode(wide16.get(), payloads[0].data(), payloads[0].size(), out.data()), 1u);

    // Without an index no record is accepted.
    QrvBuilder b;
    b.addRecord(1, 0, 3, payloads[0]);
    b.addRecord(2, 0, 1, payloads[1]);
    b.setTrailer(0);
    QrvTestFile file = qrvOpenBytes(b.bytes());
    Pipe p = pipe(kUint8, 1, 200, 120);
    EXPECT_EQ(ZOHW_CreateQRVTracker(p.get(), file.get()), 1u);
    rewind(file.get());
    EXPECT_EQ(next(p.get(), file.get(), 200 * 120).status, 1u);
    EXPECT_EQ(ftell(file.get()), 0) << "nothing was consumed";
}

}  // namespace
