#include "support/random_bytes.h"

#include <random>

Bytes randomBytes(size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    Bytes bytes(size);
    for (auto& b : bytes) b = static_cast<uint8_t>(byte(generator));
    return bytes;
}
