"""Builds the wheel: the package and, where there is one to carry, the shared library.

The library is the one that QX_RUNTIME_LIBRARY names; or else none, if one is installed on this system;
or else the one that CMake builds from the source tree around this folder. No compiler is needed in
the first two cases.
"""

import base64
import ctypes.util
import hashlib
import os
import pathlib
import shutil
import subprocess
import sysconfig
import tempfile
import zipfile

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
NAME, VERSION = "qx_runtime", "1.0.0"
# Archives of the same files are the same bytes.
EPOCH = (1980, 1, 1, 0, 0, 0)

METADATA = f"""Metadata-Version: 2.1
Name: qx-runtime
Version: {VERSION}
Summary: Vector search in memory: nearest neighbours by inner product, exact to the bit
License: Apache-2.0
Requires-Python: >=3.9
Requires-Dist: numpy>=1.21
Description-Content-Type: text/markdown

"""


def carried_library(scratch):
    """The bytes of the library that the wheel shall carry, or None."""
    named = os.environ.get("QX_RUNTIME_LIBRARY")
    if named:
        path = pathlib.Path(named)
        if not path.is_file():
            raise SystemExit(f"QX_RUNTIME_LIBRARY names {named}, where there is no file")
        return path.read_bytes()
    if ctypes.util.find_library("qx_runtime"):
        return None
    if not (SOURCE / "engine").is_dir() or not shutil.which("cmake"):
        raise SystemExit("libqx_runtime is not installed. Install it, or set QX_RUNTIME_LIBRARY to "
                         "its path, or install CMake and a C++ compiler to build it.")
    subprocess.run(["cmake", "-S", SOURCE, "-B", scratch, "-DCMAKE_BUILD_TYPE=Release",
                    "-DQX_BUILD_TESTS=OFF", "-DQX_BUILD_EXAMPLES=OFF"], check=True)
    subprocess.run(["cmake", "--build", scratch, "--target", "qx_runtime"], check=True)
    return (pathlib.Path(scratch) / "libqx_runtime.so").read_bytes()


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    del config_settings, metadata_directory
    with tempfile.TemporaryDirectory() as scratch:
        library = carried_library(scratch)
    platform = "any"
    if library is not None:
        platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    tag = f"py3-none-{platform}"
    files = {f"{NAME}/{path.name}": path.read_bytes() for path in sorted((HERE / NAME).iterdir())
             if path.suffix == ".py" or path.name == "py.typed"}
    if library is not None:
        files[f"{NAME}/libqx_runtime.so.1"] = library
    info = f"{NAME}-{VERSION}.dist-info"
    files[f"{info}/METADATA"] = (METADATA + (HERE / "README.md").read_text(encoding="utf-8")).encode()
    pure = "true" if library is None else "false"
    files[f"{info}/WHEEL"] = (f"Wheel-Version: 1.0\nGenerator: qx_runtime\nRoot-Is-Purelib: {pure}\n"
                              f"Tag: {tag}\n").encode()
    record = ""
    for name, content in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode()
        record += f"{name},sha256={digest},{len(content)}\n"
    files[f"{info}/RECORD"] = (record + f"{info}/RECORD,,\n").encode()
    wheel = f"{NAME}-{VERSION}-{tag}.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / wheel, "w") as archive:
        for name, content in files.items():
            entry = zipfile.ZipInfo(name, EPOCH)
            entry.external_attr = 0o644 << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            archive.writestr(entry, content)
    return wheel
