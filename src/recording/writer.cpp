#include "recording/writer.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#ifndef _WIN32
#include <unistd.h>
#endif

#include "api/encoder_choice.h"
#include "codec/Exception.h"
#include "kernels/packing.h"
#include "recording/recording_header.h"

namespace {

// The lossy rate of colour kinds when the caller names none: 8 Mbit/s, enough for a 1080p
// camera picture at 30 frames a second.
constexpr uint64_t kDefaultBitrate = 8000000;
// HEVC's and NVENC's largest picture side.
constexpr uint32_t kMaxPictureSide = 8192;

EncoderChoice encoderChoice(uint32_t encoder) {
    switch (encoder) {
        case ZOQRV_ENCODER_FROM_ENVIRONMENT: return environmentEncoderChoice(EncoderChoice::Auto);
        case ZOQRV_ENCODER_AUTO: return EncoderChoice::Auto;
        case ZOQRV_ENCODER_NVENC: return EncoderChoice::Nvenc;
        case ZOQRV_ENCODER_SOFTWARE: return EncoderChoice::Software;
        default: failWith(ZOQRV_ERROR_ARGUMENT, "unknown encoder choice " + std::to_string(encoder));
    }
}

void checkOptions(const zoqrv_writer_options& o) {
    if (o.kind > ZOQRV_KIND_U32) failWith(ZOQRV_ERROR_ARGUMENT, "unknown kind " + std::to_string(o.kind));
    if (o.width == 0 || o.height == 0 || packing::pictureWidth(o.kind, o.width) > kMaxPictureSide ||
        o.height > kMaxPictureSide)
        failWith(ZOQRV_ERROR_ARGUMENT, "size " + std::to_string(o.width) + "x" + std::to_string(o.height) +
                                           " does not fit a picture of at most 8192 x 8192");
    // A row of 4-bit samples takes width / 2 bytes: an odd width's last sample would be lost.
    if (o.kind == ZOQRV_KIND_U4 && o.width % 2 != 0)
        failWith(ZOQRV_ERROR_ARGUMENT, "4-bit frames need an even width, not " + std::to_string(o.width));
    if (o.frame_rate < 1 || o.frame_rate > 1000)
        failWith(ZOQRV_ERROR_ARGUMENT, "frame rate " + std::to_string(o.frame_rate) + " is not 1 to 1000");
    if (o.codec < ZOQRV_CODEC_DEFAULT || o.codec > ZOQRV_CODEC_HEVC)
        failWith(ZOQRV_ERROR_ARGUMENT, "unknown codec " + std::to_string(o.codec));
    if (o.lossless > 1) failWith(ZOQRV_ERROR_ARGUMENT, "lossless must be 0 or 1");
    if (o.time_unit_ns == 0) failWith(ZOQRV_ERROR_ARGUMENT, "the time unit must be at least 1 ns");
}

RecordingFile createFile(const char* path, bool overwrite) {
    // Exclusive creation: an existing file is never replaced unless asked, and no other writer
    // can slip in between a check and the opening.
    RecordingFile file(std::fopen(path, overwrite ? "wb" : "wbx"));
    if (!file) failWithErrno(errno, std::string("cannot create ") + path);
    return file;
}

}  // namespace

void failWithErrno(int error, const std::string& what) {
    const zoqrv_status status = error == EEXIST ? ZOQRV_ERROR_EXISTS
                                : error == ENOENT ? ZOQRV_ERROR_NOT_FOUND
                                : error == ENOMEM ? ZOQRV_ERROR_MEMORY
                                                  : ZOQRV_ERROR_IO;
    failWith(status, what + ": " + std::generic_category().message(error));
}

Writer::Writer(const char* path, const zoqrv_writer_options& o)
    : kind(o.kind), width(o.width), height(o.height), lossless(o.lossless) {
    checkOptions(o);
    const EncoderChoice choice = encoderChoice(o.encoder);
    if (choice == EncoderChoice::Unknown) failWith(ZOQRV_ERROR_ARGUMENT, kUnknownEncoderChoice);
    codec = o.codec == ZOQRV_CODEC_DEFAULT ? defaultRecordingCodec(choice) : uint32_t(o.codec);
    const uint64_t bitrate = o.lossless ? 0 : o.bitrate ? o.bitrate : kDefaultBitrate;
    const char* failure = "no encoder for this codec and size can be made on this machine";
    encoder = createEncoder(choice, kind, codec, lossless, bitrate, width, height, o.frame_rate, &failure);
    if (!encoder) failWith(ZOQRV_ERROR_UNAVAILABLE, failure);
    // The file is made only once an encoder is there: a failed open leaves nothing behind.
    file = createFile(path, o.overwrite != 0);
    RecordingHeader header{kind, width, height, o.frame_rate, codec, o.time_unit_ns};
    const std::vector<uint8_t> bytes = encodeRecordingHeader(header);
    if (const int error = qrvWriteHeader(file.get(), bytes.data(), bytes.size()); error != 0)
        failWithErrno(error, "cannot write the recording header");
}

void Writer::write(const void* frame, uint64_t pitch, uint64_t timestamp, const uint32_t* metadata, uint32_t words) {
    if (!file) failWith(ZOQRV_ERROR_ARGUMENT, "the writer is closed");
    if (!frame) failWith(ZOQRV_ERROR_ARGUMENT, "no frame");
    if (pitch < packing::tightPitch(kind, width))
        failWith(ZOQRV_ERROR_ARGUMENT, "pitch " + std::to_string(pitch) + " is below the row's " +
                                           std::to_string(packing::tightPitch(kind, width)) + " bytes");
    if (words > ZOQRV_METADATA_WORDS || (words > 0 && !metadata))
        failWith(ZOQRV_ERROR_ARGUMENT, "metadata must be 0 to 64 words, with a pointer when there are any");
    uint64_t bytes = 0;
    try {
        if (encoder->encodeAndStore(file.get(), frame, pitch, width, height, timestamp, metadata, int32_t(words),
                                    &bytes))
            return;
        ++framesNotStored;
        failWith(ZOQRV_ERROR_NOT_STORED, "the encoder gave no picture for this frame; it was not stored");
    } catch (const Exception& e) {
        ++framesNotStored;
        failWith(ZOQRV_ERROR_NOT_STORED, e.message() + "; the frame was not stored");
    } catch (const std::system_error& e) {
        ++framesNotStored;
        failWith(e.code() == std::errc::not_enough_memory ? ZOQRV_ERROR_MEMORY : ZOQRV_ERROR_IO, e.what());
    }
}

void Writer::sync() {
    if (!file) failWith(ZOQRV_ERROR_ARGUMENT, "the writer is closed");
    if (std::fflush(file.get()) != 0) failWithErrno(errno, "cannot flush the recording");
#ifndef _WIN32
    if (fdatasync(fileno(file.get())) != 0) failWithErrno(errno, "cannot make the recording durable");
#endif
}

void Writer::close() {
    if (!file) return;
    const int error = encoder->writeIndex(file.get());
    FILE* closing = file.release();
    const bool closed = std::fclose(closing) == 0;
    if (error != 0) failWithErrno(error, "cannot write the sample index");
    if (!closed) failWithErrno(errno, "cannot close the recording");
}

zoqrv_writer_info Writer::info() const {
    return {encoder->storedRecords(), framesNotStored, int32_t(codec), lossless, encoderName(*encoder)};
}
