#include "codec/Exception.h"

#include <cuda_runtime_api.h>

#include <string>

void checkCudaRuntime(int result, const char* text) {
    if (result == 0) return;
    throw Exception(std::string(text) + " (Error " + std::to_string(result) + ": " +
                    cudaGetErrorString(static_cast<cudaError_t>(result)) + ")");
}
