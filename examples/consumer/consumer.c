/* A program of another project built against the installed library: records eight frames of
 * 8-bit samples losslessly into a QRV file and plays them back, checking every sample, frame
 * number (counted from 1), the first key frame, capture time and metadata word. Run with ZOQRV_ENCODER=x265 where there is no NVENC.
 * The software decoder hands back packed YUYV, whose luma bytes carry 8-bit samples. */
#include <stdio.h>
#include <stdlib.h>

#include <zo_qrv64.h>

enum { kUint8 = 3, kHevc = 1, W = 64, H = 48, FRAMES = 8 };

static int fail(const char* what, ZoHwPipe* pipe) {
    fprintf(stderr, "consumer: %s: %s\n", what, ZOHW_GetError(pipe));
    return 1;
}

static uint8_t sample(int frame, int x, int y) { return (uint8_t)(x * 3 + y * 5 + frame * 7); }

int main(int argc, char** argv) {
    static uint8_t data[H][W], yuyv[H][2 * W];
    uint32_t metadata[64] = {0}, back[64];
    const char* path = argc > 1 ? argv[1] : "consumer.qrv";
    FILE* file = fopen(path, "w+b");
    ZoHwPipe* pipe = ZOHW_CreateEncoder(kUint8, kHevc, 1, W, H, 0, 30);
    if (!file || !pipe) return fail("creating the encoder", NULL);
    ZOHW_CreateQRVContainer(pipe, file, NULL, 0);
    for (int f = 0; f < FRAMES; ++f) {
        uint64_t size = 0;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) data[y][x] = sample(f, x, y);
        metadata[0] = 1000u + (uint32_t)f;
        if (ZOHW_Encode_And_Store(pipe, file, &size, data, W, 40000u * (uint64_t)f, metadata, 64) || !size)
            return fail("encoding", pipe);
    }
    ZOHW_CloseQRVContainer(pipe, file);
    ZOHW_Destroy(pipe);

    pipe = ZOHW_CreateDecoder(kUint8, kHevc, W, H, 0);
    const int start = 0;
    if (!pipe || ZOHW_StartDecoding(pipe, &start) || ZOHW_CreateQRVTracker(pipe, file))
        return fail("opening the recording", pipe);
    for (int f = 0; f < FRAMES; ++f) {
        uint32_t number = 0, type = 0;
        uint64_t time = 0;
        if (ZOHW_DecodeFrameAndMetadata(pipe, file, yuyv, &number, &time, &type, back))
            return fail("decoding", pipe);
        if (number != (uint32_t)f + 1 || (f == 0 && type != 3) || time != 40000u * (uint64_t)f ||
            back[0] != 1000u + (uint32_t)f)
            return fail("frame number, type, time or metadata differ", pipe);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                if (yuyv[y][2 * x] != sample(f, x, y)) return fail("a sample differs", pipe);
    }
    ZOHW_Destroy(pipe);
    fclose(file);
    printf("consumer: %d frames recorded and played back bit for bit\n", FRAMES);
    return 0;
}
