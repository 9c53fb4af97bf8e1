// Writing a recording: the file, its self-describing header, one encoded record per frame, and
// the sample index at the close. The encoder is the one the options choose (NVENC, libx264 or
// libx265), with the pipes' rules for frames that cannot be stored.
#pragma once

#include <cstdint>
#include <memory>

#include "codec/Encoder.h"
#include "recording/recording_error.h"
#include "zoqrv.h"

class Writer {
public:
    // Opens the file and writes the header; throws RecordingError.
    Writer(const char* path, const zoqrv_writer_options& options);

    // Throws RecordingError: ZOQRV_ERROR_NOT_STORED for a frame that did not come out of the
    // encoder whole, ZOQRV_ERROR_IO for a record that could not be written (rolled back).
    void write(const void* frame, uint64_t pitch, uint64_t timestamp, const uint32_t* metadata, uint32_t words);
    void sync();
    // Writes the index; throws RecordingError when it cannot.
    void close();
    zoqrv_writer_info info() const;

private:
    RecordingFile file;
    std::unique_ptr<Encoder> encoder;
    uint32_t kind, width, height, codec, lossless;
    uint64_t framesNotStored = 0;
};
