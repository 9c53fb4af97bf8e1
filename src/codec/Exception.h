// The wrapper layer's exception: one message and no standard base, so a handler for
// std::exception does not catch it.
#pragma once

#include <string>
#include <utility>

class Exception {
public:
    explicit Exception(std::string message) : message_(std::move(message)) {}
    const std::string& message() const { return message_; }

private:
    std::string message_;
};

// Throws Exception("<text> (Error <code>: <runtime's error string>)") for a non-zero
// CUDA runtime result; does nothing for 0.
void checkCudaRuntime(int result, const char* text);
