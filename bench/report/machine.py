"""The machine that a run was made on, as the operating system describes it."""

import datetime
import os
import pathlib
import platform
import re


def cpu():
    fields = {}
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        key, _, value = line.partition(":")
        fields.setdefault(key.strip(), value.strip())
    sets = [name for name in ("avx2", "fma", "avx512f", "avx512vl")
            if name in fields["flags"].split()]
    return (f"{fields['model name']} (family {fields['cpu family']}, model {fields['model']}, "
            f"stepping {fields['stepping']}; {', '.join(sets)}), {os.cpu_count()} CPUs")


def caches():
    found = []
    for cache in sorted(pathlib.Path("/sys/devices/system/cpu/cpu0/cache").glob("index*")):
        kind, level, size = ((cache / name).read_text().strip() for name in ("type", "level", "size"))
        found += [f"L{level} {size}"] if kind != "Instruction" else []
    return ", ".join(found) or "unknown"


def describe(header):
    kilobytes = int(re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text())[1])
    chosen = "forced" if header["forced"] else "the CPU's own choice"
    return [["CPU", cpu()], ["Caches", caches()], ["Memory", f"{kilobytes / (1 << 20):.0f} GiB"],
            ["System", platform.freedesktop_os_release().get("PRETTY_NAME", "Linux")],
            ["Compiler", header["compiler"]],
            ["Kernel", f"{header['kernel']} ({chosen}); here run: {header['kernels']}"],
            ["Rounds", f"{header['rounds']}, one thread"],
            ["Date", datetime.date.today().isoformat()]]
