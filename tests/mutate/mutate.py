#!/usr/bin/python3
"""Tells whether the tests bite: makes small mistakes in a source of the engine, one at a time, and
lists those that no test notices.

Use: tests/mutate/mutate.py WORK SOURCE [--again] [--jobs N] [--sample N] [FUNCTION...]

WORK is a directory for copies of the project and what is built of them, kept for the next time.
SOURCE is a file of the project's root. With FUNCTIONs only what lies in these is changed; with
--again only what went unnoticed the last time, or was not tried, and is not listed as equivalent;
with --sample N only every N-th of the mistakes. --list only lists them.

A mistake counts as noticed where a test fails, crashes or hangs, and does so again when it is run
alone. What changes nothing that could be noticed stands in equivalent.txt beside this file, with the
reason. Numbers with an exponent are left as they are.
"""
import argparse
import collections
import dataclasses
import json
import os
import re
import selectors
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

from clang import cindex

ROOT = Path(__file__).resolve().parents[2]
EQUIVALENT = Path(__file__).with_name("equivalent.txt")

# The programs that run in virtual time, and in how many parts at once: what mostly waits in more.
# What ALONE names is skipped where other tests run in the same process.
PROGRAMS = {
    "tests/engine/tovrel_engine_tests": 2,
    "tests/radio/tovrel_radio_tests": 6,
    "tests/model/tovrel_model_tests": 1,
}
ALONE = {"tests/engine/tovrel_engine_tests":
         ["FileFaults.KeepTheGainOfTheTagsWhereThereIsNoLocaleOfNumbers"]}
# Of the model's sequences as many as take a second, always the same ones.
SEQUENCES = "max_success=100 seed=1"
SILENCE_S = 60  # what tells nothing for so long hangs; the longest case takes 17 s by itself
HANGS = b"neither sleeps nor ends"  # what virtual time says of a worker
MEMORY = 8 << 30  # what a mistake may ask for
KILLERS = 24  # the tests that noticed mistakes in the same function are asked first, if they take
QUICK_S = 2  # no longer than this
AT_START = "the start"  # of a program, before its first test

EDGES = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&"}


@dataclasses.dataclass(frozen=True)
class Mutant:
    function: str
    line: int
    start: int
    end: int
    new: str
    what: str
    text: str  # of the line, so that the list of equivalent ones outlives changes elsewhere
    nth: int = 0  # of those that read alike

    def key(self):
        return f"{self.function} | {self.text} | {self.what}" + (f" #{self.nth}" if self.nth else "")


# What can be changed


def flags():
    packages = ["libavformat", "libavcodec", "libswresample", "libavutil", "libpipewire-0.3"]
    cflags = subprocess.run(["pkg-config", "--cflags", *packages], check=True, text=True,
                            capture_output=True).stdout.split()
    builtin = subprocess.run(["clang", "-print-resource-dir"], check=True, text=True,
                             capture_output=True).stdout.strip()
    return ["-std=c++20", f"-I{ROOT}", f"-I{builtin}/include", *cflags]


def one_up(literal):
    """The number with its last digit one up; None where it is no plain number."""
    number = re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", literal)
    if number:
        return str(int(number[1], 0) + 1) + number[2]
    number = re.fullmatch(r"(\d+)\.(\d+)([fF]?)", literal)
    if not number:
        return None
    digits = str(int(number[1] + number[2]) + 1).zfill(len(number[2]) + 1)
    return digits[:-len(number[2])] + "." + digits[-len(number[2]):] + number[3]


def strip(cursor):
    """What stands within implicit conversions."""
    kinds = (cindex.CursorKind.UNEXPOSED_EXPR,)
    while cursor.kind in kinds and len(list(cursor.get_children())) == 1:
        cursor = next(cursor.get_children())
    return cursor


def is_atomic_store(cursor):
    cursor = strip(cursor)
    children = list(cursor.get_children())
    return (cursor.kind == cindex.CursorKind.CALL_EXPR and cursor.spelling == "operator=" and
            children and "atomic" in children[0].type.get_canonical().spelling)


def mutants_of(path):
    code = path.read_bytes()
    unit = cindex.Index.create().parse(str(path), args=flags())
    errors = [d.spelling for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
    if errors:
        sys.exit(f"clang cannot read {path}: {errors[0]}")
    lines = code.decode().split("\n")
    found = []
    kind = cindex.CursorKind

    def text(extent):
        return code[extent.start.offset:extent.end.offset].decode()

    def add(function, start, end, new, what):
        line = code[:start].count(b"\n")
        found.append(Mutant(function, line + 1, start, end, new, what, lines[line].strip()))

    def is_equality(condition):
        """Whether the condition is one == or !=: those are flipped by their operators."""
        children = list(strip(condition).get_children())
        if strip(condition).kind != kind.BINARY_OPERATOR or len(children) != 2:
            return False
        between = code[children[0].extent.end.offset:children[1].extent.start.offset]
        return between.strip() in (b"==", b"!=")

    def invert(function, condition):
        if is_equality(condition):
            return
        extent = condition.extent
        add(function, extent.start.offset, extent.end.offset, f"!({text(extent)})",
            "branch inverted: " + " ".join(text(extent).split()))

    def remove(function, statement):
        call = strip(statement)
        if call.kind == kind.CALL_EXPR:
            extent = statement.extent
            what = "store" if call.spelling == "operator=" else "call"
            add(function, extent.start.offset, extent.end.offset, "(void)0",
                f"{what} removed: " + " ".join(text(extent).split()))

    def swap(function, first, second):
        if is_atomic_store(first) and is_atomic_store(second):
            between = code[first.extent.end.offset:second.extent.start.offset].decode()
            add(function, first.extent.start.offset, second.extent.end.offset,
                text(second.extent) + between + text(first.extent),
                "stores swapped: " + " ".join(text(first.extent).split()))

    def visit(cursor, function):
        if cursor.location.file and cursor.location.file.name != str(path):
            return
        if cursor.kind in (kind.FUNCTION_DECL, kind.CXX_METHOD, kind.CONSTRUCTOR, kind.DESTRUCTOR,
                           kind.FUNCTION_TEMPLATE) and cursor.is_definition():
            owner = cursor.semantic_parent
            scoped = owner.kind in (kind.CLASS_DECL, kind.STRUCT_DECL)
            function = (owner.spelling + "::" if scoped else "") + cursor.spelling
        children = list(cursor.get_children())
        if cursor.kind in (kind.IF_STMT, kind.WHILE_STMT, kind.CONDITIONAL_OPERATOR) and children:
            opening = text(cursor.extent)
            if not opening.startswith("if constexpr"):
                invert(function, children[0])
        bodies = []
        if cursor.kind == kind.COMPOUND_STMT:
            bodies = children
            for first, second in zip(children, children[1:]):
                swap(function, first, second)
        elif cursor.kind == kind.IF_STMT:
            bodies = children[1:]
        elif cursor.kind in (kind.WHILE_STMT, kind.FOR_STMT, kind.CXX_FOR_RANGE_STMT):
            bodies = children[-1:]
        for body in bodies:
            remove(function, body)
        for child in children:
            visit(child, function)

    visit(unit.cursor, "")

    # Operators and numbers by their tokens: where an operator stands, no cursor tells.
    functions = sorted({(c.extent.start.offset, c.extent.end.offset, n)
                        for c, n in definitions(unit.cursor, str(path))})
    for token in unit.get_tokens(extent=unit.cursor.extent):
        at = token.extent.start.offset
        line = lines[token.location.line - 1].lstrip()
        if line.startswith(("#", "static_assert")):
            continue
        function = next((n for s, e, n in reversed(functions) if s <= at < e), "constants")
        new = None
        if token.kind == cindex.TokenKind.PUNCTUATION and token.spelling in EDGES:
            operator = token.cursor.kind in (kind.BINARY_OPERATOR, kind.CALL_EXPR, kind.IF_STMT,
                                             kind.WHILE_STMT, kind.FOR_STMT, kind.RETURN_STMT,
                                             kind.CONDITIONAL_OPERATOR, kind.UNEXPOSED_EXPR)
            operator |= token.cursor.spelling.startswith("operator")
            if operator or token.spelling in ("==", "!=", "<=", ">=", "||"):
                new = EDGES[token.spelling]
        elif token.kind == cindex.TokenKind.LITERAL:
            new = one_up(token.spelling)
        if new is not None:
            add(function, at, token.extent.end.offset, new, f"{token.spelling} to {new}")

    found.sort(key=lambda mutant: (mutant.start, mutant.what))
    alike = collections.Counter()
    numbered = []
    for mutant in found:
        alike[mutant.key()] += 1
        numbered.append(dataclasses.replace(mutant, nth=alike[mutant.key()] - 1))
    return numbered


def definitions(cursor, path):
    kind = cindex.CursorKind
    for child in cursor.get_children():
        if child.location.file and child.location.file.name != path:
            continue
        if child.kind in (kind.FUNCTION_DECL, kind.CXX_METHOD, kind.CONSTRUCTOR, kind.DESTRUCTOR,
                          kind.FUNCTION_TEMPLATE) and child.is_definition():
            owner = child.semantic_parent
            scoped = owner.kind in (kind.CLASS_DECL, kind.STRUCT_DECL)
            yield child, (owner.spelling + "::" if scoped else "") + child.spelling
        yield from definitions(child, path)


# Trying one


class Killers:
    """The tests that noticed the latest mistakes, in the same function above all: the next one is
    likely to be noticed by them."""

    def __init__(self):
        self.lock = threading.Lock()
        self.tests = collections.OrderedDict()  # (program, test): functions

    def note(self, program, test, function):
        with self.lock:
            self.tests.setdefault((program, test), set()).add(function)
            self.tests.move_to_end((program, test))

    def of(self, program, function):
        with self.lock:
            latest = [test for test in reversed(self.tests)
                      if function in self.tests[test]][:KILLERS]
            latest += [test for test in reversed(self.tests) if test not in latest][:KILLERS // 2]
        return [test for owner, test in latest if owner == program]


class Workplace:
    """A copy of the project with a build of its own."""

    def __init__(self, directory, source, killers):
        self.source = source
        self.tree = directory / "source"
        self.build = directory / "build"
        self.temporary = directory / "temporary"
        self.killers = killers
        self.lay()

    def lay(self):
        """Copies what differs, with the time of the copy: it is newer than what was built of it."""
        names = {path.relative_to(ROOT) for path in ROOT.rglob("*")
                 if path.is_file() and path.relative_to(ROOT).parts[0] not in ("build", ".git")}
        for name in names:
            target = self.tree / name
            if not target.exists() or target.read_bytes() != (ROOT / name).read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(ROOT / name, target)
                shutil.copymode(ROOT / name, target)
        for path in self.tree.rglob("*"):
            if path.is_file() and path.relative_to(self.tree) not in names:
                path.unlink()
        subprocess.run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
                        "-DCMAKE_BUILD_TYPE=Debug", "-DTOVREL_TESTS=ON",
                        "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
                        "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -D_GLIBCXX_ASSERTIONS"],
                       check=True, stdout=subprocess.DEVNULL)

    def make(self, jobs=1):
        targets = [os.path.basename(program) for program in PROGRAMS]
        return subprocess.run(["ninja", "--quiet", f"-j{jobs}", "-C", str(self.build),
                               *targets],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    def write(self, code):
        (self.tree / self.source).write_bytes(code)

    def noticed(self, function):
        """The test that notices the mistake, with how; None where none does."""
        recent = [(program, ":".join(tests), None) for program in PROGRAMS
                  if (tests := self.killers.of(program, function))]
        everything = [(program, "*", (part, parts)) for program, parts in PROGRAMS.items()
                      for part in range(parts)]
        everything += [(program, test, None) for program in ALONE for test in ALONE[program]]
        for runs in (recent, everything):
            verdict = self.run(runs, function)
            if verdict:
                return verdict
        return None

    def run(self, runs, function):
        """Runs these at once, up to the first failure that happens again, alone."""
        running = []
        chosen = selectors.DefaultSelector()

        def start(program, tests, part):
            run = self.start(program, tests, part)
            running.append(run)
            chosen.register(run.process.stdout, selectors.EVENT_READ, run)

        try:
            for run in runs:
                start(*run)
            while chosen.get_map():
                for key, _ in chosen.select(timeout=1):
                    if not key.data.read():
                        chosen.unregister(key.fileobj)
                for run in list(running):
                    how = run.failure()
                    if how is None:
                        continue
                    running.remove(run)
                    if not run.at_end:
                        chosen.unregister(run.process.stdout)
                    run.end()
                    begun = time.monotonic()
                    alone = self.start(run.program, run.current, None)
                    if run.current == AT_START or alone.fails_by_itself():
                        if time.monotonic() - begun < QUICK_S:
                            self.killers.note(run.program, run.current, function)
                        return f"{run.current} {how}"
                    for other in running:
                        other.heard = time.monotonic()  # nobody has listened meanwhile
                    # Of its other tests those that come after the first failure were skipped.
                    but = ":" if "-" in run.tests else "-"
                    start(run.program, run.tests + but + run.current, run.part)
            return None
        finally:
            for run in running:
                run.end()
            shutil.rmtree(self.temporary, ignore_errors=True)

    def start(self, program, tests, part):
        self.temporary.mkdir(exist_ok=True)
        return TestRun(self.build / program, program, tests, part, self.temporary)


class TestRun:
    def __init__(self, path, program, tests, part, temporary):
        environment = dict(os.environ, GTEST_FAIL_FAST="1", TMPDIR=str(temporary),
                           RC_PARAMS=SEQUENCES)
        if part:
            environment.update(GTEST_SHARD_INDEX=str(part[0]), GTEST_TOTAL_SHARDS=str(part[1]))
        self.program = program
        self.tests = tests
        self.part = part
        self.current = AT_START
        self.verdict = None
        self.at_end = False
        self.heard = time.monotonic()
        self.rest = b""
        self.process = subprocess.Popen(
            ["prlimit", f"--as={MEMORY}", path, f"--gtest_filter={tests}"], env=environment,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            start_new_session=True)

    def read(self):
        data = os.read(self.process.stdout.fileno(), 65536)
        if not data:
            self.at_end = True
            return False
        self.heard = time.monotonic()
        *lines, self.rest = (self.rest + data).split(b"\n")
        for line in lines:
            if self.verdict:
                break  # what comes now was skipped
            if started := re.match(rb"\[ RUN      \] (\S+)", line):
                self.current = started[1].decode()
            elif HANGS in line:
                self.verdict = "hangs"
            elif line.startswith(b"[  FAILED  ]"):
                self.verdict = "fails"
        return True

    def failure(self):
        if self.verdict:
            return self.verdict
        if self.at_end and self.process.wait() != 0:
            return "fails" if self.process.returncode == 1 else "crashes"
        if not self.at_end and time.monotonic() - self.heard > SILENCE_S:
            return "hangs"
        return None

    def fails_by_itself(self):
        try:
            with selectors.DefaultSelector() as chosen:
                chosen.register(self.process.stdout, selectors.EVENT_READ)
                while self.failure() is None and not self.at_end:
                    if chosen.select(timeout=1):
                        self.read()
            return self.failure() is not None
        finally:
            self.end()

    def end(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.process.stdout.close()


# All of them


def equivalent_ones():
    reasons = {}
    if EQUIVALENT.exists():
        for line in EQUIVALENT.read_text().splitlines():
            if line and not line.startswith("#"):
                key, _, reason = line.rpartition(" => ")
                reasons[key] = reason
    return reasons


def report(results, mutants, out):
    reasons = equivalent_ones()
    shown = {m.key(): m for m in mutants}
    judged = {k: v for k, v in results.items() if k in shown}
    counts = collections.Counter(
        "not compiled" if v == "not compiled" else
        "noticed" if v else "equivalent" if k in reasons else "unnoticed"
        for k, v in judged.items())
    for key, verdict in judged.items():
        if not verdict and key not in reasons:
            print(f"line {shown[key].line}: {key}", file=out)
    for key in reasons:
        if key not in shown:
            print(f"{EQUIVALENT.name} tells of what is not there: {key}", file=out)
    tried = counts["noticed"] + counts["unnoticed"] + counts["equivalent"]
    print(f"{tried} mistakes, {counts['noticed']} noticed, {counts['equivalent']} equivalent, "
          f"{counts['unnoticed']} unnoticed; {counts['not compiled']} more do not compile, "
          f"{len(shown) - len(judged)} were not tried", file=out)
    if tried:
        print(f"{100 * counts['noticed'] / tried:.1f} % are noticed, and "
              f"{100 * counts['noticed'] / max(1, tried - counts['equivalent']):.1f} % of those "
              "that change anything", file=out)
    return counts["unnoticed"]


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("work", type=Path)
    parser.add_argument("source")
    parser.add_argument("functions", nargs="*")
    parser.add_argument("--again", action="store_true")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--sample", type=int, default=1)
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()

    code = (ROOT / options.source).read_bytes()
    mutants = mutants_of(ROOT / options.source)
    if options.list:
        for mutant in mutants:
            print(f"{mutant.line}: {mutant.key()}")
        return
    options.work.mkdir(parents=True, exist_ok=True)
    kept = options.work / (options.source + ".json")
    results = json.loads(kept.read_text()) if kept.exists() else {}
    wanted = [m for m in mutants
              if not options.functions or m.function in options.functions]
    wanted = wanted[::options.sample]
    if options.again:
        known = equivalent_ones()
        wanted = [m for m in wanted if not results.get(m.key(), "") and m.key() not in known]

    killers = Killers()
    places = [Workplace(options.work / str(i), options.source, killers)
              for i in range(options.jobs)]
    for place in places:
        if not place.make(os.cpu_count()):
            sys.exit("the project does not build")
        if failure := place.noticed(""):
            sys.exit(f"without any mistake {failure}")
    lock = threading.Lock()
    queue = collections.deque(wanted)
    started = time.monotonic()

    def work(place):
        while True:
            with lock:
                mutant = queue.popleft() if queue else None
            if mutant is None:
                place.write(code)
                return
            place.write(code[:mutant.start] + mutant.new.encode() + code[mutant.end:])
            verdict = place.noticed(mutant.function) if place.make() else "not compiled"
            with lock:
                results[mutant.key()] = verdict
                kept.write_text(json.dumps(results, indent=1))
                done = len(wanted) - len(queue)
                print(f"{done}/{len(wanted)} {time.monotonic() - started:.0f} s, line "
                      f"{mutant.line}: {mutant.key()}: {verdict or 'UNNOTICED'}",
                      file=sys.stderr, flush=True)

    threads = [threading.Thread(target=work, args=(place,)) for place in places]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    sys.exit(1 if report(results, mutants, sys.stdout) else 0)


main()
