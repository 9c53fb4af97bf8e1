#include "recording/reader.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "api/codec_object.h"
#include "container/annexb.h"
#include "container/qrv_recovery.h"
#include "kernels/packing.h"

namespace {

constexpr uint32_t kMaxPictureSide = 8192;
// Files without the header's flag are taken as checksummed when one of their first entries
// carries its record's checksum (docs/design.md, "Record checksums"); looking further would
// read a long recording of another writer whole before its first frame.
constexpr size_t kChecksumProbes = 8;

std::string frameText(uint64_t index) { return "frame " + std::to_string(index); }

}  // namespace

Reader::Reader(const char* path, const zoqrv_reader_options& options) {
    file.reset(std::fopen(path, "rb"));
    if (!file) failWithErrno(errno, std::string("cannot open ") + path);
    if (!qrvReadSoftwareIndex(file.get(), tables) || tables.sampleCount < 1 ||
        tables.frameList.size() != size_t(tables.sampleCount) || tables.recordHeads.size() != size_t(tables.sampleCount) ||
        tables.sampleInfos.size() != size_t(tables.sampleCount))
        failWith(ZOQRV_ERROR_FORMAT, std::string(path) + " is not a recording: no frame record found in it");
    bytes = std::make_unique<FileBytes>(file.get());
    describe(options);
    checksums = carriesChecksums();
    makeDecoder(options.decoder);
}

void Reader::describe(const zoqrv_reader_options& options) {
    described = readRecordingHeader(file.get(), tables, description);
    if (!described) {
        if (options.width == 0)
            failWith(ZOQRV_ERROR_FORMAT, "the recording has no header: give its kind, size and frame rate");
        description = {options.kind, options.width, options.height, options.frame_rate, 0,
                       options.time_unit_ns ? options.time_unit_ns : ZOQRV_MICROSECONDS, false, 0};
        if (options.codec != ZOQRV_CODEC_DEFAULT) {
            description.codec = uint32_t(options.codec);
        } else {  // from the first record's parameter sets
            QrvRecordHead head;
            uint32_t payloadBytes = 0;
            if (!qrvReadRecordAt(*bytes, tables.frameList.front().recordOffset, head, payloadBytes, &payload))
                failWith(ZOQRV_ERROR_FORMAT, "the first record cannot be read");
            const AnnexBCodec found = annexBDetectCodec(payload.data(), payload.size());
            if (found == AnnexBCodec::Unknown) failWith(ZOQRV_ERROR_FORMAT, "the stream's codec cannot be told");
            description.codec = found == AnnexBCodec::H264 ? ZOQRV_CODEC_H264 : ZOQRV_CODEC_HEVC;
        }
    }
    const RecordingHeader& d = description;
    // The header is as untrusted as the rest of the file.
    if (d.kind > ZOQRV_KIND_U32 || d.codec > ZOQRV_CODEC_HEVC || d.width == 0 || d.height == 0 ||
        packing::pictureWidth(d.kind, d.width) > kMaxPictureSide || d.height > kMaxPictureSide || d.timeUnitNs == 0)
        failWith(described ? ZOQRV_ERROR_FORMAT : ZOQRV_ERROR_ARGUMENT,
                 std::string(described ? "the recording header" : "the description") +
                     " names no valid kind, size, codec and time unit");
    payloadLimit = recordPayloadLimit(packing::pictureWidth(d.kind, d.width), d.height, d.codec);
}

bool Reader::carriesChecksums() const {
    if (!tables.found.closed) return false;  // a scanned index has no checksums to compare
    if (described && description.checksums) return true;
    for (size_t i = 0; i < tables.frameList.size() && i < kChecksumProbes; ++i) {
        uint32_t checksum = 0;
        if (qrvRecordChecksum(*bytes, tables.frameList[i].recordOffset, tables.found.recordsEnd, checksum) &&
            checksum == tables.frameList[i].reserved)
            return true;
    }
    return false;
}

void Reader::makeDecoder(uint32_t decoder) {
    const RecordingHeader& d = description;
    if (decoder > ZOQRV_DECODER_HARDWARE) failWith(ZOQRV_ERROR_ARGUMENT, "unknown decoder choice");
    if (decoder != ZOQRV_DECODER_SOFTWARE) {
        hardware = makeCodecObject<HwDecoder>(d.kind, d.codec, d.width, d.height);
        if (hardware && hardware->isReady()) return;
        hardware.reset();
        if (decoder == ZOQRV_DECODER_HARDWARE)
            failWith(ZOQRV_ERROR_UNAVAILABLE, "NVDEC cannot decode this recording on this machine");
    }
    software = makePictureDecoder(d.codec, packing::pictureWidth(d.kind, d.width), d.height);
    if (!software->isReady()) {
        const char* missing = pictureDecoderMissingText(d.codec);
        failWith(ZOQRV_ERROR_UNAVAILABLE, missing ? missing : "no software decoder could be started");
    }
}

zoqrv_recording_info Reader::info() const {
    const RecordingHeader& d = description;
    return {uint64_t(tables.sampleCount), d.kind,         d.width,      d.height,
            d.frameRate,                 int32_t(d.codec), d.timeUnitNs, tables.found.closed ? 1u : 0u,
            described ? 1u : 0u,         checksums ? 1u : 0u, hardware ? 1u : 0u,
            packing::tightPitch(d.kind, d.width)};
}

void Reader::frameInfo(uint64_t index, zoqrv_frame_info& info) const {
    if (index >= uint64_t(tables.sampleCount))
        failWith(ZOQRV_ERROR_ARGUMENT, frameText(index) + " is past the last of " + std::to_string(tables.sampleCount));
    const QrvRecordHead& head = tables.recordHeads[index];
    info.index = index;
    info.timestamp = head.captureTime;
    info.frame_type = head.frameType;
    std::memcpy(info.metadata, tables.sampleInfos[index].metadata, sizeof info.metadata);
}

// Where decoding frame `index` starts: the nearest record at or before it that the index calls a
// key frame (the first record when none is; whether it really starts a chain is read from its
// payload), or, when the decoder already holds the frames from there up to a later one, that one.
uint64_t Reader::chainStart(uint64_t index) const {
    const uint64_t key = uint64_t(qrvKeyFrameAtOrBefore(tables.frameList, int32_t(index)));
    if (chainEnd >= 0 && uint64_t(chainEnd) > key && uint64_t(chainEnd) <= index) return uint64_t(chainEnd);
    return key;
}

void Reader::decodeRecord(uint64_t record, uint64_t index, bool unpack) {
    const QrvIndexEntry& entry = tables.frameList[record];
    QrvRecordHead head;
    uint32_t payloadBytes = 0;
    if (!qrvReadRecordAt(*bytes, entry.recordOffset, head, payloadBytes, nullptr) || payloadBytes > payloadLimit ||
        !qrvReadRecordAt(*bytes, entry.recordOffset, head, payloadBytes, &payload))
        failWith(ZOQRV_ERROR_DECODE, frameText(index) + ": record " + std::to_string(record) + " cannot be read");
    uint32_t checksum = 0;
    if (checksums && (!qrvRecordChecksum(*bytes, entry.recordOffset, tables.found.recordsEnd, checksum) ||
                      checksum != entry.reserved))
        failWith(ZOQRV_ERROR_DAMAGED, record == index ? frameText(index) + " is damaged: its checksum does not match"
                                                      : frameText(index) + " is predicted from " + frameText(record) +
                                                            ", which is damaged: its checksum does not match");
    const AnnexBCodec codec = description.codec == ZOQRV_CODEC_H264 ? AnnexBCodec::H264 : AnnexBCodec::Hevc;
    // Decoders conceal a missing reference with a made-up picture and report nothing: a chain
    // must start at a picture that needs no earlier one.
    if (chainEnd != int64_t(record) && !annexBHasRandomAccessPicture(payload.data(), payload.size(), codec))
        failWith(ZOQRV_ERROR_DECODE, frameText(index) + " has no key frame to be decoded from");
    decoded.resize(packing::packedSize(description.kind, description.width, description.height));
    bool done = false;
    if (hardware) {
        done = hardware->decode(payload.data(), payload.size(), decoded.data()) != 0;
    } else {
        DecodedPicture picture;
        done = software->decode(payload.data(), payloadBytes, picture) &&
               (!unpack || unpackDecodedPicture(picture, description.kind, description.width, description.height,
                                                nv12, decoded.data()));
    }
    if (!done) failWith(ZOQRV_ERROR_DECODE, frameText(index) + " did not decode (record " + std::to_string(record) + ")");
    chainEnd = int64_t(record) + 1;
}

void Reader::decodeRecords(uint64_t first, uint64_t index) {
    if (int64_t(first) != chainEnd) chainEnd = -1;
    try {
        for (uint64_t record = first; record <= index; ++record) decodeRecord(record, index, record == index);
    } catch (...) {
        chainEnd = -1;
        throw;
    }
}

void Reader::read(uint64_t index, void* frame, uint64_t pitch, zoqrv_frame_info* info) {
    const uint32_t rowBytes = packing::tightPitch(description.kind, description.width);
    if (index >= uint64_t(tables.sampleCount))
        failWith(ZOQRV_ERROR_ARGUMENT, frameText(index) + " is past the last of " + std::to_string(tables.sampleCount));
    if (!frame) failWith(ZOQRV_ERROR_ARGUMENT, "no frame buffer");
    if (pitch < rowBytes)
        failWith(ZOQRV_ERROR_ARGUMENT, "pitch " + std::to_string(pitch) + " is below the row's " +
                                           std::to_string(rowBytes) + " bytes");
    decodeRecords(chainStart(index), index);
    for (uint32_t y = 0; y < description.height; ++y)
        std::memcpy(static_cast<uint8_t*>(frame) + y * pitch, decoded.data() + size_t(y) * rowBytes, rowBytes);
    next = index + 1;
    if (info) frameInfo(index, *info);
}

bool Reader::readNext(void* frame, uint64_t pitch, zoqrv_frame_info* info) {
    if (next >= uint64_t(tables.sampleCount)) return false;
    const uint64_t index = next;
    try {
        read(index, frame, pitch, info);
    } catch (const RecordingError& e) {
        // A frame that is damaged or does not decode is reported once; reading goes on after it.
        if (e.status == ZOQRV_ERROR_DAMAGED || e.status == ZOQRV_ERROR_DECODE) next = index + 1;
        throw;
    }
    return true;
}
