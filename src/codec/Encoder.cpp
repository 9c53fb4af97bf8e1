#include "codec/Encoder.h"

#include <system_error>

bool Encoder::encodeAndStore(FILE* stream, const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                             uint64_t timestamp, const uint32_t* metadata, int32_t metadataWords, uint64_t* bytes) {
    return keyFrameAfterFailure([&] {
        uint32_t frameType = 0;
        *bytes = encode(data, pitch, width, height, &frameType, false);
        if (*bytes == 0) return false;
        const int error = storeRecord(stream, *bytes, frameType, timestamp, metadata, metadataWords);
        if (error != 0) throw std::system_error(error, std::generic_category(), "Cannot write the frame record");
        return true;
    });
}
