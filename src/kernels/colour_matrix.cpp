#include "kernels/colour.h"

ColourConstants GetConstants(int colourStandard) {
    switch (colourStandard) {
    case 2: return {0.299f, 0.114f, 16, 235, 255};
    case 4: return {0.2627f, 0.0593f, 4096, 60160, 65535};
    default: return {0.2126f, 0.0722f, 16, 235, 255};
    }
}

CodeRange codeRange(int colourStandard) {
    const ColourConstants c = GetConstants(colourStandard);
    return {c.black, (c.max + 1) / 2, c.max};
}

namespace {

// Entries are scaled in double precision and only then rounded to float.
ColourMatrix scaled(const double (&rows)[3][3], double scale) {
    ColourMatrix matrix{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) matrix.m[i][j] = static_cast<float>(rows[i][j] * scale);
    return matrix;
}

}  // namespace

ColourMatrix yuvToRgbMatrix(int colourStandard) {
    const ColourConstants c = GetConstants(colourStandard);
    const double wr = c.wr, wb = c.wb;
    const double rows[3][3] = {
        {1.0, 0.0, (1.0 - wr) / 0.5},
        {1.0, -wb * (1.0 - wb) / 0.5 / (1.0 - wb - wr), -wr * (1.0 - wr) / 0.5 / (1.0 - wb - wr)},
        {1.0, (1.0 - wb) / 0.5, 0.0},
    };
    return scaled(rows, static_cast<double>(c.max) / (c.white - c.black));
}

ColourMatrix rgbToYuvMatrix(int colourStandard) {
    const ColourConstants c = GetConstants(colourStandard);
    const double wr = c.wr, wb = c.wb;
    const double rows[3][3] = {
        {wr, 1.0 - wb - wr, wb},
        {-0.5 * wr / (1.0 - wb), -0.5 * (1.0 - wb - wr) / (1.0 - wb), 0.5},
        {0.5, -0.5 * (1.0 - wb - wr) / (1.0 - wr), -0.5 * wb / (1.0 - wr)},
    };
    return scaled(rows, static_cast<double>(c.white - c.black) / c.max);
}
