// The exceptions of the NVENC and NVDEC layers: message format, codes and types.
#include <gtest/gtest.h>

#include <string>

#include "NVCompression/NvCodec/NvEncoder/NvCodecException.h"

namespace {

int failingCall(int status, int) { return status; }

class Session {
public:
    // The line is recorded on the throw site's own line.
    void refuseSize() { throwLine = __LINE__; NVENC_THROW_ERROR("Invalid encoder width and height", 8); }
    void lockBitstream(int status) { NVENC_API_CALL(failingCall(status, 1)); }
    void mapFrame(int status) { NVDEC_API_CALL(failingCall(status, 2)); }
    int throwLine = 0;
};

}  // namespace

TEST(CodecExceptions, MessageCarriesFunctionTextFileAndLine) {
    EXPECT_STREQ(NVENCException::make("", 0, "", "", 0).what(), " :  at :0\n");
    const auto e = NVDECException::make("Codec not supported on this GPU", 801,
                                        "NvDecoder::HandleVideoSequence", "NvDecoder.cpp", 150);
    EXPECT_EQ(e.getErrorString(),
              "NvDecoder::HandleVideoSequence : Codec not supported on this GPU at NvDecoder.cpp:150\n");
    EXPECT_EQ(e.getErrorCode(), 801);
    const NVDECException copy(e);
    EXPECT_EQ(copy.getErrorString(), e.getErrorString());
    EXPECT_EQ(copy.getErrorCode(), 801);
}

TEST(CodecExceptions, PlainErrorNamesTheQualifiedMethodAndThrowSite) {
    Session session;
    try {
        session.refuseSize();
        FAIL() << "no exception";
    } catch (const NVENCException& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.rfind("{anonymous}::Session::refuseSize : Invalid encoder width and height at ", 0), 0u)
            << message;
        const std::string site = "test_codec_exceptions.cpp:" + std::to_string(session.throwLine) + "\n";
        EXPECT_EQ(message.substr(message.size() - site.size()), site) << message;
        EXPECT_EQ(message.back(), '\n');
        EXPECT_EQ(e.getErrorCode(), 8);
    }
}

TEST(CodecExceptions, CheckedCallQuotesTheCallAndKeepsItsStatus) {
    Session session;
    EXPECT_NO_THROW(session.lockBitstream(0));
    try {
        session.lockBitstream(15);
        FAIL() << "no exception";
    } catch (const NVENCException& e) {
        EXPECT_NE(std::string(e.what()).find(" : failingCall(status, 1) returned error 15 at "),
                  std::string::npos)
            << e.what();
        EXPECT_EQ(e.getErrorCode(), 15);
    }
    try {
        session.mapFrame(700);
        FAIL() << "no exception";
    } catch (const NVDECException& e) {
        EXPECT_NE(std::string(e.what()).find("failingCall(status, 2) returned error 700"),
                  std::string::npos);
        EXPECT_EQ(e.getErrorCode(), 700);
    }
}

TEST(CodecExceptions, EachLayerCatchesOnlyItsOwnType) {
    Session session;
    const auto catchNvencOnly = [&] {
        try {
            session.mapFrame(1);
        } catch (const NVENCException&) {
            return "nvenc";
        }
        return "none";
    };
    EXPECT_THROW(catchNvencOnly(), NVDECException);
    EXPECT_THROW(session.lockBitstream(1), std::exception);
}
