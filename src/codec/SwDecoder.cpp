#include "codec/SwDecoder.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "kernels/packing.h"

namespace {

// Writes the top-left w x h of an 8-bit 4:2:0 picture as packed YUYV 4:2:2, 2 * w bytes a
// row; each chroma row serves two output rows. Rows are addressed with the strides that the
// decoder reports, since it pads its planes. False when the picture is smaller than w x h or
// not 8-bit 4:2:0, so that nothing outside its planes is read.
bool writeYuyv(const DecodedPicture& picture, uint8_t* out, uint32_t w, uint32_t h) {
    if (!picture.planar420 || w > picture.width || h > picture.height) return false;
    const uint8_t* luma = picture.planes[0];
    const uint8_t* cb = picture.planes[1];
    const uint8_t* cr = picture.planes[2];
    const size_t pairs = w / 2;
    for (size_t r = 0; r < h; ++r) {
        const uint8_t* yRow = luma + r * size_t(picture.strides[0]);
        const uint8_t* cbRow = cb + (r >> 1) * size_t(picture.strides[1]);
        const uint8_t* crRow = cr + (r >> 1) * size_t(picture.strides[2]);
        uint8_t* o = out + r * 2 * size_t(w);
        // Eight pairs at a time with SSE2 (every x86-64 processor has it): the byte-wise loop
        // took a seventh of the time of decoding a 640 x 480 H.264 picture.
        size_t i = 0;
        for (; i + 8 <= pairs; i += 8) {
            const __m128i luma16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(yRow + 2 * i));
            const __m128i chroma = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cbRow + i)),
                                                     _mm_loadl_epi64(reinterpret_cast<const __m128i*>(crRow + i)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 4 * i), _mm_unpacklo_epi8(luma16, chroma));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 4 * i + 16), _mm_unpackhi_epi8(luma16, chroma));
        }
        for (; i < pairs; ++i) {
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

}  // namespace

// Deliberate departure: a record's payload may take twice the raw NV12 picture (the encoders'
// cap on one frame), not 1.5 bytes a pixel; H.264 at least 4 bytes a pixel, as lossless H.264 of
// noisy data takes more than its raw size (x264 codes no PCM macroblocks). The buffer grows to
// the payloads read, never beyond the file's size.
uint64_t recordPayloadLimit(uint32_t width, uint32_t height, uint32_t codec) {
    return std::max(packing::maxAccessUnitBytes(width, height), codec == 0 ? 4 * uint64_t(width) * height : 0);
}

bool unpackDecodedPicture(const DecodedPicture& picture, uint32_t dataFormat, uint32_t width, uint32_t height,
                          std::vector<uint8_t>& nv12, uint8_t* out) {
    const uint32_t frameWidth = packing::pictureWidth(dataFormat, width);
    const uint32_t bytes = packing::packedSize(dataFormat, width, height);
    if (!picture.planar420 || frameWidth > picture.width || height > picture.height || bytes == 0) return false;
    nv12.resize(packing::nv12Bytes(frameWidth, height));
    packing::nv12FromPlanes(picture.planes, picture.strides, frameWidth, height, nv12.data());
    std::memset(out, 0, bytes);
    return packing::unpackOnHost(dataFormat, nv12.data(), packing::nv12Pitch(frameWidth), out, width, height);
}

SwDecoder::SwDecoder(uint32_t w, uint32_t h, uint32_t reserved, uint32_t codec)
    : payloadLimit(recordPayloadLimit(w, h, codec)), width(w), height(h), swReserved(reserved),
      decoder(makePictureDecoder(codec, w, h)) {}

bool SwDecoder::readIndex(FILE* s) {
    // The reference chain is kept: re-reading the index of the file being decoded changes
    // nothing in the decoder, and its next record still continues the chain.
    return qrvReadSoftwareIndex(s, tables);
}

bool SwDecoder::lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const {
    return qrvLookUpSampleInfo(tables.sampleInfos, sample, sampleInfo);
}

bool SwDecoder::decodeRecord(DecodedPicture& picture) {
    const int64_t recordStart = qrvTell(stream);
    if (!qrvReadSoftwareRecord(stream, tables.sampleCount, payloadBuffer,
                               std::min(payloadLimit, tables.found.fileBytes), lastRecord))
        return false;
    // A record cut off by the end of the file would leave stale bytes of an earlier
    // payload in the buffer.
    if (feof(stream)) {
        referenceChainEnd = -1;
        return false;
    }
    // Both decoders conceal a missing reference picture with a made-up one and report nothing,
    // so a picture predicted from a record that was never decoded is refused here. Whether a
    // record starts a new chain is read from its payload, not from its frame-type field.
    const uint8_t* payload = payloadBuffer.data();
    if ((recordStart != referenceChainEnd && !decoder->startsReferenceChain(payload, lastRecord.payloadBytes)) ||
        !decoder->decode(payload, lastRecord.payloadBytes, picture)) {
        referenceChainEnd = -1;
        return false;
    }
    // The whole record was read (no end of file), so it ends where its size says.
    referenceChainEnd = recordStart + int64_t(lastRecord.fileBytes());
    return true;
}

bool SwDecoder::decodeNextRecord(FILE* s, uint8_t* out, uint32_t* frameNumber,
                                 uint64_t* captureTime, uint32_t* frameType, uint8_t* sampleInfo,
                                 uint32_t w, uint32_t h, bool convert) {
    stream = s;
    DecodedPicture picture;
    if (!decodeRecord(picture)) return false;
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
        if (DecodedPicture dropped; !decodeRecord(dropped)) return false;
    return true;
}
