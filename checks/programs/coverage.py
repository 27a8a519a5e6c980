"""Measures which lines, functions and branches of engine/ the tests reach: coverage [--histories N].

clang's source-based counts, because they know the branches of the source and no others: no arcs of
exceptions, of static destructors or of inlined copies. A template's branch counts as reached when
any instantiation, in any of the test programs, reaches it. kernels/neon.cpp is not compiled on
x86-64 and is not measured. The kernels run natively; instruction sets that the CPU lacks stay
unreached. A call that ends the process is counted too: the trap first writes the child's counts.
"""
import collections
import json
import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/coverage"
# In percent, cut to two places. Not reached: the constructor of RunBits, which runs in the compiler;
# the lanes behind the fourth of wider registers than the baseline has; more columns counted than
# kept, against an invariant; a line of no length, and a write that a signal interrupts.
REQUIRED = {"lines": 99.83, "functions": 99.64, "branches": 99.53}

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
    return subprocess.run([str(part) for part in command], check=True, cwd=ROOT, **options)


def build():
    BUILD.mkdir(parents=True, exist_ok=True)
    (BUILD / "trap.c").write_text(TRAP)
    trap = BUILD / "trap.o"
    run("clang", "-O1", "-fPIC", "-c", BUILD / "trap.c", "-o", trap)
    flags = "-O1 -fprofile-instr-generate -fcoverage-mapping -ftrap-function=qx_coverage_trap"
    run("cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
        "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", "-DQX_BUILD_EXAMPLES=OFF",
        f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_EXE_LINKER_FLAGS={trap}",
        f"-DCMAKE_SHARED_LINKER_FLAGS={trap}", stdout=subprocess.DEVNULL)
    run("cmake", "--build", BUILD, stdout=subprocess.DEVNULL)


def count(test, code, options):
    """Runs one test program; returns the counts of the engine's code in `code`."""
    counts = BUILD / "counts" / test
    shutil.rmtree(counts, ignore_errors=True)
    counts.mkdir(parents=True)
    environment = dict(os.environ, QX_COVERAGE=str(counts), LLVM_PROFILE_FILE=f"{counts}/%m.profraw")
    run(BUILD / "tests" / test, *options, env=environment, stdout=subprocess.DEVNULL)
    merged = counts / "all.profdata"
    run("llvm-profdata", "merge", "-sparse", "-o", merged, *counts.glob("*.profraw"))
    shown = [BUILD / code, "-instr-profile", merged]
    export = run("llvm-cov", "export", *shown, capture_output=True).stdout
    lines = run("llvm-cov", "export", "-format=lcov", *shown, capture_output=True, text=True).stdout
    for file in counts.glob("*.profraw"):
        file.unlink()
    return json.loads(export)["data"][0]["functions"], lines.splitlines()


def engine_file(name):
    path = pathlib.Path(name)
    return str(path.relative_to(ROOT)) if (ROOT / "engine") in path.parents else None


def main():
    histories = sys.argv[2] if sys.argv[1:2] == ["--histories"] and len(sys.argv) == 3 else "3000"
    if len(sys.argv) not in (1, 3) or not histories.isdigit():
        sys.exit("usage: coverage [--histories N]")
    build()
    reached = {what: collections.Counter() for what in REQUIRED}
    tests = [("contract_tests", "libqx_runtime.so", []), ("history_tests", None, ["--count", histories])]
    tests += [(f"{name}_tests", None, []) for name in ("record", "internal", "allocation")]
    for test, code, options in tests:
        functions, lines = count(test, code or f"tests/{test}", options)
        for function in functions:
            # The first region is the body; its file is the function's.
            line, column, *_, file_id, _, _ = function["regions"][0]
            file = engine_file(function["filenames"][file_id])
            if file:
                reached["functions"][file, line, column, ""] += function["count"]
            for line, column, _, _, true, false, file_id, *_ in function["branches"]:
                file = engine_file(function["filenames"][file_id])
                if file:
                    reached["branches"][file, line, column, "true"] += true
                    reached["branches"][file, line, column, "false"] += false
        for entry in lines:
            if entry.startswith("SF:"):
                file = engine_file(entry[3:])
            elif entry.startswith("DA:") and file:
                line, times = entry[3:].split(",")[:2]
                reached["lines"][file, int(line), 0, ""] += int(times)
    failed = 0
    for what, places in reached.items():
        missed = sorted(place for place, times in places.items() if times == 0)
        for file, line, column, outcome in missed:
            print(f"not reached: {what} {file}:{line}:{column} {outcome}".rstrip())
        percent = int(10000 * (len(places) - len(missed)) / max(len(places), 1)) / 100
        print(f"{what}: {len(places) - len(missed)} of {len(places)}, {percent:.2f} % "
              f"(required: {REQUIRED[what]:.2f} %)")
        failed += not places or percent < REQUIRED[what]
    print(f"{3 - failed} passed, {failed} failed")
    sys.exit(failed > 0)


main()
