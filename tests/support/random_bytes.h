// Reproducible random test data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

// `size` bytes drawn from a generator seeded with `seed`.
Bytes randomBytes(size_t size, uint32_t seed);
