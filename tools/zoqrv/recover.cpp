// zoqrv recover IN [OUT] [--in-place]
#include <cinttypes>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

#include "commands.h"
#include "container/qrv_recovery.h"

namespace {

const char kUsage[] = "recover IN [OUT] [--in-place]";

// Copies the first `bytes` bytes of `in` to `out`.
bool copyBytes(FILE* in, uint64_t bytes, FILE* out) {
    std::vector<uint8_t> chunk(1 << 20);
    if (qrvSeek(in, 0, SEEK_SET) != 0) return false;
    while (bytes > 0) {
        const size_t piece = size_t(std::min<uint64_t>(chunk.size(), bytes));
        if (fread(chunk.data(), 1, piece, in) != piece || fwrite(chunk.data(), 1, piece, out) != piece) return false;
        bytes -= piece;
    }
    return true;
}

}  // namespace

int runRecover(const Arguments& args) {
    std::vector<std::string> paths;
    bool inPlace = false;
    for (const std::string& arg : args) {
        if (arg == "--in-place")
            inPlace = true;
        else if (arg.rfind("--", 0) != 0)
            paths.push_back(arg);
        else
            return usage(kUsage);
    }
    if (paths.size() != (inPlace ? 1u : 2u)) return usage(kUsage);

    File in = openFile(paths[0], inPlace ? "r+b" : "rb");
    if (!in) return fail("cannot open " + paths[0]);
    QrvSoftwareIndex tables;
    if (!qrvReadSoftwareIndex(in.get(), tables)) return fail(paths[0] + ": no complete record found");
    // The records are kept as they are; what follows the last complete one (a torn record, or
    // the old index and trailer) is replaced by an index with each record's checksum.
    const uint64_t kept = tables.found.recordsEnd;
    if (inPlace) {
#ifndef _WIN32
        if (fflush(in.get()) != 0 || ftruncate(fileno(in.get()), off_t(kept)) != 0 || qrvSeek(in.get(), 0, SEEK_END) != 0)
            return fail("cannot cut " + paths[0]);
#else
        return fail("--in-place is not supported here");
#endif
        if (!qrvWriteClosingIndex(in.get(), tables, in.get())) return fail("cannot write the index of " + paths[0]);
    } else {
        File out = openFile(paths[1], "wb");
        if (!out) return fail("cannot create " + paths[1]);
        if (!copyBytes(in.get(), kept, out.get()) || !qrvWriteClosingIndex(in.get(), tables, out.get()) ||
            fclose(out.release()) != 0)
            return fail("cannot write " + paths[1]);
    }
    // A closed file loses only its old index, which the new one replaces.
    const uint64_t dropped = tables.found.closed ? 0 : tables.found.fileBytes - kept;
    printf("recovered %zu records, dropped %" PRIu64 " bytes\n", tables.frameList.size(), dropped);
    return 0;
}
