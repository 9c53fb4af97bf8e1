#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the main job need (only the missing ones).
set -euo pipefail
packages=(cmake g++ pkg-config make libffmpeg-nvenc-dev libde265-dev libx265-dev zlib1g-dev libpng-dev
          libgtest-dev libgmock-dev libavcodec-dev libbenchmark-dev x265 ffmpeg binutils python3
          dpkg-dev pybind11-dev python3-pybind11 python3-numpy python3-pytest python3-venv python3-pip
          libx264-dev libcli11-dev libavformat-dev libswscale-dev zstd)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
if [ ! -x /usr/local/cuda/bin/nvcc ] && ! command -v nvcc >/dev/null; then
  echo "install-deps: the CUDA toolkit (nvcc 12.8 or newer) is required at /usr/local/cuda" >&2
  exit 1
fi
