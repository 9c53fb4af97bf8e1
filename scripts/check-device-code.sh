#!/usr/bin/env bash
# Checks that libzo_qrv64.so in BUILD_DIR carries the packing and colour kernels as native code
# for every supported GPU generation plus PTX for the newest. No GPU needed.
set -euo pipefail
build_dir=${1:?usage: check-device-code.sh BUILD_DIR}
library="$build_dir/libzo_qrv64.so"
[ -f "$library" ] || { echo "no $library" >&2; exit 1; }

# Each module's kernels in the order in which the module registers them.
packing_kernels=(
  _Z14nv12_to_uint32PKhjPhjjj _Z14uint32_to_nv12PKhjPhjjj
  _Z14nv12_to_uint16PKhjPhjjj _Z14uint16_to_nv12PKhjPhjjj
  _Z12nv12_to_uyvyPKhjPhjjj _Z12uyvy_to_nv12PKhjPhjjj
  _Z13nv12_to_uint8PKhjPhjjj _Z13uint8_to_nv12PKhjPhjjj
  _Z13nv12_to_uint4PKhjPhjjj _Z13uint4_to_nv12PKhjPhjjj
)
colour_kernels=(
  _Z14RgbToYuvKernelI7ushort26BGRA6410ulonglong2EvPhiS3_iii
  _Z20YuvToRgbPlanarKernelI7ushort26BGRA326uchar2EvPhiS3_iii
  _Z20YuvToRgbPlanarKernelI6uchar26BGRA32S0_EvPhiS2_iii
  _Z14YuvToRgbKernelI7ushort26BGRA6410ulonglong2EvPhiS3_iii
  _Z14YuvToRgbKernelI7ushort26BGRA325uint2EvPhiS3_iii
  _Z14YuvToRgbKernelI6uchar26BGRA6410ulonglong2EvPhiS3_iii
  _Z14YuvToRgbKernelI6uchar26BGRA325uint2EvPhiS3_iii
)

exec python3 "$(dirname "$0")/fatbin_inspect.py" "$library" \
  --sm 75 80 86 89 90 100 120 --ptx 120 \
  --kernel "${packing_kernels[@]}" --kernel "${colour_kernels[@]}"
