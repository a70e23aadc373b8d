# Builds velm3d._core: the binding and the library's own sources in one
# extension, all compiled with the library's floating-point flags. The exact
# predicates need plain IEEE double arithmetic: no contraction into fused
# multiply-adds, no unsafe math, SSE2 instead of x87 on x86-64.
import os
import platform

from pybind11.setup_helpers import ParallelCompile, Pybind11Extension, build_ext
from setuptools import setup

LIBRARY_SOURCES = [
    "dt3Library/Velm_3D.cpp", "dt3Library/freeFunctions.cpp", "dt3Library/Point3.cpp",
    "dt3Library/Tet3.cpp", "dt3Library/Vector3.cpp", "dt3Library/BrixTest3.cpp", "dt3Library/BrixTest3AnyDouble.cpp",
    "dt3Library/HC3.cpp", "dt3Library/Dt3.cpp", "dt3Library/SimplePool.cpp",
    "dt3Library/Surface3.cpp",
    "dt3Library/Visualizer3.cpp", "dt3Library/testDataGenerators.cpp",
]

flags = ["-O3", "-Wall", "-Wextra", "-ffp-contract=off", "-fno-fast-math", "-g0"]
if platform.machine() in ("x86_64", "AMD64"):
    flags += ["-msse2", "-mfpmath=sse"]
# As the CMake option of the same name: warnings become errors (CI sets it).
if os.environ.get("VELM3D_WERROR", "").upper() in ("1", "ON", "TRUE", "YES"):
    flags.append("-Werror")

ParallelCompile("VELM3D_BUILD_JOBS", default=2).install()

setup(
    package_dir={"": "python"},
    packages=["velm3d"],
    ext_modules=[
        Pybind11Extension(
            "velm3d._core",
            ["python/src/velm3d_core.cpp"] + LIBRARY_SOURCES,
            include_dirs=["dt3Library"],
            cxx_std=17,
            extra_compile_args=flags,
        )
    ],
    cmdclass={"build_ext": build_ext},
)
