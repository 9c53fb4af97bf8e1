/* nvenc_probe: tells whether this machine has NVENC, independently of the library's encoder, so
 * that a GPU check can fail an encoder of ours that does not work where NVENC does. It loads the
 * CUDA driver and libnvidia-encode.so.1 through the ffnvcodec loader, opens an encode session on
 * a context of the first GPU and lists the codecs the session offers.
 * Exit status: 0 NVENC encodes HEVC here, 1 it does not (the line says why). */
#include <ffnvcodec/dynlink_loader.h>
#include <stdio.h>
#include <string.h>

static int absent(const char* step, int status) {
    printf("no NVENC: %s failed (%d)\n", step, status);
    return 1;
}

int main(void) {
    CudaFunctions* cuda = NULL;
    NvencFunctions* nvenc = NULL;
    if (cuda_load_functions(&cuda, NULL) != 0) return absent("loading libcuda.so.1", -1);
    if (nvenc_load_functions(&nvenc, NULL) != 0) return absent("loading libnvidia-encode.so.1", -1);
    CUdevice device = 0;
    CUcontext context = NULL;
    CUresult result = cuda->cuInit(0);
    if (result == CUDA_SUCCESS) result = cuda->cuDeviceGet(&device, 0);
    if (result == CUDA_SUCCESS) result = cuda->cuCtxCreate(&context, 0, device);
    if (result != CUDA_SUCCESS) return absent("creating a CUDA context", (int)result);

    uint32_t maxVersion = 0;
    NV_ENCODE_API_FUNCTION_LIST api;
    memset(&api, 0, sizeof api);
    api.version = NV_ENCODE_API_FUNCTION_LIST_VER;
    NVENCSTATUS status = nvenc->NvEncodeAPIGetMaxSupportedVersion(&maxVersion);
    if (status == NV_ENC_SUCCESS) status = nvenc->NvEncodeAPICreateInstance(&api);
    if (status != NV_ENC_SUCCESS) return absent("NvEncodeAPICreateInstance", (int)status);
    NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS session;
    memset(&session, 0, sizeof session);
    session.version = NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS_VER;
    session.deviceType = NV_ENC_DEVICE_TYPE_CUDA;
    session.device = context;
    session.apiVersion = NVENCAPI_VERSION;
    void* encoder = NULL;
    status = api.nvEncOpenEncodeSessionEx(&session, &encoder);
    if (status != NV_ENC_SUCCESS) return absent("nvEncOpenEncodeSessionEx", (int)status);

    GUID codecs[16];
    uint32_t count = 0;
    status = api.nvEncGetEncodeGUIDs(encoder, codecs, sizeof codecs / sizeof codecs[0], &count);
    int hevc = 0;
    printf("NVENC: driver API %u.%u, codecs:", maxVersion >> 4, maxVersion & 15);
    for (uint32_t i = 0; status == NV_ENC_SUCCESS && i < count; ++i) {
        const GUID h264 = NV_ENC_CODEC_H264_GUID, h265 = NV_ENC_CODEC_HEVC_GUID;
        if (!memcmp(&codecs[i], &h265, sizeof h265)) hevc = 1;
        printf(" %s", !memcmp(&codecs[i], &h264, sizeof h264) ? "H.264" : !memcmp(&codecs[i], &h265, sizeof h265) ? "HEVC" : "other");
    }
    printf("\n");
    api.nvEncDestroyEncoder(encoder);
    cuda->cuCtxDestroy(context);
    nvenc_free_functions(&nvenc);
    cuda_free_functions(&cuda);
    return hevc ? 0 : absent("finding HEVC among the session's codecs", (int)status);
}
