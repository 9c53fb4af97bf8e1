// The failures of the recording layer: a status of the public API and its text.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "zoqrv.h"

struct RecordingError {
    zoqrv_status status;
    std::string text;
};

[[noreturn]] inline void failWith(zoqrv_status status, std::string text) { throw RecordingError{status, std::move(text)}; }

// "<what>: <the system's text for errno>", with the status that errno means.
[[noreturn]] void failWithErrno(int error, const std::string& what);

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using RecordingFile = std::unique_ptr<FILE, FileCloser>;
