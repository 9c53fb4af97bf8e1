// Exceptions of the NVENC and NVDEC layers, and the one mechanism that raises them:
// a plain error with a fixed text, or a checked driver call whose text is the call
// expression as written in the source.
#pragma once

#include <cstdint>
#include <exception>
#include <sstream>
#include <string>
#include <utility>

template <typename Layer>
class NvCodecException : public std::exception {
public:
    NvCodecException(std::string errorString, int32_t errorCode)
        : errorString_(std::move(errorString)), errorCode_(errorCode) {}

    // "<function> : <text> at <file>:<line>\n"
    static NvCodecException make(const std::string& text, int32_t errorCode,
                                 const std::string& functionName, const std::string& fileName,
                                 int lineNo) {
        std::ostringstream message;
        message << functionName << " : " << text << " at " << fileName << ":" << lineNo
                << std::endl;
        return NvCodecException(message.str(), errorCode);
    }

    const char* what() const noexcept override { return errorString_.c_str(); }
    int32_t getErrorCode() const { return errorCode_; }
    const std::string& getErrorString() const { return errorString_; }

private:
    std::string errorString_;
    int32_t errorCode_;
};

struct NvencLayer;
struct NvdecLayer;
// Two distinct types: each wrapper catches only the exceptions of its own layer.
using NVENCException = NvCodecException<NvencLayer>;
using NVDECException = NvCodecException<NvdecLayer>;

// "NvEncoder::CreateEncoder" from the compiler's full signature of the enclosing function.
std::string qualifiedFunctionName(const char* prettyFunction);

#if defined(_MSC_VER)
#define NVCODEC_FUNCTION __FUNCTION__
#else
#define NVCODEC_FUNCTION qualifiedFunctionName(__PRETTY_FUNCTION__)
#endif

// Throws `E` for a non-zero status; the text names the call and its status.
template <typename E, typename Status>
void throwIfCallFailed(Status status, const char* callText, const std::string& functionName,
                       const char* fileName, int lineNo) {
    if (status == Status{}) return;
    throw E::make(std::string(callText) + " returned error " +
                      std::to_string(static_cast<long long>(status)),
                  static_cast<int32_t>(status), functionName, fileName, lineNo);
}

// Throws `E` for a failed CUDA driver call: "CUDA driver API error <the driver's error name>".
template <typename E>
void throwIfCudaDriverCallFailed(int result, const char* (*errorName)(int), int32_t code,
                                 const std::string& functionName, const char* fileName, int lineNo) {
    if (result == 0) return;
    throw E::make(std::string("CUDA driver API error ") + errorName(result), code, functionName, fileName,
                  lineNo);
}

#define NVENC_THROW_ERROR(text, code) \
    throw NVENCException::make((text), (code), NVCODEC_FUNCTION, __FILE__, __LINE__)
#define NVDEC_THROW_ERROR(text, code) \
    throw NVDECException::make((text), (code), NVCODEC_FUNCTION, __FILE__, __LINE__)
#define NVENC_API_CALL(call) \
    throwIfCallFailed<NVENCException>((call), #call, NVCODEC_FUNCTION, __FILE__, __LINE__)
#define NVDEC_API_CALL(call) \
    throwIfCallFailed<NVDECException>((call), #call, NVCODEC_FUNCTION, __FILE__, __LINE__)
