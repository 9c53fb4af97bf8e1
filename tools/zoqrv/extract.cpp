// zoqrv extract: decodes records through the recording API (on NVDEC where it decodes them, else
// in software, to the same bytes) and writes each frame as a PNG, with a line per frame. With a
// data kind (--as, or the file's recording header) it writes the data itself: 16-bit grey PNG
// for u16, 8-bit grey for u8 and u4 (4-bit samples times 17), raw little-endian .bin for u32, colour PNG for bgra and uyvy; with --raw
// every kind as .bin, in the caller's layout.
#include <libde265/de265.h>
#include <png.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "container/annexb.h"
#include "container/qrv_file.h"
#include "kernels/packing.h"
#include "recording/recording_header.h"
#include "zoqrv.h"

namespace {

constexpr const char* kUsage =
    "extract FILE --out DIR [--from S] [--count K] [--as bgra|uyvy|u4|u8|u16|u32] [--raw] [--max-size WxH]";

struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;
};

// The largest picture that extract decodes unless told otherwise: 8K, a little over HEVC's
// largest level. The file's parameter sets are untrusted, and libde265 allocates whatever size
// they declare.
constexpr PictureSize kDefaultMaxSize{8192, 4352};

enum class Probe { Found, NoPicture, TooLarge };

// The picture size, from decoding the first key frame of the file with libde265, once its
// parameter sets have been read and found within `maxSize`.
Probe probePictureSize(FILE* file, const QrvSoftwareIndex& tables, const PictureSize& maxSize, PictureSize& size) {
    auto key = std::find_if(tables.frameList.begin(), tables.frameList.end(),
                            [](const QrvIndexEntry& e) { return e.frameType == kKeyFrameType; });
    if (key == tables.frameList.end()) key = tables.frameList.begin();
    QrvRecordHead head;
    uint32_t payloadBytes = 0;
    std::vector<uint8_t> payload;
    if (!qrvReadRecordAt(file, key->recordOffset, head, payloadBytes, &payload)) return Probe::NoPicture;
    std::vector<HevcPictureSize> declared;
    if (!hevcDeclaredPictureSizes(payload.data(), payload.size(), declared)) return Probe::NoPicture;
    for (const HevcPictureSize& d : declared)
        if (d.width > maxSize.width || d.height > maxSize.height) return Probe::TooLarge;

    std::unique_ptr<de265_decoder_context, de265_error (*)(de265_decoder_context*)> decoder(
        de265_new_decoder(), &de265_free_decoder);
    de265_push_data(decoder.get(), payload.data(), int(payload.size()), 0, nullptr);
    de265_flush_data(decoder.get());
    for (int more = 1; more;) {
        de265_decode(decoder.get(), &more);
        if (const de265_image* picture = de265_get_next_picture(decoder.get())) {
            size.width = uint32_t(de265_get_image_width(picture, 0));
            size.height = uint32_t(de265_get_image_height(picture, 0));
            return Probe::Found;
        }
    }
    return Probe::NoPicture;
}

bool parseSize(const std::string& text, PictureSize& size) {
    unsigned width = 0, height = 0;
    char end = 0;
    if (sscanf(text.c_str(), "%ux%u%c", &width, &height, &end) != 2 || width == 0 || height == 0) return false;
    size = {width, height};
    return true;
}

uint8_t clampByte(double v) { return uint8_t(std::clamp(v + 0.5, 0.0, 255.0)); }

// UYVY to RGB with the BT.709 matrix, limited range.
std::vector<uint8_t> uyvyToRgb(const uint8_t* uyvy, uint32_t width, uint32_t height) {
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    for (size_t r = 0; r < height; ++r) {
        const uint8_t* row = uyvy + r * 2 * width;
        for (size_t x = 0; x < width; ++x) {
            const size_t pair = x & ~size_t(1);
            const double y = 1.164384 * (row[2 * x + 1] - 16);
            const double cb = row[2 * pair] - 128.0;
            const double cr = pair + 1 < width ? row[2 * pair + 2] - 128.0 : 0.0;
            uint8_t* out = &rgb[(r * width + x) * 3];
            out[0] = clampByte(y + 1.792741 * cr);
            out[1] = clampByte(y - 0.213249 * cb - 0.532909 * cr);
            out[2] = clampByte(y + 2.112402 * cb);
        }
    }
    return rgb;
}

bool writePng(const std::string& path, const uint8_t* pixels, uint32_t width, uint32_t height, int colourType,
              int bitDepth) {
    File file = openFile(path, "wb");
    if (!file) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, width, height, bitDepth, colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (bitDepth == 16) png_set_swap(png);       // samples lie little-endian in memory
    if (colourType == PNG_COLOR_TYPE_RGBA) png_set_bgr(png);  // the library's BGRA
    const size_t rowBytes = png_get_rowbytes(png, info);
    for (uint32_t y = 0; y < height; ++y) png_write_row(png, pixels + y * rowBytes);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return fclose(file.release()) == 0;
}

// Writes one decoded image, in the caller's layout of the kind, as the file the command promises:
// raw (--raw, and always for u32) or as a picture.
bool writeData(const std::string& pathStem, uint32_t kind, bool raw, const std::vector<uint8_t>& data, uint32_t width,
               uint32_t height, std::string& path) {
    if (raw || kind == packing::kUint32) {
        path = pathStem + ".bin";
        File file = openFile(path, "wb");
        return file && fwrite(data.data(), 1, data.size(), file.get()) == data.size() && fclose(file.release()) == 0;
    }
    path = pathStem + ".png";
    switch (kind) {
    case packing::kUyvy: return writePng(path, uyvyToRgb(data.data(), width, height).data(), width, height, PNG_COLOR_TYPE_RGB, 8);
    case packing::kColour32: return writePng(path, data.data(), width, height, PNG_COLOR_TYPE_RGBA, 8);
    case packing::kUint8: return writePng(path, data.data(), width, height, PNG_COLOR_TYPE_GRAY, 8);
    case packing::kUint16: return writePng(path, data.data(), width, height, PNG_COLOR_TYPE_GRAY, 16);
    default: {  // 4-bit samples
        const uint32_t pitch = packing::tightPitch(kind, width);
        std::vector<uint8_t> grey(size_t(width) * height);
        for (size_t y = 0; y < height; ++y)
            for (size_t x = 0; x < width; ++x)  // the left sample in the low nibble
                grey[y * width + x] = uint8_t((data[y * pitch + x / 2] >> (4 * (x & 1)) & 15) * 17);
        return writePng(path, grey.data(), width, height, PNG_COLOR_TYPE_GRAY, 8);
    }
    }
}

struct ReaderCloser {
    void operator()(zoqrv_reader* reader) const { zoqrv_reader_close(reader); }
};

bool parseCount(const std::string& text, int32_t& value) {
    try {
        size_t used = 0;
        const long v = std::stol(text, &used);
        if (used != text.size() || v < 0 || v > INT32_MAX) return false;
        value = int32_t(v);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

int runExtract(const Arguments& args) {
    std::string input, outDir;
    int32_t from = 0, count = -1;
    std::string kindText;
    bool raw = false;
    PictureSize maxSize = kDefaultMaxSize;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--out" && hasValue) outDir = args[++i];
        else if (args[i] == "--from" && hasValue) { if (!parseCount(args[++i], from)) return usage(kUsage); }
        else if (args[i] == "--count" && hasValue) { if (!parseCount(args[++i], count)) return usage(kUsage); }
        else if (args[i] == "--as" && hasValue) kindText = args[++i];
        else if (args[i] == "--raw") raw = true;
        else if (args[i] == "--max-size" && hasValue) { if (!parseSize(args[++i], maxSize)) return usage(kUsage); }
        else if (input.empty() && args[i].rfind("--", 0) != 0) input = args[i];
        else return usage(kUsage);
    }
    if (input.empty() || outDir.empty()) return usage(kUsage);

    // The data's kind and size come from the recording header. A file without one is described
    // by --as and the size of its pictures, read from the first key frame's parameter sets;
    // without --as its pictures are written as they are (UYVY pictures).
    zoqrv_reader_options options;
    zoqrv_reader_options_init(&options);
    File file = openFile(input, "rb");
    if (!file) return fail("cannot open " + input);
    QrvSoftwareIndex tables;
    if (!qrvReadSoftwareIndex(file.get(), tables)) return fail(input + ": cannot read the sample index");
    RecordingHeader header;
    const bool described = readRecordingHeader(file.get(), tables, header);
    const bool asData = !kindText.empty() || described;
    uint32_t kind = packing::kUyvy;
    if (!kindText.empty() && !kindFromName(kindText, kind)) return usage(kUsage);
    if (!described) {
        PictureSize size;
        switch (probePictureSize(file.get(), tables, maxSize, size)) {
            case Probe::Found: break;
            case Probe::NoPicture: return fail(input + ": no recording header, and no HEVC picture in the first key frame");
            case Probe::TooLarge:
                return fail(input + ": its pictures are larger than " + std::to_string(maxSize.width) + "x" +
                            std::to_string(maxSize.height) + " (--max-size)");
        }
        options.kind = kind, options.width = size.width / packing::pictureWidth(kind, 1), options.height = size.height;
        options.codec = ZOQRV_CODEC_HEVC;
    } else if (!kindText.empty() && kind != header.kind) {
        return fail(input + ": --as " + kindText + ", but the recording holds " + kindName(header.kind));
    }
    file.reset();
    zoqrv_reader* opened = nullptr;
    if (zoqrv_reader_open(input.c_str(), &options, &opened) != ZOQRV_OK) return fail(zoqrv_last_error());
    const std::unique_ptr<zoqrv_reader, ReaderCloser> reader(opened);
    zoqrv_recording_info info;
    zoqrv_reader_get_info(reader.get(), &info);
    kind = info.kind;
    const uint32_t width = info.width, height = info.height;
    if (width > maxSize.width || height > maxSize.height)
        return fail(input + ": its frames are larger than " + std::to_string(maxSize.width) + "x" +
                    std::to_string(maxSize.height) + " (--max-size)");

    const int64_t records = int64_t(info.frame_count);
    if (from >= records) return fail("--from " + std::to_string(from) + ": the file has " + std::to_string(records) + " records");
    const int64_t last = count < 0 ? records : std::min<int64_t>(int64_t(from) + count, records);

    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) return fail("cannot create " + outDir + ": " + ec.message());
    fprintf(stderr, "zoqrv: decoding %s\n", info.hardware ? "on NVDEC" : "in software");
    printf("%s: %ux%u%s%s, records %d to %lld\n", input.c_str(), width, height, asData ? " " : "",
           asData ? kindName(kind) : "", from, static_cast<long long>(last - 1));

    std::vector<uint8_t> data(packing::packedSize(kind, width, height));
    zoqrv_frame_info frame;
    for (int64_t record = from; record < last; ++record) {
        if (zoqrv_reader_read(reader.get(), uint64_t(record), data.data(), info.min_pitch, &frame) != ZOQRV_OK)
            return fail("record " + std::to_string(record) + ": " + zoqrv_reader_error(reader.get()));
        char name[32];
        snprintf(name, sizeof name, "frame_%06llu", static_cast<unsigned long long>(record + 1));
        std::string path;
        if (!writeData((std::filesystem::path(outDir) / name).string(), kind, raw, data, width, height, path))
            return fail("cannot write " + path);
        printf("frame %lld  capture time %llu  type %u  %s\n", static_cast<long long>(record + 1),
               static_cast<unsigned long long>(frame.timestamp), frame.frame_type, path.c_str());
    }
    return 0;
}
