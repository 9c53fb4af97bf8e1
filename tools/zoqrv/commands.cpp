#include "commands.h"

int fail(const std::string& message) {
    fprintf(stderr, "zoqrv: %s\n", message.c_str());
    return 1;
}

File openFile(const std::string& path, const char* mode) { return File(fopen(path.c_str(), mode)); }

int usage(const char* line) {
    fprintf(stderr, "usage: zoqrv %s\n", line);
    return 2;
}
