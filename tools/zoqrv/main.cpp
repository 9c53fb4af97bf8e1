// zoqrv: inspects QRV recording files and moves elementary streams in and out of them.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

struct Command {
    const char* name;
    int (*run)(const Arguments&);
    const char* summary;
};

// One line per command.
const Command kCommands[] = {
    {"info", runInfo, "info FILE [--records] [--metadata S]   frame count, records, key frames, codec"},
    {"import", runImport, "import STREAM FILE [--fps F] [--header BYTES]   wrap an H.264/HEVC Annex-B stream"},
    {"export", runExport, "export FILE STREAM   write the records' payloads as an elementary stream"},
    {"record", runRecord, "record --kind K --size WxH --fps N [--lossless | --lossy | --bitrate B] [--sync-every S] [--force] OUT.qrv [IN]   encode raw frames (HEVC; data kinds lossless unless --lossy)"},
    {"recover", runRecover, "recover IN [OUT] [--in-place]   close an unclosed or cut recording (index with checksums)"},
    {"verify", runVerify, "verify FILE   check every record against its checksum; names the damaged ones"},
    {"extract", runExtract, "extract FILE --out DIR [--from S] [--count K] [--as KIND] [--raw] [--max-size WxH]   decode HEVC records to PNG (or .bin) files"},
};

int printUsage() {
    fprintf(stderr, "usage: zoqrv COMMAND ARGS...\n");
    for (const Command& command : kCommands) fprintf(stderr, "  zoqrv %s\n", command.summary);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return printUsage();
    for (const Command& command : kCommands)
        if (strcmp(argv[1], command.name) == 0) return command.run(Arguments(argv + 2, argv + argc));
    return printUsage();
}
