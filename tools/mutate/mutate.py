#!/usr/bin/python3
"""Changes the library's sources, one place at a time, and sees whether the tests notice.

A change is one flipped comparison, swapped operator, changed number, negated condition, dropped
statement, exchanged result code or altered text. Each is built, with the address and
undefined-behaviour sanitizers, in a private copy of the tree, and the test programs of its module
are run until one fails: the change is killed, if the test fails once more when it is run again.
What no test notices has survived. A survivor is either a gap in the tests or a change that makes
no difference; the latter are explained in tools/mutate/equivalents/MODULE.txt: blocks between empty
lines, each the file, the line before (-) and after (+), and the reason. A change that does not
compile is refused, and counts neither way.

The tool fails where a survivor is not explained, where fewer than 95 of 100 changes of a module
are killed, where an explanation fits no survivor any more, or where a test fails on the unchanged
tree: any before the changes, or after them one that has killed, in one of several runs.

Verdicts are kept in build/mutation/verdicts. One holds as long as nothing has changed of what it
rests on: the changed source, what it includes, and the module's tests with what they include.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import ctypes
import dataclasses
import fcntl
import functools
import hashlib
import json
import os
import pathlib
import queue
import random
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Callable
from typing import Any

import clang.cindex
from clang.cindex import TokenKind

ROOT = pathlib.Path(__file__).resolve().parents[2]
EQUIVALENTS = ROOT / "tools/mutate/equivalents"
WORK = ROOT / "build/mutation"
WANTED = 0.95
FLAGS = "-O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all"
ASAN_OPTIONS = "detect_stack_use_after_return=1"
RUNS = 3  # of a test that has failed: on the change until it fails again, unchanged to pass in all

# Each module: its sources, and the test programs that are there for it, the quickest first.
MODULES: dict[str, tuple[list[str], list[str]]] = {
    "CFifoBuffer": (
        ["Framework/GCL/private/CFifoBuffer.cpp", "Framework/GCL/private/DivideByZero.h"],
        ["CFifoBufferTest", "CHashTableTest"],
    ),
    "CHashTable": (
        ["Framework/GCL/private/CHashTable.cpp", "Framework/GCL/private/Djb2.h"],
        ["Djb2Test", "CHashTableTest"],
    ),
    "CHyxTraceHandler": (
        ["Framework/GCL/private/CHyxTraceHandler.cpp", "Framework/GCL/private/Report.h",
         "Framework/GCL/private/TraceChannels.cpp", "Framework/GCL/private/TraceLevel.h"],
        ["ReportTest", "TraceChannelsTest", "CListTest"],
    ),
    "CList": (["Framework/GCL/private/CList.cpp"], ["CListTest"]),
    "CMemoryPool": (
        ["Framework/GCL/private/CMemoryPool.cpp", "Framework/GCL/private/StackSteps.h"],
        ["CMemoryPoolTest", "CStackTest"],
    ),
    "CStack": (["Framework/GCL/private/CStack.cpp"], ["CStackTest"]),
    "CSysLogHandler": (["Framework/GCL/private/CSysLogHandler.cpp"], ["CSysLogHandlerTest"]),
    "CTcpSocket": (
        ["Framework/GCL/private/CTcpSocket.cpp", "Framework/GCL/private/AddressList.h",
         "Framework/GCL/private/Descriptor.h"],
        ["CTcpSocketTest", "CTcpSocketTransferTest", "CTcpSocketCloseTest", "CTcpSocketStreamTest",
         "CTcpSocketLimitsTest"],
    ),
    "CTimer": (
        ["Framework/GCL/private/CTimer.cpp", "Framework/GCL/private/Clock.cpp",
         "Framework/GCL/private/ErrnoSaver.h"],
        ["ClockTest", "CTimerTest", "CTimerExitTest", "CTimerWaitTest", "CTimerSchedulingTest",
         "CTimerStressTest", "CTcpSocketCloseTest"],
    ),
    "HijackApi": (["Framework/GCL/private/HijackApi.cpp"], ["HijackApiTest"]),
    "SleepApi": (["Framework/GCL/private/SleepApi.cpp"], ["SleepApiTest"]),
    "VorTrace": (
        ["Framework/VT/private/" + name for name in
         ("Memory.h", "Message.cpp", "Output.cpp", "Settings.cpp", "Streams.cpp", "ThreadEnd.h",
          "TimeStamp.cpp", "VT.cpp", "VorTrace.cpp")],
        ["VorTraceSinkTest"],
    ),
}

SWAPS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "|": "&", "&": "|",
    "++": "--", "--": "++", "+=": "-=", "-=": "+=", "|=": "&=", "&=": "|=",
}
BINARY_ONLY = {"<", ">", "+", "-", "&", "<<", ">>"}  # those that have other meanings unspaced
WORDS = {"true": "false", "false": "true"}
NOT_DROPPED = {
    "return", "const", "constexpr", "static", "using", "if", "for", "while", "do", "switch", "case",
    "default", "else", "goto", "template", "namespace", "struct", "class", "enum", "try", "catch",
    "public", "private", "protected", "friend", "virtual", "explicit", "inline", "extern", "auto",
    "static_assert", "typedef", "thread_local", "alignas", "operator", "unsigned", "int", "char",
    "bool", "long", "void", "size_t",
}


@dataclasses.dataclass(frozen=True)
class Change:
    """One place of a file, and what stands there instead."""

    module: str
    path: str
    line: int
    start: int
    end: int
    replacement: str
    before: str  # the line as it is, without what surrounds it
    after: str

    def applied(self, text: str) -> str:
        """The file's text with the change."""
        return text[:self.start] + self.replacement + text[self.end:]

    def key(self) -> tuple[str, str, str]:
        """What an explanation names a change by: line numbers come and go."""
        return (self.path, self.before, self.after)

    def __str__(self) -> str:
        return f"{self.path}:{self.line}\n- {self.before}\n+ {self.after}"


def make_change(module: str, path: str, text: str, start: int, end: int, new: str) -> Change:
    """Builds a change of text[start:end]; the lines are those that the change touches."""
    first = text.rfind("\n", 0, start) + 1
    last = text.find("\n", end)

    def joined(lines: str) -> str:
        return " ".join(lines.split())

    before = joined(text[first:last])
    after = joined(text[first:start] + new + text[end:last])
    return Change(module, path, text.count("\n", 0, start) + 1, start, end, new, before, after)


class SkippedRanges(ctypes.Structure):
    """libclang's CXSourceRangeList, which its Python binding lacks."""

    _fields_ = [("count", ctypes.c_uint), ("ranges", ctypes.POINTER(clang.cindex.SourceRange))]


def skipped_lines(unit: clang.cindex.TranslationUnit, path: str) -> set[int]:
    """The lines that the preprocessor leaves out on this machine: nothing here can judge them."""
    library = clang.cindex.conf.lib
    library.clang_getSkippedRanges.argtypes = [clang.cindex.TranslationUnit, ctypes.c_void_p]
    library.clang_getSkippedRanges.restype = ctypes.POINTER(SkippedRanges)
    library.clang_disposeSourceRangeList.argtypes = [ctypes.POINTER(SkippedRanges)]
    found = library.clang_getSkippedRanges(unit, unit.get_file(path))
    lines: set[int] = set()
    for i in range(found.contents.count):
        part = found.contents.ranges[i]
        lines.update(range(part.start.line, part.end.line))
    library.clang_disposeSourceRangeList(found)
    return lines


def changes_of(module: str, path: str) -> list[Change]:
    """All changes of one file, in the order of their places."""
    text = (ROOT / path).read_text()
    unit = clang.cindex.Index.create().parse(
        path, args=["-xc++", "-std=c++17", f"-I{ROOT}"], unsaved_files=[(path, text)],
        options=clang.cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
    )
    skipped = skipped_lines(unit, path)
    whole = clang.cindex.SourceRange.from_locations(
        clang.cindex.SourceLocation.from_offset(unit, unit.get_file(path), 0),
        clang.cindex.SourceLocation.from_offset(unit, unit.get_file(path), len(text)),
    )
    tokens = []  # kind, spelling, start
    directives = {i + 1 for i, line in enumerate(text.split("\n")) if line.startswith("#")}
    for token in unit.get_tokens(extent=whole):
        line = token.location.line
        if token.kind != TokenKind.COMMENT and line not in directives and line not in skipped:
            tokens.append((token.kind, token.spelling, token.location.offset))

    found: list[Change] = []

    def add(start: int, end: int, new: str) -> None:
        found.append(make_change(module, path, text, start, end, new))

    quoted_asserts = statement_spans(tokens, text, lambda first: first == "static_assert")
    for i, (kind, spelling, start) in enumerate(tokens):
        end = start + len(spelling)
        if any(low <= start < high for low, high in quoted_asserts):
            continue  # checked by the compiler, as is what stands as deleted
        spaced = text[start - 1] == " " and text[end:end + 1] in (" ", "\n")
        if kind == TokenKind.PUNCTUATION:
            if spelling in SWAPS and (spaced or spelling not in BINARY_ONLY):
                if spelling in ("&&", "||", "|", "&") and not spaced:
                    continue  # a reference
                add(start, end, SWAPS[spelling])
            elif spelling == "!":
                add(start, end, "")
        elif kind == TokenKind.KEYWORD:
            if spelling in WORDS:
                add(start, end, WORDS[spelling])
            elif spelling == "if" and tokens[i + 1][1] == "(":
                close = matching(tokens, i + 1)
                inside = text[tokens[i + 1][2] + 1:tokens[close][2]]
                if not re.search(r"[=!]=|[<>]|;", inside):
                    add(tokens[i + 1][2] + 1, tokens[close][2], f"!({inside})")
            elif spelling in ("break", "continue") and tokens[i + 1][1] == ";":
                add(start, end, "")
        elif kind == TokenKind.LITERAL:
            if spelling.startswith('"'):
                if tokens[i - 1][1] != "C":  # a language linkage stays
                    add(start, end, '"~' + spelling[1:])
            elif spelling.startswith("'"):
                add(start, end, "'~'" if spelling != "'~'" else "'!'")
            elif number := re.fullmatch(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlL]*)", spelling):
                digits = number[1].replace("'", "")
                octal = re.fullmatch(r"0[0-9]+", digits) is not None
                value = int(digits, 8 if octal else 0) + 1
                add(start, end, (f"0{value:o}" if octal else str(value)) + number[2])
        elif kind == TokenKind.IDENTIFIER and re.fullmatch(r"GCL_[A-Z_]+", spelling):
            if spelling in ("GCL_OK", "GCL_INVALID_ARGUMENT"):
                add(start, end, "GCL_FAILURE")
            elif not spelling.startswith(
                    ("GCL_REPORT", "GCL_TRACE", "GCL_IS_", "GCL_API", "GCL_C_")):
                add(start, end, "GCL_INVALID_ARGUMENT")

    def droppable(first: str) -> bool:
        return first not in NOT_DROPPED and re.match(r"[A-Za-z_+\-*(:~]", first) is not None

    for start, end in statement_spans(tokens, text, droppable):
        add(start, end, ";")
    return sorted(found, key=lambda change: (change.start, change.end))


def matching(tokens: list, opening: int) -> int:
    """The index of the parenthesis that closes the one at `opening`."""
    depth = 0
    for i in range(opening, len(tokens)):
        depth += {"(": 1, ")": -1}.get(tokens[i][1], 0)
        if depth == 0:
            return i
    raise ValueError("a parenthesis is not closed")


def statement_spans(tokens: list, text: str, wanted) -> list[tuple[int, int]]:
    """Simple statements, from the first token to the semicolon, whose first token is `wanted`."""
    spans = []
    at_start = True
    i = 0
    while i < len(tokens):
        spelling = tokens[i][1]
        if at_start and wanted(spelling):
            depth = 0
            j = i
            while j < len(tokens) and not (tokens[j][1] == ";" and depth == 0):
                depth += {"(": 1, "{": 1, "[": 1, ")": -1, "}": -1, "]": -1}.get(tokens[j][1], 0)
                if depth < 0:
                    break
                j += 1
            if j < len(tokens) and tokens[j][1] == ";":
                body = [token[1] for token in tokens[i:j]]
                # A declaration begins with two names; a call, an assignment or a step does not.
                declares = (len(body) > 1 and body[0] not in ("delete", "throw")
                            and re.match(r"[A-Za-z_]", body[0]) is not None
                            and re.match(r"[A-Za-z_]", body[1]) is not None)
                declares = declares or body[-2:] == ["=", "delete"]
                acts = {"(", "=", "++", "--", "delete", "throw"} & set(body)
                if not declares and acts:
                    spans.append((tokens[i][2], tokens[j][2] + 1))
        at_start = spelling in (";", "{", "}", ":")
        i += 1
    return spans


def read_by(files: list[pathlib.Path]) -> list[pathlib.Path]:
    """The files and those of the tree that they include, with the sources that those stand for."""
    found: dict[pathlib.Path, None] = {}
    waiting = list(files)
    while waiting:
        file = waiting.pop()
        if file in found or not file.is_file():
            continue
        found[file] = None
        for name in re.findall(r'^\s*#\s*include\s*"([^"]+)"', file.read_text(), re.MULTILINE):
            header = ROOT / name
            waiting.append(header)
            # The recording trace framework of the tests is there instead of the stand-alone sink.
            if "Framework/GCL" in name:
                waiting.append(header.with_suffix(".cpp"))
                waiting.append(header.parent / "private" / f"{header.stem}.cpp")
    return sorted(found)


@functools.lru_cache(maxsize=None)
def rests_on(module: str) -> str:
    """A digest of all that the verdicts on a module's changes rest on, but for the change."""
    sources, programs = MODULES[module]
    files = [ROOT / path for path in sources]
    files += [ROOT / "tests" / f"{program}.cpp" for program in programs]
    files += (ROOT / "tests/support").glob("*.cpp")
    build = [ROOT / "CMakeLists.txt", ROOT / "tests/CMakeLists.txt",
             ROOT / "Framework/GCL/testing/CMakeLists.txt", *(ROOT / "cmake").glob("*.cmake")]
    compiler = subprocess.run(["c++", "--version"], check=True, capture_output=True).stdout
    digest = hashlib.sha256(repr((programs, FLAGS, ASAN_OPTIONS, compiler)).encode())
    for file in [*read_by(files), *sorted(build)]:
        digest.update(repr((str(file.relative_to(ROOT)), file.read_bytes())).encode())
    return digest.hexdigest()


@dataclasses.dataclass(frozen=True)
class Verdict:
    """What has become of a change."""

    outcome: str  # killed, late (killed by time-out), survived or refused
    program: str = ""  # which test has noticed it
    case: str = ""

    @property
    def killed(self) -> bool:
        return self.outcome in ("killed", "late")


class Verdicts:
    """The verdicts of this run and of those before, one file for each module, a line for each."""

    def __init__(self, changes: list[Change]) -> None:
        self.folder = WORK / "verdicts"
        self.folder.mkdir(parents=True, exist_ok=True)
        self.names: dict[Change, tuple] = {}  # the nth of changes that read alike
        self.keys: dict[Change, str] = {}
        alike: dict[tuple, int] = {}
        texts = {c.path: (ROOT / c.path).read_text() for c in changes}
        for change in changes:
            nth = alike[change.key()] = alike.get(change.key(), 0) + 1
            self.names[change] = (*change.key(), nth)
            text = (change.path, change.applied(texts[change.path]))
            self.keys[change] = hashlib.sha256(
                repr((text, rests_on(change.module))).encode()).hexdigest()
        self.known: dict[str, Verdict] = {}
        self.last: dict[tuple, Verdict] = {}
        for module in {change.module for change in changes}:
            for entry in self.read(module):
                verdict = Verdict(entry["outcome"], entry["program"], entry["case"])
                self.known[entry["key"]] = verdict
                self.last[tuple(entry["name"])] = verdict
        self.new: set[str] = set()

    def read(self, module: str) -> list[dict]:
        file = self.folder / f"{module}.jsonl"
        return [json.loads(line) for line in file.read_text().splitlines()] if file.exists() else []

    def of(self, change: Change) -> Verdict | None:
        """The verdict that still holds."""
        return self.known.get(self.keys[change])

    def has_survived(self, change: Change) -> bool:
        """Whether it had when it was last judged, with these tests or with others."""
        last = self.last.get(self.names[change])
        return last is not None and last.outcome == "survived"

    def add(self, change: Change, verdict: Verdict) -> None:
        entry = {"key": self.keys[change], "name": self.names[change],
                 **dataclasses.asdict(verdict)}
        self.known[entry["key"]] = verdict
        self.new.add(entry["key"])
        with (self.folder / f"{change.module}.jsonl").open("a") as file:
            file.write(json.dumps(entry) + "\n")

    def drop_new(self, killers: set[tuple[str, str]]) -> int:
        """Forgets those verdicts of this run that rest on one of the test cases; says how many."""
        dropped = 0
        for module in {change.module for change in self.keys}:
            entries = self.read(module)
            kept = [entry for entry in entries if entry["key"] not in self.new or
                    (entry["program"], entry["case"]) not in killers]
            dropped += len(entries) - len(kept)
            text = "".join(json.dumps(entry) + "\n" for entry in kept)
            (self.folder / f"{module}.jsonl").write_text(text)
        return dropped


@dataclasses.dataclass(frozen=True)
class Run:
    """How a test program has ended."""

    outcome: str  # passed, failed or late
    case: str  # that has failed, or in which it was
    seconds: dict[str, float]  # that each passed case took


class Worker:
    """A private copy of the tree, configured and built once."""

    def __init__(self, number: int) -> None:
        self.source = WORK / f"worker-{number}"
        self.build = self.source / "build/mutation"

    def prepare(self, targets: list[str]) -> None:
        """Brings the copy up to date, so that only what has changed is built again."""
        tracked = subprocess.run(
            ["git", "ls-files", "--cached", "--others", "--exclude-standard", "-z"],
            cwd=ROOT, check=True, capture_output=True, text=True).stdout.split("\0")
        for name in filter(None, tracked):
            origin, copy = ROOT / name, self.source / name
            if not origin.is_file():
                continue
            if not copy.exists() or copy.read_bytes() != origin.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(origin, copy)
        subprocess.run(
            ["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja",
             f"-DCMAKE_CXX_FLAGS={FLAGS}", f"-DCMAKE_C_FLAGS={FLAGS}",
             "-DKIVGCL_TEST_FLAGS=-O0",
             # A changed library does not make the test programs be linked again.
             "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"],
            check=True, stdout=subprocess.DEVNULL)
        self.ninja(targets, check=True)

    def ninja(self, targets: list[str], check: bool = False) -> bool:
        """Whether the targets could be built."""
        done = subprocess.run(["ninja", "-C", self.build, *targets], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if check and done.returncode != 0:
            sys.exit(f"the unchanged tree cannot be built:\n{done.stdout}")
        return done.returncode == 0

    def run(self, program: str, usual: dict[str, float] | None = None, only: str = "*") -> Run:
        """Runs a test program, or one of its cases; `usual` is the time that each case needs.

        A case that needs much longer is late, and so is a program that takes longer than all its
        cases may.
        """
        def limit(seconds: float) -> float:
            return 600 if usual is None else 10 + 4 * seconds

        usually = usual or {}
        command = [self.build / "tests" / program, f"--gtest_filter={only}",
                   "--gtest_fail_fast", "--gtest_color=no", "--gtest_catch_exceptions=0"]
        with tempfile.TemporaryFile("w+", errors="replace") as output:
            process = subprocess.Popen(
                command, cwd=self.build / "tests", env=dict(os.environ, ASAN_OPTIONS=ASAN_OPTIONS),
                start_new_session=True, stdout=output, stderr=subprocess.DEVNULL)
            end = os.pidfd_open(process.pid)
            try:
                outcome = ""
                case, since = "", time.monotonic()
                latest = since + limit(sum(usually.values()))
                while not select.select([end], [], [], 0.5)[0]:
                    now = time.monotonic()
                    running = last_case(output)
                    if running != case:
                        case, since = running, now
                    if now > latest or now > since + limit(usually.get(case, 0)):
                        outcome = "late"
                        break
            finally:
                os.close(end)
                try:
                    os.killpg(process.pid, signal.SIGKILL)  # with what it may have started
                except ProcessLookupError:
                    pass
                process.wait()
            if not outcome:
                outcome = "passed" if process.returncode == 0 else "failed"
            text = read_all(output)
            failed = re.search(r"^\[  FAILED  \] ([^\s,]+)", text, re.MULTILINE)
            passed = re.findall(r"^\[       OK \] (\S+) \((\d+) ms\)$", text, re.MULTILINE)
            return Run(outcome, failed.group(1) if failed else last_case(output),
                       {name: int(ms) / 1000 for name, ms in passed})

    def kills(self, program: str, usual: dict[str, float]) -> Verdict | None:
        """The verdict of a test program: none where it passes, or does not fail again."""
        first = self.run(program, usual)
        if first.outcome == "passed":
            return None
        # By itself the case is quick; it may have failed because of those before it, though.
        for only in [first.case or "*", *["*"] * (RUNS - 1)]:
            again = self.run(program, usual, only)
            if again.outcome != "passed":
                late = first.outcome == again.outcome == "late"
                return Verdict("late" if late else "killed", program, first.case)
        print(f"\n{program}: {first.case} has failed once and then no more", flush=True)
        return None

    def judge(self, change: Change, usual: dict[str, dict[str, float]]) -> Verdict:
        """Builds the change and runs its module's tests."""
        file = self.source / change.path
        text = (ROOT / change.path).read_text()
        file.write_text(change.applied(text))
        try:
            programs = MODULES[change.module][1]
            if not self.ninja(["KivGCL", "VorTrace", *programs]):
                return Verdict("refused")
            for program in programs:
                verdict = self.kills(program, usual[program])
                if verdict is not None:
                    return verdict
            return Verdict("survived")
        finally:
            file.write_text(text)


def read_all(file) -> str:
    """What a program has written so far."""
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0).decode(errors="replace")


def last_case(file) -> str:
    """The case that a test program has come to."""
    begun = re.findall(r"^\[ RUN      \] (\S+)", read_all(file), re.MULTILINE)
    return begun[-1] if begun else ""


def read_equivalents() -> dict[tuple[str, str, str], str]:
    """The explained survivors."""
    explained = {}
    for file in sorted(EQUIVALENTS.glob("*.txt")):
        for block in re.split(r"\n\s*\n", file.read_text().strip()):
            lines = block.split("\n")
            if len(lines) < 4 or not lines[1].startswith("- ") or not lines[2].startswith("+ "):
                sys.exit(f"{file}: not file, -, +, reason:\n{block}")
            reason = " ".join(line.strip() for line in lines[3:])
            explained[(lines[0], lines[1][2:], lines[2][2:])] = reason
    return explained


class Workers:
    """Several workers, each used by one thread at a time."""

    def __init__(self, count: int, programs: list[str]) -> None:
        self.targets = ["KivGCL", "VorTrace", *programs]
        if "VorTraceSinkTest" in programs:
            self.targets.append("SinkProbe")
        self.all = [Worker(number) for number in range(count)]
        self.free: queue.Queue[Worker] = queue.Queue()
        for worker in self.all:
            worker.prepare(self.targets)
            self.free.put(worker)

    def each(self, items: list, work: Callable[[Worker, Any], None]) -> None:
        """Does the work for each item, as soon as a worker is free."""

        def one(item: Any) -> None:
            worker = self.free.get()
            try:
                work(worker, item)
            finally:
                self.free.put(worker)

        with concurrent.futures.ThreadPoolExecutor(len(self.all)) as pool:
            for done in concurrent.futures.as_completed([pool.submit(one, i) for i in items]):
                done.result()

    def run_unchanged(self, cases: dict[str, str],
                      times: int = 1) -> tuple[dict[str, dict[str, float]], set[tuple[str, str]]]:
        """The time that each case of these programs needs unchanged, and the cases that fail."""
        seconds: dict[str, dict[str, float]] = {}
        failed: set[tuple[str, str]] = set()

        def one(worker: Worker, program: str) -> None:
            run = worker.run(program, only=cases[program])
            seconds[program] = run.seconds
            if run.outcome != "passed":
                failed.add((program, run.case))

        for worker in self.all:
            worker.ninja(self.targets, check=True)
        self.each(list(cases) * times, one)
        for program, case in sorted(failed):
            print(f"\non the unchanged tree a test fails: {program}: {case}", flush=True)
        return seconds, failed


def judge_all(changes: list[Change], jobs: int, verdicts: Verdicts) -> None:
    """Adds the verdict on each change."""
    programs = sorted({p for change in changes for p in MODULES[change.module][1]})
    workers = Workers(min(jobs, len(changes)), programs)
    usual, failed = workers.run_unchanged(dict.fromkeys(programs, "*"))
    if failed:
        sys.exit(1)
    lock = threading.Lock()
    begun = time.monotonic()
    judged = 0

    def one(worker: Worker, change: Change) -> None:
        nonlocal judged
        verdict = worker.judge(change, usual)
        with lock:
            verdicts.add(change, verdict)
            judged += 1
            if verdict.outcome == "survived":
                print(f"\nsurvived: {change}", flush=True)
            if judged % 100 == 0:
                seconds = time.monotonic() - begun
                print(f"{judged} of {len(changes)} judged in {seconds:.0f} s", flush=True)

    workers.each(changes, one)
    # A test that fails by itself has killed nothing.
    killers: dict[str, set[str]] = {}
    for change in changes:
        verdict = verdicts.known[verdicts.keys[change]]
        if verdict.killed:
            killers.setdefault(verdict.program, set()).add(verdict.case or "*")
    _, failed = workers.run_unchanged({p: ":".join(c) for p, c in killers.items()}, RUNS)
    if failed:
        sys.exit(f"{verdicts.drop_new(failed)} verdicts of this run are void")


def report(verdicts: dict[Change, Verdict], complete: bool) -> bool:
    """Prints the figures of each module; whether all is as it should be."""
    explained = read_equivalents()
    good = True
    modules = sorted({change.module for change in verdicts})
    print(f"\n{'module':18}{'changes':>8}{'killed':>8}{'equal':>7}{'open':>6}{'rate':>8}"
          f"{'refused':>9}")
    for name in [*modules, *(["all"] if len(modules) > 1 else [])]:
        every = [c for c in verdicts if name in (c.module, "all")]
        mine = [c for c in every if verdicts[c].outcome != "refused"]
        killed = [c for c in mine if verdicts[c].killed]
        equal = [c for c in mine if not verdicts[c].killed and c.key() in explained]
        unexplained = len(mine) - len(killed) - len(equal)
        rate = len(killed) / len(mine) if mine else 1.0
        print(f"{name:18}{len(mine):8}{len(killed):8}{len(equal):7}{unexplained:6}{rate:8.1%}"
              f"{len(every) - len(mine):9}")
        good = good and unexplained == 0 and (rate >= WANTED or not complete)
    late = [c for c in verdicts if verdicts[c].outcome == "late"]
    print(f"killed by time-out: {len(late)}")
    for change in late:
        print(f"{change}\n  {verdicts[change].program}: {verdicts[change].case}")
    for change in verdicts:
        if verdicts[change].outcome == "survived" and change.key() not in explained:
            print(f"open: {change}")
    if complete:
        alive = {c.key() for c in verdicts if verdicts[c].outcome == "survived"}
        judged = {c.path for c in verdicts}
        for key in explained:
            if key[0] in judged and key not in alive:
                print(f"explained, but not a survivor: {key[0]}\n- {key[1]}\n+ {key[2]}")
                good = False
    return good


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("modules", nargs="*", metavar="MODULE", help="default: all modules")
    parser.add_argument("--sample", type=int, metavar="N", help="judge N changes chosen at random")
    parser.add_argument("--seed", type=int, help="choose the sample again that had this seed")
    parser.add_argument("--survivors", action="store_true",
                        help="judge only what survived when it was last judged")
    parser.add_argument("--fresh", action="store_true", help="use no verdict of an earlier run")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N")
    parser.add_argument("--list", action="store_true", help="print the changes, judge none")
    arguments = parser.parse_args()
    for module in arguments.modules:
        if module not in MODULES:
            parser.error(f"no module {module} (known: {' '.join(MODULES)})")
    chosen = arguments.modules or list(MODULES)
    changes = [c for m in chosen for path in MODULES[m][0] for c in changes_of(m, path)]
    if arguments.list:
        print(*changes, sep="\n")
        print(f"{len(changes)} changes")
        return 0
    if arguments.sample is not None:
        seed = arguments.seed
        if seed is None:
            seed = random.SystemRandom().randrange(10**6)
        print(f"a sample with --seed={seed}")
        changes = random.Random(seed).sample(changes, min(arguments.sample, len(changes)))

    WORK.mkdir(parents=True, exist_ok=True)
    lock = (WORK / "lock").open("w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        parser.error("another run is at work in build/mutation")
    verdicts = Verdicts(changes)
    if arguments.survivors:
        changes = [c for c in changes if verdicts.has_survived(c)]
    again = arguments.fresh or arguments.survivors
    waiting = [c for c in changes if again or verdicts.of(c) is None]
    print(f"{len(changes)} changes, {len(waiting)} to judge", flush=True)
    if waiting:
        judge_all(waiting, arguments.jobs, verdicts)
    whole = arguments.sample is None and not arguments.survivors
    return 0 if report({c: verdicts.known[verdicts.keys[c]] for c in changes}, whole) else 1


if __name__ == "__main__":
    sys.exit(main())
