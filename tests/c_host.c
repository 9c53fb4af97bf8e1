/* A host written in C and linked to the shared library: failures met as C++ exceptions inside (a seek
 * past the index, an overflowing encode, failed writes) and a bad metadata count come back as status 1
 * and the exact text; an exception would end this process. Exits 77 (skipped) without libx265. */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zo_qrv64.h"
#include "zoqrv.h"

int writeAndReadThroughTheApi(const char* path, uint32_t decoder);  /* c_recording_host.c */

enum { kWidth = 64, kHeight = 48, kFrames = 4 };
static int failures;
static void expect(const char* call, uint32_t status, uint32_t expected, ZoHwPipe* pipe, const char* expectedText) {
    const char* text = status == 0 ? "" : ZOHW_GetError(pipe);
    if (status == expected && strcmp(text, expectedText) == 0) return;
    fprintf(stderr, "%s: %u \"%s\", not %u \"%s\"\n", call, status, text, expected, expectedText);
    ++failures;
}

int main(void) {
    static uint32_t frame[kWidth * kHeight / 4], bitstream[kWidth * kHeight];  /* bitstream: metadata words too */
    uint64_t size = 0;
    setenv("ZOQRV_ENCODER", "x265", 1);
    ZoHwPipe* encoder = ZOHW_CreateEncoder(3, 1, 0, kWidth, kHeight, 1000000, 30);
    ZoHwPipe* tiny = ZOHW_CreateEncoder(2, 1, 1, 2, 2, 0, 30);
    FILE *file = tmpfile(), *readOnly = fopen("/dev/null", "rb");
    if (!encoder || !tiny) return printf("libx265 is not installed: %s\n", ZOHW_GetError(NULL)), 77;
#define STORE(stream, time, words) ZOHW_Encode_And_Store(encoder, stream, &size, frame, kWidth, time, bitstream, words)
    expect("65 words", STORE(file, 0, 65), 1, encoder, "Metadata word count must be 0 to 64, with a non-null pointer above 0");
    expect("a header", ZOHW_CreateQRVContainer(encoder, readOnly, (const uint8_t*)frame, 4), 1, encoder,
           "Cannot write the recording header: Bad file descriptor");
    expect("a read-only stream", STORE(readOnly, 0, 64), 1, encoder, "Cannot write the frame record: Bad file descriptor");
    for (int i = 0; i < kFrames; ++i, frame[i] = 0xFF) expect("a store", STORE(file, 1000u * i, 64), 0, encoder, "");
    expect("closing", ZOHW_CloseQRVContainer(encoder, file), 0, encoder, "");
    expect("an overflow", ZOHW_Encode(tiny, &size, frame, 1, bitstream), 1, tiny, "Encode output buffer overflow");
    ZoHwPipe* decoder = ZOHW_CreateDecoder(3, 1, kWidth, kHeight, 0);
    expect("reading the index", ZOHW_CreateQRVTracker(decoder, file), 0, decoder, "");
    expect("a seek", ZOHW_SetHEVCPositionInFile(decoder, file, kFrames), 1, decoder, "invalid vector<T> subscript");
    ZOHW_Destroy(decoder), ZOHW_Destroy(tiny), ZOHW_Destroy(encoder), fclose(readOnly), fclose(file);
    char path[] = "/tmp/zoqrv-c-host-XXXXXX";
    const int descriptor = mkstemp(path);
    failures += writeAndReadThroughTheApi(path, ZOQRV_DECODER_SOFTWARE);
    remove(path), close(descriptor);
    return failures != 0;
}
