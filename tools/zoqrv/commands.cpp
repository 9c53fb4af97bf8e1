#include "commands.h"

#include <cinttypes>

int fail(const std::string& message) {
    fprintf(stderr, "zoqrv: %s\n", message.c_str());
    return 1;
}

File openFile(const std::string& path, const char* mode) { return File(fopen(path.c_str(), mode)); }

int usage(const char* line) {
    fprintf(stderr, "usage: zoqrv %s\n", line);
    return 2;
}

void printUnclosed(size_t records, uint64_t bytesAfter) {
    printf("unclosed recording: %zu complete records, %" PRIu64 " bytes after the last one\n", records, bytesAfter);
}
