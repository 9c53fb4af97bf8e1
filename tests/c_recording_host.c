/* A host written in C against the recording API: writes a lossless HEVC recording of 16-bit frames
 * (odd size, rows wider than the data, timestamps above 32 bits, metadata) and reads it back in
 * order, at random and past the end, with the decoder asked for. Every frame must come back
 * exactly: same bytes, timestamp, metadata and a key frame first. Returns the failures (-1: no
 * encoder here), with a line on stderr for each. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zoqrv.h"

enum { kWidth = 61, kHeight = 35, kPitch = 2 * kWidth + 6, kFrames = 12 };
static const uint64_t kFirstTime = 5000000000ull, kPeriod = 33333;

static void makeFrame(uint32_t i, uint8_t* frame) {
    for (uint32_t y = 0; y < kHeight; ++y)
        for (uint32_t x = 0; x < kWidth; ++x) {
            const uint16_t v = (uint16_t)((x * 40 + y * 300 + i * 97) ^ ((x * 7919u + y * 104729u + i) % 13u));
            memcpy(frame + y * kPitch + 2 * x, &v, 2);
        }
}

static int report(const char* what, uint64_t i, const char* text) {
    fprintf(stderr, "%s (frame %llu): %s\n", what, (unsigned long long)i, text);
    return 1;
}

static int expectFrame(zoqrv_reader* reader, zoqrv_status status, uint64_t i, const uint8_t* got,
                       const zoqrv_frame_info* info) {
    uint8_t want[kHeight * kPitch];
    uint32_t metadata[ZOQRV_METADATA_WORDS] = {0};
    if (status != ZOQRV_OK) return report(zoqrv_status_name(status), i, zoqrv_reader_error(reader));
    makeFrame((uint32_t)i, want);
    for (uint32_t y = 0; y < kHeight; ++y)
        if (memcmp(got + y * kPitch, want + y * kPitch, 2 * kWidth) != 0) return report("samples differ", i, "");
    metadata[0] = (uint32_t)i, metadata[1] = 0xFFFFFFFFu;
    if (info->index != i || info->timestamp != kFirstTime + i * kPeriod ||
        memcmp(info->metadata, metadata, sizeof metadata) != 0 || (i == 0 && info->frame_type != 3))
        return report("index, timestamp, metadata or frame type differ", i, "");
    return 0;
}

int writeAndReadThroughTheApi(const char* path, uint32_t decoder) {
    static uint8_t frame[kHeight * kPitch];
    zoqrv_writer_options options;
    zoqrv_writer_options_init(&options, ZOQRV_KIND_U16, kWidth, kHeight, 8);
    options.codec = ZOQRV_CODEC_HEVC, options.encoder = ZOQRV_ENCODER_SOFTWARE, options.overwrite = 1;
    zoqrv_writer* writer = NULL;
    if (zoqrv_writer_open(path, &options, &writer) != ZOQRV_OK) return report("no writer", 0, zoqrv_last_error()), -1;
    int failures = 0;
    for (uint32_t i = 0; i < kFrames; ++i) {
        const uint32_t metadata[2] = {i, 0xFFFFFFFFu};
        makeFrame(i, frame);
        if (zoqrv_writer_write(writer, frame, kPitch, kFirstTime + i * kPeriod, metadata, 2) != ZOQRV_OK)
            failures += report("write", i, zoqrv_writer_error(writer));
    }
    if (zoqrv_writer_close(writer) != ZOQRV_OK) failures += report("close", 0, zoqrv_last_error());

    zoqrv_reader_options readOptions;
    zoqrv_reader_options_init(&readOptions);
    readOptions.decoder = decoder;
    zoqrv_reader* reader = NULL;
    if (zoqrv_reader_open(path, &readOptions, &reader) != ZOQRV_OK) return report("no reader", 0, zoqrv_last_error()) + failures;
    zoqrv_recording_info info;
    zoqrv_reader_get_info(reader, &info);
    if (info.frame_count != kFrames || info.kind != ZOQRV_KIND_U16 || info.width != kWidth || !info.closed ||
        !info.has_checksums || info.hardware != (decoder == ZOQRV_DECODER_HARDWARE))
        failures += report("recording info", 0, "count, kind, size, closed, checksums or decoder differ");
    zoqrv_frame_info frameInfo;
    zoqrv_status status;
    uint64_t read = 0;
    while ((status = zoqrv_reader_read_next(reader, frame, kPitch, &frameInfo)) != ZOQRV_END && read <= kFrames)
        failures += expectFrame(reader, status, read++, frame, &frameInfo);
    if (read != kFrames) failures += report("frames read in order", read, "not all of them");
    for (uint64_t i = kFrames; i-- > 0;)  /* backwards: each from its GOP's key frame */
        failures += expectFrame(reader, zoqrv_reader_read(reader, i, frame, kPitch, &frameInfo), i, frame, &frameInfo);
    if (zoqrv_reader_read(reader, kFrames, frame, kPitch, NULL) != ZOQRV_ERROR_ARGUMENT ||
        zoqrv_reader_read(reader, 0, frame, kPitch - 7, NULL) != ZOQRV_ERROR_ARGUMENT)
        failures += report("a frame past the end, or a short pitch", kFrames, "was not refused");
    zoqrv_reader_close(reader);
    return failures;
}
