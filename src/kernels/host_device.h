// Lets one definition of per-thread work serve both the CUDA kernels and their CPU twins.
#pragma once

#ifdef __CUDACC__
#define ZOQRV_HOST_DEVICE __host__ __device__ __forceinline__
#else
#define ZOQRV_HOST_DEVICE inline
#endif
