"""The machine that a run was made on, as the operating system describes it."""

import glob
import os
import platform
import re


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read().strip()


def cpu_fields():
    fields = {}
    for line in read("/proc/cpuinfo").splitlines():
        key, _, value = line.partition(":")
        fields.setdefault(key.strip(), value.strip())
    return fields


def cpu():
    fields = cpu_fields()
    flags = fields["flags"].split()
    sets = [name for name in ("avx2", "fma", "avx512f", "avx512vl") if name in flags]
    return (f"{fields['model name']} (family {fields['cpu family']}, model {fields['model']}, "
            f"stepping {fields['stepping']}; {', '.join(sets)}), {os.cpu_count()} CPUs")


def caches():
    found = []
    for index in sorted(glob.glob("/sys/devices/system/cpu/cpu0/cache/index*")):
        kind = read(index + "/type")
        if kind != "Instruction":
            found.append(f"L{read(index + '/level')} {read(index + '/size')}")
    return ", ".join(found) or "unknown"


def memory():
    kilobytes = int(re.search(r"MemTotal:\s+(\d+)", read("/proc/meminfo")).group(1))
    return f"{kilobytes / (1 << 20):.0f} GiB"


def system():
    return platform.freedesktop_os_release().get("PRETTY_NAME", "Linux")


def describe(header, date):
    chosen = "forced" if header["forced"] else "the CPU's own choice"
    return [("CPU", cpu()), ("Caches", caches()), ("Memory", memory()), ("System", system()),
            ("Compiler", header["compiler"]),
            ("Kernel", f"{header['kernel']} ({chosen}); here run: {header['kernels']}"),
            ("Rounds", f"{header['rounds']}, one thread"), ("Date", date)]
