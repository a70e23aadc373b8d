# Builds velm3d._core: the binding and the library's own sources in one
# extension. What the library is made of is read from the files that the
# CMake build reads too: the version from VERSION, the source files and the
# floating-point flags from dt3Library/build.txt.
import os
import platform
from pathlib import Path

from pybind11.setup_helpers import ParallelCompile, Pybind11Extension, build_ext
from setuptools import setup

ROOT = Path(__file__).resolve().parent


def build_lists():
    """The entries of dt3Library/build.txt by kind: "source", "fpflag", "fpflag-x86_64"."""
    lists = {}
    for line in (ROOT / "dt3Library" / "build.txt").read_text().splitlines():
        if line.strip() and not line.startswith("#"):
            kind, entry = line.split(None, 1)
            lists.setdefault(kind, []).append(entry.strip())
    return lists


VERSION = (ROOT / "VERSION").read_text().strip()
MAJOR, MINOR, REVISION = VERSION.split(".")
LISTS = build_lists()

flags = ["-O3", "-Wall", "-Wextra", "-g0"] + LISTS["fpflag"]
if platform.machine() in ("x86_64", "AMD64"):
    flags += LISTS["fpflag-x86_64"]
# As the CMake option of the same name: warnings become errors (CI sets it).
if os.environ.get("VELM3D_WERROR", "").upper() in ("1", "ON", "TRUE", "YES"):
    flags.append("-Werror")

# VELM3D_SANITIZE=thread builds the extension with ThreadSanitizer, for the
# threaded Python tests in tests/tsan.sh (Python then runs with the sanitizer's
# runtime preloaded).
link_flags = []
if os.environ.get("VELM3D_SANITIZE"):
    sanitizer = "-fsanitize=" + os.environ["VELM3D_SANITIZE"]
    flags = [f for f in flags if f != "-O3"] + ["-O1", "-g", sanitizer, "-fno-omit-frame-pointer"]
    link_flags.append(sanitizer)

ParallelCompile("VELM3D_BUILD_JOBS", default=2).install()

setup(
    version=VERSION,
    package_dir={"": "python"},
    packages=["velm3d"],
    ext_modules=[
        Pybind11Extension(
            "velm3d._core",
            ["python/src/velm3d_core.cpp"] + ["dt3Library/" + source for source in LISTS["source"]],
            include_dirs=["dt3Library"],
            define_macros=[
                ("VELM3D_VERSION_MAJOR", MAJOR),
                ("VELM3D_VERSION_MINOR", MINOR),
                ("VELM3D_VERSION_REVISION", REVISION),
            ],
            cxx_std=17,
            extra_compile_args=flags,
            extra_link_args=link_flags,
        )
    ],
    cmdclass={"build_ext": build_ext},
)
