// zoqrv info FILE [--records] [--metadata S]
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "commands.h"
#include "container/annexb.h"
#include "container/file_ranges.h"
#include "container/qrv_file.h"
#include "recording/recording_header.h"

namespace {

const char kUsage[] = "info FILE [--records] [--metadata S]";

void printRecords(FILE* stream, const QrvSoftwareIndex& tables) {
    const FileBytes file(stream);
    for (size_t i = 0; i < tables.frameList.size(); ++i) {
        const QrvIndexEntry& entry = tables.frameList[i];
        QrvRecordHead head{};
        uint32_t payloadBytes = 0;
        if (!qrvReadRecordAt(file, entry.recordOffset, head, payloadBytes, nullptr)) {
            printf("record %zu: unreadable at offset %" PRIu64 "\n", i, entry.recordOffset);
            continue;
        }
        printf("record %zu: frame %" PRIu32 " time %" PRIu64 " type %" PRIu32 " payload %" PRIu32
               " offset %" PRIu64 "\n",
               i, head.frameNumber, head.captureTime, head.frameType, payloadBytes, entry.recordOffset);
    }
}

// The table entry itself: unlike the pipe's lookups, sample 0 is shown too.
int printMetadata(const QrvSoftwareIndex& tables, const std::string& sampleText) {
    char* end = nullptr;
    const long long sample = strtoll(sampleText.c_str(), &end, 10);
    if (sampleText.empty() || *end != '\0' || sample < 0 || uint64_t(sample) >= tables.sampleInfos.size())
        return fail("no sample info for sample " + sampleText);
    const QrvSampleInfo& info = tables.sampleInfos[size_t(sample)];
    printf("sample %lld: sample time %" PRIu64 "\n", sample, info.sampleTime);
    for (size_t word = 0; word < kMetadataWords; ++word) {
        uint32_t value;
        memcpy(&value, info.metadata + 4 * word, 4);
        printf("%s%" PRIu32, word % 8 == 0 ? (word ? "\n" : "") : " ", value);
    }
    printf("\n");
    return 0;
}

}  // namespace

int runInfo(const Arguments& args) {
    std::string path;
    std::string metadataSample;
    bool records = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--records")
            records = true;
        else if (args[i] == "--metadata" && i + 1 < args.size())
            metadataSample = args[++i];
        else if (path.empty() && args[i].rfind("--", 0) != 0)
            path = args[i];
        else
            return usage(kUsage);
    }
    if (path.empty()) return usage(kUsage);

    File file = openFile(path, "rb");
    if (!file) return fail("cannot open " + path);
    QrvSoftwareIndex tables;
    if (!qrvReadSoftwareIndex(file.get(), tables)) return fail(path + ": not a QRV file (no readable sample index and no complete record)");

    size_t keyFrames = 0;
    for (const QrvIndexEntry& entry : tables.frameList) keyFrames += entry.frameType == kKeyFrameType;
    std::vector<uint8_t> firstPayload;
    QrvRecordHead head{};
    uint32_t payloadBytes = 0;
    const bool firstRead = !tables.frameList.empty() &&
                           qrvReadRecordAt(file.get(), tables.frameList[0].recordOffset, head, payloadBytes, &firstPayload);
    const AnnexBCodec codec = firstRead ? annexBDetectCodec(firstPayload.data(), firstPayload.size()) : AnnexBCodec::Unknown;

    if (!tables.found.closed) printUnclosed(tables.frameList.size(), tables.found.fileBytes - tables.found.recordsEnd);
    printf("frames: %" PRId32 "\n", tables.sampleCount);
    printf("records: %zu\n", tables.frameList.size());
    printf("key frames: %zu\n", keyFrames);
    const uint64_t first = tables.recordHeads.front().captureTime;
    const uint64_t last = tables.recordHeads.back().captureTime;
    printf("capture times: %" PRIu64 " to %" PRIu64 " (span %" PRId64 ")\n", first, last, int64_t(last - first));
    printf("codec: %s\n", annexBCodecName(codec));
    RecordingHeader header;
    if (readRecordingHeader(file.get(), tables, header))
        printf("header: kind %s, %" PRIu32 "x%" PRIu32 ", %" PRIu32 " frames/s, codec %s\n", kindName(header.kind),
               header.width, header.height, header.frameRate, header.codec == 1 ? "HEVC" : header.codec == 0 ? "H.264" : "unknown");
    if (records) printRecords(file.get(), tables);
    return metadataSample.empty() ? 0 : printMetadata(tables, metadataSample);
}
