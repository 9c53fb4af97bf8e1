#include "codec/SwDecoder.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "container/annexb.h"

namespace {

constexpr int kWorkerThreads = 4;
// Bound on the wait for one record's picture. libde265 answers every record long before
// this; it only guards against a decoder that keeps reporting work without finishing.
constexpr std::chrono::seconds kPictureDeadline{2};

// A record holds at most an uncompressed 4:2:0 picture: 1.5 bytes a pixel.
size_t payloadCapacity(uint32_t width, uint32_t height) {
    const int32_t pixels = static_cast<int32_t>(width * height);
    return pixels > 0 ? static_cast<size_t>(pixels * 1.5) : 0;
}

// Writes the top-left w x h of an 8-bit 4:2:0 picture as packed YUYV 4:2:2, 2 * w bytes a
// row; each chroma row serves two output rows. Rows are addressed with the strides that
// libde265 reports, since it pads its planes. False when the picture is smaller than w x h
// or not 8-bit 4:2:0, so that nothing outside its planes is read.
bool writeYuyv(const de265_image* picture, uint8_t* out, uint32_t w, uint32_t h) {
    if (de265_get_chroma_format(picture) != de265_chroma_420) return false;
    for (int channel = 0; channel < 3; ++channel)
        if (de265_get_bits_per_pixel(picture, channel) != 8) return false;
    if (w > uint32_t(de265_get_image_width(picture, 0)) ||
        h > uint32_t(de265_get_image_height(picture, 0)))
        return false;

    int lumaStride = 0, cbStride = 0, crStride = 0;
    const uint8_t* luma = de265_get_image_plane(picture, 0, &lumaStride);
    const uint8_t* cb = de265_get_image_plane(picture, 1, &cbStride);
    const uint8_t* cr = de265_get_image_plane(picture, 2, &crStride);
    if (!luma || !cb || !cr) return false;

    const size_t pairs = w / 2;
    for (size_t r = 0; r < h; ++r) {
        const uint8_t* yRow = luma + r * size_t(lumaStride);
        const uint8_t* cbRow = cb + (r >> 1) * size_t(cbStride);
        const uint8_t* crRow = cr + (r >> 1) * size_t(crStride);
        uint8_t* o = out + r * 2 * size_t(w);
        for (size_t i = 0; i < pairs; ++i) {
            o[4 * i] = yRow[2 * i];
            o[4 * i + 1] = cbRow[i];
            o[4 * i + 2] = yRow[2 * i + 1];
            o[4 * i + 3] = crRow[i];
        }
        if (w & 1) {
            o[2 * (w - 1)] = yRow[w - 1];
            o[2 * (w - 1) + 1] = cbRow[(w - 1) >> 1];
        }
    }
    return true;
}

// Pictures that a pipe of w x h accepts hold at most its size rounded up to whole 64 x 64
// coding blocks, in pixels; the area, not each side, is bounded, so a pipe narrower than its
// pictures still gets their top-left part.
uint64_t pictureAreaBound(uint32_t w, uint32_t h) {
    const auto roundUp = [](uint32_t side) { return (uint64_t(side) + 63) / 64 * 64; };
    return roundUp(w) * roundUp(h);
}

}  // namespace

SwDecoder::SwDecoder(uint32_t w, uint32_t h, uint32_t reserved)
    : payloadBuffer(payloadCapacity(w, h)), width(w), height(h), swReserved(reserved),
      pictureAreaLimit(pictureAreaBound(w, h)) {
    decoder = de265_new_decoder();
    if (!decoder) return;
    // Pictures with decoding faults are still delivered.
    de265_set_parameter_bool(decoder, DE265_DECODER_PARAM_SUPPRESS_FAULTY_PICTURES, false);
    lastError = de265_start_worker_threads(decoder, kWorkerThreads);
    ready = lastError == DE265_OK;
}

SwDecoder::~SwDecoder() {
    if (decoder) de265_free_decoder(decoder);
}

bool SwDecoder::readIndex(FILE* s) {
    // The reference chain is kept: re-reading the index of the file being decoded changes
    // nothing in the decoder, and its next record still continues the chain.
    return qrvReadSoftwareIndex(s, tables);
}

bool SwDecoder::lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const {
    return qrvLookUpSampleInfo(tables.sampleInfos, sample, sampleInfo);
}

const de265_image* SwDecoder::decodeRecord() {
    const int64_t recordStart = qrvTell(stream);
    if (!qrvReadSoftwareRecord(stream, tables.sampleCount, payloadBuffer.data(),
                               payloadBuffer.size(), lastRecord))
        return nullptr;
    // A record cut off by the end of the file would leave stale bytes of an earlier
    // payload in the buffer.
    if (feof(stream)) {
        referenceChainEnd = -1;
        return nullptr;
    }
    // libde265 conceals a missing reference picture with a made-up one and reports nothing,
    // so a picture predicted from a record that was never decoded is refused here. Whether a
    // record starts a new chain is read from its payload, not from its frame-type field.
    if (recordStart != referenceChainEnd &&
        !annexBHasRandomAccessPicture(payloadBuffer.data(), lastRecord.payloadBytes, AnnexBCodec::Hevc)) {
        referenceChainEnd = -1;
        return nullptr;
    }

    // Deliberate departure: a record whose parameter sets declare a picture larger than the
    // pipe's is refused before libde265 sees it. libde265 allocates the declared picture and
    // conceals what the payload lacks, so a record of a hundred bytes claiming 16384 x 16384
    // would cost a gigabyte and seconds inside one de265_decode call, where no deadline reaches.
    if (!declaresPictureWithinLimit(payloadBuffer.data(), lastRecord.payloadBytes)) {
        referenceChainEnd = -1;
        return nullptr;
    }

    lastError = de265_push_data(decoder, payloadBuffer.data(), int(lastRecord.payloadBytes),
                                ptsCounter, nullptr);
    ptsCounter += lastRecord.payloadBytes;
    // Each record is decoded as a complete piece of stream, so its picture comes out now.
    // The decoder keeps its reference pictures across the flush.
    de265_flush_data(decoder);

    // Each de265_decode call decodes one NAL unit. Once the record's data is used up
    // (more = 0) without a picture, none will come: the record is bad.
    const auto deadline = std::chrono::steady_clock::now() + kPictureDeadline;
    for (;;) {
        int more = 0;
        const de265_error status = de265_decode(decoder, &more);
        if (const de265_image* picture = de265_get_next_picture(decoder)) {
            // The whole record was read (no end of file), so it ends where its size says.
            referenceChainEnd = recordStart + int64_t(lastRecord.fileBytes());
            return picture;
        }
        if (!more || std::chrono::steady_clock::now() > deadline) break;
        // A stalled decoder (waiting for input or for its worker threads) gets a moment;
        // a decoder that made progress is asked again at once.
        if (status != DE265_OK) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    referenceChainEnd = -1;
    return nullptr;
}

bool SwDecoder::declaresPictureWithinLimit(const uint8_t* payload, uint32_t bytes) const {
    std::vector<HevcPictureSize> sizes;
    if (!hevcDeclaredPictureSizes(payload, bytes, sizes)) return false;
    for (const HevcPictureSize& size : sizes)
        if (uint64_t(size.width) * size.height > pictureAreaLimit) return false;
    return true;
}

bool SwDecoder::decodeNextRecord(FILE* s, uint8_t* out, uint32_t* frameNumber,
                                 uint64_t* captureTime, uint32_t* frameType, uint8_t* sampleInfo,
                                 uint32_t w, uint32_t h, bool convert) {
    stream = s;
    const de265_image* picture = decodeRecord();
    if (!picture) return false;
    if (!convert) return true;
    if (!writeYuyv(picture, out, w, h)) return false;

    const size_t count = size_t(tables.sampleCount);
    if (tables.sampleCount < 1 || tables.sampleInfos.size() != count ||
        tables.recordHeads.size() != count)
        return false;
    for (size_t i = 0; i < count; ++i) {
        if (tables.sampleInfos[i].sampleTime != lastRecord.sampleTime) continue;
        const QrvRecordHead& head = tables.recordHeads[i];
        *frameNumber = head.frameNumber;
        *captureTime = head.captureTime;
        *frameType = head.frameType;
        std::memcpy(sampleInfo, &tables.sampleInfos[i], sizeof(QrvSampleInfo));
        return true;
    }
    return false;
}

bool SwDecoder::seekToSample(FILE* s, int32_t sample) {
    stream = s;
    if (sample < 0) return false;
    const int32_t key = qrvKeyFrameAtOrBefore(tables.frameList, sample);
    if (qrvSeek(stream, int64_t(tables.frameList[size_t(key)].recordOffset), SEEK_SET) != 0) return false;
    // The records between the key frame and the sample are decoded only to fill the
    // decoder's reference pictures; their pictures are dropped from its output queue.
    for (int32_t i = key; i < sample; ++i)
        if (!decodeRecord()) return false;
    return true;
}
