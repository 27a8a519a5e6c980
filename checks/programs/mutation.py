"""Changes engine/ in one place at a time, in a copy, and sees whether the tests notice.

mutation [--sample N] [--seed S] [--jobs J]
  N mutants drawn by the seed (1 if none is given); without, all. J at a time, each in its own copy.

A mutant is killed when a test fails, runs out of time, or no longer compiles while the engine does.
What survives is built a second time, under the address and undefined-behaviour sanitizers: a mutant
that reads or writes where it must not is killed there.
One whose object code equals the original's is not counted, nor is one that does not compile or
that equivalent_mutants.txt lists. A test or compiler that is ended from outside gives no verdict.
Results are kept in build/mutation, so that a run that was stopped goes on where it was, as long as
neither the engine nor a test has changed. kernels/neon.cpp is not compiled on x86-64: no mutants.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutation"
EQUIVALENT = ROOT / "checks/equivalent_mutants.txt"
COPIED = ["engine", "include", "tests", "cmake", "CMakeLists.txt"]
REQUIRED = 98.0

# In this order, until one fails: programs that only link the engine come before those that include
# its headers and are compiled anew for a mutant of one; the slowest test comes last.
TESTS = [
    ("history_tests", ["--count", "250"]),
    ("contract_tests", ["--gtest_filter=-LargeBase.*"]),
    ("record_tests", []),
    ("allocation_tests", []),
    ("internal_tests", []),
    ("contract_tests", ["--gtest_filter=LargeBase.*"]),
]

# Those that the sanitized build of a survivor runs.
SANITIZED_TESTS = [0, 1, 2, 4]
SANITIZER_OPTIONS = {"ASAN_OPTIONS": "detect_leaks=0:allocator_may_return_null=1"}

# What ends a program from outside, and never because of a mutant.
OUTSIDE = {-signal.SIGINT, -signal.SIGTERM, -signal.SIGHUP, -signal.SIGQUIT, -signal.SIGKILL}

SPACED = r"(?<= ){}(?= )".format
REPLACED = [
    ("comparison", SPACED("<"), [">="]), ("comparison", SPACED("<="), [">"]),
    ("comparison", SPACED(">"), ["<="]), ("comparison", SPACED(">="), ["<"]),
    ("comparison", SPACED("=="), ["!="]), ("comparison", SPACED("!="), ["=="]),
    ("off by one", SPACED("<"), ["<="]), ("off by one", SPACED("<="), ["<"]),
    ("off by one", SPACED(">"), [">="]), ("off by one", SPACED(">="), [">"]),
    ("operator", SPACED(r"\+"), ["-"]), ("operator", SPACED("-"), ["+"]),
    ("operator", SPACED("/"), ["*"]), ("operator", r"(?<=[\w)\]] )\*(?= [\w(])", ["/"]),
    ("operator", SPACED("%"), ["/"]), ("operator", SPACED("<<"), [">>"]),
    ("operator", SPACED(">>"), ["<<"]), ("operator", "&&", ["||"]), ("operator", r"\|\|", ["&&"]),
    ("operator", r"(?<= )\+=", ["-="]), ("operator", "(?<= )-=", ["+="]),
    ("operator", r"(?<= )\|=", ["&="]), ("operator", "(?<= )&=", ["|="]),
    ("operator", r"\+\+", ["--"]), ("operator", "(?<!-)--(?!-)", ["++"]),
    ("operator", SPACED(r"\|"), ["&"]), ("operator", r"(?<=\w )&(?= \w)", ["|"]),
    ("operator", r"\(!", ["("]), ("operator", r"(?<=[(= ])~(?=\w)", [""]),
    ("operator", r"\bstd::min\b", ["std::max"]), ("operator", r"\bstd::max\b", ["std::min"]),
    ("constant", r"\btrue\b", ["false"]), ("constant", r"\bfalse\b", ["true"]),
]
NUMBER = re.compile(r"(?<![\w.])(\d+|0x[0-9A-F]+)(?=u?(?![\w.']))")
STATEMENT = re.compile(r"^\s+(?!return\b|const\b|auto\b|std::\w+ \w+(;| =)|using\b|typedef\b)"
                       r"[\w:*.\[\]()<>+-]+.*;$")
SKIPPED = re.compile(r"^\s*(//|#|template|static_assert|namespace|struct|class|extern|"
                     r"inline const)")

Mutant = collections.namedtuple("Mutant", "file which line changed number kind")


class Stopped(Exception):
    """No verdict: the run ends."""


def changed_numbers(text):
    """A number's neighbours, then 0."""
    base = 16 if text.startswith("0x") else 10
    value = int(text, base)
    for kind, new in (("off by one", value + 1), ("off by one", value - 1), ("constant", 0)):
        if new >= 0 and new != value:
            yield kind, f"0x{new:X}" if base == 16 else str(new)


def mutants_of_line(line):
    code = re.split(r"\s//", line)[0]
    if SKIPPED.match(line) or "prefetch" in code or '"' in code:
        return
    for kind, pattern, replacements in REPLACED:
        for match in re.finditer(pattern, code):
            for new in replacements:
                yield kind, code[:match.start()] + new + code[match.end():]
    for match in NUMBER.finditer(code):
        for kind, new in changed_numbers(match[0]):
            yield kind, code[:match.start()] + new + code[match.end():]
    if STATEMENT.match(code) and code.count("(") == code.count(")") and "operator" not in code:
        yield "statement", re.match(r"\s*", code)[0] + ";"


def engine_lines():
    """Each line as its file, the how-manieth of its like it is there, its text and its number."""
    for path in sorted((ROOT / "engine").rglob("*")):
        if path.suffix not in (".h", ".cpp") or path.name == "neon.cpp":
            continue
        seen = collections.Counter()
        for number, line in enumerate(path.read_text().splitlines(), 1):
            seen[line.strip()] += 1
            yield str(path.relative_to(ROOT)), seen[line.strip()], line, number


def mutants_at(file, which, line, number):
    found = {}
    for kind, changed in mutants_of_line(line):
        if changed != line:
            found.setdefault(changed, kind)
    return [Mutant(file, which, line, changed, number, kind) for changed, kind in found.items()]


def read_listed():
    """The listed mutants, each with its reason; `*` as the change is the whole line."""
    listed = {}
    for entry in EQUIVALENT.read_text().splitlines():
        if not entry or entry.startswith("#"):
            continue
        fields = entry.split("\t")
        if len(fields) != 5 or not fields[1].isdigit() or len(fields[4]) < 10:
            sys.exit(f"mutation: not five fields, the last a reason: {entry}")
        file, which, line, changed, why = fields
        listed[file, int(which), line, changed] = why
    return listed


def run(command, timeout, stopping, running, **options):
    """Runs in a session of its own; the exit status, or None when out of time, and the output."""
    if stopping.is_set():
        raise Stopped("the run was stopped")
    with subprocess.Popen([str(part) for part in command], start_new_session=True,
                          stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options) as process:
        running.add(process.pid)
        try:
            output, _ = process.communicate(timeout=timeout)
            status = process.returncode
        except subprocess.TimeoutExpired:
            output, status = "", None
        finally:
            running.discard(process.pid)
            try:
                os.killpg(process.pid, signal.SIGKILL)  # what a test may have left running as well
            except ProcessLookupError:
                pass
    if stopping.is_set():
        raise Stopped("the run was stopped")
    if status in OUTSIDE:
        raise Stopped(f"{command[0]} was ended from outside, signal {-status}")
    return status, output


class Build:
    """A build of a worker's sources, and a copy of it to go back to."""

    def __init__(self, worker, name, flags):
        self.worker, self.flags = worker, flags
        self.folder, self.kept = worker.folder / name, worker.folder / f"{name}-kept"
        self.timeouts = {}

    def ninja(self, target):
        """Whether it builds; the copy's own warnings are no errors."""
        status, output = self.worker.run("ninja", "-C", self.folder, "-j", "1", target,
                                         stdout=subprocess.PIPE)
        if status != 0 and "error:" not in output and "undefined reference" not in output:
            raise Stopped(f"the build of {target} failed, and not by the mutant\n{output[-2000:]}")
        return status == 0

    def object_code(self):
        return {path: hashlib.sha256(path.read_bytes()).digest()
                for path in self.folder.glob("CMakeFiles/qx_objects.dir/**/*.o")}

    def passes(self, number, timeout=None):
        test, options = TESTS[number]
        environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", **SANITIZER_OPTIONS)
        status, _ = self.worker.run(self.folder / "tests" / test, *options, timeout=timeout,
                                    env=environment, cwd=self.folder, stdout=subprocess.DEVNULL)
        return status == 0

    def notices(self):
        """Whether a test that passed the original fails the mutant."""
        return any(not self.ninja(TESTS[number][0]) or not self.passes(number, timeout)
                   for number, timeout in self.timeouts.items())

    def prepare(self, tests):
        """Builds the original, whose tests must pass."""
        status, output = self.worker.run(
            "cmake", "-S", self.worker.source, "-B", self.folder, "-G", "Ninja",
            "-DCMAKE_BUILD_TYPE=Release", f"-DCMAKE_CXX_FLAGS_RELEASE={self.flags}",
            "-DCMAKE_CXX_COMPILER=g++", "-DQX_BUILD_TESTS=ON", "-DQX_BUILD_EXAMPLES=OFF",
            stdout=subprocess.PIPE)
        if status != 0:
            raise Stopped(f"cmake failed\n{output[-2000:]}")
        for target in dict.fromkeys(["qx_objects", *(TESTS[number][0] for number in tests)]):
            if not self.ninja(target):
                raise Stopped(f"the original does not build {target}")
        for number in tests:
            started = time.monotonic()
            if not self.passes(number):
                raise Stopped(f"the original fails {TESTS[number][0]}")
            self.timeouts[number] = 10 * (time.monotonic() - started) + 5
        self.original_code = self.object_code()
        shutil.copytree(self.folder, self.kept, symlinks=True)

    def go_back(self):
        """Makes the build the original's again, in content and times; compiles nothing."""
        for folder, _, names in os.walk(self.kept):
            for name in names:
                kept = os.path.join(folder, name)
                built = os.path.join(self.folder, os.path.relpath(kept, self.kept))
                if os.path.islink(kept):
                    continue
                stored = os.stat(kept)
                if not os.path.exists(built) or os.stat(built).st_mtime_ns != stored.st_mtime_ns:
                    # A killed test may still be ending: its program cannot be written over.
                    shutil.copy2(kept, built + ".kept")
                    os.replace(built + ".kept", built)


class Worker:
    """A copy of the sources and its builds."""

    def __init__(self, number, stopping, running):
        self.folder = WORK / f"worker-{number}"
        self.source = self.folder / "source"
        self.control = stopping, running
        self.plain = Build(self, "build", "-O1")
        self.sanitized = Build(
            self, "sanitized", "-O1 -fsanitize=address,undefined -fno-sanitize-recover=all")

    def run(self, *command, timeout=None, **options):
        return run(["nice", *command], timeout, *self.control, **options)

    def prepare(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.source.mkdir(parents=True)
        for name in COPIED:
            self.run("cp", "-rpT", ROOT / name, self.source / name, stdout=subprocess.DEVNULL)
        self.plain.prepare(range(len(TESTS)))
        self.sanitized.prepare(SANITIZED_TESTS)

    def judge(self, mutant):
        path = self.source / mutant.file
        text, times = path.read_text(), path.stat()
        lines = text.splitlines()
        lines[mutant.number - 1] = mutant.changed
        path.write_text("\n".join(lines) + "\n")
        builds = [self.plain]
        try:
            if not self.plain.ninja("qx_objects"):
                return "did not compile"
            if self.plain.object_code() == self.plain.original_code:
                return "equal code"
            if self.plain.notices():
                return "killed"
            builds.append(self.sanitized)
            return "killed" if self.sanitized.notices() else "survived"
        finally:
            path.write_text(text)
            os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))
            for build in builds:
                build.go_back()


class Results:
    """The verdicts, kept in a file as they come."""

    def __init__(self):
        digest = hashlib.sha256()
        for name in COPIED:
            for path in sorted((ROOT / name).rglob("*")) or [ROOT / name]:
                if path.is_file():
                    digest.update(str(path.relative_to(ROOT)).encode() + path.read_bytes())
        WORK.mkdir(parents=True, exist_ok=True)
        self.path = WORK / f"results-{digest.hexdigest()[:16]}.tsv"
        self.known = {}
        for entry in self.path.read_text().splitlines() if self.path.exists() else []:
            *key, verdict = entry.split("\t")
            self.known[tuple(key)] = verdict

    @staticmethod
    def key(mutant):
        return mutant.file, str(mutant.which), mutant.line, mutant.changed

    def get(self, mutant):
        return self.known.get(self.key(mutant))

    def keep(self, mutant, verdict):
        self.known[self.key(mutant)] = verdict
        with self.path.open("a") as out:
            out.write("\t".join((*self.key(mutant), verdict)) + "\n")


def drawn(seed, mutant):
    """A mutant's place in the order of a seed, which other mutants do not change."""
    return hashlib.sha256(f"{seed}\t{mutant[:4]}".encode()).digest()


def judge_all(mutants, results, jobs):
    """Judges what has no verdict yet. Shows how far it is on standard error."""
    stopping, running, lock = threading.Event(), set(), threading.Lock()
    waiting = queue.SimpleQueue()
    for mutant in mutants:
        waiting.put(mutant)
    done = collections.Counter()
    begun = []

    def show():
        count, minutes = sum(done.values()), (time.monotonic() - begun[0]) / 60
        left = minutes / count * (len(mutants) - count)
        print(f"{count} of {len(mutants)}, {done['survived']} survived, {minutes:.0f} minutes, "
              f"about {left:.0f} left", end="\r" if sys.stderr.isatty() else "\n",
              file=sys.stderr, flush=True)

    def work(number):
        worker = Worker(number, stopping, running)
        worker.prepare()
        begun.append(time.monotonic())
        while not stopping.is_set():
            try:
                mutant = waiting.get_nowait()
            except queue.Empty:
                return
            verdict = worker.judge(mutant)
            with lock:
                results.keep(mutant, verdict)
                done[verdict] += 1
                show()

    def stop(*_):
        stopping.set()
        for pid in list(running):
            try:
                os.killpg(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        workers = [pool.submit(work, number) for number in range(jobs)]
        for worker in concurrent.futures.as_completed(workers):
            if worker.exception():
                stop()
    for worker in workers:
        if worker.exception():
            sys.exit(f"mutation: {worker.exception()}; the verdicts so far are kept")
    if stopping.is_set():
        sys.exit("mutation: the run was stopped; the verdicts so far are kept")


def stale_entries(listed, everything, results):
    """What is listed and names no mutant, or one that a test has killed."""
    lines = {(file, which, line.strip()) for file, which, line, _ in engine_lines()}
    by_entry = {(m.file, m.which, m.line.strip(), m.changed.strip()): m for m in everything}
    for entry in listed:
        mutant = by_entry.get(entry)
        if entry[3] == "*":
            if entry[:3] not in lines:
                yield f"listed, but there is no such line: {entry[0]} {entry[2]}"
        elif mutant is None:
            yield f"listed, but there is no such mutant: {entry[0]} {entry[3]}"
        elif results.get(mutant) == "killed":
            yield f"listed as equivalent, but killed: {entry[0]}:{mutant.number} {entry[3]}"


def report(mutants, listed, everything, results):
    """Prints the totals; whether enough were killed and the list is right."""
    counts = collections.Counter()
    kinds = collections.defaultdict(collections.Counter)
    for mutant in mutants:
        verdict = results.get(mutant)
        entry = mutant.file, mutant.which, mutant.line.strip(), mutant.changed.strip()
        if verdict == "survived" and entry in listed:
            verdict = "equivalent"
        elif verdict == "survived":
            print(f"survived: {mutant.file}:{mutant.number} ({mutant.which})\n"
                  f"  - {mutant.line.strip()}\n  + {mutant.changed.strip()}")
        counts[verdict] += 1
        kinds[mutant.kind][verdict] += 1
    for kind, by_verdict in sorted(kinds.items()):
        print(f"{kind}: {by_verdict['killed']} killed, {by_verdict['survived']} survived")
    stale = list(stale_entries(listed, everything, results))
    for problem in stale:
        print(problem)
    print(", ".join(f"{counts[verdict]} {verdict}" for verdict in (
        "killed", "survived", "equivalent", "equal code", "did not compile")))
    judged = counts["killed"] + counts["survived"]
    score = int(10000 * counts["killed"] / judged) / 100 if judged else 0
    print(f"{score:.2f} % killed (required: {REQUIRED:.2f} %)")
    passed = (judged > 0 and score >= REQUIRED) + (not stale)
    print(f"{passed} passed, {2 - passed} failed")
    return passed == 2


def main():
    parser = argparse.ArgumentParser(prog="mutation")
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1)
    options = parser.parse_args()
    listed = read_listed()
    everything, excluded = [], []
    for place in engine_lines():
        found = mutants_at(*place)
        file, which, line, _ = place
        (excluded if (file, which, line.strip(), "*") in listed else everything).extend(found)
    lines = {mutant[:2] + (mutant.line,) for mutant in excluded}
    print(f"{len(everything)} mutants in all; {len(excluded)} more are on {len(lines)} lines that "
          "equivalent_mutants.txt leaves out", flush=True)
    mutants = everything
    if options.sample is not None:
        mutants = sorted(mutants, key=lambda mutant: drawn(options.seed, mutant))[:options.sample]
    results = Results()
    unknown = [mutant for mutant in mutants if results.get(mutant) is None]
    if unknown:
        judge_all(unknown, results, max(options.jobs, 1))
    sys.exit(not report(mutants, listed, everything, results))


main()
