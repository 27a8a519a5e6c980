"""Builds the wheel: the package and, where there are some to carry, the shared libraries.

Those are the one that QX_RUNTIME_LIBRARY names, and the one that QX_COLLECTION_LIBRARY names or that
lies beside it; or else none, if libqx_runtime is installed on this system; or else those that CMake
builds from the source tree around this folder, with the extension of SQLite if its headers are there. That
which QX_SQLITE_EXTENSION names is carried, too. No compiler is needed in the first two cases. A system
without xxHash builds no libqx_collection: then the package has no Collection.
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


def named_library(name):
    """The path that a variable of the environment names, or None."""
    named = os.environ.get(name)
    if named and not pathlib.Path(named).is_file():
        raise SystemExit(f"{name} names {named}, where there is no file")
    return pathlib.Path(named) if named else None


def carried_libraries(scratch):
    """The paths of the libraries that the wheel shall carry, by their names in it."""
    runtime = named_library("QX_RUNTIME_LIBRARY")
    collection = named_library("QX_COLLECTION_LIBRARY")
    extension = named_library("QX_SQLITE_EXTENSION")
    if runtime is None and not ctypes.util.find_library("qx_runtime"):
        build_libraries(scratch)
        runtime = pathlib.Path(scratch, "libqx_runtime.so")
        collection = collection or pathlib.Path(scratch, "collection/libqx_collection.so")
        extension = extension or pathlib.Path(scratch, "hosts/sqlite/qx.so")
    elif runtime is not None and collection is None:
        collection = runtime.with_name(runtime.name.replace("qx_runtime", "qx_collection"))
    paths = {"libqx_runtime.so.1": runtime, "libqx_collection.so.1": collection,
             "qx.so": extension}
    return {name: path for name, path in paths.items() if path is not None and path.is_file()}


def build_libraries(scratch):
    if not (SOURCE / "engine").is_dir() or not shutil.which("cmake"):
        raise SystemExit("libqx_runtime is not installed. Install it, or set QX_RUNTIME_LIBRARY to "
                         "its path, or install CMake and a C++ compiler to build it.")
    has_headers = all(any(pathlib.Path(folder, header).is_file()
                          for folder in ("/usr/include", "/usr/local/include"))
                      for header in ("sqlite3ext.h", "xxhash.h"))
    subprocess.run(["cmake", "-S", SOURCE, "-B", scratch, "-DCMAKE_BUILD_TYPE=Release",
                    "-DQX_BUILD_TESTS=OFF", "-DQX_BUILD_EXAMPLES=OFF",
                    f"-DQX_BUILD_SQLITE={'ON' if has_headers else 'OFF'}"], check=True)
    subprocess.run(["cmake", "--build", scratch], check=True)


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    del config_settings, metadata_directory
    with tempfile.TemporaryDirectory() as scratch:
        libraries = {name: path.read_bytes() for name, path in carried_libraries(scratch).items()}
    platform = "any"
    if libraries:
        platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    tag = f"py3-none-{platform}"
    files = {f"{NAME}/{path.name}": path.read_bytes() for path in sorted((HERE / NAME).iterdir())
             if path.suffix == ".py" or path.name == "py.typed"}
    files.update((f"{NAME}/{name}", library) for name, library in libraries.items())
    info = f"{NAME}-{VERSION}.dist-info"
    files[f"{info}/METADATA"] = (METADATA + (HERE / "README.md").read_text(encoding="utf-8")).encode()
    pure = "false" if libraries else "true"
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
