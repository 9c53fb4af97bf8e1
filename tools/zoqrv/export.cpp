// zoqrv export FILE STREAM
#include "commands.h"
#include "container/file_ranges.h"
#include "container/qrv_file.h"

int runExport(const Arguments& args) {
    if (args.size() != 2 || args[0].rfind("--", 0) == 0 || args[1].rfind("--", 0) == 0)
        return usage("export FILE STREAM");
    File input = openFile(args[0], "rb");
    if (!input) return fail("cannot open " + args[0]);
    QrvSoftwareIndex tables;
    if (!qrvReadSoftwareIndex(input.get(), tables)) return fail(args[0] + ": not a QRV file (no readable sample index)");
    File output = openFile(args[1], "wb");
    if (!output) return fail("cannot create " + args[1]);

    const FileBytes file(input.get());
    std::vector<uint8_t> payload;
    for (size_t i = 0; i < tables.frameList.size(); ++i) {
        QrvRecordHead head{};
        uint32_t payloadBytes = 0;
        if (!qrvReadRecordAt(file, tables.frameList[i].recordOffset, head, payloadBytes, &payload))
            return fail(args[0] + ": record " + std::to_string(i) + " is unreadable");
        if (fwrite(payload.data(), 1, payload.size(), output.get()) != payload.size())
            return fail("cannot write " + args[1]);
    }
    if (fclose(output.release()) != 0) return fail("cannot write " + args[1]);
    return 0;
}
