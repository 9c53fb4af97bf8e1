/* A host application written in C: links the shared library through the public
 * header and checks what a fresh process sees. Exit status 0 means every check held. */
#include <stdio.h>
#include <string.h>

#include "zo_qrv64.h"

static int failures = 0;

static void check(int condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "host_c: failed: %s\n", what);
        ++failures;
    }
}

int main(void) {
    uint64_t timestamp = 7;

    check(strcmp(ZOHW_GetError(NULL), "") == 0, "a fresh process has an empty error text");
    check(ZOHW_GetVersion() == 100, "version 100");
    check(ZOHW_GetDecoderType(NULL) == 0, "no decoder type without a pipe");
    check(strcmp(ZOHW_GetError(NULL), "Invalid ZoHwPipe instance NULL") == 0,
          "a null pipe leaves its text in the library-wide slot");
    check(ZOHW_GetTimeStampForSample(NULL, stdin, 1, &timestamp) == 1 && timestamp == 0,
          "a failed timestamp query still writes 0");
    ZOHW_Destroy(NULL);
    check(ZOHW_CreateEncoder(3, 1, 0, 64, 64, 1000000, 30) == NULL, "no encoder on this machine");
    check(strcmp(ZOHW_GetError(NULL), "unsupported hardware or codec for encoding") == 0,
          "encoder creation failure text");
    if (failures == 0) printf("host_c: all checks held\n");
    return failures == 0 ? 0 : 1;
}
