// The wrapper layer's exception: one message and no standard base, so a handler for
// std::exception does not catch it.
#pragma once

#include <exception>
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

constexpr char kUnknownExceptionText[] = "Unknown exception";

// Runs call() so that no exception leaves it, for the C interfaces, whose hosts cannot catch one:
// an exception that escapes gives its own text to report(text), and the result is `failure`.
template <class Result, class Call, class Report>
Result catchEverything(Result failure, Call&& call, Report&& report) noexcept {
    try {
        return call();
    } catch (const Exception& e) {
        report(e.message().c_str());
    } catch (const std::exception& e) {
        report(e.what());
    } catch (...) {
        report(kUnknownExceptionText);
    }
    return failure;
}
