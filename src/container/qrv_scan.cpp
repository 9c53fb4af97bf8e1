#include "container/qrv_scan.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "container/file_ranges.h"

namespace {

constexpr uint64_t kSampleInfoBytes = sizeof(QrvSampleInfo);
// A record's head and the first 4 bytes of its payload: enough to judge it.
constexpr size_t kProbeBytes = kQrvRecordHeadBytes + 4;
constexpr uint32_t kHighestPictureType = 7;  // NVENC's picture types run from 0 (P) to 7 (non-reference P)
constexpr uint32_t kUnknownPictureType = 255;
constexpr size_t kWindowBytes = size_t(1) << 20;

uint32_t word(const uint8_t* raw) {
    uint32_t value;
    memcpy(&value, raw, 4);
    return value;
}

struct Head {
    uint32_t frameNumber, frameType, payloadBytes;
};

// A head that a record could have after one numbered `previous`; `raw` holds kProbeBytes.
bool plausibleHead(const uint8_t* raw, uint32_t previous, Head& head) {
    head = {word(raw), word(raw + 12), word(raw + 16)};
    const uint8_t* payload = raw + kQrvRecordHeadBytes;
    const bool startCode = payload[0] == 0 && payload[1] == 0 &&
                           (payload[2] == 1 || (payload[2] == 0 && payload[3] == 1));
    return head.frameNumber > previous &&
           (head.frameType <= kHighestPictureType || head.frameType == kUnknownPictureType) &&
           head.payloadBytes >= 4 && startCode;
}

uint64_t recordBytes(const Head& head) { return kQrvRecordHeadBytes + head.payloadBytes + kSampleInfoBytes; }

// Sequential access to the file through one window of fixed size, refilled at the offset asked
// for when a range does not lie in it, so that each byte of a forward scan is read about once.
class ScanWindow {
public:
    explicit ScanWindow(const FileBytes& file)
        : file_(file), fileBytes_(uint64_t(std::max<int64_t>(file.size(), 0))),
          buffer_(size_t(std::min<uint64_t>(kWindowBytes, fileBytes_))) {}

    uint64_t fileBytes() const { return fileBytes_; }

    // The bytes from `offset` to the end of the window, at least `least` of them, or null when
    // the file has fewer. Valid until the next call.
    const uint8_t* from(uint64_t offset, size_t least, size_t& available) {
        if (!holds(offset, least)) fill(offset);
        if (!holds(offset, least)) return nullptr;
        available = size_t(start_ + filled_ - offset);
        return buffer_.data() + (offset - start_);
    }

    // Copies a range without moving the window: a look ahead from a search must not cost the
    // search its window.
    bool copy(uint64_t offset, void* out, size_t bytes) const {
        if (!holds(offset, bytes)) return file_.read(offset, out, bytes) == bytes;
        memcpy(out, buffer_.data() + (offset - start_), bytes);
        return true;
    }

private:
    bool holds(uint64_t offset, size_t bytes) const {
        return offset >= start_ && offset - start_ <= filled_ && bytes <= filled_ - (offset - start_);
    }
    void fill(uint64_t offset) {
        start_ = offset;
        filled_ = offset < fileBytes_
                      ? file_.read(offset, buffer_.data(), size_t(std::min<uint64_t>(buffer_.size(), fileBytes_ - offset)))
                      : 0;
    }

    const FileBytes& file_;
    uint64_t fileBytes_;
    std::vector<uint8_t> buffer_;
    uint64_t start_ = 0;
    uint64_t filled_ = 0;
};

// A record with frame number `raw` at `offset` starts the chain when it is complete and the
// record after it, where the file holds its probe, is plausible too.
bool startsChain(const ScanWindow& window, const uint8_t* raw, uint64_t offset) {
    Head head;
    if (!plausibleHead(raw, 0, head) || !rangeInFile(int64_t(window.fileBytes()), offset, recordBytes(head)))
        return false;
    uint8_t next[kProbeBytes];
    Head nextHead;
    return !window.copy(offset + recordBytes(head), next, sizeof next) || plausibleHead(next, head.frameNumber, nextHead);
}

// The offset of the first record, or UINT64_MAX.
uint64_t findFirstRecord(ScanWindow& window) {
    uint8_t probe[kRecordingHeader2Bytes + kProbeBytes];
    for (const auto& [magic, headerBytes] : {std::pair{kRecordingHeaderMagic, kRecordingHeaderBytes},
                                             std::pair{kRecordingHeader2Magic, kRecordingHeader2Bytes}})
        if (window.copy(0, probe, headerBytes + kProbeBytes) && word(probe) == magic &&
            startsChain(window, probe + headerBytes, headerBytes))
            return headerBytes;
    // Candidates are the places that hold frame number 1 (01 00 00 00); memchr finds their
    // first bytes at the speed of memory, so a file of zeros costs little more than its reading.
    size_t available = 0;
    for (uint64_t offset = 0;;) {
        const uint8_t* bytes = window.from(offset, kProbeBytes, available);
        if (!bytes) return UINT64_MAX;
        const size_t searched = available - kProbeBytes + 1;
        const auto* hit = static_cast<const uint8_t*>(memchr(bytes, 1, searched));
        if (!hit) {
            offset += searched;
            continue;
        }
        const uint64_t candidate = offset + uint64_t(hit - bytes);
        if (word(hit) == 1 && startsChain(window, hit, candidate)) return candidate;
        offset = candidate + 1;
    }
}

}  // namespace

bool qrvScanRecords(const FileBytes& file, QrvRecordScan& scan) {
    scan = QrvRecordScan{};
    ScanWindow window(file);
    uint64_t offset = findFirstRecord(window);
    if (offset == UINT64_MAX) return false;
    size_t available = 0;
    while (const uint8_t* raw = window.from(offset, kProbeBytes, available)) {
        Head head;
        if (!plausibleHead(raw, scan.lastFrameNumber, head) ||
            !rangeInFile(int64_t(window.fileBytes()), offset, recordBytes(head)))
            break;
        scan.index.push_back({offset, head.frameType, 0});
        scan.lastFrameNumber = head.frameNumber;
        offset += recordBytes(head);
    }
    scan.recordsEnd = offset;
    return !scan.index.empty();
}
