#include "recording/recording_header.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "container/qrv_scan.h"

namespace {

constexpr size_t kVersion1Words = kRecordingHeaderBytes / 4;
constexpr size_t kVersion2Words = kRecordingHeader2Bytes / 4;
constexpr uint32_t kChecksumsFlag = 1;
constexpr const char* kKindNames[] = {"bgra", "uyvy", "u4", "u8", "u16", "u32"};

uint32_t wordAt(const uint8_t* bytes) {
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | uint32_t(bytes[3]) << 24;
}

}  // namespace

std::vector<uint8_t> encodeRecordingHeader(const RecordingHeader& header) {
    const uint32_t words[kVersion2Words] = {kRecordingHeader2Magic, header.kind,   header.width,
                                            header.height,          header.frameRate, header.codec,
                                            header.timeUnitNs,      header.checksums ? kChecksumsFlag : 0};
    std::vector<uint8_t> bytes;
    for (uint32_t word : words)
        for (int shift = 0; shift < 32; shift += 8) bytes.push_back(uint8_t(word >> shift));
    return bytes;
}

bool readRecordingHeader(FILE* file, const QrvSoftwareIndex& tables, RecordingHeader& header) {
    if (tables.frameList.empty()) return false;
    std::array<uint8_t, kRecordingHeader2Bytes> bytes;
    if (qrvSeek(file, 0, SEEK_SET) != 0 || fread(bytes.data(), 1, kRecordingHeaderBytes, file) != kRecordingHeaderBytes)
        return false;
    uint32_t words[kVersion2Words] = {};
    for (size_t i = 0; i < kVersion1Words; ++i) words[i] = wordAt(&bytes[4 * i]);
    // The header lies before the first record; a file whose records start earlier has none.
    const uint64_t firstRecord = tables.frameList.front().recordOffset;
    if (words[0] == kRecordingHeaderMagic && firstRecord >= kRecordingHeaderBytes) {
        header = {words[1], words[2], words[3], words[4], words[5], 1000, false, 1};
        return true;
    }
    if (words[0] != kRecordingHeader2Magic || firstRecord < kRecordingHeader2Bytes ||
        fread(&bytes[kRecordingHeaderBytes], 1, kRecordingHeader2Bytes - kRecordingHeaderBytes, file) !=
            kRecordingHeader2Bytes - kRecordingHeaderBytes)
        return false;
    for (size_t i = kVersion1Words; i < kVersion2Words; ++i) words[i] = wordAt(&bytes[4 * i]);
    header = {words[1], words[2], words[3], words[4], words[5], words[6], (words[7] & kChecksumsFlag) != 0, 2};
    return true;
}

bool kindFromName(const std::string& name, uint32_t& kind) {
    const auto found = std::find(std::begin(kKindNames), std::end(kKindNames), name);
    if (found == std::end(kKindNames)) return false;
    kind = uint32_t(found - std::begin(kKindNames));
    return true;
}

const char* kindName(uint32_t kind) { return kind < std::size(kKindNames) ? kKindNames[kind] : "unknown"; }
