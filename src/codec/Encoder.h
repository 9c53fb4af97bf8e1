// What the pipe asks of an encoder: one access unit out per frame in, its picture type, and
// the sample index of the file being written. NVENC (HwEncoder) and libx265 (SwEncoder)
// stand behind it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "container/qrv_file.h"
#include "kernels/packing.h"

class Encoder {
public:
    virtual ~Encoder() = default;

    virtual bool isReady() const = 0;
    // Bytes placed in outputBuffer(); 0 when nothing came out. Throws Exception. The picture
    // type is NVENC's numbering (IDR 3, I 2, P 0), which the file keeps as the frame type.
    virtual uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                            uint32_t* pictureType, bool forceIntra) = 0;
    virtual const uint8_t* outputBuffer() const = 0;

    // The next frame is coded as an IDR with its parameter sets. Asked for after every frame
    // that failed once the encoder had taken it, or that was encoded but not stored: the
    // encoder may already hold it as a reference, and frames after it must not refer to a
    // picture that no decoder will see.
    void requestKeyFrame() { keyFrameRequested = true; }

    uint32_t encodedFrames() const { return encodedFrameCount; }
    // Frames from one IDR to the next: a second of frames, half a second when lossless.
    static uint32_t gopLength(uint32_t lossless, uint32_t frameRate) {
        return lossless == 1 ? frameRate >> 1 : frameRate;
    }
    // Lossy rate control: the bitrate, and a VBV buffer of one frame of it. Both are cut so
    // that the VBV holds no more than the raw NV12 picture, since rate control keeps each
    // frame within its VBV and frames must stay under maxAccessUnitBytes (twice that), with
    // room for parameter sets and the encoder's overshoot.
    struct LossyRate {
        uint64_t bitsPerSecond, vbvBits;
    };
    static LossyRate lossyRate(uint64_t bitsPerSecond, uint32_t frameRate, uint32_t pictureWidth,
                               uint32_t pictureHeight) {
        const uint64_t rawPictureBits = packing::maxAccessUnitBytes(pictureWidth, pictureHeight) / 2 * 8;
        const uint64_t vbvBits = bitsPerSecond / frameRate;
        if (vbvBits <= rawPictureBits) return {bitsPerSecond, vbvBits};
        return {rawPictureBits * frameRate, rawPictureBits};
    }
    // Appends the last encode's `bytes` as a record and its entry (with the record's checksum) to
    // the index. Frame numbers and the trailer count stored records, not encoded frames: a frame
    // that was encoded but not stored would otherwise make the trailer disagree with the index,
    // and readers, which find the index from the trailer's count, would lose the whole file.
    // Returns 0, or the errno of a failed write (no entry added, the stream back at the record's
    // start).
    int storeRecord(FILE* stream, uint64_t bytes, uint32_t frameType, uint64_t timestamp, const uint32_t* metadata,
                    int32_t metadataWords) {
        const int64_t position = qrvTell(stream);
        if (position < 0) return errno != 0 ? errno : EIO;
        index.push_back(QrvIndexEntry{uint64_t(position), frameType, 0});  // room first: no record without its entry
        const int error =
            qrvWriteRecord(stream, {uint32_t(index.size()), timestamp, frameType, outputBuffer(), bytes, metadata, metadataWords},
                           &index.back().reserved);
        if (error != 0) index.pop_back();
        return error;
    }
    // Runs `call` (an encode, or an encode and its store), which returns whether the frame went
    // through; after a failure, or an exception (which goes on), the next frame is a key frame.
    template <class Call>
    bool keyFrameAfterFailure(Call call) {
        try {
            const bool done = call();
            if (!done) requestKeyFrame();
            return done;
        } catch (...) {
            requestKeyFrame();
            throw;
        }
    }
    // Encodes one width × height frame and stores it as a record (storeRecord); *bytes is its
    // payload's size. False when the encoder gave nothing; the encoder's Exception, and
    // std::system_error "Cannot write the frame record: <the system's text>" for a failed write,
    // go on. After any failure the next frame is a key frame.
    bool encodeAndStore(FILE* stream, const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                        uint64_t timestamp, const uint32_t* metadata, int32_t metadataWords, uint64_t* bytes);
    uint32_t storedRecords() const { return uint32_t(index.size()); }
    // Returns 0 or the errno of a failed write.
    int writeIndex(FILE* stream) const { return qrvWriteIndex(stream, index, storedRecords()); }

protected:
    uint32_t encodedFrameCount = 0;
    bool keyFrameRequested = false;

private:
    std::vector<QrvIndexEntry> index;
};
