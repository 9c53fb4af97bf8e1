#include "container/checksum.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

uint32_t qrvChecksum(uint32_t crc, const void* bytes, size_t byteCount) {
    auto* next = static_cast<const Bytef*>(bytes);
    uLong value = crc;
    // zlib takes a uInt count: feed larger ranges in pieces.
    while (byteCount > 0) {
        const size_t piece = std::min<size_t>(byteCount, UINT_MAX);
        value = crc32(value, next, static_cast<uInt>(piece));
        next += piece;
        byteCount -= piece;
    }
    return static_cast<uint32_t>(value);
}
