// Record payloads alone into the software decoder: up to four payloads, separated by the bytes
// "QRVNEXT", are stored as the records of a file and decoded in order, by the H.264 decoder when
// the first payload is H.264 (as annexBDetectCodec tells), else by the HEVC one. Every record read must
// return within the decoder's deadline for one picture.
//
// Input: u16 width - 1, u16 height - 1 (modulo 1024), then the payloads.
#include <algorithm>
#include <cstring>

#include "codec/SwDecoder.h"
#include "container/annexb.h"
#include "fuzz_input.h"

namespace {

constexpr size_t kMaxRecords = 4;
constexpr char kSeparator[] = "QRVNEXT";
// The decoder gives up on a picture after 2 s; reading the record costs next to nothing.
constexpr std::chrono::milliseconds kRecordBound{3000};

std::vector<std::vector<uint8_t>> splitPayloads(const std::vector<uint8_t>& bytes) {
    std::vector<std::vector<uint8_t>> payloads;
    const auto* separatorEnd = kSeparator + sizeof kSeparator - 1;
    auto begin = bytes.begin();
    while (payloads.size() + 1 < kMaxRecords) {
        const auto found = std::search(begin, bytes.end(), kSeparator, separatorEnd);
        if (found == bytes.end()) break;
        payloads.emplace_back(begin, found);
        begin = found + (separatorEnd - kSeparator);
    }
    payloads.emplace_back(begin, bytes.end());
    return payloads;
}

// The file a recorder writes for these payloads: 64 metadata words each, key frames marked.
std::vector<uint8_t> recordingOf(const std::vector<std::vector<uint8_t>>& payloads, AnnexBCodec codec) {
    char* buffer = nullptr;
    size_t bytes = 0;
    FILE* stream = open_memstream(&buffer, &bytes);
    if (!stream) abort();
    uint32_t metadata[kMetadataWords] = {};
    std::vector<QrvIndexEntry> index;
    for (size_t i = 0; i < payloads.size(); ++i) {
        const std::vector<uint8_t>& payload = payloads[i];
        const bool key = annexBHasRandomAccessPicture(payload.data(), payload.size(), codec);
        const uint32_t frameType = key ? kKeyFrameType : 0;
        index.push_back({uint64_t(qrvTell(stream)), frameType, 0});
        metadata[0] = uint32_t(i);
        qrvWriteRecord(stream, {uint32_t(i + 1), 40000 * (i + 1), frameType, payload.data(), payload.size(),
                                metadata, int32_t(kMetadataWords)});
    }
    qrvWriteIndex(stream, index, uint32_t(index.size()));
    fclose(stream);
    std::vector<uint8_t> file(buffer, buffer + bytes);
    free(buffer);
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const PipeSize pipeSize = readPipeSize(in);
    const std::vector<std::vector<uint8_t>> payloads = splitPayloads(in.rest());
    const std::vector<uint8_t>& first = payloads.front();
    const bool h264 = annexBDetectCodec(first.data(), first.size()) == AnnexBCodec::H264;
    std::vector<uint8_t> bytes = recordingOf(payloads, h264 ? AnnexBCodec::H264 : AnnexBCodec::Hevc);
    MemoryFile file = openMemory(bytes);

    SwDecoder decoder(pipeSize.width, pipeSize.height, 0, h264 ? 0 : 1);
    if (!decoder.isReady() || !decoder.readIndex(file.get())) abort();  // a file written as above
    std::vector<uint8_t> frame(size_t(pipeSize.width) * pipeSize.height * 2);
    uint8_t sampleInfo[sizeof(QrvSampleInfo)];
    for (uint32_t i = 0; i < payloads.size(); ++i) {
        uint32_t frameNumber = 0, frameType = 0;
        uint64_t captureTime = 0;
        const bool decoded = withinBound(kRecordBound, "reading one record", [&] {
            return decoder.decodeNextRecord(file.get(), frame.data(), &frameNumber, &captureTime, &frameType,
                                            sampleInfo, pipeSize.width, pipeSize.height, true);
        });
        // A picture comes with the head and metadata of its own record.
        if (decoded && (frameNumber != i + 1 || memcmp(sampleInfo + 8, &i, 4) != 0)) abort();
    }
    return 0;
}
