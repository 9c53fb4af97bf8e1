// The exported calls' argument checks and error texts, as a host application sees them.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "api/pipe.h"
#include "support/temp_file.h"
#include "zo_qrv64.h"

namespace {

// Encoder creation needs NVENC; these pipes are assembled by hand around codec
// objects that exist but are not ready, which is what the argument checks look at.
std::unique_ptr<ZoHwPipe> encodingPipe() {
    auto pipe = std::make_unique<ZoHwPipe>();
    pipe->encoder = std::make_unique<HwEncoder>(3, 1, 0, 1000000, 64, 48, 30);
    pipe->width = 64;
    pipe->height = 48;
    return pipe;
}

// A decoding pipe whose decoders can do nothing: hardware not ready, no software one.
std::unique_ptr<ZoHwPipe> idleDecodingPipe() {
    auto pipe = std::make_unique<ZoHwPipe>();
    pipe->hwDecoder = std::make_unique<HwDecoder>(3, 1, 64, 48);
    pipe->width = 64;
    pipe->height = 48;
    return pipe;
}

struct DecodeOutputs {
    uint8_t frame[64 * 48 * 4] = {};
    uint32_t frameNumber = 0;
    uint64_t captureTime = 0;
    uint32_t frameType = 0;
    uint8_t metadata[256] = {};
};

uint32_t decodeFrame(ZoHwPipe* pipe, FILE* stream, DecodeOutputs& out) {
    return ZOHW_DecodeFrameAndMetadata(pipe, stream, out.frame, &out.frameNumber,
                                       &out.captureTime, &out.frameType, out.metadata);
}

std::string libraryText() { return ZOHW_GetError(nullptr); }

// Each call fails and leaves `text` in the pipe's slot, which is cleared in between.
void expectEachFailsWith(ZoHwPipe& pipe, const std::vector<std::function<uint32_t()>>& calls,
                         const std::string& text) {
    for (size_t i = 0; i < calls.size(); ++i) {
        pipe.error.clear();
        EXPECT_EQ(calls[i](), 1u) << "call " << i;
        EXPECT_EQ(pipe.error, text) << "call " << i;
    }
}

}  // namespace

TEST(NullPipe, EveryInstanceCallFailsWithTheLibraryWideText) {
    const std::string text = "Invalid ZoHwPipe instance NULL";
    uint64_t size = 0, timestamp = 5;
    uint8_t buffer[256];
    DecodeOutputs out;
    TempFile file;
    FILE* stream = file.open("w+b");
    ASSERT_NE(stream, nullptr);

    const auto expectFailure = [&](uint32_t result, const char* call) {
        EXPECT_EQ(result, 1u) << call;
        EXPECT_EQ(libraryText(), text) << call;
        setLibraryError("");
    };
    expectFailure(ZOHW_Encode(nullptr, &size, buffer, 64, buffer), "Encode");
    expectFailure(ZOHW_Encode_And_Store(nullptr, stream, &size, buffer, 64, 1, nullptr, 0),
                  "Encode_And_Store");
    expectFailure(ZOHW_Decode(nullptr, buffer, sizeof buffer, buffer), "Decode");
    expectFailure(decodeFrame(nullptr, stream, out), "DecodeFrameAndMetadata");
    expectFailure(ZOHW_StartDecoding(nullptr, buffer), "StartDecoding");
    expectFailure(ZOHW_GetMetadataForSample(nullptr, stream, buffer, 1), "GetMetadataForSample");
    expectFailure(ZOHW_GetTimeStampForSample(nullptr, stream, 1, &timestamp),
                  "GetTimeStampForSample");
    EXPECT_EQ(timestamp, 0u) << "the timestamp is cleared before any check";
    expectFailure(ZOHW_GetTimeStampForSample(nullptr, stream, 1, nullptr), "GetTimeStampForSample");
    expectFailure(ZOHW_SetHEVCPositionInFile(nullptr, stream, 0), "SetHEVCPositionInFile");
    expectFailure(ZOHW_CreateQRVContainer(nullptr, stream, buffer, 4), "CreateQRVContainer");
    expectFailure(ZOHW_CloseQRVContainer(nullptr, stream), "CloseQRVContainer");
    expectFailure(ZOHW_CreateQRVTracker(nullptr, stream), "CreateQRVTracker");

    EXPECT_EQ(ZOHW_GetDecoderType(nullptr), 0u);
    EXPECT_EQ(libraryText(), text);
    ZOHW_Destroy(nullptr);
    std::fclose(stream);
    EXPECT_TRUE(file.read().empty()) << "nothing was written through a null pipe";
}

// Calls failing on several threads at once leave a whole text behind, never a torn or freed one.
TEST(NullPipe, ParallelFailuresLeaveAWholeText) {
    const std::string nullInstance = "Invalid ZoHwPipe instance NULL";
    const std::string noEncoder = "unsupported hardware or codec for encoding";
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                if (t % 2) EXPECT_EQ(ZOHW_GetDecoderType(nullptr), 0u);
                else EXPECT_EQ(ZOHW_CreateEncoder(3, 1, 0, 64, 48, 1000000, 30), nullptr);
                const std::string text = ZOHW_GetError(nullptr);
                EXPECT_TRUE(text == nullInstance || text == noEncoder) << text;
            }
        });
    for (std::thread& thread : threads) thread.join();
}

TEST(Creation, EncoderCreationFailsQuietlyWithoutNvenc) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZOHW_CreateEncoder(3, 1, 0, 640, 480, 4000000, 30), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(libraryText(), "unsupported hardware or codec for encoding");
}

TEST(PipeRoles, DecoderCallsOnAnEncodingPipeFail) {
    auto pipe = encodingPipe();
    TempFile file;
    FILE* stream = file.open("w+b");
    uint8_t buffer[256];
    uint64_t timestamp = 9;
    DecodeOutputs out;
    const std::string text = "Invalid ZoHwPipe decoder.";

    EXPECT_EQ(ZOHW_GetDecoderType(pipe.get()), 0u);
    EXPECT_EQ(ZOHW_GetError(pipe.get()), text);
    pipe->error.clear();
    const std::vector<std::function<uint32_t()>> calls = {
        [&] { return decodeFrame(pipe.get(), stream, out); },
        [&] { return ZOHW_Decode(pipe.get(), buffer, 4, buffer); },
        [&] { return ZOHW_StartDecoding(pipe.get(), buffer); },
        [&] { return ZOHW_CreateQRVTracker(pipe.get(), stream); },
        [&] { return ZOHW_SetHEVCPositionInFile(pipe.get(), stream, 0); },
        [&] { return ZOHW_GetMetadataForSample(pipe.get(), stream, buffer, 1); },
        [&] { return ZOHW_GetTimeStampForSample(pipe.get(), stream, 1, &timestamp); }};
    expectEachFailsWith(*pipe, calls, text);
    EXPECT_EQ(timestamp, 0u);
    std::fclose(stream);
}

TEST(PipeRoles, EncoderCallsOnADecodingPipeFail) {
    auto pipe = idleDecodingPipe();
    TempFile file;
    FILE* stream = file.open("w+b");
    uint8_t buffer[256] = {};
    uint64_t size = 77;
    const std::string text = "Invalid ZoHwPipe encoder.";
    const std::vector<std::function<uint32_t()>> calls = {
        [&] { return ZOHW_Encode(pipe.get(), &size, buffer, 64, buffer); },
        [&] { return ZOHW_Encode_And_Store(pipe.get(), stream, &size, buffer, 64, 1, nullptr, 0); },
        [&] { return ZOHW_CreateQRVContainer(pipe.get(), stream, buffer, 8); },
        [&] { return ZOHW_CloseQRVContainer(pipe.get(), stream); }};
    expectEachFailsWith(*pipe, calls, text);
    EXPECT_EQ(size, 77u) << "the size is not touched before the checks pass";
    std::fclose(stream);
    EXPECT_TRUE(file.read().empty());
}

TEST(PipeRoles, ADecodingPipeWithoutAWorkingDecoderFailsWithoutText) {
    auto pipe = idleDecodingPipe();
    pipe->error = "earlier failure";
    TempFile file;
    file.write({1, 0, 0, 0});
    FILE* stream = file.open("rb");
    uint8_t buffer[256];
    uint64_t timestamp = 3;
    DecodeOutputs out;

    EXPECT_EQ(ZOHW_GetDecoderType(pipe.get()), 0u);
    EXPECT_EQ(ZOHW_StartDecoding(pipe.get(), buffer), 1u);
    EXPECT_EQ(ZOHW_CreateQRVTracker(pipe.get(), stream), 1u);
    EXPECT_EQ(decodeFrame(pipe.get(), stream, out), 1u);
    EXPECT_EQ(ZOHW_SetHEVCPositionInFile(pipe.get(), stream, 0), 1u);
    EXPECT_EQ(ZOHW_GetTimeStampForSample(pipe.get(), stream, 1, &timestamp), 1u);
    EXPECT_EQ(timestamp, 0u);
    EXPECT_EQ(ZOHW_GetMetadataForSample(pipe.get(), stream, buffer, 1), 1u);
    EXPECT_EQ(ZOHW_Decode(pipe.get(), buffer, sizeof buffer, buffer), 1u);
    EXPECT_EQ(ZOHW_GetError(pipe.get()), std::string("earlier failure"));
    EXPECT_EQ(std::ftell(stream), 0) << "no call read the file";
    std::fclose(stream);
}

TEST(PipeRoles, DecodeOnAPipeWithoutHardwareDecoderFails) {
    auto pipe = std::make_unique<ZoHwPipe>();
    pipe->swDecoder = std::make_unique<SwDecoder>(64, 48, 0);
    uint8_t buffer[16] = {};
    EXPECT_EQ(ZOHW_Decode(pipe.get(), buffer, sizeof buffer, buffer), 1u);
}

TEST(Arguments, NullStreamsAndOutputsFailAndKeepTheEarlierText) {
    auto decoding = idleDecodingPipe();
    auto encoding = encodingPipe();
    decoding->error = "kept";
    encoding->error = "kept";
    uint8_t buffer[256];
    uint64_t timestamp = 1;
    DecodeOutputs out;
    EXPECT_EQ(decodeFrame(decoding.get(), nullptr, out), 1u);
    EXPECT_EQ(ZOHW_StartDecoding(decoding.get(), nullptr), 1u);
    EXPECT_EQ(ZOHW_CreateQRVTracker(decoding.get(), nullptr), 1u);
    EXPECT_EQ(ZOHW_SetHEVCPositionInFile(decoding.get(), nullptr, 0), 1u);
    EXPECT_EQ(ZOHW_GetMetadataForSample(decoding.get(), nullptr, buffer, 1), 1u);
    EXPECT_EQ(ZOHW_GetTimeStampForSample(decoding.get(), nullptr, 1, &timestamp), 1u);
    EXPECT_EQ(ZOHW_GetTimeStampForSample(decoding.get(), stdin, 1, nullptr), 1u);
    EXPECT_EQ(ZOHW_CreateQRVContainer(encoding.get(), nullptr, buffer, 4), 1u);
    EXPECT_EQ(ZOHW_CloseQRVContainer(encoding.get(), nullptr), 1u);
    EXPECT_EQ(ZOHW_GetError(decoding.get()), std::string("kept"));
    EXPECT_EQ(ZOHW_GetError(encoding.get()), std::string("kept"));
}

TEST(Container, HeaderIsWrittenAsGivenAndASuccessKeepsTheEarlierText) {
    auto pipe = encodingPipe();
    uint64_t size = 0;
    uint8_t frame[64 * 48] = {};
    EXPECT_EQ(ZOHW_Decode(reinterpret_cast<ZoHwPipe*>(pipe.get()), frame, 4, frame), 1u);
    const std::string text = ZOHW_GetError(pipe.get());
    ASSERT_EQ(text, "Invalid ZoHwPipe decoder.");

    TempFile file;
    FILE* stream = file.open("w+b");
    const uint8_t header[5] = {'Q', 'R', 'V', 0, 9};
    EXPECT_EQ(ZOHW_CreateQRVContainer(pipe.get(), stream, header, 0), 0u);
    std::fflush(stream);
    EXPECT_TRUE(file.read().empty()) << "a header of 0 bytes writes nothing";
    EXPECT_EQ(ZOHW_CreateQRVContainer(pipe.get(), stream, header, -1), 1u);
    EXPECT_EQ(ZOHW_CreateQRVContainer(pipe.get(), stream, header, 5), 0u);
    // No encoder is ready here, so nothing is encoded and no record is written.
    EXPECT_EQ(ZOHW_Encode_And_Store(pipe.get(), stream, &size, frame, 64, 1999, nullptr, 0), 1u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(ZOHW_CloseQRVContainer(pipe.get(), stream), 0u);
    EXPECT_EQ(ZOHW_CloseQRVContainer(pipe.get(), stream), 0u) << "closing twice writes the index twice";
    std::fclose(stream);
    const std::vector<uint8_t> expected = {'Q', 'R', 'V', 0, 9, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(file.read(), expected);
    EXPECT_EQ(ZOHW_GetError(pipe.get()), text);
}
