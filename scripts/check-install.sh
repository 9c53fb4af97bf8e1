#!/usr/bin/env bash
# Uses an already built tree as another project would: installs it into a temporary prefix,
# checks what was installed and what the library exports and links, builds the consumer program with find_package and with
# pkg-config and runs both (recording with libx265), makes the packages (into the build tree) and
# checks their files, folders, stripping and dependencies, and, where the tree built the Python
# module, checks where its component installs and runs its tests on the packaged module; then
# pip-installs the module against the installed library in a fresh venv and runs them again.
#
#   scripts/check-install.sh [BUILD_DIR]    (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
export ZOQRV_ENCODER=software

fail() { echo "check-install: $*" >&2; exit 1; }

cmake --build "$build" -j"$(nproc)"  # nothing to do after scripts/test.sh
cmake --install "$build" --prefix "$prefix" >/dev/null
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=$prefix/lib/$multiarch  # Debian's loader and pkg-config search it under /usr/local too
for path in "$libdir/libzo_qrv64.so" "$prefix/include/zo_qrv64.h" "$prefix/include/zoqrv.h" "$prefix/bin/zoqrv" \
            "$libdir/cmake/zo_qrv64/zo_qrv64Config.cmake" "$libdir/pkgconfig/zo_qrv64.pc"; do
  [ -e "$path" ] || fail "not installed: ${path#"$prefix"/}"
done
unexpected=$(find "$prefix" \( -name '*.a' -o -name 'test_*' -o -name 'bench_*' \))
[ -z "$unexpected" ] || fail "installed but internal: $unexpected"
readelf -d "$libdir/libzo_qrv64.so.1" | grep -q 'SONAME.*\[libzo_qrv64\.so\.1\]' || fail "soname is not libzo_qrv64.so.1"
# Exactly the C interface is exported, and the NVIDIA driver and CUDA runtime are no link-time
# dependency: the library loads on a machine without them.
exports=$(nm -D --defined-only "$libdir/libzo_qrv64.so.1" | awk '{print $3}' | cut -d@ -f1 | LC_ALL=C sort | xargs)
# Exactly the functions of the two public headers, and the hybrid-graphics flag.
declared=$(grep -ho '\b\(ZOHW_\|zoqrv_\)[a-z_A-Z]*(' include/zo_qrv64.h include/zoqrv.h | tr -d '(' | LC_ALL=C sort -u | xargs)
[ "$exports" = "$(tr " " "\n" <<<"NvOptimusEnablementCuda $declared" | LC_ALL=C sort | xargs)" ] ||
  fail "exports are not exactly the two C interfaces: $exports"
[ "$(grep -o 'ZOHW_' <<<"$exports" | wc -l)" = 18 ] || fail "not 18 ZOHW_ functions: $exports"
cc -std=c99 -pedantic -Wall -Werror -fsyntax-only -x c "$prefix/include/zo_qrv64.h"
c++ -std=c++11 -pedantic -Wall -Werror -fsyntax-only -x c++ "$prefix/include/zo_qrv64.h"
cc -std=c99 -pedantic -Wall -Werror -fsyntax-only -x c "$prefix/include/zoqrv.h"
c++ -std=c++11 -pedantic -Wall -Werror -fsyntax-only -x c++ "$prefix/include/zoqrv.h"
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

# The packages, made as the README says: into the build tree, nothing in the source tree.
rm -rf "$build/package"
before=$(git status --porcelain --untracked-files=all)
cpack --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack failed"; }
[ "$(git status --porcelain --untracked-files=all)" = "$before" ] || fail "cpack wrote into the source tree"
deb=$(ls "$build"/package/zo-qrv64_*.deb)
dpkg-deb -c "$deb" | awk '{print $6}' > "$work/files"
for pattern in "^\./usr/lib/$multiarch/libzo_qrv64\.so\.1\$" '/usr/include/zo_qrv64\.h$' '/usr/include/zoqrv\.h$' '/usr/bin/zoqrv$' \
               "^\./usr/lib/$multiarch/cmake/zo_qrv64/zo_qrv64Config\.cmake\$" "^\./usr/lib/$multiarch/pkgconfig/zo_qrv64\.pc\$"; do
  grep -q "$pattern" "$work/files" || fail "$(basename "$deb") lacks $pattern"
done
! grep -Eq '\.a$|/test_|/bench_|python' "$work/files" || fail "$(basename "$deb") carries internal files"
depends=$(dpkg-deb -f "$deb" Depends)
echo "package $(basename "$deb"): Depends: $depends"
! grep -Eiq 'x265|x264|avcodec|avutil|cuda|nvidia' <<<"$depends" ||
  fail "the driver, CUDA, libx265, libx264 and libavcodec must not be dependencies"
dpkg-deb -x "$deb" "$work/root"
binaries=("$work/root/usr/bin/zoqrv" "$work/root/usr/lib/$multiarch/libzo_qrv64.so.1")
python=$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' "$build/CMakeCache.txt")
if [ -d "$build/python" ] && [ "$python" = /usr/bin/python3 ]; then  # the package is for Debian's
  python_deb=$(ls "$build"/package/python3-zoqrv_*.deb) || fail "the module was built but not packaged"
  python_depends=$(dpkg-deb -f "$python_deb" Depends)
  echo "package $(basename "$python_deb"): Depends: $python_depends"
  grep -q 'zo-qrv64 (= ' <<<"$python_depends" && grep -q python3-numpy <<<"$python_depends" ||
    fail "python3-zoqrv must depend on zo-qrv64 and python3-numpy"
  depends+=", $python_depends"
  dpkg-deb -x "$python_deb" "$work/root"
  dpkg-deb -c "$python_deb" | awk '{print $6}' | grep -qE '^\./usr/lib/python3/dist-packages/zoqrv\.cpython-[^/]*\.so$' ||
    fail "python3-zoqrv does not put the module into /usr/lib/python3/dist-packages"
  binaries+=("$work/root"/usr/lib/python3/dist-packages/zoqrv.*.so)
fi
depended=$(sed 's/ ([^)]*)//g; s/ *| */\n/g; s/, /\n/g' <<<"$depends")  # package names, one a line
for binary in "${binaries[@]}"; do
  ! readelf -S "$binary" | grep -q '\.symtab' || fail "${binary#"$work/root"} is not stripped"
  for needed in $(readelf -d "$binary" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p'); do
    path=$(LD_LIBRARY_PATH=$work/root/usr/lib/$multiarch ldd "$binary" |
           awk -v lib="$needed" '{n = split($1, p, "/")} p[n] == lib {print $2 == "=>" ? $3 : $1}')
    [ "$path" != "$work/root/usr/lib/$multiarch/$needed" ] || continue  # the library package's own
    # Merged /usr: dpkg knows a library under one of its two names.
    owner=$({ dpkg -S "$path" || dpkg -S "$(realpath "$path")"; } 2>/dev/null | grep -m1 -o '^[^:]*') ||
      fail "no package provides $needed"
    grep -qxF "$owner" <<<"$depended" || fail "$needed comes from $owner, not a dependency"
  done
done
"$work/root/usr/bin/zoqrv" info "$work/cmake.qrv" >/dev/null || fail "the packaged zoqrv does not run"

# The Python module: its component goes where the interpreter it was built for looks (under /usr
# and /usr/local alike), and the packaged module passes the tests with Debian's python3.
if [ -d "$build/python" ]; then
  for system_prefix in /usr/local /usr; do
    rm -rf "$work/destdir"
    DESTDIR=$work/destdir cmake --install "$build" --prefix "$system_prefix" --component python >/dev/null
    module=$(find "$work/destdir" -name 'zoqrv.*.so')
    folder=$(dirname "${module#"$work/destdir"}")
    "$python" -c 'import sys; sys.exit(sys.argv[1] not in sys.path)' "$folder" ||
      fail "--component python under $system_prefix installs into $folder, where $python does not look"
  done
  [ -z "${python_deb:-}" ] || PYTHONPATH=$work/root/usr/lib/python3/dist-packages LD_LIBRARY_PATH=$work/root/usr/lib/$multiarch \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/python
fi
# pip, offline, into a fresh venv that sees Debian's numpy and pybind11: the module alone,
# built against the library installed above.
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
PKG_CONFIG_PATH=$libdir/pkgconfig "$work/venv/bin/pip" install -q --no-index --no-build-isolation . >"$work/pip.log" 2>&1 ||
  { cat "$work/pip.log"; fail "pip install . failed"; }
"$work/venv/bin/python" -m pytest -q -p no:cacheprovider tests/python
echo "check-install: the install, both consumers, the packages, the Python module and pip install work"
