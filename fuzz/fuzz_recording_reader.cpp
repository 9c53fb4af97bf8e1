// A file read through the recording API (zoqrv.h), on NVDEC played by the fake CUVID driver or in
// software: the first frames in order, then a frame chosen by the input. Three reads at most: a
// record that stalls libde265 costs its 2 s deadline, once per read. Whatever the bytes, each call
// gives a status (never a crash, hang or unbounded allocation), read_next ends, and a frame given
// out as data is one the file's records hold.
//
// Input: a byte (bit 0 software decoding, the rest modulo 6 the kind, for files without a
// recording header), u16 width - 1, u16 height - 1 (modulo 1024), a frame-index byte, the file.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fake_hardware.h"
#include "fuzz_input.h"
#include "zoqrv.h"

namespace {

FakeHardware* hardware;
constexpr int kPicks = 1;
constexpr uint64_t kMaxReads = 2;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hardware = new FakeHardware;  // for the whole run
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const uint8_t choice = in.u8();
    const PipeSize pipeSize = readPipeSize(in);
    uint8_t picks[kPicks];
    for (uint8_t& pick : picks) pick = in.u8();
    const std::vector<uint8_t> bytes = in.rest();
    // The reader opens files by name: the input lives in a file in memory.
    const int fd = memfd_create("recording", 0);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) abort();
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    zoqrv_reader_options options;
    zoqrv_reader_options_init(&options);
    options.decoder = choice & 1 ? ZOQRV_DECODER_SOFTWARE : ZOQRV_DECODER_AUTO;
    options.kind = uint32_t(choice >> 1) % 6, options.width = pipeSize.width, options.height = pipeSize.height;
    zoqrv_reader* reader = nullptr;
    if (zoqrv_reader_open(path.c_str(), &options, &reader) == ZOQRV_OK) {
        zoqrv_recording_info info;
        if (zoqrv_reader_get_info(reader, &info) != ZOQRV_OK || info.frame_count * 284 > bytes.size()) abort();
        std::vector<uint8_t> frame(info.min_pitch * info.height);
        zoqrv_frame_info frameInfo;
        uint64_t reads = 0;
        zoqrv_status status;
        while ((status = zoqrv_reader_read_next(reader, frame.data(), info.min_pitch, &frameInfo)) != ZOQRV_END &&
               reads < kMaxReads) {
            if (status == ZOQRV_OK && frameInfo.index != reads) abort();
            ++reads;
        }
        if (status != ZOQRV_END && reads < kMaxReads) abort();
        for (uint8_t pick : picks)
            if (zoqrv_reader_read(reader, pick % (info.frame_count + 1), frame.data(), info.min_pitch, &frameInfo) ==
                    ZOQRV_OK &&
                frameInfo.index >= info.frame_count)
                abort();
        zoqrv_reader_close(reader);
    }
    close(fd);
    hardware->checkAndReset();
    return 0;
}
