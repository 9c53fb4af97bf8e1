// Arbitrary bytes as an elementary stream (codec detection, the access-unit splitter, the
// random-access test and the parameter-set size reader) and as a file for zoqrv import, info
// and export.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "commands.h"
#include "container/annexb.h"
#include "fuzz_input.h"

namespace {

std::filesystem::path workDirectory;

void removeWorkDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(workDirectory, ignored);
}

std::string pathOf(const char* name) { return (workDirectory / name).string(); }

// The splitter promises access units that cover every byte, in order.
void checkSplit(const uint8_t* data, size_t size, AnnexBCodec codec) {
    size_t next = 0;
    for (const AccessUnit& unit : annexBSplitAccessUnits(data, size, codec)) {
        if (unit.offset != next || unit.bytes == 0) abort();
        next += unit.bytes;
    }
    if (next != size && codec != AnnexBCodec::Unknown) abort();
    annexBHasRandomAccessPicture(data, size, codec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The commands' reports on stdout are of no use here.
    if (!freopen("/dev/null", "w", stdout)) return 1;
    char pattern[] = "/tmp/zoqrv-fuzz-XXXXXX";
    if (!mkdtemp(pattern)) return 1;
    workDirectory = pattern;
    atexit(removeWorkDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const AnnexBCodec detected = annexBDetectCodec(data, size);
    for (AnnexBCodec codec : {AnnexBCodec::H264, AnnexBCodec::Hevc}) checkSplit(data, size, codec);
    std::vector<HevcPictureSize> sizes;
    hevcDeclaredPictureSizes(data, size, sizes);

    const std::string input = pathOf("input"), imported = pathOf("imported.qrv");
    {
        File file = openFile(input, "wb");
        if (!file || (size && fwrite(data, 1, size, file.get()) != size)) abort();
    }
    // Import refuses exactly what detection refuses.
    const int importStatus = runImport({input, imported});
    if ((importStatus == 0) != (detected != AnnexBCodec::Unknown)) abort();
    if (importStatus == 0 && runInfo({imported, "--records"}) != 0) abort();
    for (const std::string& file : {input, imported}) {
        runInfo({file, "--records", "--metadata", "1"});
        runExport({file, pathOf("exported")});
    }
    std::filesystem::remove(imported);
    return 0;
}
