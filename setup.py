"""Builds and installs the Python package kovra through the project's CMake.

    python3 -m venv --system-site-packages venv
    venv/bin/pip install --no-build-isolation .

The library is built with the package and installed inside it, where the
compiled module finds it; no network access is needed.
"""

import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE = os.path.dirname(os.path.abspath(__file__))


class CMakeBuild(build_ext):
    def build_extension(self, ext: Extension) -> None:
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        stage = os.path.abspath(os.path.join(self.build_temp, "stage"))
        args = ["-DCMAKE_BUILD_TYPE=Release", "-DKOVRA_BUILD_TESTS=OFF", "-DKOVRA_BUILD_TOOLS=OFF",
                "-DKOVRA_BUILD_BENCH=OFF", "-DPython_EXECUTABLE=" + sys.executable,
                "-DKOVRA_PYTHON_INSTALL_DIR=python", "-DCMAKE_INSTALL_LIBDIR=lib"]
        if shutil.which("ccache"):
            args.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        subprocess.check_call(["cmake", "-S", SOURCE, "-B", build] + args)
        subprocess.check_call(["cmake", "--build", build, "-j", str(os.cpu_count() or 1)])
        # The installed module's run path starts at its own folder, where the library goes.
        subprocess.check_call(["cmake", "--install", build, "--prefix", stage])
        package = os.path.join(os.path.abspath(self.build_lib), "kovra")
        shutil.copytree(os.path.join(stage, "python", "kovra"), package, dirs_exist_ok=True)
        shutil.copy(os.path.join(stage, "lib", "libkovraExecutor.so.2"), package)


setup(
    name="kovra",
    version="2.1.0",
    description="Run, check and debug accelerator models on the host",
    python_requires=">=3.8",
    install_requires=["numpy", "protobuf"],
    ext_modules=[Extension("kovra._kovra", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
)
