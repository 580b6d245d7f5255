"""The build backend behind `pip install .`: CMake builds the module `pelm._pelm` (the library, the lab and
the embedded server linked in statically), and this file packs it with the package's Python files into a
wheel. It needs nothing pip would have to download, so it works offline; the version is the project's."""

from __future__ import annotations

import base64
import hashlib
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
NAME = "pelm"


def _version() -> str:
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(pelm VERSION ([0-9.]+)", text).group(1)


def _tag() -> str:
    interpreter = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"{interpreter}-{interpreter}-{platform}"


def _metadata() -> str:
    return (f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {_version()}\n"
            "Summary: Beacon-triggered content, and recordings replayed into the visits a phone would log\n"
            "Requires-Python: >=3.9\nLicense: Apache-2.0\n")


def _build_module(build: Path) -> Path:
    """Configures and builds only what the module needs, into `build`; the module's path."""
    configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                 f"-DPython_EXECUTABLE={sys.executable}", "-DPELM_BUILD_PYTHON=ON", "-DPELM_BUILD_TESTS=OFF",
                 "-DPELM_BUILD_TOOLS=OFF", "-DPELM_BUILD_BENCH=OFF", "-DPELM_BUILD_SERVER=OFF",
                 "-DPELM_INSTALL=OFF"]
    if shutil.which("ninja"):
        configure += ["-G", "Ninja"]
    subprocess.run(configure, check=True, stdout=sys.stderr)
    jobs = str(os.cpu_count() or 2)
    subprocess.run(["cmake", "--build", str(build), "--target", "pelm_python", "-j", jobs], check=True,
                   stdout=sys.stderr)
    return next((build / "python" / NAME).glob("_pelm*.so"))


def _record_line(name: str, data: bytes) -> str:
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def _write_wheel(directory: str, files: dict[str, bytes]) -> str:
    version = _version()
    wheel_name = f"{NAME}-{version}-{_tag()}.whl"
    info = f"{NAME}-{version}.dist-info"
    files = dict(files)
    files[f"{info}/METADATA"] = _metadata().encode()
    files[f"{info}/WHEEL"] = (f"Wheel-Version: 1.0\nGenerator: pelm_build\nRoot-Is-Purelib: false\n"
                              f"Tag: {_tag()}\n").encode()
    record = [_record_line(name, data) for name, data in files.items()] + [f"{info}/RECORD,,"]
    files[f"{info}/RECORD"] = ("\n".join(record) + "\n").encode()
    with zipfile.ZipFile(Path(directory) / wheel_name, "w", zipfile.ZIP_DEFLATED) as wheel:
        for name, data in files.items():
            wheel.writestr(name, data)
    return wheel_name


def get_requires_for_build_wheel(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    info = Path(metadata_directory) / f"{NAME}-{_version()}.dist-info"
    info.mkdir(parents=True, exist_ok=True)
    (info / "METADATA").write_text(_metadata())
    return info.name


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    with tempfile.TemporaryDirectory(prefix="pelm-wheel-") as build:
        module = _build_module(Path(build))
        files = {f"{NAME}/{module.name}": module.read_bytes()}
        for source in sorted((ROOT / "python" / NAME).glob("*.py")):
            files[f"{NAME}/{source.name}"] = source.read_bytes()
        return _write_wheel(wheel_directory, files)
