#include "container/qrv_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>

#include "container/checksum.h"
#include "container/file_ranges.h"
#include "container/qrv_scan.h"
#include "kernels/packing.h"

#ifdef _WIN32
#include <io.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

// Records, index entries and sample infos are read and written as raw blocks.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "QRV files are little-endian; this code assumes a little-endian host"
#endif

namespace {

constexpr uint64_t kSampleInfoBytes = sizeof(QrvSampleInfo);
constexpr uint64_t kTrailerBytes = 4;
// The least room one record takes in a file: its head and its sample info (a file that was never
// closed has no index entries).
constexpr uint64_t kLeastRecordFileBytes = kQrvRecordHeadBytes + kSampleInfoBytes;

bool readExact(FILE* stream, void* destination, size_t bytes) {
    return fread(destination, 1, bytes, stream) == bytes;
}

// Size of the file behind `stream`, or -1; moves the stream to its end.
int64_t fileSize(FILE* stream) {
    if (qrvSeek(stream, 0, SEEK_END) != 0) return -1;
    return qrvTell(stream);
}

// Reserves room for `count` entries and has the system map all of it at once, in large pages
// where it can. Filling a table of hundreds of megabytes page by page costs a fault and a TLB
// miss every 4 KiB, which on some machines (virtual ones especially) takes several times as
// long as reading the whole file. Both requests are hints: where they fail, the pages are
// mapped as they are first written.
template <typename T>
void reserveTable(std::vector<T>& table, size_t count) {
    table.reserve(count);
#ifndef _WIN32
    const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (uintptr_t(table.data()) + page - 1) & ~(page - 1);
    const uintptr_t end = uintptr_t(table.data() + table.capacity()) & ~(page - 1);
    if (end <= begin) return;
#ifdef MADV_HUGEPAGE
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
#endif
}

// captureTime, frameType and payloadBytes: the 16 bytes after a record's frameNumber.
void decodeHeadTail(const uint8_t* raw, QrvRecordHead& head, uint32_t& payloadBytes) {
    memcpy(&head.captureTime, raw, 8);
    memcpy(&head.frameType, raw + 8, 4);
    memcpy(&payloadBytes, raw + 12, 4);
}

// The 20 bytes of a record's head.
void decodeHead(const uint8_t* raw, QrvRecordHead& head, uint32_t& payloadBytes) {
    memcpy(&head.frameNumber, raw, 4);
    decodeHeadTail(raw + 4, head, payloadBytes);
}

enum class HeadRead { Refused, Short, Read };

// Reads a record's head in one piece. A missing frameNumber, or one above `highest`, is
// refused and the stream is stepped back to where it stood; the step is relative, so that a
// walk over a file asks the system for its position only when it refuses a record.
HeadRead readHead(FILE* stream, int64_t highest, QrvRecordHead& head, uint32_t& payloadBytes) {
    uint8_t raw[kQrvRecordHeadBytes];
    const size_t got = fread(raw, 1, sizeof raw, stream);
    memcpy(&head.frameNumber, raw, std::min<size_t>(got, 4));
    if (got < 4 || int64_t(head.frameNumber) > highest) {
        qrvSeek(stream, -int64_t(got), SEEK_CUR);
        return HeadRead::Refused;
    }
    if (got < sizeof raw) return HeadRead::Short;
    decodeHeadTail(raw + 4, head, payloadBytes);
    return HeadRead::Read;
}

// Reads the trailer; nothing else can be read from a file without one.
bool readTrailer(const FileBytes& file, uint32_t& frameCount) {
    return file.size() >= int64_t(kTrailerBytes) &&
           file.read(uint64_t(file.size()) - kTrailerBytes, &frameCount, 4) == 4;
}

// The most records a file of `size` bytes can hold. A table with one entry per record never
// grows beyond it: an index whose entries all point at the same few records would otherwise
// have the readers allocate a 264-byte sample info for every 16 bytes of file.
size_t recordCapacity(int64_t size) {
    return size > int64_t(kTrailerBytes) ? size_t((uint64_t(size) - kTrailerBytes) / kLeastRecordFileBytes) : 0;
}

// Reads `count` index entries, which end at the trailer, in one piece. The distance of the
// index from the end is held in a signed 32-bit integer, as this format has always been read,
// so an index of 2 GiB or more is out of reach. An index that cannot fit in the file fails at
// once rather than costing `count` reads and allocations.
bool readIndexEntries(const FileBytes& file, uint32_t count, std::vector<QrvIndexEntry>& index) {
    const double distance = double(count) * sizeof(QrvIndexEntry) + kTrailerBytes;
    if (distance > INT32_MAX || distance > double(file.size())) return false;
    reserveTable(index, count);
    index.resize(count);
    const size_t got = file.read(uint64_t(file.size()) - uint64_t(int32_t(distance)), index.data(),
                                 count * sizeof(QrvIndexEntry));
    index.resize(got / sizeof(QrvIndexEntry));  // entries cut short are skipped
    return true;
}

// The sample info that ends where an index entry's record begins.
FileRange sampleInfoBefore(const QrvIndexEntry& entry) {
    return entry.recordOffset >= kSampleInfoBytes ? FileRange{entry.recordOffset - kSampleInfoBytes, kSampleInfoBytes}
                                                  : kNoFileRange;
}

// Reads the head of every record and the sample infos of an index in one pass over the file,
// and keeps the heads when `heads` is given. Entry i of the index gives where record i - 1 ends,
// so table position k receives the info of record k; the last record has no following entry and
// gets none here. Unreadable infos are skipped. An entry that does not point at a record head
// (one of its frame type, whose record ends by `recordsEnd`) fails the read, and so does a table
// that would hold more entries than the file can hold records.
bool readRecordTables(const FileBytes& file, const std::vector<QrvIndexEntry>& index, uint64_t recordsEnd,
                      std::vector<QrvSampleInfo>& infos, std::vector<QrvRecordHead>* heads) {
    const size_t count = index.size();
    if (count > recordCapacity(file.size())) return false;
    // Room for N infos: the software reader appends the last record's after this.
    reserveTable(infos, count);
    if (heads) reserveTable(*heads, count);
    // Range 2k is the head of record k, range 2k + 1 its info.
    FileRangeReader ranges(file, count * 2, [&](size_t j) {
        const size_t record = j / 2;
        if (j % 2 == 0) return FileRange{index[record].recordOffset, kQrvRecordHeadBytes};
        return record + 1 < count ? sampleInfoBefore(index[record + 1]) : kNoFileRange;
    });
    for (size_t record = 0; record < count; ++record) {
        const uint8_t* raw = ranges.at(record * 2);
        if (!raw) return false;
        QrvRecordHead head;
        uint32_t payloadBytes = 0;
        decodeHead(raw, head, payloadBytes);
        if (head.frameType != index[record].frameType ||
            !rangeInFile(int64_t(recordsEnd), index[record].recordOffset,
                         kQrvRecordHeadBytes + uint64_t(payloadBytes) + kSampleInfoBytes))
            return false;
        if (heads) heads->push_back(head);
        if (record + 1 == count) break;
        const uint8_t* info = ranges.at(record * 2 + 1);
        if (!info) continue;
        QrvSampleInfo copy;
        memcpy(&copy, info, sizeof copy);
        infos.push_back(copy);
    }
    return true;
}

// Lists the records of a file and reads their tables: from the file's own index when it fits the
// file, else from a scan of the records, which is how a recording that was never closed (or was
// cut short) is read: as the file that closing it after its last complete record would have made.
// Readers used to refuse such files; their records are the data the host recorded.
bool readRecords(const FileBytes& file, std::vector<QrvIndexEntry>& index, uint32_t& frameCount,
                 QrvRecordsFound& found, std::vector<QrvSampleInfo>& infos, std::vector<QrvRecordHead>* heads) {
    found = {true, 0, uint64_t(std::max<int64_t>(file.size(), 0))};
    if (qrvReadClosedIndex(file, index, frameCount, found.recordsEnd) &&
        readRecordTables(file, index, found.recordsEnd, infos, heads))
        return true;
    infos.clear();
    if (heads) heads->clear();
    QrvRecordScan scan;
    if (!qrvScanRecords(file, scan)) return false;
    index = std::move(scan.index);
    // What closing the file would have written: the encoder's count, the last record's number.
    frameCount = scan.lastFrameNumber;
    found = {false, scan.recordsEnd, found.fileBytes};
    return readRecordTables(file, index, found.recordsEnd, infos, heads);
}

// Where the index readers leave the stream: at the start of the file after a successful
// read, after the trailer otherwise.
bool finishIndexRead(FILE* stream, bool read) {
    if (!read) {
        qrvSeek(stream, 0, SEEK_END);
        return false;
    }
    return qrvSeek(stream, 0, SEEK_SET) == 0;
}

// Seeks to a record whose head lies within the file.
bool seekToRecord(FILE* stream, uint64_t offset) {
    return rangeInFile(fileSize(stream), offset, kQrvRecordHeadBytes) &&
           qrvSeek(stream, int64_t(offset), SEEK_SET) == 0;
}

// width * height * 4 in size_t; false when it overflows.
bool frameBytes(uint32_t width, uint32_t height, size_t& bytes) {
    if (height != 0 && size_t(width) > SIZE_MAX / 4 / height) return false;
    bytes = size_t(width) * height * 4;
    return true;
}

}  // namespace

bool qrvReadClosedIndex(const FileBytes& file, std::vector<QrvIndexEntry>& index, uint32_t& frameCount,
                        uint64_t& recordsEnd) {
    if (!readTrailer(file, frameCount) || frameCount == 0 || !readIndexEntries(file, frameCount, index) ||
        index.size() != frameCount)
        return false;
    recordsEnd = uint64_t(file.size()) - (uint64_t(frameCount) * sizeof(QrvIndexEntry) + kTrailerBytes);
    return true;
}

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

namespace {

// Ends the file behind `stream` at `size`; false where it cannot be cut (a pipe, a device).
bool cutFileAt(FILE* stream, int64_t size) {
#ifdef _WIN32
    return _chsize_s(_fileno(stream), size) == 0;
#else
    return ftruncate(fileno(stream), off_t(size)) == 0;
#endif
}

// Puts the stream back at `start` after a failed write and cuts off what reached the file from
// there, so that what is written next lands where the failed piece began. (The C library drops
// the bytes it could not write from its buffer, so the seek does not write them again.) Returns
// the write's errno.
int abandonWrite(FILE* stream, int64_t start, int error) {
    if (qrvSeek(stream, start, SEEK_SET) == 0) cutFileAt(stream, start);
    return error != 0 ? error : EIO;
}

using WritePiece = std::pair<const void*, size_t>;

// Writes `pieces` in order at the stream's position and flushes them, so that a full disk or a
// file size limit fails this write, not a later one. Returns 0, or the errno of the failed write
// after abandonWrite().
int writeAndFlush(FILE* stream, std::initializer_list<WritePiece> pieces) {
    const int64_t start = qrvTell(stream);
    if (start < 0) return errno != 0 ? errno : EIO;
    for (const auto& [bytes, byteCount] : pieces) {
        errno = 0;
        if (byteCount > 0 && fwrite(bytes, 1, byteCount, stream) != byteCount) return abandonWrite(stream, start, errno);
    }
    errno = 0;
    return fflush(stream) == 0 ? 0 : abandonWrite(stream, start, errno);
}

}  // namespace

bool qrvMetadataFits(const uint32_t* metadata, int32_t metadataWords) {
    return metadataWords >= 0 && size_t(metadataWords) <= kMetadataWords && (metadata || metadataWords == 0);
}

// Every record carries all 64 metadata words, the shorter counts padded with zeros: readers find a
// record's sample info as the 264 bytes before the next record, so any other length misplaces it.
int qrvWriteRecord(FILE* stream, const QrvRecord& record, uint32_t* checksum) {
    if (!qrvMetadataFits(record.metadata, record.metadataWords)) return EINVAL;
    uint8_t head[kQrvRecordHeadBytes];
    const uint32_t storedPayloadBytes = uint32_t(record.payloadBytes);
    memcpy(head, &record.frameNumber, 4);
    memcpy(head + 4, &record.captureTime, 8);
    memcpy(head + 12, &record.frameType, 4);
    memcpy(head + 16, &storedPayloadBytes, 4);
    QrvSampleInfo info{record.captureTime / 1000, {}};
    if (record.metadataWords > 0) memcpy(info.metadata, record.metadata, size_t(record.metadataWords) * 4);
    const size_t payloadBytes = record.payload ? size_t(record.payloadBytes) : 0;
    if (checksum)
        *checksum = qrvChecksum(qrvChecksum(qrvChecksum(0, head, sizeof head), record.payload, payloadBytes), &info,
                                sizeof info);
    return writeAndFlush(stream, {{head, sizeof head}, {record.payload, payloadBytes}, {&info, sizeof info}});
}

int qrvWriteIndex(FILE* stream, const std::vector<QrvIndexEntry>& index, uint32_t frameCount) {
    return writeAndFlush(stream, {{index.data(), index.size() * sizeof(QrvIndexEntry)}, {&frameCount, 4}});
}

int qrvWriteHeader(FILE* stream, const uint8_t* header, size_t headerBytes) {
    return writeAndFlush(stream, {{header, headerBytes}});
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
    const FileBytes file(stream);
    // The table deliberately stops at N - 1 infos: the last record's info is never served here.
    if (!readRecords(file, index_, frameCount_, found_, sampleInfos_, nullptr)) {
        index_ = {};
        sampleInfos_ = {};
        frameCount_ = 0;
        return finishIndexRead(stream, false);
    }
    return finishIndexRead(stream, true);
}

// Deliberate departure: the payload buffer grows to the payload read, up to twice the raw NV12
// picture (the encoders' cap on one frame; lossless key frames of noisy data outgrow the old
// width x height x 4 buffer of some data formats) and never beyond the file's size, in place of
// one buffer of width x height x 4 bytes.
bool QrvHardwareReader::growPayloadBuffer(size_t bytes) {
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
    uint32_t payloadBytes = 0;
    // Frame numbers count from 1, so this also refuses the last record of a file; files have
    // always been read this way.
    switch (readHead(stream, int64_t(uint32_t(frameCount_ - 1)), head, payloadBytes)) {
        case HeadRead::Refused: return RecordOutcome::Refused;
        case HeadRead::Short: return RecordOutcome::NotDecoded;
        case HeadRead::Read: break;
    }
    const bool accepted = payloadBytes <= std::min(packing::maxAccessUnitBytes(width, height), found_.fileBytes);
    // The sample info is read with the payload: a call into stdio costs more than copying 264
    // bytes. It is then read before the decode step, so a step that throws leaves the stream
    // after the info, not before it.
    if (accepted && !growPayloadBuffer(size_t(payloadBytes) + kSampleInfoBytes)) {
        // A frame number beyond the index (the trailer may claim more records than it lists)
        // fails the record instead of raising an exception out of the walk.
        if (head.frameNumber < index_.size())
            qrvSeek(stream, int64_t(index_[head.frameNumber].recordOffset), SEEK_SET);
        return RecordOutcome::NotDecoded;
    }
    int decoded = -1;
    bool infoRead = false;
    if (!accepted) {
        // No frame of this size has such a payload: skip it so the stream stays at record starts.
        qrvSeek(stream, int64_t(payloadBytes), SEEK_CUR);
        infoRead = readExact(stream, sampleInfo, kSampleInfoBytes);
    } else {
        const size_t got = fread(payloadBuffer_.data(), 1, payloadBytes + kSampleInfoBytes, stream);
        if (got >= payloadBytes) decoded = decode(payloadBuffer_.data(), payloadBytes, frame);
        infoRead = got == payloadBytes + kSampleInfoBytes;
        if (infoRead) memcpy(sampleInfo, payloadBuffer_.data() + payloadBytes, kSampleInfoBytes);
    }
    // Whatever the decode gave, the info is handed on; one that cannot be read as zeros.
    if (!infoRead) memset(sampleInfo, 0, kSampleInfoBytes);
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

namespace {

bool readSoftwareIndex(const FileBytes& file, QrvSoftwareIndex& read) {
    uint32_t frameCount = 0;
    // The record heads answer every sample lookup of the software decoder, so a record that
    // lies outside the file makes the whole index unusable.
    if (!readRecords(file, read.frameList, frameCount, read.found, read.sampleInfos, &read.recordHeads)) return false;
    read.sampleCount = int32_t(frameCount);
    if (read.sampleCount < 1) return false;

    // The last record's metadata ends where the records end. Its time is not read from the
    // file: the head's captureTime / 1000 is what the writer stored there.
    QrvSampleInfo last;
    if (read.found.recordsEnd >= kMetadataBytes &&
        file.read(read.found.recordsEnd - kMetadataBytes, last.metadata, kMetadataBytes) == kMetadataBytes) {
        last.sampleTime = read.recordHeads.back().captureTime / 1000;
        read.sampleInfos.push_back(last);
    }
    return true;
}

}  // namespace

bool qrvReadSoftwareIndex(FILE* stream, QrvSoftwareIndex& tables) {
    tables = QrvSoftwareIndex{};
    QrvSoftwareIndex read;
    {
        const FileBytes file(stream);
        if (!readSoftwareIndex(file, read)) return finishIndexRead(stream, false);
    }
    tables = std::move(read);
    return finishIndexRead(stream, true);
}

bool qrvReadSoftwareRecord(FILE* stream, int32_t sampleCount, std::vector<uint8_t>& payload, uint64_t payloadLimit,
                           QrvSoftwareRecord& record) {
    if (readHead(stream, sampleCount, record.head, record.payloadBytes) != HeadRead::Read) return false;
    bool fits = record.payloadBytes <= payloadLimit;
    // The same departure as the hardware reader's: the buffer grows to the payload, up to the limit.
    if (fits && payload.size() < record.payloadBytes + kSampleInfoBytes) {
        try {
            payload.resize(record.payloadBytes + kSampleInfoBytes);
        } catch (const std::bad_alloc&) {
            fits = false;
        }
    }
    // sampleTime and the metadata, unchecked: read with the payload (a call into stdio costs
    // more than copying 264 bytes), or on their own after skipping a payload that does not fit.
    uint8_t infoBuffer[kSampleInfoBytes];
    const uint8_t* info = infoBuffer;
    size_t payloadRead = 0, infoRead = 0;
    if (fits) {
        const size_t got = fread(payload.data(), 1, record.payloadBytes + kSampleInfoBytes, stream);
        payloadRead = std::min<size_t>(got, record.payloadBytes);
        info = payload.data() + record.payloadBytes;
        infoRead = got - payloadRead;
    } else {
        qrvSeek(stream, int64_t(record.payloadBytes), SEEK_CUR);
        infoRead = fread(infoBuffer, 1, sizeof infoBuffer, stream);
    }
    memcpy(&record.sampleTime, info, std::min<size_t>(infoRead, 8));
    if (infoRead > 8) memcpy(record.metadata, info + 8, infoRead - 8);
    return fits && payloadRead >= 1;
}

// ---- Record access by offset ------------------------------------------------------

bool qrvReadRecordAt(const FileBytes& file, uint64_t offset, QrvRecordHead& head, uint32_t& payloadBytes,
                     std::vector<uint8_t>* payload) {
    uint8_t raw[kQrvRecordHeadBytes];
    if (file.read(offset, raw, sizeof raw) != sizeof raw) return false;
    decodeHead(raw, head, payloadBytes);
    if (!rangeInFile(file.size(), offset + kQrvRecordHeadBytes, payloadBytes)) return false;
    if (!payload) return true;
    payload->resize(payloadBytes);
    return file.read(offset + kQrvRecordHeadBytes, payload->data(), payloadBytes) == payloadBytes;
}

bool qrvReadRecordAt(FILE* stream, uint64_t offset, QrvRecordHead& head, uint32_t& payloadBytes,
                     std::vector<uint8_t>* payload) {
    return qrvReadRecordAt(FileBytes(stream), offset, head, payloadBytes, payload);
}
