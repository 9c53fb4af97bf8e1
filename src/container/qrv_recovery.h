// Checking the records of a recording against the checksums in its index, and closing a
// recording that was never closed. docs/design.md ("Record checksums", "Unclosed recordings")
// gives the rules.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "container/qrv_file.h"

class FileBytes;

// CRC-32 of the record at `offset` as written: head, payload, sample time and metadata. False
// when the record does not end by `recordsEnd` or cannot be read.
bool qrvRecordChecksum(const FileBytes& file, uint64_t offset, uint64_t recordsEnd, uint32_t& checksum);

struct QrvVerification {
    bool closed = false;       // the file has an index; an unclosed one has nothing to check against
    bool checksummed = false;  // its entries carry record checksums
    size_t records = 0;        // records listed by the index, or found by a scan when unclosed
    uint64_t bytesAfterRecords = 0;  // unclosed: the torn tail after the last complete record
    std::vector<size_t> damaged;     // records that fail their checksum or do not lie in the file
};

// False when the file holds no record at all.
bool qrvVerify(FILE* stream, QrvVerification& result);

// Writes the index and trailer that close the records of `tables` (as a reader found them),
// each entry with its record's checksum. False when a record cannot be read or a write fails.
bool qrvWriteClosingIndex(FILE* in, const QrvSoftwareIndex& tables, FILE* out);
