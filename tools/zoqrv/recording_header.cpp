#include "recording_header.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "container/qrv_scan.h"

namespace {

constexpr uint32_t kMagic = kRecordingHeaderMagic;
constexpr size_t kWords = 6;
constexpr size_t kBytes = kWords * 4;
static_assert(kBytes == kRecordingHeaderBytes, "the readers' scan finds the first record after this header");
constexpr const char* kKindNames[] = {"bgra", "uyvy", "u4", "u8", "u16", "u32"};

}  // namespace

std::vector<uint8_t> encodeRecordingHeader(const RecordingHeader& header) {
    const uint32_t words[kWords] = {kMagic, header.kind, header.width, header.height, header.frameRate, header.codec};
    std::vector<uint8_t> bytes;
    for (uint32_t word : words)
        for (int shift = 0; shift < 32; shift += 8) bytes.push_back(uint8_t(word >> shift));
    return bytes;
}

bool readRecordingHeader(FILE* file, const QrvSoftwareIndex& tables, RecordingHeader& header) {
    // The header lies before the first record; a file whose records start earlier has none.
    if (tables.frameList.empty() || tables.frameList.front().recordOffset < kBytes) return false;
    std::array<uint8_t, kBytes> bytes;
    if (qrvSeek(file, 0, SEEK_SET) != 0 || fread(bytes.data(), 1, kBytes, file) != kBytes) return false;
    uint32_t words[kWords];
    for (size_t i = 0; i < kWords; ++i)
        words[i] = bytes[4 * i] | bytes[4 * i + 1] << 8 | bytes[4 * i + 2] << 16 | uint32_t(bytes[4 * i + 3]) << 24;
    if (words[0] != kMagic) return false;
    header = {words[1], words[2], words[3], words[4], words[5]};
    return true;
}

bool kindFromName(const std::string& name, uint32_t& kind) {
    const auto found = std::find(std::begin(kKindNames), std::end(kKindNames), name);
    if (found == std::end(kKindNames)) return false;
    kind = uint32_t(found - std::begin(kKindNames));
    return true;
}

const char* kindName(uint32_t kind) { return kind < std::size(kKindNames) ? kKindNames[kind] : "unknown"; }
