"""Builds the compiled core with the project's CMake (library and module
only) and puts it in the package; the metadata is in pyproject.toml."""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build_dir = Path(self.build_temp) / "cmake"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build_dir), "-DCMAKE_BUILD_TYPE=Release",
                        "-DVORN_BUILD_TESTS=OFF", "-DVORN_BUILD_BENCH=OFF", f"-DPython3_EXECUTABLE={sys.executable}"],
                       check=True)
        jobs = str(os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", str(build_dir), "--target", "_vorn", "-j", jobs], check=True)
        built = next((build_dir / "python" / "vorn").glob("_vorn*.so"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built, target)


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(vorn VERSION ([0-9.]+)", text).group(1)


setup(version=version(), ext_modules=[Extension("vorn._vorn", sources=[])], cmdclass={"build_ext": CMakeBuild})
