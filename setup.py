"""Builds marlith._core with the project's CMake build (see pyproject.toml for the rest).

pip install . runs CMake in build/pip/ (kept between installs, so a second install is
incremental) for the one target _core, which links the engine statically; the wheel then holds
a module that needs only the machine's shared FFTW, OpenBLAS and SuiteSparse libraries.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
BUILD_BASE = ROOT / "build" / "pip"


def project_version() -> str:
    """The version in the top-level CMakeLists.txt's project() call: the one source of it."""
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(marlith\s+VERSION\s+([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext: Extension) -> None:
        target = Path(self.get_ext_fullpath(ext.name)).resolve()
        cmake_dir = BUILD_BASE / "cmake"
        out_dir = cmake_dir / "python-module"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(cmake_dir),
            "-DCMAKE_BUILD_TYPE=Release",
            "-DBUILD_TESTING=OFF",
            "-DMARLITH_PYTHON=ON",
            f"-DPython_EXECUTABLE={sys.executable}",
            f"-DMARLITH_PYTHON_OUTPUT_DIR={out_dir}",
        ]
        if shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        subprocess.run(configure, check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(
            ["cmake", "--build", str(cmake_dir), "--target", "_core", "-j", jobs], check=True
        )
        (built,) = out_dir.glob("_core*.so")
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built, target)


setup(
    version=project_version(),
    ext_modules=[Extension("marlith._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": str(BUILD_BASE)}},
    zip_safe=False,
)
