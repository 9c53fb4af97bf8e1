/* zoqrv: the recording API of libzo_qrv64.
 *
 * A writer records frames of one data kind into a QRV recording file: it opens the file,
 * writes a header that describes the recording, encodes each frame (NVENC where it can,
 * libx264 or libx265 otherwise) and appends it with its timestamp and metadata; closing it
 * writes the sample index. A reader opens such a file, or one that was never closed, or cut,
 * and gives back every frame from the first to the last in the caller's layout, with its
 * timestamp exactly as stored, its metadata words and its frame type. It decodes on NVDEC
 * where it can and on the CPU otherwise; the bytes are the same.
 *
 * Every call returns a status; a failed call leaves a text that says what went wrong,
 * read with zoqrv_writer_error / zoqrv_reader_error, or with zoqrv_last_error when the object
 * could not be opened. No call lets an exception out or aborts the host. One object must not
 * be used from two threads at the same time; distinct objects may be. */
#ifndef ZOQRV_H
#define ZOQRV_H

#include <stdint.h>

#if defined(_WIN32)
#  if defined(ZOHW_BUILDING_LIBRARY)
#    define ZOQRV_API __declspec(dllexport)
#  else
#    define ZOQRV_API __declspec(dllimport)
#  endif
#else
#  define ZOQRV_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum zoqrv_status {
    ZOQRV_OK = 0,
    ZOQRV_END = 1,                /* zoqrv_reader_read_next: the last frame has been read */
    ZOQRV_ERROR_ARGUMENT = 2,     /* a null pointer, an unknown kind or codec, a size, pitch,
                                     metadata count or frame index out of range */
    ZOQRV_ERROR_NOT_FOUND = 3,    /* the file does not exist */
    ZOQRV_ERROR_EXISTS = 4,       /* the file exists and overwriting it was not asked for */
    ZOQRV_ERROR_IO = 5,           /* the system refused a read or a write; the text has its message */
    ZOQRV_ERROR_FORMAT = 6,       /* not a recording, no record found in it, or a recording
                                     without a header and no description given to the reader */
    ZOQRV_ERROR_UNAVAILABLE = 7,  /* no encoder or decoder can be made for this recording here */
    ZOQRV_ERROR_NOT_STORED = 8,   /* writer: this frame could not be encoded within the frame
                                     limit and was not stored; the recording goes on intact */
    ZOQRV_ERROR_DECODE = 9,       /* reader: the frame did not decode */
    ZOQRV_ERROR_DAMAGED = 10,     /* reader: the frame, or the frame it is predicted from, fails
                                     its checksum: its bytes are damaged and are not given out */
    ZOQRV_ERROR_MEMORY = 11,
    ZOQRV_ERROR_INTERNAL = 12
} zoqrv_status;

/* Data kinds, and the layout of one frame in memory (rows `pitch` bytes apart):
 * BGRA 4 bytes per pixel; UYVY 2 bytes per pixel (U Y0 V Y1 per pair); U4 two 4-bit samples
 * per byte, the left one in the low nibble; U8, U16, U32 one little-endian sample each. */
typedef enum zoqrv_kind {
    ZOQRV_KIND_BGRA = 0,
    ZOQRV_KIND_UYVY = 1,
    ZOQRV_KIND_U4 = 2,
    ZOQRV_KIND_U8 = 3,
    ZOQRV_KIND_U16 = 4,
    ZOQRV_KIND_U32 = 5
} zoqrv_kind;

typedef enum zoqrv_codec {
    ZOQRV_CODEC_DEFAULT = -1,  /* writer: HEVC where NVENC records, else the software default;
                                  reader: from the file's header, or from the stream itself */
    ZOQRV_CODEC_H264 = 0,
    ZOQRV_CODEC_HEVC = 1
} zoqrv_codec;

typedef enum zoqrv_encoder {
    ZOQRV_ENCODER_FROM_ENVIRONMENT = 0, /* the ZOQRV_ENCODER variable's choice; unset: AUTO */
    ZOQRV_ENCODER_AUTO = 1,             /* NVENC where it can be made ready, else SOFTWARE */
    ZOQRV_ENCODER_NVENC = 2,
    ZOQRV_ENCODER_SOFTWARE = 3          /* libx264 for H.264, libx265 for HEVC */
} zoqrv_encoder;

typedef enum zoqrv_decoder {
    ZOQRV_DECODER_AUTO = 0,      /* NVDEC where it decodes the stream, else software */
    ZOQRV_DECODER_SOFTWARE = 1,
    ZOQRV_DECODER_HARDWARE = 2   /* NVDEC only: opening fails where it cannot decode */
} zoqrv_decoder;

/* Timestamps are stored as given, in ticks of the recording's time unit. */
#define ZOQRV_MICROSECONDS 1000u /* nanoseconds per tick */
#define ZOQRV_METADATA_WORDS 64u

/* ---- Writer ---------------------------------------------------------------------- */

typedef struct zoqrv_writer zoqrv_writer;

typedef struct zoqrv_writer_options {
    uint32_t kind;          /* zoqrv_kind */
    uint32_t width;         /* of the data, in samples */
    uint32_t height;        /* in rows */
    uint32_t frame_rate;    /* frames per second, 1 to 1000 */
    int32_t codec;          /* zoqrv_codec */
    uint32_t lossless;      /* 1: every sample comes back exactly; 0: lossy at `bitrate` */
    uint64_t bitrate;       /* bits per second of lossy coding; 0: 8000000 */
    uint32_t encoder;       /* zoqrv_encoder */
    uint32_t overwrite;     /* 1: replace an existing file; 0: refuse it */
    uint32_t time_unit_ns;  /* nanoseconds per timestamp tick, written into the header */
} zoqrv_writer_options;

/* Fills `options` for a recording of `kind` frames of width x height at `frame_rate`:
 * default codec, lossless for the data kinds (U4 to U32) and lossy at the default bitrate for
 * the colour kinds, the encoder from the environment, no overwriting, microseconds. */
ZOQRV_API void zoqrv_writer_options_init(zoqrv_writer_options* options, uint32_t kind, uint32_t width,
                                         uint32_t height, uint32_t frame_rate);

ZOQRV_API zoqrv_status zoqrv_writer_open(const char* path, const zoqrv_writer_options* options,
                                         zoqrv_writer** writer);

/* Encodes and stores one frame. `timestamp` is stored as given; `metadata` holds 0 to 64 words
 * (null when 0), stored padded with zero words to 64. A frame that fails (ZOQRV_ERROR_NOT_STORED,
 * or ZOQRV_ERROR_IO when the record could not be written) leaves no record, and the frames
 * after it decode as if it had never been given. */
ZOQRV_API zoqrv_status zoqrv_writer_write(zoqrv_writer* writer, const void* frame, uint64_t pitch,
                                          uint64_t timestamp, const uint32_t* metadata,
                                          uint32_t metadata_words);

/* Makes what has been written durable (fdatasync), against power loss. */
ZOQRV_API zoqrv_status zoqrv_writer_sync(zoqrv_writer* writer);

typedef struct zoqrv_writer_info {
    uint64_t frames_stored;
    uint64_t frames_not_stored;
    int32_t codec;          /* the codec being recorded */
    uint32_t lossless;
    const char* encoder;    /* "NVENC", "libx264" or "libx265"; valid while the writer lives */
} zoqrv_writer_info;

ZOQRV_API zoqrv_status zoqrv_writer_get_info(const zoqrv_writer* writer, zoqrv_writer_info* info);

/* Text of the writer's last failure; "" when none. Valid until the next call on the writer. */
ZOQRV_API const char* zoqrv_writer_error(const zoqrv_writer* writer);

/* Writes the sample index and closes the file; the writer is freed whatever the status, and a
 * failure's text is read with zoqrv_last_error.
 * A recording whose close failed is still read, as an unclosed recording. */
ZOQRV_API zoqrv_status zoqrv_writer_close(zoqrv_writer* writer);

/* ---- Reader ---------------------------------------------------------------------- */

typedef struct zoqrv_reader zoqrv_reader;

typedef struct zoqrv_reader_options {
    uint32_t decoder;       /* zoqrv_decoder */
    /* What a file without a recording header holds (files written through the ZOHW_ calls);
     * ignored for files with one. `width` 0: not given. */
    uint32_t kind;
    uint32_t width;
    uint32_t height;
    uint32_t frame_rate;
    int32_t codec;          /* ZOQRV_CODEC_DEFAULT: from the stream */
    uint32_t time_unit_ns;
} zoqrv_reader_options;

/* Automatic decoder choice, no description (width 0), codec from the stream, microseconds. */
ZOQRV_API void zoqrv_reader_options_init(zoqrv_reader_options* options);

/* `options` may be null: the defaults above. */
ZOQRV_API zoqrv_status zoqrv_reader_open(const char* path, const zoqrv_reader_options* options,
                                         zoqrv_reader** reader);

typedef struct zoqrv_recording_info {
    uint64_t frame_count;
    uint32_t kind;
    uint32_t width;
    uint32_t height;
    uint32_t frame_rate;
    int32_t codec;
    uint32_t time_unit_ns;
    uint32_t closed;          /* 0: never closed, or cut; its records were found by a scan */
    uint32_t has_header;      /* 1: described by its header; 0: by the reader options */
    uint32_t has_checksums;   /* 1: every frame is checked against its record's checksum */
    uint32_t hardware;        /* 1: frames decode on NVDEC */
    uint64_t min_pitch;       /* bytes of one row of a frame, the smallest pitch a read takes */
} zoqrv_recording_info;

ZOQRV_API zoqrv_status zoqrv_reader_get_info(const zoqrv_reader* reader, zoqrv_recording_info* info);

typedef struct zoqrv_frame_info {
    uint64_t index;         /* 0 for the first frame */
    uint64_t timestamp;     /* as the writer was given it */
    uint32_t frame_type;    /* 3 IDR, 2 intra, 0 predicted */
    uint32_t metadata[ZOQRV_METADATA_WORDS];
} zoqrv_frame_info;

/* Decodes frame `index` (any order) into `frame`, rows `pitch` bytes apart, in the kind's
 * layout. `info` may be null. */
ZOQRV_API zoqrv_status zoqrv_reader_read(zoqrv_reader* reader, uint64_t index, void* frame, uint64_t pitch,
                                         zoqrv_frame_info* info);

/* Decodes the frame after the last one read (the first, on a new reader); ZOQRV_END after the
 * last frame. */
ZOQRV_API zoqrv_status zoqrv_reader_read_next(zoqrv_reader* reader, void* frame, uint64_t pitch,
                                              zoqrv_frame_info* info);

/* Timestamp, frame type and metadata of frame `index`, without decoding it. */
ZOQRV_API zoqrv_status zoqrv_reader_frame_info(zoqrv_reader* reader, uint64_t index, zoqrv_frame_info* info);

/* Text of the reader's last failure; "" when none. Valid until the next call on the reader. */
ZOQRV_API const char* zoqrv_reader_error(const zoqrv_reader* reader);

ZOQRV_API void zoqrv_reader_close(zoqrv_reader* reader);

/* ---- Library ----------------------------------------------------------------------- */

/* Text of the last failed zoqrv_writer_open, zoqrv_reader_open or zoqrv_writer_close on the calling
 * thread. */
ZOQRV_API const char* zoqrv_last_error(void);

/* The status's name, such as "ZOQRV_ERROR_DAMAGED". */
ZOQRV_API const char* zoqrv_status_name(zoqrv_status status);

/* The library's version, such as "1.2.0". */
ZOQRV_API const char* zoqrv_version(void);

#ifdef __cplusplus
}
#endif

#endif /* ZOQRV_H */
