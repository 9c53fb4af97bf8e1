// zoqrv verify FILE
#include <cinttypes>

#include "commands.h"
#include "container/qrv_recovery.h"

int runVerify(const Arguments& args) {
    if (args.size() != 1 || args[0].rfind("--", 0) == 0) return usage("verify FILE");
    File file = openFile(args[0], "rb");
    if (!file) return fail("cannot open " + args[0]);
    QrvVerification result;
    if (!qrvVerify(file.get(), result)) return fail(args[0] + ": not a QRV file (no record found)");
    if (!result.closed) {
        printUnclosed(result.records, result.bytesAfterRecords);
        return fail(args[0] + ": has no index to check the records against (zoqrv recover closes it)");
    }
    for (size_t record : result.damaged) printf("record %zu: damaged\n", record);
    printf("%zu records, %zu damaged%s\n", result.records, result.damaged.size(),
           result.checksummed ? "" : " (no checksums: only where the records lie was checked)");
    return result.damaged.empty() ? 0 : 1;
}
