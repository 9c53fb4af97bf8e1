# The zoqrv module for pip: compiled against the zo_qrv64 library that pkg-config finds
# (installed with cmake --install, or the zo-qrv64 package), so pip builds one source file and
# none of the library. PKG_CONFIG_PATH chooses an install under another prefix.
import os
import subprocess

import pybind11
from setuptools import Extension, setup


def pkg_config(*options):
    try:
        return subprocess.run(["pkg-config", *options, "zo_qrv64"], check=True, capture_output=True,
                              text=True).stdout.split()
    except (OSError, subprocess.CalledProcessError) as failure:
        raise SystemExit("zoqrv: pkg-config finds no zo_qrv64 library; install it first "
                         "(cmake --install build, then ldconfig; or the zo-qrv64 package), "
                         "or set PKG_CONFIG_PATH to its lib/<arch>/pkgconfig") from failure


os.makedirs("build-pip", exist_ok=True)  # egg_info wants its folder to exist
cflags, libs = pkg_config("--cflags"), pkg_config("--libs")
library_dirs = [os.path.normpath(f[2:]) for f in libs if f.startswith("-L")]
setup(
    # Build files beside CMake's build/, not in it nor in the source tree.
    options={"build": {"build_base": "build-pip"}, "egg_info": {"egg_base": "build-pip"}},
    version=pkg_config("--modversion")[0],
    ext_modules=[Extension(
        "zoqrv", ["python/zoqrv_module.cpp"], language="c++",
        include_dirs=[pybind11.get_include()] + [f[2:] for f in cflags if f.startswith("-I")],
        library_dirs=library_dirs,
        libraries=[f[2:] for f in libs if f.startswith("-l")],
        # Another prefix than the loader's: the module finds the library where it was built against.
        runtime_library_dirs=library_dirs,
        extra_compile_args=["-std=c++17", "-fvisibility=hidden"],
    )],
)
