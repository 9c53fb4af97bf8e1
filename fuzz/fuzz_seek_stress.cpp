// Random seeks and reads on a real recording (libx264 or libx265 through the library, several
// GOPs) against one sequential decode of it made at start-up, on a software pipe and on a
// hardware pipe (the fake CUVID driver on the host device table). A seek to sample s decodes from the key frame at
// or before s and leaves the file at record s, so the reads that follow must give exactly the
// frames, heads and metadata of the sequential decode from s on; look-ups never depend on the
// position. Any difference aborts.
//
// Input: a pipe byte (bit 0: 1 hardware, 0 software; bit 1: 1 H.264, 0 HEVC), then up to 24 operation bytes: the top
// two bits the call (0 read, 1 seek, 2 time stamp, 3 metadata), the low six bits modulo
// (records + 2) the sample plus 1.
#include <algorithm>
#include <array>
#include <optional>

#include "container/qrv_file.h"
#include "fake_hardware.h"
#include "fuzz_input.h"

namespace {

constexpr uint32_t kWidth = 64, kHeight = 48, kFrames = 14, kGop = 4, kUint8 = 3;
constexpr size_t kMaxOperations = 24;

struct Read {
    uint32_t status = 1, number = 0, type = 0;
    uint64_t time = 0;
    std::vector<uint8_t> frame;
    std::array<uint8_t, 256> metadata{};
    bool operator==(const Read& o) const {
        return status == o.status && number == o.number && type == o.type && time == o.time &&
               frame == o.frame && metadata == o.metadata;
    }
};

struct LookUp {
    uint32_t timeStatus = 1, metadataStatus = 1;
    uint64_t time = 0;
    std::array<uint8_t, 256> metadata{};
    bool operator==(const LookUp& o) const {
        return timeStatus == o.timeStatus && metadataStatus == o.metadataStatus && time == o.time &&
               metadata == o.metadata;
    }
};

// What the sequential decode of one pipe kind gave.
struct Reference {
    std::vector<Read> reads;  // every read from the start up to the first failure
    std::vector<LookUp> lookUps;  // of samples -1 to kFrames
};

std::vector<uint8_t> recordings[2];  // by codec
FakeHardware* hardware;
Reference references[2][2];  // by codec, then hardware

size_t frameBytes(bool onHardware) { return size_t(kWidth) * kHeight * (onHardware ? 1 : 2); }

Pipe openPipe(uint32_t codec, bool onHardware, FILE* file) {
    // A driver that supports no codec leaves the pipe to the software decoder, which writes
    // YUYV pictures whatever the data format.
    fakeCuvid().supported = onHardware ? std::set<cudaVideoCodec>{codec ? cudaVideoCodec_HEVC : cudaVideoCodec_H264}
                                       : std::set<cudaVideoCodec>{};
    Pipe pipe(ZOHW_CreateDecoder(kUint8, codec, kWidth, kHeight, 0), &ZOHW_Destroy);
    const int start = 0;
    if (!pipe || ZOHW_GetDecoderType(pipe.get()) != (onHardware ? 1u : 2u) || ZOHW_StartDecoding(pipe.get(), &start) ||
        ZOHW_CreateQRVTracker(pipe.get(), file))
        abort();
    return pipe;
}

Read readNext(ZoHwPipe* pipe, FILE* file, bool onHardware) {
    Read r;
    r.frame.assign(frameBytes(onHardware), 0xEE);
    r.status = ZOHW_DecodeFrameAndMetadata(pipe, file, r.frame.data(), &r.number, &r.time, &r.type, r.metadata.data());
    if (r.status) r = Read{};  // a failed read promises nothing about the outputs
    return r;
}

LookUp lookUp(ZoHwPipe* pipe, FILE* file, int32_t sample) {
    LookUp l;
    l.timeStatus = ZOHW_GetTimeStampForSample(pipe, file, sample, &l.time);
    l.metadataStatus = ZOHW_GetMetadataForSample(pipe, file, l.metadata.data(), sample);
    if (l.metadataStatus) l.metadata = {};
    return l;
}

Reference decodeSequentially(uint32_t codec, bool onHardware) {
    MemoryFile file = openMemory(recordings[codec]);
    Pipe pipe = openPipe(codec, onHardware, file.get());
    Reference reference;
    // The file starts with the client's header: reading in order starts with a seek to sample 0.
    if (ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), 0)) abort();
    for (Read r; (r = readNext(pipe.get(), file.get(), onHardware)).status == 0;) reference.reads.push_back(r);
    for (int32_t sample = -1; sample <= int32_t(kFrames); ++sample)
        reference.lookUps.push_back(lookUp(pipe.get(), file.get(), sample));
    // The software reader delivers every record, the hardware reader all but the last.
    if (reference.reads.size() != kFrames - (onHardware ? 1 : 0)) {
        fprintf(stderr, "the %s pipe read %zu of %u records in order\n", onHardware ? "hardware" : "software",
                reference.reads.size(), kFrames);
        abort();
    }
    return reference;
}

void mismatch(const char* what, int position) {
    fprintf(stderr, "%s differs from the sequential decode (position %d)\n", what, position);
    abort();
}

void stress(uint32_t codec, bool onHardware, const uint8_t* operations, size_t count) {
    const Reference& reference = references[codec][onHardware];
    MemoryFile file = openMemory(recordings[codec]);
    Pipe pipe = openPipe(codec, onHardware, file.get());
    int position = -1;  // the record the next read starts at; -1 at the header or after a failed read
    for (size_t i = 0; i < count; ++i) {
        const int32_t sample = int32_t((operations[i] & 63) % (kFrames + 2)) - 1;
        switch (operations[i] >> 6) {
            case 0: {
                const Read r = readNext(pipe.get(), file.get(), onHardware);
                if (position < 0) break;
                const bool delivered = size_t(position) < reference.reads.size();
                if (!(r == (delivered ? reference.reads[size_t(position)] : Read{}))) mismatch("a read", position);
                position = delivered ? position + 1 : -1;
                break;
            }
            case 1: {
                // A seek beyond the index is refused before the file moves.
                const uint32_t status = ZOHW_SetHEVCPositionInFile(pipe.get(), file.get(), sample);
                if (status != (sample >= 0 && sample < int32_t(kFrames) ? 0u : 1u)) mismatch("a seek's result", sample);
                if (status == 0) position = sample;
                break;
            }
            default:
                if (!(lookUp(pipe.get(), file.get(), sample) == reference.lookUps[size_t(sample + 1)]))
                    mismatch("a look-up", sample);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hardware = new FakeHardware;  // for the whole run
    for (uint32_t codec : {0u, 1u}) {
        recordings[codec] = recordInSoftware(codec, kWidth, kHeight, kFrames, kGop);
        for (bool onHardware : {false, true}) references[codec][onHardware] = decodeSequentially(codec, onHardware);
    }
    hardware->checkAndReset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    stress((data[0] >> 1) & 1 ? 0 : 1, data[0] & 1, data + 1, std::min(size - 1, kMaxOperations));
    hardware->checkAndReset();
    return 0;
}
