"""Measures which lines, functions and branches of engine/ and collection/ the tests reach.

coverage [--sequences N]

On x86-64 by clang's source-based counts, because they know the branches of the source and no
others: no arcs of exceptions, of static destructors or of inlined copies. A template's branch
counts as reached when any instantiation, in any of the test programs, reaches it. The internal
tests run a second time in a build for CPUs with AVX, where portable.cpp has wider registers.
kernels/neon.cpp and neon_codes.cpp are measured by gcov, in the internal tests under emulation. The
other kernels run natively; instruction sets that the CPU lacks stay unreached. A call that ends the process is
counted too: the trap first writes the child's counts.
"""
import argparse
import collections
import gzip
import json
import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/coverage"
GOOGLETEST = pathlib.Path("/usr/src/googletest/googletest")
REQUIRED = 100.0
# Branches of collection/ that are not counted: those by which TileKernel asks for the CPU and the
# system, and comparisons that the compiler writes, whose outcomes it does not count apart.
LEFT_OUT = ("__builtin_cpu_supports(", "__get_cpuid_count(", "SYS_arch_prctl",
            "return found && tiles_allowed", ") = default;")
KINDS = ("lines", "functions", "branches")

# The heap may be failing when this runs, so nothing here may use it.
TRAP = r"""
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
uint64_t __llvm_profile_get_size_for_buffer(void);
int __llvm_profile_write_buffer(char*);
static char buffer[1 << 21];
__attribute__((visibility("hidden"), noreturn)) void qx_coverage_trap(void) {
  char name[4096];
  const uint64_t size = __llvm_profile_get_size_for_buffer();
  snprintf(name, sizeof name, "%s/child-%ld.profraw", getenv("QX_COVERAGE"), (long)getpid());
  const int file = open(name, O_CREAT | O_WRONLY | O_TRUNC, 0644);
  if (file < 0 || size > sizeof buffer || __llvm_profile_write_buffer(buffer) != 0 ||
      write(file, buffer, size) != (ssize_t)size) _exit(99);
  __builtin_trap();
}
"""


def run(*command, **options):
    result = subprocess.run([str(part) for part in command], cwd=options.pop("cwd", ROOT),
                            capture_output=True, text=True, **options)
    if result.returncode != 0:
        sys.exit(f"coverage: {command[0]} {command[1]} failed\n{result.stdout}{result.stderr}")
    return result.stdout


class Reached:
    """How often each place was reached. A place is a kind, a file, a line, a column, an outcome."""

    def __init__(self, folder):
        self.folder = folder
        self.times = collections.Counter()
        self.lines = {}

    def line(self, file, number):
        if file not in self.lines:
            self.lines[file] = (ROOT / file).read_text().splitlines()
        return self.lines[file][number - 1]

    def file(self, name):
        """The name in the project of a file that is measured; else None."""
        path = pathlib.Path(name)
        return str(path.relative_to(ROOT)) if ROOT / self.folder in path.parents else None

    def add(self, kind, file, line, column, outcome, times):
        is_left_out = (kind == "branches" and self.folder == "collection"
                       and any(text in self.line(file, line) for text in LEFT_OUT))
        if not is_left_out:
            self.times[kind, file, line, column, outcome] += times

    def print(self):
        """Prints what was not reached, and the figures; returns the kinds that fall short."""
        figures, short = [], 0
        for kind in KINDS:
            places = {place: times for place, times in self.times.items() if place[0] == kind}
            missed = sorted(place for place, times in places.items() if times == 0)
            for _, file, line, column, outcome in missed:
                print(f"not reached: {kind} {file}:{line}:{column} {outcome}".rstrip())
            percent = int(10000 * (len(places) - len(missed)) / max(len(places), 1)) / 100
            figures.append(f"{len(places) - len(missed)} of {len(places)} {kind} ({percent:.2f} %)")
            short += not places or percent < REQUIRED
        print(f"coverage of {self.folder}/: {', '.join(figures)}")
        return short


def build(folder, flags, target):
    """Builds with clang and its counts."""
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "trap.c").write_text(TRAP)
    trap = folder / "trap.o"
    run("clang", "-O1", "-fPIC", "-c", folder / "trap.c", "-o", trap)
    counting = "-O1 -fprofile-instr-generate -fcoverage-mapping"
    run("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
        "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", "-DQX_BUILD_TESTS=ON",
        "-DQX_BUILD_EXAMPLES=OFF",
        f"-DCMAKE_C_FLAGS={counting}",
        f"-DCMAKE_CXX_FLAGS={counting} -ftrap-function=qx_coverage_trap {flags}",
        f"-DCMAKE_EXE_LINKER_FLAGS={trap}", f"-DCMAKE_SHARED_LINKER_FLAGS={trap}")
    run("nice", "cmake", "--build", folder, "--target", *target)


def run_and_export(folder, test, code, options):
    """Runs one test program; returns clang's counts of the code in `code`."""
    counts = folder / "counts" / test
    shutil.rmtree(counts, ignore_errors=True)
    counts.mkdir(parents=True)
    environment = dict(os.environ, QX_COVERAGE=str(counts),
                       LLVM_PROFILE_FILE=f"{counts}/%m.profraw")
    run("nice", folder / "tests" / test, *options, env=environment)
    merged = counts / "all.profdata"
    run("llvm-profdata", "merge", "-sparse", "-o", merged, *counts.glob("*.profraw"))
    for file in counts.glob("*.profraw"):
        file.unlink()
    shown = [folder / code, "-instr-profile", merged]
    functions = json.loads(run("llvm-cov", "export", *shown))["data"][0]["functions"]
    return functions, run("llvm-cov", "export", "-format=lcov", *shown).splitlines()


def measure(reached, folder, test, code, options):
    functions, lines = run_and_export(folder, test, code, options)
    for function in functions:
        # The first region is the body; its file is the function's.
        line, column, *_, file_id, _, _ = function["regions"][0]
        file = reached.file(function["filenames"][file_id])
        if file:
            reached.add("functions", file, line, column, "", function["count"])
        for line, column, _, _, true, false, file_id, *_ in function["branches"]:
            file = reached.file(function["filenames"][file_id])
            if file:
                reached.add("branches", file, line, column, "true", true)
                reached.add("branches", file, line, column, "false", false)
    for entry in lines:
        if entry.startswith("SF:"):
            file = reached.file(entry[3:])
        elif entry.startswith("DA:") and file:
            line, times = entry[3:].split(",")[:2]
            reached.add("lines", file, int(line), 0, "", int(times))


def measure_neon(reached):
    """Runs the internal tests for AArch64; only the NEON kernels are compiled with counts."""
    folder = BUILD / "aarch64"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    compiler = ["nice", "aarch64-linux-gnu-g++", "-std=c++20", "-ffp-contract=off",
                "-DQX_FP_CONTRACT_OFF", f"-I{ROOT}/engine", f"-I{ROOT}/include", f"-I{ROOT}/tests",
                f"-isystem{GOOGLETEST}/include", f"-isystem{GOOGLETEST}"]
    kernels = sorted((ROOT / "engine/kernels").glob("neon*.cpp"))
    rest = [path for path in sorted((ROOT / "engine").rglob("*.cpp")) if path not in kernels]
    objects = [f"{kernel.stem}.o" for kernel in kernels]
    for kernel, compiled in zip(kernels, objects):
        run(*compiler, "-O0", "-fno-exceptions", "--coverage", "-c", kernel, "-o", compiled, cwd=folder)
    run(*compiler, "-O1", "-static", *rest,
        *sorted((ROOT / "tests/internal").glob("*.cpp")), ROOT / "tests/support/child.cpp",
        GOOGLETEST / "src/gtest-all.cc", GOOGLETEST / "src/gtest_main.cc", *objects, "-lgcov",
        "-o", "internal_tests", cwd=folder)
    run("nice", "qemu-aarch64", folder / "internal_tests", cwd=folder)
    run("aarch64-linux-gnu-gcov", "--branch-probabilities", "--json-format", *objects, cwd=folder)
    files = []
    for path in folder.glob("*.gcov.json.gz"):
        with gzip.open(path) as stored:
            files += json.load(stored)["files"]
    measured = {reached.file(kernel) for kernel in kernels}
    for counted in files:
        file = reached.file(counted["file"])
        if file not in measured:
            continue
        for function in counted["functions"]:
            reached.add("functions", file, function["start_line"], function["start_column"], "",
                        function["execution_count"])
        for line in counted["lines"]:
            reached.add("lines", file, line["line_number"], 0, "", line["count"])
            for number, branch in enumerate(line["branches"]):
                reached.add("branches", file, line["line_number"], 0, f"outcome {number}",
                            branch["count"])


def main():
    parser = argparse.ArgumentParser(prog="./check coverage")
    parser.add_argument("--sequences", type=int, default=3000)
    sequences = parser.parse_args().sequences
    tests = [("contract_tests", "libqx_runtime.so", [])]
    tests += [(test, f"tests/{test}", [])
              for test in ("record_tests", "internal_tests", "allocation_tests")]
    tests.append(("call_sequence_tests", "tests/call_sequence_tests", ["--count", sequences]))
    engine, collection = Reached("engine"), Reached("collection")
    build(BUILD / "baseline", "", [test for test, _, _ in tests] + ["collection_tests"])
    for test, code, options in tests:
        measure(engine, BUILD / "baseline", test, code, options)
    measure(collection, BUILD / "baseline", "collection_tests", "tests/collection_tests", [])
    build(BUILD / "avx", "-mavx", ["internal_tests"])
    measure(engine, BUILD / "avx", "internal_tests", "tests/internal_tests", [])
    measure_neon(engine)
    short = engine.print() + collection.print()
    print(f"{2 * len(KINDS) - short} passed, {short} failed")
    sys.exit(short > 0)


if __name__ == "__main__":
    main()
