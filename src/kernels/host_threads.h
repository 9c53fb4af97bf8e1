// Spreading a CPU twin's rows over the machine's threads.
#pragma once

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

// Runs work(first, end) over contiguous parts of [0, count), each of at least `minimum` items,
// at most one part per hardware thread; the calling thread takes the first part. A part whose
// thread cannot be started runs on the calling thread.
template <class Work>
void splitOverThreads(int count, int minimum, const Work& work) {
    const int threads = std::clamp(count / std::max(minimum, 1), 1,
                                   std::max(1, static_cast<int>(std::thread::hardware_concurrency())));
    const auto bound = [&](int part) { return static_cast<int>(static_cast<long long>(count) * part / threads); };
    std::vector<std::thread> helpers;
    helpers.reserve(threads - 1);
    for (int part = 1; part < threads; ++part) {
        try {
            helpers.emplace_back(work, bound(part), bound(part + 1));
        } catch (const std::system_error&) {
            work(bound(part), bound(part + 1));
        }
    }
    work(0, bound(1));
    for (std::thread& helper : helpers) helper.join();
}
