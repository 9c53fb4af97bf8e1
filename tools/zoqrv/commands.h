// The zoqrv commands. Each takes the arguments after its name and returns the exit status:
// 0 success, 1 failure (one line on stderr), 2 usage error (the usage line on stderr).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

int runInfo(const Arguments& args);
int runImport(const Arguments& args);
int runExport(const Arguments& args);
int runExtract(const Arguments& args);
int runRecord(const Arguments& args);
int runRecover(const Arguments& args);
int runVerify(const Arguments& args);

// "unclosed recording: N complete records, M bytes after the last one" on stdout.
void printUnclosed(size_t records, uint64_t bytesAfter);

// Prints "zoqrv: " and the message on stderr; returns 1.
int fail(const std::string& message);
// Prints the usage line of a command on stderr; returns 2.
int usage(const char* line);

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Opens `path` with fopen's `mode`; null when it cannot be opened.
File openFile(const std::string& path, const char* mode);
