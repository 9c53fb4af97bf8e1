// Spreading a CPU twin's rows over the machine's threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <thread>
#include <vector>

// Runs work(first, end) over contiguous parts of [0, count), each of at least `minimum` items,
// at most one part per hardware thread; the calling thread takes the first part. A part whose
// thread cannot be started (no thread or no memory for one) runs on the calling thread, so no
// started thread is ever left unjoined.
template <class Work>
void splitOverThreads(size_t count, size_t minimum, const Work& work) {
    const size_t threads = std::clamp<size_t>(count / std::max<size_t>(minimum, 1), 1,
                                              std::max(1u, std::thread::hardware_concurrency()));
    const auto bound = [&](size_t part) { return count / threads * part + count % threads * part / threads; };
    std::vector<std::thread> helpers;
    helpers.reserve(threads - 1);
    for (size_t part = 1; part < threads; ++part) {
        try {
            helpers.emplace_back(work, bound(part), bound(part + 1));
        } catch (const std::exception&) {  // std::system_error or std::bad_alloc, from the constructor only
            work(bound(part), bound(part + 1));
        }
    }
    work(0, bound(1));
    for (std::thread& helper : helpers) helper.join();
}
