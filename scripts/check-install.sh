#!/usr/bin/env bash
# Uses an already built tree as another project would: installs it into a temporary prefix,
# checks what was installed and what the library exports and links, builds the consumer program with find_package and with
# pkg-config and runs both (recording with libx265), makes the .deb and checks its files and
# dependencies, and runs the Python module's tests when the tree built it.
#
#   scripts/check-install.sh [BUILD_DIR]    (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
export ZOQRV_ENCODER=x265

fail() { echo "check-install: $*" >&2; exit 1; }

cmake --build "$build" -j"$(nproc)"  # nothing to do after scripts/test.sh
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libzo_qrv64.so.1')")
for path in "$libdir/libzo_qrv64.so" "$prefix/include/zo_qrv64.h" "$prefix/bin/zoqrv" \
            "$libdir/cmake/zo_qrv64/zo_qrv64Config.cmake" "$libdir/pkgconfig/zo_qrv64.pc"; do
  [ -e "$path" ] || fail "not installed: ${path#"$prefix"/}"
done
unexpected=$(find "$prefix" \( -name '*.a' -o -name 'test_*' -o -name 'bench_*' \))
[ -z "$unexpected" ] || fail "installed but internal: $unexpected"
readelf -d "$libdir/libzo_qrv64.so.1" | grep -q 'SONAME.*\[libzo_qrv64\.so\.1\]' || fail "soname is not libzo_qrv64.so.1"
# Exactly the C interface is exported, and the NVIDIA driver and CUDA runtime are no link-time
# dependency: the library loads on a machine without them.
exports=$(nm -D --defined-only "$libdir/libzo_qrv64.so.1" | awk '{print $3}' | cut -d@ -f1 | LC_ALL=C sort | xargs)
[ "$exports" = "NvOptimusEnablementCuda $(grep -o 'ZOHW_[A-Za-z_]*(' include/zo_qrv64.h | tr -d '(' | LC_ALL=C sort -u | xargs)" ] ||
  fail "exports are not exactly the C interface: $exports"
[ "$(wc -w <<<"$exports")" = 19 ] || fail "not 18 ZOHW_ functions and NvOptimusEnablementCuda: $exports"
# The installed header compiles on its own as C and as C++.
cc -std=c99 -pedantic -Wall -Werror -fsyntax-only -x c "$prefix/include/zo_qrv64.h"
c++ -std=c++11 -pedantic -Wall -Werror -fsyntax-only -x c++ "$prefix/include/zo_qrv64.h"
needed=$(readelf -d "$libdir/libzo_qrv64.so.1" | grep NEEDED)
! grep -Eq 'libcuda\.so|libnvcuvid|libnvidia-encode|libcudart' <<<"$needed" ||
  fail "the library links the NVIDIA driver or the CUDA runtime: $needed"

# The consumer, built both ways, records and plays back.
cmake -S examples/consumer -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
"$work/cmake-consumer/consumer" "$work/cmake.qrv"
export PKG_CONFIG_PATH=$libdir/pkgconfig
cc -std=c99 -Wall -Werror -o "$work/pc-consumer" examples/consumer/consumer.c \
  $(pkg-config --cflags --libs zo_qrv64) -Wl,-rpath,"$(pkg-config --variable=libdir zo_qrv64)"
"$work/pc-consumer" "$work/pc.qrv"
"$prefix/bin/zoqrv" info "$work/pc.qrv" | grep -q . || fail "zoqrv info printed nothing"

# The package: its files, and a Depends line that covers every library its binaries need.
cpack --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$work"/package/*.deb)
dpkg-deb -c "$deb" | awk '{print $6}' > "$work/files"
for pattern in '/usr/lib/.*libzo_qrv64\.so\.1$' '/usr/include/zo_qrv64\.h$' '/usr/bin/zoqrv$' \
               '/usr/lib/.*cmake/zo_qrv64/zo_qrv64Config\.cmake$' '/usr/lib/.*pkgconfig/zo_qrv64\.pc$'; do
  grep -q "$pattern" "$work/files" || fail "$(basename "$deb") lacks $pattern"
done
! grep -Eq '\.a$|/test_|/bench_|python' "$work/files" || fail "$(basename "$deb") carries internal files"
depends=$(dpkg-deb -f "$deb" Depends)
echo "package $(basename "$deb"): Depends: $depends"
! grep -Eiq 'x265|avcodec|avutil|cuda|nvidia' <<<"$depends" ||
  fail "the driver, CUDA, libx265 and libavcodec must not be dependencies"
depended=$(sed 's/ ([^)]*)//g; s/ *| */\n/g; s/, /\n/g' <<<"$depends")  # package names, one a line
dpkg-deb -x "$deb" "$work/root"
for binary in "$work/root/usr/bin/zoqrv" "$(find "$work/root" -name 'libzo_qrv64.so.1')"; do
  for needed in $(readelf -d "$binary" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p'); do
    path=$(ldd "$binary" | awk -v lib="$needed" '{n = split($1, p, "/")} p[n] == lib {print $2 == "=>" ? $3 : $1}')
    # Merged /usr: dpkg knows a library under one of its two names.
    owner=$({ dpkg -S "$path" || dpkg -S "$(realpath "$path")"; } 2>/dev/null | grep -m1 -o '^[^:]*') ||
      fail "no package provides $needed"
    grep -qxF "$owner" <<<"$depended" || fail "$needed comes from $owner, not a dependency"
  done
done
"$work/root/usr/bin/zoqrv" info "$work/cmake.qrv" >/dev/null || fail "the packaged zoqrv does not run"

# The Python module, where the tree built it; Debian's numpy and pytest belong to /usr/bin/python3.
if [ -d "$build/python" ]; then
  cmake --install "$build" --prefix "$prefix" --component python >/dev/null
  module=$(find "$prefix" -name 'zoqrv.*.so')
  PYTHONPATH=$(dirname "$module") /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/python
fi
echo "check-install: the install, both consumers, the package and the Python module work"
