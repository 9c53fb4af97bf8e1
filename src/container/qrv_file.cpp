#include "container/qrv_file.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

// Records, index entries and sample infos are read and written as raw blocks.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "QRV files are little-endian; this code assumes a little-endian host"
#endif

namespace {

constexpr uint64_t kSampleInfoBytes = sizeof(QrvSampleInfo);
// frameNumber, captureTime, frameType, payloadBytes.
constexpr uint64_t kRecordHeadBytes = 20;
constexpr uint64_t kTrailerBytes = 4;

bool readExact(FILE* stream, void* destination, size_t bytes) {
    return fread(destination, 1, bytes, stream) == bytes;
}

// Size of the file behind `stream`, or -1; moves the stream to its end.
int64_t fileSize(FILE* stream) {
    if (qrvSeek(stream, 0, SEEK_END) != 0) return -1;
    return qrvTell(stream);
}

// Offsets come from the file and are not trusted: a range outside the file is refused
// instead of becoming a negative seek or a read from wherever the stream stands.
bool rangeInFile(int64_t size, uint64_t offset, uint64_t bytes) {
    return size >= 0 && offset <= uint64_t(size) && bytes <= uint64_t(size) - offset;
}

bool readAt(FILE* stream, int64_t size, uint64_t offset, void* destination, size_t bytes) {
    return rangeInFile(size, offset, bytes) && qrvSeek(stream, int64_t(offset), SEEK_SET) == 0 &&
           readExact(stream, destination, bytes);
}

// captureTime, frameType and payloadBytes: the 16 bytes after a record's frameNumber.
void decodeHeadTail(const uint8_t* raw, QrvRecordHead& head, uint32_t& payloadBytes) {
    memcpy(&head.captureTime, raw, 8);
    memcpy(&head.frameType, raw + 8, 4);
    memcpy(&payloadBytes, raw + 12, 4);
}

bool readHeadTail(FILE* stream, QrvRecordHead& head, uint32_t& payloadBytes) {
    uint8_t raw[kRecordHeadBytes - 4];
    if (!readExact(stream, raw, sizeof raw)) return false;
    decodeHeadTail(raw, head, payloadBytes);
    return true;
}

bool readRecordHeadAt(FILE* stream, int64_t size, uint64_t offset, QrvRecordHead& head,
                      uint32_t& payloadBytes) {
    uint8_t raw[kRecordHeadBytes];
    if (!readAt(stream, size, offset, raw, sizeof raw)) return false;
    memcpy(&head.frameNumber, raw, 4);
    decodeHeadTail(raw + 4, head, payloadBytes);
    return true;
}

// Reads a record's frameNumber. A missing one, or one above `highest`, is refused and the
// stream is stepped back to where it stood.
bool readFrameNumber(FILE* stream, int64_t highest, uint32_t& frameNumber) {
    const int64_t start = qrvTell(stream);
    if (readExact(stream, &frameNumber, 4) && int64_t(frameNumber) <= highest) return true;
    qrvSeek(stream, start, SEEK_SET);
    return false;
}

bool readTrailer(FILE* stream, int64_t& size, uint32_t& frameCount) {
    size = fileSize(stream);
    return size >= int64_t(kTrailerBytes) && qrvSeek(stream, size - int64_t(kTrailerBytes), SEEK_SET) == 0 &&
           readExact(stream, &frameCount, 4);
}

// Reads `count` index entries, which end at the trailer. The distance of the index from the
// end is held in a signed 32-bit integer, as this format has always been read, so an index of
// 2 GiB or more is out of reach. An index that cannot fit in the file fails at once rather
// than costing `count` reads and allocations.
bool readIndexEntries(FILE* stream, int64_t size, uint32_t count, std::vector<QrvIndexEntry>& index) {
    const double distance = double(count) * sizeof(QrvIndexEntry) + kTrailerBytes;
    if (distance > INT32_MAX || distance > double(size)) return false;
    if (qrvSeek(stream, -int64_t(int32_t(distance)), SEEK_END) != 0) return false;
    index.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        QrvIndexEntry entry;
        if (readExact(stream, &entry, sizeof entry)) index.push_back(entry);  // short reads are skipped
    }
    return true;
}

// Entry i of the index gives where record i - 1 ends, so table position k receives the info
// of record k; the last record has no following entry and gets none here. Unreadable infos
// are skipped.
void readSampleInfos(FILE* stream, int64_t size, const std::vector<QrvIndexEntry>& index,
                     uint32_t count, std::vector<QrvSampleInfo>& infos) {
    // The count is bounded by the index's 16 bytes an entry, not by 264 bytes an info: the
    // reservation is bounded by the infos that the file can hold.
    if (count > 1) infos.reserve(std::min<uint64_t>(count - 1, uint64_t(size) / kSampleInfoBytes));
    for (uint32_t i = 1; i < count; ++i) {
        const uint64_t recordEnd = qrvAt(index, i).recordOffset;
        QrvSampleInfo info;
        if (recordEnd >= kSampleInfoBytes &&
            readAt(stream, size, recordEnd - kSampleInfoBytes, &info, sizeof info))
            infos.push_back(info);
    }
}

// Seeks to a record whose head lies within the file.
bool seekToRecord(FILE* stream, uint64_t offset) {
    return rangeInFile(fileSize(stream), offset, kRecordHeadBytes) &&
           qrvSeek(stream, int64_t(offset), SEEK_SET) == 0;
}

// width * height * 4 in size_t; false when it overflows.
bool frameBytes(uint32_t width, uint32_t height, size_t& bytes) {
    if (height != 0 && size_t(width) > SIZE_MAX / 4 / height) return false;
    bytes = size_t(width) * height * 4;
    return true;
}

}  // namespace

// ---- Stream positions ----------------------------------------------------------

int qrvSeek(FILE* stream, int64_t offset, int whence) {
#ifdef _WIN32
    return _fseeki64(stream, offset, whence);
#else
    return fseeko(stream, static_cast<off_t>(offset), whence);
#endif
}

int64_t qrvTell(FILE* stream) {
#ifdef _WIN32
    return _ftelli64(stream);
#else
    return ftello(stream);
#endif
}

// ---- Writer -------------------------------------------------------------------

void qrvWriteRecord(FILE* stream, const QrvRecord& record) {
    const uint32_t storedPayloadBytes = uint32_t(record.payloadBytes);
    const uint64_t sampleTime = record.captureTime / 1000;
    fwrite(&record.frameNumber, 4, 1, stream);
    fwrite(&record.captureTime, 8, 1, stream);
    fwrite(&record.frameType, 4, 1, stream);
    fwrite(&storedPayloadBytes, 4, 1, stream);
    if (record.payload && record.payloadBytes > 0) fwrite(record.payload, 1, size_t(record.payloadBytes), stream);
    fwrite(&sampleTime, 8, 1, stream);
    if (record.metadata && record.metadataWords > 0)
        fwrite(record.metadata, 4, size_t(record.metadataWords), stream);
}

void qrvWriteIndex(FILE* stream, const std::vector<QrvIndexEntry>& index, uint32_t frameCount) {
    std::vector<QrvIndexEntry> block(index);
    for (QrvIndexEntry& entry : block) entry.reserved = 0;
    if (!block.empty()) fwrite(block.data(), sizeof(QrvIndexEntry), block.size(), stream);
    fwrite(&frameCount, 4, 1, stream);
}

// ---- Shared reader rules --------------------------------------------------------

bool qrvLookUpSampleInfo(const std::vector<QrvSampleInfo>& infos, int32_t sample, uint8_t* out) {
    if (sample < 1 || size_t(sample) >= infos.size()) return false;
    memcpy(out, &infos[size_t(sample)], sizeof(QrvSampleInfo));
    return true;
}

int32_t qrvKeyFrameAtOrBefore(const std::vector<QrvIndexEntry>& index, int32_t sample) {
    if (sample < 0) return -1;
    int32_t key = sample;
    while (qrvAt(index, size_t(key)).frameType != kKeyFrameType && key > 0) --key;
    return key;
}

// ---- Hardware reader --------------------------------------------------------------

bool QrvHardwareReader::readIndex(FILE* stream) {
    index_.clear();
    sampleInfos_.clear();
    int64_t size = 0;
    if (!readTrailer(stream, size, frameCount_)) frameCount_ = 0;
    if (frameCount_ == 0 || !readIndexEntries(stream, size, frameCount_, index_)) return false;
    // The table deliberately stops at N - 1 infos: the last record's info is never served here.
    readSampleInfos(stream, size, index_, frameCount_, sampleInfos_);
    return qrvSeek(stream, 0, SEEK_SET) == 0;
}

bool QrvHardwareReader::growPayloadBuffer(uint32_t width, uint32_t height) {
    size_t bytes = 0;
    if (!frameBytes(width, height, bytes)) return false;
    if (bytes <= payloadBuffer_.size()) return true;
    try {
        payloadBuffer_.resize(bytes);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    return true;
}

QrvHardwareReader::RecordOutcome QrvHardwareReader::readRecord(FILE* stream, void* frame,
                                                               QrvRecordHead& head, uint8_t* sampleInfo,
                                                               uint32_t width, uint32_t height,
                                                               const QrvDecodeStep& decode) {
    // Without an index there is no record to accept.
    if (index_.empty()) return RecordOutcome::Refused;
    // Frame numbers count from 1, so this also refuses the last record of a file; files have
    // always been read this way.
    if (!readFrameNumber(stream, int64_t(uint32_t(frameCount_ - 1)), head.frameNumber))
        return RecordOutcome::Refused;
    uint32_t payloadBytes = 0;
    if (!readHeadTail(stream, head, payloadBytes)) return RecordOutcome::NotDecoded;
    if ((payloadBytes > payloadBuffer_.size() || payloadBuffer_.empty()) &&
        !growPayloadBuffer(width, height)) {
        // A frame number beyond the index (the trailer may claim more records than it lists)
        // fails the record instead of raising an exception out of the walk.
        if (head.frameNumber < index_.size())
            qrvSeek(stream, int64_t(index_[head.frameNumber].recordOffset), SEEK_SET);
        return RecordOutcome::NotDecoded;
    }
    int decoded = -1;
    if (payloadBytes > payloadBuffer_.size()) {
        // No frame of this size has such a payload: skip it so the stream stays at record starts.
        qrvSeek(stream, int64_t(payloadBytes), SEEK_CUR);
    } else if (readExact(stream, payloadBuffer_.data(), payloadBytes)) {
        decoded = decode(payloadBuffer_.data(), payloadBytes, frame);
    }
    // Read whatever the decode gave; one that cannot be read is handed on as zeros.
    if (!readExact(stream, sampleInfo, kSampleInfoBytes)) memset(sampleInfo, 0, kSampleInfoBytes);
    return decoded >= 1 ? RecordOutcome::Decoded : RecordOutcome::NotDecoded;
}

int QrvHardwareReader::decodeNextRecord(FILE* stream, void* out, uint32_t* frameNumber,
                                        uint64_t* captureTime, uint32_t* frameType, uint8_t* sampleInfo,
                                        uint32_t width, uint32_t height, const QrvDecodeStep& decode) {
    QrvRecordHead head{};
    const RecordOutcome outcome = readRecord(stream, out, head, sampleInfo, width, height, decode);
    *frameNumber = head.frameNumber;
    if (outcome == RecordOutcome::Refused) return -1;
    *captureTime = head.captureTime;
    *frameType = head.frameType;
    return outcome == RecordOutcome::Decoded ? 1 : 0;
}

bool QrvHardwareReader::lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const {
    return qrvLookUpSampleInfo(sampleInfos_, sample, sampleInfo);
}

bool QrvHardwareReader::seekToSample(FILE* stream, int32_t sample, uint32_t width, uint32_t height,
                                     const QrvDecodeStep& decode) {
    if (sample < 0) return false;
    const int32_t key = qrvKeyFrameAtOrBefore(index_, sample);
    if (!seekToRecord(stream, index_[size_t(key)].recordOffset)) return false;
    if (key == sample) return true;

    size_t scratchBytes = 0;
    if (!frameBytes(width, height, scratchBytes)) return false;
    std::unique_ptr<uint8_t[]> scratch(new (std::nothrow) uint8_t[scratchBytes]);
    if (!scratch) return false;
    uint8_t sampleInfo[kSampleInfoBytes];
    for (int32_t i = key; i < sample; ++i) {
        QrvRecordHead head{};
        // A refused record still counts as one step, although the stream does not advance.
        if (readRecord(stream, scratch.get(), head, sampleInfo, width, height, decode) ==
            RecordOutcome::NotDecoded)
            return false;
    }
    return true;
}

// ---- Software reader --------------------------------------------------------------

bool qrvReadSoftwareIndex(FILE* stream, QrvSoftwareIndex& tables) {
    tables = QrvSoftwareIndex{};
    int64_t size = 0;
    uint32_t trailer = 0;
    if (!readTrailer(stream, size, trailer)) return false;
    const int32_t count = int32_t(trailer);
    if (count < 1) return false;

    QrvSoftwareIndex read;
    read.sampleCount = count;
    if (!readIndexEntries(stream, size, trailer, read.frameList)) return false;
    // The record heads answer every sample lookup of the software decoder, so a record that
    // lies outside the file makes the whole index unusable.
    read.recordHeads.reserve(read.frameList.size());
    for (const QrvIndexEntry& entry : read.frameList) {
        QrvRecordHead head;
        uint32_t payloadBytes = 0;
        if (!readRecordHeadAt(stream, size, entry.recordOffset, head, payloadBytes)) return false;
        read.recordHeads.push_back(head);
    }
    readSampleInfos(stream, size, read.frameList, trailer, read.sampleInfos);

    // The last record's metadata ends where the index begins. Its time is not read from the
    // file: the head's captureTime / 1000 is what the writer stored there.
    const int64_t indexStart = size - (int64_t(trailer) * int64_t(sizeof(QrvIndexEntry)) + int64_t(kTrailerBytes));
    QrvSampleInfo last;
    if (!read.recordHeads.empty() && indexStart >= int64_t(kMetadataBytes) &&
        readAt(stream, size, uint64_t(indexStart) - kMetadataBytes, last.metadata, kMetadataBytes)) {
        last.sampleTime = read.recordHeads.back().captureTime / 1000;
        read.sampleInfos.push_back(last);
    }
    tables = std::move(read);
    return qrvSeek(stream, 0, SEEK_SET) == 0;
}

bool qrvReadSoftwareRecord(FILE* stream, int32_t sampleCount, uint8_t* payload, size_t capacity,
                           QrvSoftwareRecord& record) {
    if (!readFrameNumber(stream, sampleCount, record.head.frameNumber)) return false;
    if (!readHeadTail(stream, record.head, record.payloadBytes)) return false;
    const bool fits = record.payloadBytes <= capacity;
    size_t payloadRead = 0;
    if (fits)
        payloadRead = fread(payload, 1, record.payloadBytes, stream);
    else
        qrvSeek(stream, int64_t(record.payloadBytes), SEEK_CUR);
    readExact(stream, &record.sampleTime, sizeof record.sampleTime);
    readExact(stream, record.metadata, kMetadataBytes);
    return fits && payloadRead >= 1;
}

// ---- Record access by offset ------------------------------------------------------

bool qrvReadRecordAt(FILE* stream, uint64_t offset, QrvRecordHead& head, uint32_t& payloadBytes,
                     std::vector<uint8_t>* payload) {
    const int64_t size = fileSize(stream);
    if (!readRecordHeadAt(stream, size, offset, head, payloadBytes) ||
        !rangeInFile(size, offset + kRecordHeadBytes, payloadBytes))
        return false;
    if (!payload) return true;
    payload->resize(payloadBytes);
    return readExact(stream, payload->data(), payloadBytes);
}
