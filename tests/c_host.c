/* A host written in C and linked to the shared library: calls that fail inside the library with a
 * C++ exception (a seek past the index, an encode that overflows its output, a write that fails) and
 * a bad metadata count must come back as status 1 and the exact text, never as an exception, which a
 * C host cannot catch (it would end the process). Exits 77, which ctest counts as skipped, without
 * libx265. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "zo_qrv64.h"

enum { kWidth = 64, kHeight = 48, kFrames = 4 };

static int failures;

static void expect(const char* call, uint32_t status, uint32_t expected, const char* text, const char* expectedText) {
    if (status != expected || strcmp(text, expectedText) != 0) {
        fprintf(stderr, "%s: status %u, text \"%s\"; expected %u, \"%s\"\n", call, status, text, expected, expectedText);
        ++failures;
    }
}

int main(void) {
    static uint8_t frame[kWidth * kHeight], bitstream[kWidth * kHeight * 4];
    static uint32_t metadata[64];
    uint64_t size = 0;
    setenv("ZOQRV_ENCODER", "x265", 1);
    ZoHwPipe* encoder = ZOHW_CreateEncoder(3, 1, 0, kWidth, kHeight, 1000000, 30);
    ZoHwPipe* tiny = ZOHW_CreateEncoder(2, 1, 1, 2, 2, 0, 30);
    FILE* file = tmpfile();
    FILE* readOnly = fopen("/dev/null", "rb");
    if (!encoder || !tiny) {
        printf("libx265 is not installed: %s\n", ZOHW_GetError(NULL));
        return 77;
    }
    char writeFailed[128];
    snprintf(writeFailed, sizeof writeFailed, "Cannot write the frame record: %s", strerror(EBADF));
    const char* badCount = "Metadata word count must be 0 to 64, with a non-null pointer above 0";
    const struct {
        const char* call;
        FILE* stream;
        const uint32_t* metadata;
        int32_t words;
        uint32_t status;
        const char* text;
    } stores[] = {
        {"a count of 65", file, metadata, 65, 1, badCount},
        {"a count of -1", file, metadata, -1, 1, badCount},
        {"a stream open for reading", readOnly, metadata, 64, 1, writeFailed},
    };
    for (size_t i = 0; i < sizeof stores / sizeof stores[0]; ++i)
        expect(stores[i].call,
               ZOHW_Encode_And_Store(encoder, stores[i].stream, &size, frame, kWidth, 0, stores[i].metadata, stores[i].words),
               stores[i].status, ZOHW_GetError(encoder), stores[i].text);
    for (int i = 0; i < kFrames; ++i) {
        frame[i] = 0xFF;
        expect("a store", ZOHW_Encode_And_Store(encoder, file, &size, frame, kWidth, 1000u * i, metadata, 64), 0,
               "", "");
    }
    expect("closing", ZOHW_CloseQRVContainer(encoder, file), 0, "", "");
    const uint8_t twoSamples[2] = {0x5A, 0xA5};
    expect("an encode that overflows", ZOHW_Encode(tiny, &size, twoSamples, 1, bitstream), 1, ZOHW_GetError(tiny),
           "Encode output buffer overflow");

    ZoHwPipe* decoder = ZOHW_CreateDecoder(3, 1, kWidth, kHeight, 0);
    const int start = 0;
    if (!decoder || ZOHW_StartDecoding(decoder, &start) != 0 || ZOHW_CreateQRVTracker(decoder, file) != 0) {
        fprintf(stderr, "cannot read the recording back: %s\n", decoder ? ZOHW_GetError(decoder) : ZOHW_GetError(NULL));
        return 1;
    }
    expect("a seek past the index", ZOHW_SetHEVCPositionInFile(decoder, file, kFrames), 1, ZOHW_GetError(decoder),
           "invalid vector<T> subscript");
    ZOHW_Destroy(decoder);
    ZOHW_Destroy(tiny);
    ZOHW_Destroy(encoder);
    fclose(readOnly);
    fclose(file);
    return failures != 0;
}
