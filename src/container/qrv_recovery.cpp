#include "container/qrv_recovery.h"

#include <algorithm>

#include "container/checksum.h"
#include "container/file_ranges.h"
#include "container/qrv_scan.h"

bool qrvRecordChecksum(const FileBytes& file, uint64_t offset, uint64_t recordsEnd, uint32_t& checksum) {
    uint32_t payloadBytes = 0;
    uint8_t chunk[65536];
    if (file.read(offset + 16, &payloadBytes, 4) != 4) return false;
    const uint64_t bytes = kQrvRecordHeadBytes + uint64_t(payloadBytes) + sizeof(QrvSampleInfo);
    if (!rangeInFile(int64_t(std::min<uint64_t>(recordsEnd, uint64_t(std::max<int64_t>(file.size(), 0)))), offset, bytes))
        return false;
    checksum = 0;
    for (uint64_t done = 0; done < bytes;) {
        const size_t piece = size_t(std::min<uint64_t>(sizeof chunk, bytes - done));
        if (file.read(offset + done, chunk, piece) != piece) return false;
        checksum = qrvChecksum(checksum, chunk, piece);
        done += piece;
    }
    return true;
}

bool qrvVerify(FILE* stream, QrvVerification& result) {
    result = QrvVerification{};
    const FileBytes file(stream);
    std::vector<QrvIndexEntry> index;
    uint32_t frameCount = 0;
    uint64_t recordsEnd = 0;
    if (!qrvReadClosedIndex(file, index, frameCount, recordsEnd)) {
        QrvRecordScan scan;
        if (!qrvScanRecords(file, scan)) return false;
        result.records = scan.index.size();
        result.bytesAfterRecords = uint64_t(file.size()) - scan.recordsEnd;
        return true;
    }
    result.closed = true;
    result.records = index.size();
    // Other writers leave the spare word undefined (this library's older versions wrote 0): a file
    // carries checksums when the word of at least one entry is its record's checksum, which chance
    // gives one entry in 2^32. Then every entry whose word differs names a damaged record.
    std::vector<bool> matches(index.size());
    for (size_t i = 0; i < index.size(); ++i) {
        uint32_t checksum = 0;
        const bool read = qrvRecordChecksum(file, index[i].recordOffset, recordsEnd, checksum);
        matches[i] = read && checksum == index[i].reserved;
        result.checksummed = result.checksummed || matches[i];
        if (!read) result.damaged.push_back(i);
    }
    if (result.checksummed) {
        result.damaged.clear();
        for (size_t i = 0; i < index.size(); ++i)
            if (!matches[i]) result.damaged.push_back(i);
    }
    return true;
}

bool qrvWriteClosingIndex(FILE* in, const QrvSoftwareIndex& tables, FILE* out) {
    const FileBytes file(in);
    std::vector<QrvIndexEntry> index = tables.frameList;
    for (QrvIndexEntry& entry : index)
        if (!qrvRecordChecksum(file, entry.recordOffset, tables.found.recordsEnd, entry.reserved)) return false;
    return qrvWriteIndex(out, index, uint32_t(tables.sampleCount)) == 0;
}
