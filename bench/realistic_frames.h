// Frames like the ones users record, for the benchmarks that choose encoder settings and for the
// tests: depth from a stereo or time-of-flight sensor, and camera colour. Deterministic: frame i
// of a size is always the same.
//
// Depth (16-bit millimetres): a room seen from 1 m above its floor: a floor that recedes to a
// back wall 4.5 m away, a person-sized cylinder walking across and a ball rolling back and forth
// in front; noise that grows with the square of the distance (1.6 mm at 1 m, 13 mm at 4.5 m) and
// differs in every frame; holes of 0: the occlusion shadow beside near edges, a window that
// returns nothing, and dropouts that grow more frequent with distance.
//
// Colour (BGRA): a slow pan over a textured scene (smooth wall, patterned floor), two objects
// that move on their own, vignetting, and sensor noise of 2 codes that differs in every frame.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace realistic {

// A hash of a position and frame: the same noise for the same pixel and frame, independent ones
// elsewhere.
inline uint32_t hash(uint32_t x, uint32_t y, uint32_t frame) {
    uint32_t h = x * 0x9E3779B1u ^ y * 0x85EBCA77u ^ frame * 0xC2B2AE3Du;
    h ^= h >> 15, h *= 0x2C1B3C6Du, h ^= h >> 12, h *= 0x297A2D39u, h ^= h >> 15;
    return h;
}
// Close to a normal deviate (mean 0, deviation 1) from three uniform bytes of a hash.
inline float normal(uint32_t h) {
    return (float((h & 255) + ((h >> 8) & 255) + ((h >> 16) & 255)) - 382.5f) / 127.7f;
}
// A position that runs from 0 to `span` and back in `period` frames.
inline float bounce(uint32_t frame, uint32_t period, float span) {
    const float phase = float(frame % period) / float(period);
    return span * (phase < 0.5f ? 2 * phase : 2 - 2 * phase);
}

// Depth frame `index` of width x height, row by row.
inline std::vector<uint16_t> depthFrame(uint32_t width, uint32_t height, uint32_t index) {
    std::vector<uint16_t> depth(size_t(width) * height);
    const float focal = 0.8f * float(width), horizon = 0.35f * float(height), centreX = 0.5f * float(width);
    const float personX = 0.15f * float(width) + bounce(index, 120, 0.6f * float(width)), personRadius = 0.07f * float(width);
    const float ballX = 0.3f * float(width) + bounce(index, 50, 0.4f * float(width)), ballY = 0.78f * float(height),
                ballRadius = 0.05f * float(width);
    const uint32_t windowX = width / 10, windowY = height / 12, windowW = width / 7, windowH = height / 6;
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            // The scene without noise: back wall, floor, person, ball (nearest wins).
            float z = 4500.0f + 1.5f * (float(x) - centreX);
            if (float(y) > horizon) z = std::min(z, 1000.0f * focal / (float(y) - horizon));
            const float dxPerson = (float(x) - personX) / personRadius;
            if (std::abs(dxPerson) < 1 && float(y) > 0.2f * float(height))
                z = std::min(z, 2000.0f - 250.0f * std::sqrt(1 - dxPerson * dxPerson));
            const float dxBall = (float(x) - ballX) / ballRadius, dyBall = (float(y) - ballY) / ballRadius;
            const float ball = dxBall * dxBall + dyBall * dyBall;
            if (ball < 1) z = std::min(z, 1200.0f - 180.0f * std::sqrt(1 - ball));
            // Holes: the shadow right of the person and the ball, the window, dropouts.
            const bool shadow = (dxPerson >= 1 && dxPerson < 1.25f && float(y) > 0.2f * float(height)) ||
                                (ball >= 1 && dxBall > 0 && dxBall < 1.3f && std::abs(dyBall) < 0.9f);
            const bool window = x >= windowX && x < windowX + windowW && y >= windowY && y < windowY + windowH;
            // Dropouts in blocks of 2 x 2, 0.4% of them at 1 m, 8% at 4.5 m.
            const bool dropout = (hash(x / 2, y / 2, index) >> 24) < uint32_t(z * z * 4e-9f * 256);
            if (shadow || window || dropout) continue;
            const float sigma = 1.0f + z * z * 0.6e-6f;
            depth[size_t(y) * width + x] = uint16_t(std::lround(z + sigma * normal(hash(x, y, index + 0x10000))));
        }
    return depth;
}

// Colour frame `index` of width x height, BGRA.
inline std::vector<uint8_t> colourFrame(uint32_t width, uint32_t height, uint32_t index) {
    std::vector<uint8_t> bgra(size_t(width) * height * 4);
    const float pan = bounce(index, 240, 0.1f * float(width)), horizon = 0.45f * float(height);
    const float discX = 0.2f * float(width) + bounce(index, 90, 0.5f * float(width)), discY = 0.6f * float(height),
                discRadius = 0.08f * float(height);
    const float boxX = 0.7f * float(width) - bounce(index, 70, 0.3f * float(width)), boxY = 0.3f * float(height);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const float wx = float(x) + pan, fy = float(y);  // the scene's own position
            float r, g, b;
            if (fy < horizon) {  // a wall with a soft light and a faint fixed texture
                const float light = 150 + 50 * std::cos((wx - 0.6f * float(width)) / float(width) * 3) - 40 * fy / horizon;
                const float texture = float(hash(uint32_t(wx) / 3, y / 3, 0) & 15) - 7.5f;
                r = light + texture, g = 0.95f * light + texture, b = 0.85f * light + texture;
            } else {  // a floor of boards with grain
                const float grain = 25 * std::sin(wx / 9 + 3 * std::sin(fy / 41)) + float(hash(uint32_t(wx), y, 1) & 31) - 15.5f;
                const float board = (uint32_t(wx / 160) + uint32_t(fy / 90)) % 2 ? 20.0f : -10.0f;
                r = 120 + grain + board, g = 80 + 0.8f * grain + board, b = 50 + 0.5f * grain;
            }
            const float dx = float(x) - discX, dy = fy - discY;
            if (dx * dx + dy * dy < discRadius * discRadius) r = 200 + 0.3f * dy, g = 40, b = 30 + 0.2f * dx;
            if (std::abs(float(x) - boxX) < 0.06f * float(width) && std::abs(fy - boxY) < 0.1f * float(height))
                r = 30, g = 90 + 40 * std::sin(float(x) / 15), b = 160;
            const float cx = (float(x) / float(width) - 0.5f), cy = (fy / float(height) - 0.5f);
            const float vignette = 1 - 0.5f * (cx * cx + cy * cy);
            const float channel[3] = {b, g, r};
            for (uint32_t c = 0; c < 3; ++c) {
                const float noisy = channel[c] * vignette + 2 * normal(hash(x, y, 3 * index + c + 0x20000));
                bgra[(size_t(y) * width + x) * 4 + size_t(c)] = uint8_t(std::clamp(noisy, 0.0f, 255.0f));
            }
            bgra[(size_t(y) * width + x) * 4 + 3] = 255;
        }
    return bgra;
}

}  // namespace realistic
