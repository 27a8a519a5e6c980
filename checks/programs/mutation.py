"""Changes engine/ or collection/ in one place at a time, in a copy, and sees whether the tests notice.

mutation [--of FOLDER] [--sample N] [--seed S] [--jobs J]
  N mutants of engine or collection (engine if none is given) drawn by the seed (1 if none is
  given); without, all. J at a time, each in its own copy.
mutation --list
  Changes nothing: prints which mutants are left out or excused, where they are and why.

mutants.py says which mutants there are, and how equivalent_mutants.txt and comments in the sources
excuse those that behave as the original does.

A mutant is killed when a test fails, runs out of time, or no longer compiles while the library does.
What survives is built a second time, under the address and undefined-behaviour sanitizers: a mutant
that reads or writes where it must not is killed there.
One whose object code equals the original's is not counted, nor is one that does not compile or
that is excused. A test or compiler that is ended from outside gives no verdict.
Results are kept in build/mutation, so that a run that was stopped goes on where it was, as long as
neither the library nor a test has changed. The NEON kernels are not compiled on x86-64: no mutants.
"""
import argparse
import collections
import contextlib
import concurrent.futures
import hashlib
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import sys
import threading
import time
import typing

from mutants import Excused, sources_of

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutation"
EQUIVALENT = ROOT / "checks/equivalent_mutants.txt"
REQUIRED = 98.0


class Subject(typing.NamedTuple):
    """A folder that is changed. Its tests run in this order, until one fails; `sanitized` are those
    that the sanitized build of a survivor runs."""
    copied: list
    options: list
    objects: str
    folder_of_objects: str
    tests: list
    sanitized: list


SUBJECTS = {
    # Programs that only link the engine come before those that include its headers and are compiled
    # anew for a mutant of one; the slowest test comes last.
    "engine": Subject(
        ["engine", "include", "tests", "cmake", "CMakeLists.txt"], ["-DQX_BUILD_COLLECTION=OFF"],
        "qx_objects", "CMakeFiles/qx_objects.dir", [
            ("call_sequence_tests", ["--count", "250"]),
            ("contract_tests", ["--gtest_filter=-LargeBase.*"]),
            ("record_tests", []),
            ("allocation_tests", []),
            ("internal_tests", []),
            ("contract_tests", ["--gtest_filter=LargeBase.*"])],
        [0, 1, 2, 4]),
    # One program, the slower tests after the others. Sanitized, no process forks while threads work.
    "collection": Subject(
        ["engine", "collection", "bindings", "include", "tests", "cmake", "CMakeLists.txt"],
        ["-DQX_BUILD_COLLECTION=ON"],
        "qx_collection_objects", "collection/CMakeFiles/qx_collection_objects.dir", [
            ("collection_tests", ["--gtest_filter=-OfAnySize/*:Memory.*:Fork.*:Pool.*"]),
            ("collection_tests", ["--gtest_filter=*/Batched:Memory.F*:Memory.I*"]),
            ("collection_tests", ["--gtest_filter=Fork.*:Pool.*:OfAnySize/*:Memory.O*"
                                  ":-*/Batched"])],
        [0, 1]),
}
SANITIZER_OPTIONS = {"ASAN_OPTIONS": "detect_leaks=0:allocator_may_return_null=1"}

# What ends a program from outside, and never because of a mutant.
OUTSIDE = {-signal.SIGINT, -signal.SIGTERM, -signal.SIGHUP, -signal.SIGQUIT, -signal.SIGKILL}


class Stopped(Exception):
    """No verdict: the run ends."""


def kill(session):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(session, signal.SIGKILL)


STOPPING, RUNNING = threading.Event(), set()


def run(*command, timeout=None, **options):
    """Runs in a session of its own; the exit status, or None when out of time, and the output."""
    if STOPPING.is_set():
        raise Stopped("the run was stopped")
    with subprocess.Popen(["nice", *map(str, command)], start_new_session=True,
                          stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options) as process:
        RUNNING.add(process.pid)
        try:
            output, _ = process.communicate(timeout=timeout)
            status = process.returncode
        except subprocess.TimeoutExpired:
            output, status = "", None
        finally:
            RUNNING.discard(process.pid)
            kill(process.pid)  # what a test may have left running as well
    if STOPPING.is_set():
        raise Stopped("the run was stopped")
    if status in OUTSIDE:
        raise Stopped(f"{command[0]} was ended from outside, signal {-status}")
    return status, output


class Build:
    """A build of a worker's sources, and a copy of it to go back to."""

    def __init__(self, worker, name, flags):
        self.worker, self.subject, self.flags = worker, worker.subject, flags
        self.folder, self.kept = worker.folder / name, worker.folder / f"{name}-kept"
        self.timeouts = {}

    def ninja(self, target):
        """Whether it builds; the copy's own warnings are no errors."""
        status, output = run("ninja", "-C", self.folder, "-j", "1", target, stdout=subprocess.PIPE)
        if status != 0 and "error:" not in output and "undefined reference" not in output:
            raise Stopped(f"the build of {target} failed, and not by the mutant\n{output[-2000:]}")
        return status == 0

    def object_code(self):
        return {path: hashlib.sha256(path.read_bytes()).digest()
                for path in self.folder.glob(f"{self.subject.folder_of_objects}/**/*.o")}

    def passes(self, number, timeout=None):
        test, options = self.subject.tests[number]
        environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", **SANITIZER_OPTIONS)
        status, _ = run(self.folder / "tests" / test, *options, timeout=timeout, env=environment,
                        cwd=self.folder, stdout=subprocess.DEVNULL)
        return status == 0

    def notices(self):
        """Whether a test that passed the original fails the mutant."""
        return any(not self.ninja(self.subject.tests[number][0]) or not self.passes(number, timeout)
                   for number, timeout in self.timeouts.items())

    def prepare(self, tests):
        """Builds the original, whose tests must pass."""
        status, output = run(
            "cmake", "-S", self.worker.source, "-B", self.folder, "-G", "Ninja",
            "-DCMAKE_BUILD_TYPE=Release", f"-DCMAKE_CXX_FLAGS_RELEASE={self.flags}",
            "-DCMAKE_CXX_COMPILER=g++", "-DQX_BUILD_TESTS=ON", "-DQX_BUILD_EXAMPLES=OFF",
            *self.subject.options, stdout=subprocess.PIPE)
        if status != 0:
            raise Stopped(f"cmake failed\n{output[-2000:]}")
        programs = [self.subject.tests[number][0] for number in tests]
        for target in dict.fromkeys([self.subject.objects, *programs]):
            if not self.ninja(target):
                raise Stopped(f"the original does not build {target}")
        for number in tests:
            started = time.monotonic()
            if not self.passes(number):
                raise Stopped(f"the original fails {self.subject.tests[number]}")
            self.timeouts[number] = 10 * (time.monotonic() - started) + 5
        self.original_code = self.object_code()
        shutil.copytree(self.folder, self.kept, symlinks=True)

    def go_back(self):
        """Makes the build the original's again, in content and times; compiles nothing."""
        for kept in self.kept.rglob("*"):
            built = self.folder / kept.relative_to(self.kept)
            if not kept.is_file() or kept.is_symlink():
                continue
            if not built.exists() or built.stat().st_mtime_ns != kept.stat().st_mtime_ns:
                # A killed test may still be ending: its program cannot be written over.
                shutil.copy2(kept, f"{built}.kept")
                os.replace(f"{built}.kept", built)


class Worker:
    """A copy of the sources and its builds."""

    def __init__(self, subject, number):
        self.subject = subject
        self.folder = WORK / f"worker-{number}"
        self.source = self.folder / "source"
        self.plain = Build(self, "build", "-O1")
        self.sanitized = Build(
            self, "sanitized", "-O1 -fsanitize=address,undefined -fno-sanitize-recover=all")

    def prepare(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.source.mkdir(parents=True)
        for name in self.subject.copied:
            run("cp", "-rpT", ROOT / name, self.source / name, stdout=subprocess.DEVNULL)
        self.plain.prepare(range(len(self.subject.tests)))

    @contextlib.contextmanager
    def changed(self, mutant, build):
        """The mutant's source while this lasts; then the original's, and its build."""
        path = self.source / mutant.file
        text, times = path.read_text(), path.stat()
        lines = text.splitlines()
        lines[mutant.number - 1] = mutant.changed
        path.write_text("\n".join(lines) + "\n")
        try:
            yield
        finally:
            path.write_text(text)
            os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))
            build.go_back()

    def evaluate(self, mutant):
        with self.changed(mutant, self.plain):
            if not self.plain.ninja(self.subject.objects):
                return "did not compile"
            if self.plain.object_code() == self.plain.original_code:
                return "equal code"
            if self.plain.notices():
                return "killed"
        if not self.sanitized.timeouts:  # the first survivor
            self.sanitized.prepare(self.subject.sanitized)
        with self.changed(mutant, self.sanitized):
            return "killed" if self.sanitized.notices() else "survived"


class Results:
    """The verdicts, kept in a file as they come."""

    def __init__(self, subject):
        digest = hashlib.sha256()
        for name in subject.copied:
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


def evaluate_all(subject, mutants, results, jobs):
    """Finds the missing verdicts. Shows the progress on standard error."""
    lock = threading.Lock()
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
        worker = Worker(subject, number)
        worker.prepare()
        begun.append(time.monotonic())
        while not STOPPING.is_set():
            try:
                mutant = waiting.get_nowait()
            except queue.Empty:
                return
            verdict = worker.evaluate(mutant)
            with lock:
                results.keep(mutant, verdict)
                done[verdict] += 1
                show()

    def stop(*_):
        STOPPING.set()
        for pid in list(RUNNING):
            kill(pid)

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
    if STOPPING.is_set():
        sys.exit("mutation: the run was stopped; the verdicts so far are kept")


def show_excused(excused):
    """Prints which mutants are left out or may survive, where and why."""
    for block in sorted(excused.blocks):
        print(f"{block.file}:{block.first}-{block.last}: {len(block.mutants)} mutants left out: "
              f"{block.reason}")
    for mutant, reason in sorted(
            excused.reasons.items(), key=lambda item: (item[0].file, item[0].number)):
        print(f"{mutant.file}:{mutant.number}: {mutant.kind}: {reason}\n"
              f"  - {mutant.line.strip()}\n  + {mutant.changed.strip()}")


def report(mutants, excused, results):
    """Prints the totals; whether enough were killed and no excused mutant was."""
    counts = collections.Counter()
    for mutant in mutants:
        verdict = results.get(mutant)
        if verdict == "survived" and mutant in excused.reasons:
            verdict = "equivalent"
        elif verdict == "survived":
            print(f"survived: {mutant.file}:{mutant.number} ({mutant.which})\n"
                  f"  - {mutant.line.strip()}\n  + {mutant.changed.strip()}")
        counts[verdict] += 1
    refuted = [mutant for mutant in excused.reasons if results.get(mutant) == "killed"]
    for mutant in refuted:
        print(f"listed as equivalent, but killed: {mutant.file}:{mutant.number} "
              f"{mutant.changed.strip()}")
    print(", ".join(f"{counts[verdict]} {verdict}" for verdict in (
        "killed", "survived", "equivalent", "equal code", "did not compile")))
    counted = counts["killed"] + counts["survived"]
    score = int(10000 * counts["killed"] / counted) / 100 if counted else 0
    print(f"{score:.2f} % killed (required: {REQUIRED:.2f} %)")
    passed = (counted > 0 and score >= REQUIRED) + (not refuted)
    print(f"{passed} passed, {2 - passed} failed")
    return passed == 2


def main():
    parser = argparse.ArgumentParser(prog="mutation")
    parser.add_argument("--of", choices=SUBJECTS, default="engine")
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    sources = [source for folder in SUBJECTS for source in sources_of(ROOT, folder)]
    excused = Excused(sources, EQUIVALENT.read_text())
    left_out = excused.left_out()
    mutants = [mutant for source in sources for mutant in source.mutants
               if mutant not in left_out and (options.list or mutant.of(options.of))]
    if options.list:
        show_excused(excused)
    print(f"{len(mutants)} mutants in all, {sum(m in excused.reasons for m in mutants)} of them "
          f"listed as equivalent; {sum(options.list or m.of(options.of) for m in left_out)} more "
          "are left out", flush=True)
    for problem in excused.problems:
        print(problem)
    if options.list or excused.problems:
        print(f"{0 if excused.problems else 1} passed, {1 if excused.problems else 0} failed")
        sys.exit(bool(excused.problems))
    if options.sample is not None:
        mutants = sorted(mutants, key=lambda mutant: drawn(options.seed, mutant))[:options.sample]
    results = Results(SUBJECTS[options.of])
    unknown = [mutant for mutant in mutants if results.get(mutant) is None]
    if unknown:
        evaluate_all(SUBJECTS[options.of], unknown, results, max(options.jobs, 1))
    sys.exit(not report(mutants, excused, results))


if __name__ == "__main__":
    main()
