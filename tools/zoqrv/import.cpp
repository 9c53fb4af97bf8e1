// zoqrv import STREAM FILE [--fps F] [--header BYTES]
//
// One record per access unit: frame numbers 1..N, capture times in microseconds from the
// frame rate (so the stored sample time is in milliseconds), frame type 3 on IDR access
// units and 0 on the others, and metadata word k of record i = i * 64 + k. The client
// header, when asked for, is that many zero bytes.
#include <cmath>
#include <cstdlib>

#include "commands.h"
#include "container/annexb.h"
#include "container/qrv_file.h"

namespace {

const char kUsage[] = "import STREAM FILE [--fps F] [--header BYTES]";
constexpr uint32_t kOtherFrameType = 0;

bool readWhole(FILE* file, std::vector<uint8_t>& bytes) {
    uint8_t chunk[1 << 16];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
    return ferror(file) == 0;
}

bool parseNumber(const std::string& text, double& value) {
    char* end = nullptr;
    value = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(value);
}

}  // namespace

int runImport(const Arguments& args) {
    std::vector<std::string> paths;
    double fps = 30;
    double headerBytes = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--fps" && i + 1 < args.size()) {
            if (!parseNumber(args[++i], fps) || fps <= 0) return usage(kUsage);
        } else if (args[i] == "--header" && i + 1 < args.size()) {
            if (!parseNumber(args[++i], headerBytes) || headerBytes < 0 || headerBytes > INT32_MAX ||
                headerBytes != std::floor(headerBytes))
                return usage(kUsage);
        } else if (args[i].rfind("--", 0) != 0) {
            paths.push_back(args[i]);
        } else {
            return usage(kUsage);
        }
    }
    if (paths.size() != 2) return usage(kUsage);

    File input = openFile(paths[0], "rb");
    if (!input) return fail("cannot open " + paths[0]);
    std::vector<uint8_t> stream;
    if (!readWhole(input.get(), stream)) return fail("cannot read " + paths[0]);
    const AnnexBCodec codec = annexBDetectCodec(stream.data(), stream.size());
    if (codec == AnnexBCodec::Unknown) return fail(paths[0] + ": not an Annex-B H.264 or HEVC stream");
    const std::vector<AccessUnit> units = annexBSplitAccessUnits(stream.data(), stream.size(), codec);

    File output = openFile(paths[1], "wb");
    if (!output) return fail("cannot create " + paths[1]);
    const std::vector<uint8_t> header(size_t(headerBytes), 0);
    if (!header.empty()) fwrite(header.data(), 1, header.size(), output.get());

    std::vector<QrvIndexEntry> index;
    index.reserve(units.size());
    uint32_t metadata[kMetadataWords];
    for (size_t i = 0; i < units.size(); ++i) {
        const AccessUnit& unit = units[i];
        for (uint32_t k = 0; k < kMetadataWords; ++k) metadata[k] = uint32_t(i) * 64 + k;
        const uint32_t frameType = unit.idr ? kKeyFrameType : kOtherFrameType;
        index.push_back({uint64_t(qrvTell(output.get())), frameType, 0});
        qrvWriteRecord(output.get(), {uint32_t(i + 1), uint64_t(std::llround(double(i) * 1e6 / fps)), frameType,
                                      stream.data() + unit.offset, unit.bytes, metadata, int32_t(kMetadataWords)});
    }
    qrvWriteIndex(output.get(), index, uint32_t(units.size()));
    if (ferror(output.get()) || fclose(output.release()) != 0) return fail("cannot write " + paths[1]);
    return 0;
}
