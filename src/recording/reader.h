// Reading a recording back: every frame from the first to the last, in the caller's layout, with
// its timestamp as stored, its metadata and its frame type, from closed, unclosed and cut files.
// Frames decode on NVDEC where it can (HwDecoder), otherwise on the CPU (a PictureDecoder and the
// packing kernels' CPU twins), to the same bytes. Records whose checksum fails are never given
// out as data, nor are the frames predicted from them.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "codec/HwDecoder.h"
#include "codec/PictureDecoder.h"
#include "container/file_ranges.h"
#include "container/qrv_file.h"
#include "recording/recording_error.h"
#include "recording/recording_header.h"
#include "zoqrv.h"

class Reader {
public:
    // Throws RecordingError.
    Reader(const char* path, const zoqrv_reader_options& options);

    zoqrv_recording_info info() const;
    // Throws RecordingError; `info` may be null.
    void read(uint64_t index, void* frame, uint64_t pitch, zoqrv_frame_info* info);
    // False after the last frame.
    bool readNext(void* frame, uint64_t pitch, zoqrv_frame_info* info);
    void frameInfo(uint64_t index, zoqrv_frame_info& info) const;

private:
    void describe(const zoqrv_reader_options& options);
    void makeDecoder(uint32_t decoder);
    bool carriesChecksums() const;
    // Decodes the records from `first` to `index` into `decoded`, the last one unpacked.
    void decodeRecords(uint64_t first, uint64_t index);
    void decodeRecord(uint64_t record, uint64_t index, bool unpack);
    uint64_t chainStart(uint64_t index) const;

    RecordingFile file;
    std::unique_ptr<FileBytes> bytes;
    QrvSoftwareIndex tables;
    RecordingHeader description;
    bool described = false;
    bool checksums = false;
    uint64_t payloadLimit = 0;
    std::unique_ptr<HwDecoder> hardware;
    std::unique_ptr<PictureDecoder> software;
    std::vector<uint8_t> payload, decoded, nv12;
    uint64_t next = 0;        // the frame readNext gives
    int64_t chainEnd = -1;    // the frame whose references the decoder holds (after the last decoded)
};
