"""Changes engine/ in one place at a time, in a copy, and sees whether the tests notice.

mutation [--sample N] [--seed S]   N mutants drawn by the seed (1 if none is given); without, all

A mutant is killed when a test fails or runs out of time. One whose object code equals the
original's is not counted, nor is one that does not compile or that equivalent_mutants.txt lists.
Results are kept in build/mutation, so that a run that was stopped goes on where it was, as long as
neither the engine nor a test has changed. kernels/neon.cpp is not compiled on x86-64: no mutants.
"""
import argparse
import hashlib
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutation"
COPY = WORK / "source"
BUILT = WORK / "build"
EQUIVALENT = ROOT / "checks/equivalent_mutants.txt"
COPIED = ["engine", "include", "tests", "cmake", "CMakeLists.txt"]
REQUIRED = 98.0
# Quick ones first. Each is many times as fast on the original.
TESTS = [("record_tests", []), ("allocation_tests", []), ("history_tests", ["--count", "300"]),
         ("internal_tests", []), ("contract_tests", [])]
TIMEOUT = 180

REPLACED = [
    (r"(?<= )<(?= )", ["<=", ">="]), (r"(?<= )<=(?= )", ["<", ">"]),
    (r"(?<= )>(?= )", [">=", "<="]), (r"(?<= )>=(?= )", [">", "<"]),
    (r"(?<= )==(?= )", ["!="]), (r"(?<= )!=(?= )", ["=="]),
    (r"(?<= )\+(?= )", ["-"]), (r"(?<= )-(?= )", ["+"]),
    (r"(?<= )/(?= )", ["*"]), (r"(?<=[\w)\]] )\*(?= [\w(])", ["/"]), (r"(?<= )%(?= )", ["/"]),
    (r"(?<= )<<(?= )", [">>"]), (r"(?<= )>>(?= )", ["<<"]),
    (r"&&", ["||"]), (r"\|\|", ["&&"]), (r"(?<= )\+=", ["-="]), (r"(?<= )-=", ["+="]),
    (r"(?<= )\|=", ["&="]), (r"(?<= )&=", ["|="]), (r"\+\+", ["--"]), (r"(?<!-)--(?!-)", ["++"]),
    (r"(?<= )\|(?= )", ["&"]), (r"(?<=\w )&(?= \w)", ["|"]),
    (r"\btrue\b", ["false"]), (r"\bfalse\b", ["true"]), (r"\(!", ["("]),
    (r"\bstd::min\b", ["std::max"]), (r"\bstd::max\b", ["std::min"]),
]
NUMBER = re.compile(r"(?<![\w.])\d+(?![\w.'])")
STATEMENT = re.compile(r"^\s+(?!return\b|const\b|auto\b|std::\w+ \w+(;| =)|using\b|typedef\b)"
                       r"[\w:*.\[\]()<>+-]+.*;$")
SKIPPED = re.compile(r"^\s*(//|#|template|static_assert|namespace|struct|class|inline const|extern)")


def mutants_of_line(line):
    code = re.split(r"\s//", line)[0]
    if SKIPPED.match(line) or "prefetch" in code or '"' in code:
        return
    for pattern, replacements in REPLACED:
        for match in re.finditer(pattern, code):
            for new in replacements:
                yield code[:match.start()] + new + code[match.end():]
    for match in NUMBER.finditer(code):
        for new in (int(match[0]) + 1, int(match[0]) - 1):
            if new >= 0:
                yield code[:match.start()] + str(new) + code[match.end():]
    if STATEMENT.match(code) and code.count("(") == code.count(")") and "operator" not in code:
        yield re.match(r"\s*", code)[0] + ";"


def all_mutants():
    for path in sorted((ROOT / "engine").rglob("*")):
        if path.suffix not in (".h", ".cpp") or path.name == "neon.cpp":
            continue
        for number, line in enumerate(path.read_text().splitlines(), 1):
            for changed in dict.fromkeys(mutants_of_line(line)):
                if changed != line:
                    yield str(path.relative_to(ROOT)), number, line, changed


def ninja(*targets):
    """Builds; the copy's own warnings are no errors."""
    return subprocess.run(["nice", "ninja", "-C", str(BUILT), "-j", "1", *targets],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def object_code():
    return {path: hashlib.sha256(path.read_bytes()).digest()
            for path in BUILT.glob("CMakeFiles/qx_objects.dir/**/*.o")}


def passes(test, options):
    environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1")
    process = subprocess.Popen([BUILT / "tests" / test, *options], env=environment, cwd=BUILT,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        return process.wait(TIMEOUT) == 0
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)  # children of the test as well
        process.wait()
        return False


def prepare():
    """Makes the copy and its build of the original, which must pass."""
    for name in COPIED:
        if (ROOT / name).is_dir():
            subprocess.run(["cp", "-rpuT", ROOT / name, COPY / name], check=True)
        else:
            shutil.copy2(ROOT / name, COPY / name)
    for path in (COPY / "engine").rglob("*.*"):  # a stopped run may have left a mutant
        original = ROOT / path.relative_to(COPY)
        if original.exists() and path.read_bytes() != original.read_bytes():
            path.write_bytes(original.read_bytes())
    subprocess.run(["cmake", "-S", COPY, "-B", BUILT, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_CXX_FLAGS_RELEASE=-O1", "-DCMAKE_CXX_COMPILER=g++",
                    "-DQX_BUILD_EXAMPLES=OFF"], check=True, stdout=subprocess.DEVNULL)
    if not ninja("all"):
        sys.exit("mutation: the original does not build")
    for test, options in TESTS:
        if not passes(test, options):
            sys.exit(f"mutation: the original fails {test}")
    return object_code()


def judge(mutant, original_code):
    file, number, line, changed = mutant
    path = COPY / file
    text = path.read_text()
    lines = text.splitlines()
    lines[number - 1] = changed
    try:
        path.write_text("\n".join(lines) + "\n")
        if not ninja("qx_objects"):
            return "did not compile"
        if object_code() == original_code:
            return "equal code"
        if not ninja("all"):
            return "did not compile"
        return "survived" if all(passes(*test) for test in TESTS) else "killed"
    finally:
        path.write_text(text)


def state():
    digest = hashlib.sha256()
    for name in COPIED:
        for path in sorted((ROOT / name).rglob("*")) or [ROOT / name]:
            if path.is_file():
                digest.update(str(path).encode() + path.read_bytes())
    return digest.hexdigest()[:16]


def main():
    parser = argparse.ArgumentParser(prog="mutation")
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    mutants = list(all_mutants())
    print(f"{len(mutants)} mutants in all", flush=True)
    if options.sample is not None:
        mutants = random.Random(options.seed).sample(mutants, min(options.sample, len(mutants)))
    listed = {tuple(entry.split("\t")[:3]) for entry in EQUIVALENT.read_text().splitlines()
              if entry and not entry.startswith("#")}
    COPY.mkdir(parents=True, exist_ok=True)
    kept = WORK / f"results-{state()}.tsv"
    results = {}
    if kept.exists():
        for entry in kept.read_text().splitlines():
            *key, result = entry.split("\t")
            results[tuple(key)] = result
    original_code = None
    counts = {"killed": 0, "survived": 0, "did not compile": 0, "equal code": 0, "equivalent": 0}
    for mutant in mutants:
        file, number, line, changed = mutant
        key = (file, str(number), line, changed)
        if key not in results:
            original_code = original_code or prepare()
            results[key] = judge(mutant, original_code)
            with kept.open("a") as out:
                out.write("\t".join((*key, results[key])) + "\n")
        result = results[key]
        if result == "survived":
            if (file, line.strip(), changed.strip()) in listed:
                result = "equivalent"
            else:
                print(f"survived: {file}:{number}\n  - {line.strip()}\n  + {changed.strip()}",
                      flush=True)
        counts[result] += 1
    print(", ".join(f"{count} {result}" for result, count in counts.items()))
    judged = counts["killed"] + counts["survived"]
    score = int(10000 * counts["killed"] / judged) / 100 if judged else 0
    passed = judged > 0 and score >= REQUIRED
    print(f"{score:.2f} % killed (required: {REQUIRED:.2f} %)")
    print("1 passed, 0 failed" if passed else "0 passed, 1 failed")
    sys.exit(not passed)


main()
