// The QRV recording file: frame records, the sample index and the trailer.
//
// Layout (little-endian, no padding):
//   client header | frame records | index entries (16 bytes each) | u32 frame count
// Frame record:
//   u32 frameNumber | u64 captureTime | u32 frameType | u32 payloadBytes | payload
//   | u64 sampleTime (captureTime / 1000) | 64 metadata words (u32 each)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <vector>

// Frame type of a record from which decoding can start (IDR).
constexpr uint32_t kKeyFrameType = 3;
constexpr size_t kMetadataBytes = 256;
constexpr size_t kMetadataWords = kMetadataBytes / 4;
// frameNumber, captureTime, frameType, payloadBytes.
constexpr uint64_t kQrvRecordHeadBytes = 20;

// Record checksum: the reserved word holds qrvChecksum (CRC-32) of the whole record as written, in
// file order: the 20 head bytes, the payload, the 8-byte sample time and the 256 metadata bytes.
struct QrvIndexEntry {
    uint64_t recordOffset;  // stream position of the record's frameNumber
    uint32_t frameType;
    uint32_t reserved;      // the record checksum (older files: 0); the readers ignore it
};
static_assert(sizeof(QrvIndexEntry) == 16, "index entries are 16 bytes in the file");

// The last 264 bytes of a record.
struct QrvSampleInfo {
    uint64_t sampleTime;
    uint8_t metadata[kMetadataBytes];
};
static_assert(sizeof(QrvSampleInfo) == 264, "sample infos are 264 bytes in the file");

// The head fields of one record, as the software reader lists them.
struct QrvRecordHead {
    uint32_t frameNumber;
    uint32_t frameType;
    uint64_t captureTime;
};
static_assert(sizeof(QrvRecordHead) == 16, "record heads are 16 bytes");

// Out-of-range access to the index tables; host applications match this text.
struct QrvSubscriptError : std::out_of_range {
    QrvSubscriptError() : std::out_of_range("invalid vector<T> subscript") {}
};

// Element i of v, or QrvSubscriptError.
template <typename T>
const T& qrvAt(const std::vector<T>& v, size_t i) {
    if (i >= v.size()) throw QrvSubscriptError();
    return v[i];
}

// 64-bit position and seek of a stdio stream (stdio's long offsets are 32-bit on Windows).
int64_t qrvTell(FILE* stream);
int qrvSeek(FILE* stream, int64_t offset, int whence);

// ---- Writer -------------------------------------------------------------------

struct QrvRecord {
    uint32_t frameNumber;
    uint64_t captureTime;
    uint32_t frameType;
    const uint8_t* payload;
    uint64_t payloadBytes;     // only the low 32 bits are stored in the head
    const uint32_t* metadata;  // may be null when metadataWords is 0
    int32_t metadataWords;     // 0 to 64; the words after these are written as 0
};

// Whether a record with this metadata can be written: 0 to 64 words, and words behind a count.
bool qrvMetadataFits(const uint32_t* metadata, int32_t metadataWords);

// Writes one record at the stream's current position and flushes it to the system, so that a
// host that dies loses at most the frame in flight. Returns 0 and the record's checksum, or the
// errno of the failed write (EINVAL for metadata that does not fit) after putting the stream back
// at the record's start and cutting off what reached the file, so that the next record or the
// index is written there and no torn record is left behind.
int qrvWriteRecord(FILE* stream, const QrvRecord& record, uint32_t* checksum = nullptr);

// Writes the client's header as it is and flushes it; 0 or the errno of a failed write, as above.
int qrvWriteHeader(FILE* stream, const uint8_t* header, size_t headerBytes);

// Writes all index entries as one block, then the u32 frame count, and flushes. Returns 0, or the
// errno of the failed write with the stream put back where the index starts, so that a later
// try writes it in the same place.
int qrvWriteIndex(FILE* stream, const std::vector<QrvIndexEntry>& index, uint32_t frameCount);

class FileBytes;

// ---- Shared reader rules --------------------------------------------------------

// Sample lookup shared by both readers: samples below 1 or not below the table size
// are refused; otherwise the 264 bytes are copied to out.
bool qrvLookUpSampleInfo(const std::vector<QrvSampleInfo>& infos, int32_t sample, uint8_t* out);

// The nearest index entry at or before `sample` whose frame type is a key frame,
// or 0 when there is none. Negative samples return -1; a sample not below the index
// size throws QrvSubscriptError.
int32_t qrvKeyFrameAtOrBefore(const std::vector<QrvIndexEntry>& index, int32_t sample);

// How a reader found the records of the file it read last.
struct QrvRecordsFound {
    bool closed = false;      // listed by the file's own index; false: found by a scan of the records
    uint64_t recordsEnd = 0;  // where the last record ends (where a closed file's index starts)
    uint64_t fileBytes = 0;   // the file's size when it was read
};

// The index of a closed file: the trailer's count of entries, all of them, before the trailer;
// `recordsEnd` is where they start. False when the file has no such index (it may still not
// fit the records: the readers check each entry against its record's head).
bool qrvReadClosedIndex(const FileBytes& file, std::vector<QrvIndexEntry>& index, uint32_t& frameCount,
                        uint64_t& recordsEnd);

// ---- Hardware reader --------------------------------------------------------------

// Decodes one payload into `out`; returns 1 or more when a frame was produced.
using QrvDecodeStep = std::function<int(const uint8_t* payload, uint32_t payloadBytes, void* out)>;

// The index reader and record walks used by the hardware decoder. Keeps the index,
// the N - 1 sample infos and the frame count of the last file read, and the payload
// buffer that the walks read into.
class QrvHardwareReader {
public:
    // Reads the trailer, the index and the sample infos, or, when the file has no index that
    // fits it, scans its records; false when neither finds a record. Leaves the stream at the
    // start of the file.
    bool readIndex(FILE* stream);

    // One try of sequential reading from the stream's position: 1 frame decoded,
    // 0 no frame, -1 no record here (the stream is stepped back). width x height is the coded
    // picture's size: payloads above packing::maxAccessUnitBytes of it, or above the file's size, are
    // skipped, not read.
    int decodeNextRecord(FILE* stream, void* out, uint32_t* frameNumber, uint64_t* captureTime,
                         uint32_t* frameType, uint8_t* sampleInfo, uint32_t width,
                         uint32_t height, const QrvDecodeStep& decode);

    bool lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const;

    // Leaves the stream at record `sample` after decoding the records from the
    // nearest earlier key frame.
    bool seekToSample(FILE* stream, int32_t sample, uint32_t width, uint32_t height,
                      const QrvDecodeStep& decode);

    uint32_t frameCount() const { return frameCount_; }
    const std::vector<QrvIndexEntry>& index() const { return index_; }
    const std::vector<QrvSampleInfo>& sampleInfos() const { return sampleInfos_; }
    const QrvRecordsFound& found() const { return found_; }

private:
    enum class RecordOutcome { Refused, Decoded, NotDecoded };
    // Reads the record at the stream's position and decodes its payload into `frame`.
    RecordOutcome readRecord(FILE* stream, void* frame, QrvRecordHead& head, uint8_t* sampleInfo,
                             uint32_t width, uint32_t height, const QrvDecodeStep& decode);
    // False when `bytes` cannot be allocated.
    bool growPayloadBuffer(size_t bytes);

    std::vector<QrvIndexEntry> index_;
    std::vector<QrvSampleInfo> sampleInfos_;
    uint32_t frameCount_ = 0;
    QrvRecordsFound found_;
    std::vector<uint8_t> payloadBuffer_;  // grown (never shrunk) to the largest payload read, and its sample info
};

// ---- Software reader --------------------------------------------------------------

// The tables of the software decoder.
struct QrvSoftwareIndex {
    std::vector<QrvIndexEntry> frameList;
    std::vector<QrvSampleInfo> sampleInfos;  // N entries: the last one carries the last record's metadata
    std::vector<QrvRecordHead> recordHeads;
    int32_t sampleCount = 0;
    QrvRecordsFound found;
};

// Reads the trailer, index, record heads and the N sample infos, or scans the records of a
// file without an index that fits it. Leaves the stream at the start of the file.
bool qrvReadSoftwareIndex(FILE* stream, QrvSoftwareIndex& tables);

// One record read by the software decoder, from the stream's position.
struct QrvSoftwareRecord {
    QrvRecordHead head;
    uint32_t payloadBytes;
    uint64_t sampleTime;
    uint32_t metadata[kMetadataWords];

    // Bytes the record takes in the file: head, payload and sample info.
    uint64_t fileBytes() const { return kQrvRecordHeadBytes + payloadBytes + sizeof(QrvSampleInfo); }
};

// Reads the record at the stream's position into `record`, its payload into `payload`, grown to
// fit up to `payloadLimit` bytes. A frame number above sampleCount steps the stream back and
// fails; so does a payload larger than the limit (after skipping it) or one that cannot be
// allocated. Succeeds when at least one payload byte was read.
bool qrvReadSoftwareRecord(FILE* stream, int32_t sampleCount, std::vector<uint8_t>& payload, uint64_t payloadLimit,
                           QrvSoftwareRecord& record);

// ---- Record access by offset (tools) ------------------------------------------------

// Reads the head and payload size of the record at `offset` and, when `payload` is not
// null, its payload (resized to fit). False when the head or the whole payload does not
// lie within the file, so a hostile size never causes a large allocation. A loop over many
// records passes the FileBytes of its file, which knows the file's size and reads by
// offset, so that no record costs a seek to the end of the file.
bool qrvReadRecordAt(const FileBytes& file, uint64_t offset, QrvRecordHead& head, uint32_t& payloadBytes,
                     std::vector<uint8_t>* payload);
bool qrvReadRecordAt(FILE* stream, uint64_t offset, QrvRecordHead& head, uint32_t& payloadBytes,
                     std::vector<uint8_t>* payload);
