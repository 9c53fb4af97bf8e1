// The scan that finds the records of a file without an index that fits it, and what is built on
// it: both index readers and verify. Input: the file. The scan's records must lie back to back in
// the file, each whole, and a reader that fell back to the scan must list exactly those records.
#include <cstdlib>

#include "container/file_ranges.h"
#include "container/qrv_recovery.h"
#include "container/qrv_scan.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    MemoryFile file = openMemory(bytes);
    if (!file) return 0;
    QrvRecordScan scan;
    const bool found = qrvScanRecords(FileBytes(file.get()), scan);
    if (found != !scan.index.empty() || scan.recordsEnd > size) abort();
    for (size_t i = 0; i < scan.index.size(); ++i) {
        const uint64_t next = i + 1 < scan.index.size() ? scan.index[i + 1].recordOffset : scan.recordsEnd;
        uint32_t payloadBytes = 0;
        memcpy(&payloadBytes, data + scan.index[i].recordOffset + 16, 4);
        if (next != scan.index[i].recordOffset + 20 + payloadBytes + sizeof(QrvSampleInfo)) abort();
    }
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    if (hardware.readIndex(file.get()) && !hardware.found().closed &&
        (hardware.index().size() != scan.index.size() || hardware.found().recordsEnd != scan.recordsEnd))
        abort();
    if (qrvReadSoftwareIndex(file.get(), software) && !software.found.closed && software.frameList.size() != scan.index.size())
        abort();
    QrvVerification verification;
    qrvVerify(file.get(), verification);
    return 0;
}
