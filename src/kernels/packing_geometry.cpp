#include "kernels/packing.h"

namespace packing {

uint32_t packedSize(uint32_t code, uint32_t width, uint32_t height) {
    const uint32_t pixels = width * height;
    switch (code) {
    case kColour32: return pixels * 4;
    case kUyvy: return pixels * 2;
    case kUint4: return pixels >> 1;
    case kUint8: return pixels;
    case kUint16: return pixels * 2;
    case kUint32: return pixels * 4;
    default: return 0;
    }
}

uint32_t tightPitch(uint32_t code, uint32_t width) {
    switch (code) {
    case kColour32: return width * 4;
    case kUyvy: return width * 2;
    case kUint4: return width >> 1;
    case kUint8: return width;
    case kUint16: return width * 2;
    case kUint32: return width * 4;
    default: return 0;
    }
}

uint32_t pictureWidth(uint32_t code, uint32_t width) {
    return code == kUint16 ? 2 * width : code == kUint32 ? 4 * width : width;
}

LaunchGeometry encodeGeometry(uint32_t width, uint32_t height) {
    return {(width >> 4) + 1, (height >> 1) + 1, 16, 2};
}

LaunchGeometry decodeGeometry(uint32_t code, uint32_t width, uint32_t height) {
    const uint32_t columns = code == kUint4 ? (width >> 5) + 1 : (width >> 4) + 1;
    return {columns, (height >> 1) + 1, 16, 2};
}

}  // namespace packing
