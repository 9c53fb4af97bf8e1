// The exported recording API (include/zoqrv.h) over the Writer and Reader: argument checks,
// statuses and texts. No exception leaves it.
#include <new>
#include <string>

#include "codec/Exception.h"
#include "recording/reader.h"
#include "recording/writer.h"
#include "zoqrv.h"

struct zoqrv_writer {
    std::unique_ptr<Writer> writer;
    std::string error;
};

struct zoqrv_reader {
    std::unique_ptr<Reader> reader;
    std::string error;
};

namespace {

thread_local std::string lastOpenError;

// Runs an API call: a RecordingError gives its status and text, any other exception its text with
// ZOQRV_ERROR_MEMORY or ZOQRV_ERROR_INTERNAL. `error` is the object's text, or the thread's for opens.
template <class Call>
zoqrv_status run(std::string& error, Call call) noexcept {
    zoqrv_status status = ZOQRV_ERROR_INTERNAL;
    const auto report = [&](const char* text) {
        try {
            error = text;
        } catch (...) {
            error.clear();
        }
    };
    return catchEverything(ZOQRV_ERROR_INTERNAL, [&] {
        try {
            error.clear();
            call();
            return ZOQRV_OK;
        } catch (const RecordingError& e) {
            status = e.status;
            report(e.text.c_str());
        } catch (const std::bad_alloc&) {
            status = ZOQRV_ERROR_MEMORY;
            report("out of memory");
        }
        return status;
    }, report);
}

const char kNullObject[] = "a null object or pointer was passed";

}  // namespace

extern "C" {

ZOQRV_API void zoqrv_writer_options_init(zoqrv_writer_options* options, uint32_t kind, uint32_t width,
                                         uint32_t height, uint32_t frame_rate) {
    if (!options) return;
    const bool data = kind >= ZOQRV_KIND_U4;
    *options = {kind, width, height, frame_rate, ZOQRV_CODEC_DEFAULT, data ? 1u : 0u, 0,
                ZOQRV_ENCODER_FROM_ENVIRONMENT, 0, ZOQRV_MICROSECONDS};
}

ZOQRV_API zoqrv_status zoqrv_writer_open(const char* path, const zoqrv_writer_options* options,
                                         zoqrv_writer** writer) {
    if (!path || !options || !writer) {
        lastOpenError = kNullObject;
        return ZOQRV_ERROR_ARGUMENT;
    }
    *writer = nullptr;
    return run(lastOpenError, [&] {
        auto made = std::make_unique<zoqrv_writer>();
        made->writer = std::make_unique<Writer>(path, *options);
        *writer = made.release();
    });
}

ZOQRV_API zoqrv_status zoqrv_writer_write(zoqrv_writer* writer, const void* frame, uint64_t pitch,
                                          uint64_t timestamp, const uint32_t* metadata,
                                          uint32_t metadata_words) {
    if (!writer) return ZOQRV_ERROR_ARGUMENT;
    return run(writer->error, [&] { writer->writer->write(frame, pitch, timestamp, metadata, metadata_words); });
}

ZOQRV_API zoqrv_status zoqrv_writer_sync(zoqrv_writer* writer) {
    if (!writer) return ZOQRV_ERROR_ARGUMENT;
    return run(writer->error, [&] { writer->writer->sync(); });
}

ZOQRV_API zoqrv_status zoqrv_writer_get_info(const zoqrv_writer* writer, zoqrv_writer_info* info) {
    if (!writer || !info) return ZOQRV_ERROR_ARGUMENT;
    *info = writer->writer->info();
    return ZOQRV_OK;
}

ZOQRV_API const char* zoqrv_writer_error(const zoqrv_writer* writer) {
    return writer ? writer->error.c_str() : kNullObject;
}

ZOQRV_API zoqrv_status zoqrv_writer_close(zoqrv_writer* writer) {
    if (!writer) return ZOQRV_ERROR_ARGUMENT;
    const zoqrv_status status = run(lastOpenError, [&] { writer->writer->close(); });
    delete writer;
    return status;
}

ZOQRV_API void zoqrv_reader_options_init(zoqrv_reader_options* options) {
    if (options) *options = {ZOQRV_DECODER_AUTO, 0, 0, 0, 0, ZOQRV_CODEC_DEFAULT, ZOQRV_MICROSECONDS};
}

ZOQRV_API zoqrv_status zoqrv_reader_open(const char* path, const zoqrv_reader_options* options,
                                         zoqrv_reader** reader) {
    if (!path || !reader) {
        lastOpenError = kNullObject;
        return ZOQRV_ERROR_ARGUMENT;
    }
    *reader = nullptr;
    zoqrv_reader_options defaults;
    zoqrv_reader_options_init(&defaults);
    return run(lastOpenError, [&] {
        auto made = std::make_unique<zoqrv_reader>();
        made->reader = std::make_unique<Reader>(path, options ? *options : defaults);
        *reader = made.release();
    });
}

ZOQRV_API zoqrv_status zoqrv_reader_get_info(const zoqrv_reader* reader, zoqrv_recording_info* info) {
    if (!reader || !info) return ZOQRV_ERROR_ARGUMENT;
    *info = reader->reader->info();
    return ZOQRV_OK;
}

ZOQRV_API zoqrv_status zoqrv_reader_read(zoqrv_reader* reader, uint64_t index, void* frame, uint64_t pitch,
                                         zoqrv_frame_info* info) {
    if (!reader) return ZOQRV_ERROR_ARGUMENT;
    return run(reader->error, [&] { reader->reader->read(index, frame, pitch, info); });
}

ZOQRV_API zoqrv_status zoqrv_reader_read_next(zoqrv_reader* reader, void* frame, uint64_t pitch,
                                              zoqrv_frame_info* info) {
    if (!reader) return ZOQRV_ERROR_ARGUMENT;
    bool more = true;
    const zoqrv_status status = run(reader->error, [&] { more = reader->reader->readNext(frame, pitch, info); });
    return status == ZOQRV_OK && !more ? ZOQRV_END : status;
}

ZOQRV_API zoqrv_status zoqrv_reader_frame_info(zoqrv_reader* reader, uint64_t index, zoqrv_frame_info* info) {
    if (!reader) return ZOQRV_ERROR_ARGUMENT;
    return run(reader->error, [&] {
        if (!info) failWith(ZOQRV_ERROR_ARGUMENT, kNullObject);
        reader->reader->frameInfo(index, *info);
    });
}

ZOQRV_API const char* zoqrv_reader_error(const zoqrv_reader* reader) {
    return reader ? reader->error.c_str() : kNullObject;
}

ZOQRV_API void zoqrv_reader_close(zoqrv_reader* reader) { delete reader; }

ZOQRV_API const char* zoqrv_last_error(void) { return lastOpenError.c_str(); }

ZOQRV_API const char* zoqrv_status_name(zoqrv_status status) {
    static const char* const names[] = {
        "ZOQRV_OK",           "ZOQRV_END",          "ZOQRV_ERROR_ARGUMENT",   "ZOQRV_ERROR_NOT_FOUND",
        "ZOQRV_ERROR_EXISTS", "ZOQRV_ERROR_IO",     "ZOQRV_ERROR_FORMAT",     "ZOQRV_ERROR_UNAVAILABLE",
        "ZOQRV_ERROR_NOT_STORED", "ZOQRV_ERROR_DECODE", "ZOQRV_ERROR_DAMAGED", "ZOQRV_ERROR_MEMORY",
        "ZOQRV_ERROR_INTERNAL"};
    const auto i = static_cast<size_t>(status);
    return i < sizeof names / sizeof *names ? names[i] : "unknown status";
}

ZOQRV_API const char* zoqrv_version(void) { return ZOQRV_VERSION_TEXT; }

}  // extern "C"
