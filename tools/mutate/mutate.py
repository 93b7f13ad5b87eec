#!/usr/bin/python3
"""Changes the library's sources, one place at a time, and sees whether the tests notice.

A change is one flipped comparison, swapped operator, changed number, negated condition, dropped
statement, exchanged result code or altered text. Each is built, with the address and
undefined-behaviour sanitizers, in a private copy of the tree, and the test programs of its module
are run until one fails: the change is killed. What no test notices has survived. A survivor is
either a gap in the tests or a change that makes no difference; the latter are explained in
tools/mutate/equivalents/MODULE.txt: blocks between empty lines, each the file, the line before (-)
and after (+), and the reason.

The tool fails where a survivor is not explained, where fewer than 95 of 100 changes of a module
are killed, or where an explanation fits no survivor any more.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import dataclasses
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import clang.cindex
from clang.cindex import TokenKind

ROOT = pathlib.Path(__file__).resolve().parents[2]
EQUIVALENTS = ROOT / "tools/mutate/equivalents"
WANTED = 0.95

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


def changes_of(module: str, path: str) -> list[Change]:
    """All changes of one file, in the order of their places."""
    text = (ROOT / path).read_text()
    unit = clang.cindex.Index.create().parse(
        path, args=["-xc++", "-std=c++17", f"-I{ROOT}"], unsaved_files=[(path, text)]
    )
    whole = clang.cindex.SourceRange.from_locations(
        clang.cindex.SourceLocation.from_offset(unit, unit.get_file(path), 0),
        clang.cindex.SourceLocation.from_offset(unit, unit.get_file(path), len(text)),
    )
    tokens = []  # kind, spelling, start
    directives = {i + 1 for i, line in enumerate(text.split("\n")) if line.startswith("#")}
    for token in unit.get_tokens(extent=whole):
        if token.kind != TokenKind.COMMENT and token.location.line not in directives:
            tokens.append((token.kind, token.spelling, token.location.offset))

    found: list[Change] = []

    def add(start: int, end: int, new: str) -> None:
        found.append(make_change(module, path, text, start, end, new))

    quoted_asserts = statement_spans(tokens, text, lambda first: first == "static_assert")
    for i, (kind, spelling, start) in enumerate(tokens):
        end = start + len(spelling)
        if any(low <= start < high for low, high in quoted_asserts):
            continue  # checked by the compiler
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
            elif re.fullmatch(r"0[xX][0-9a-fA-F]+|[0-9]+", spelling):
                octal = re.fullmatch(r"0[0-9]+", spelling) is not None
                value = int(spelling, 8 if octal else 0) + 1
                add(start, end, f"0{value:o}" if octal else str(value))
        elif kind == TokenKind.IDENTIFIER and re.fullmatch(r"GCL_[A-Z_]+", spelling):
            if spelling in ("GCL_OK", "GCL_INVALID_ARGUMENT"):
                add(start, end, "GCL_FAILURE")
            elif not spelling.startswith(("GCL_REPORT", "GCL_TRACE", "GCL_IS_", "GCL_API", "GCL_C_")):
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
                declares = (len(body) > 1 and re.match(r"[A-Za-z_]", body[0]) is not None
                            and re.match(r"[A-Za-z_]", body[1]) is not None)
                acts = {"(", "=", "++", "--", "delete", "throw"} & set(body)
                if not declares and acts:
                    spans.append((tokens[i][2], tokens[j][2] + 1))
        at_start = spelling in (";", "{", "}", ":")
        i += 1
    return spans


class Worker:
    """A private copy of the tree, configured and built once."""

    def __init__(self, number: int) -> None:
        self.source = ROOT / "build/mutation" / f"worker-{number}"
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
        flags = "-O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all"
        subprocess.run(
            ["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja",
             f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_C_FLAGS={flags}",
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

    def passes(self, program: str, limit: float) -> bool:
        """Whether a test program passes within a time, in seconds."""
        environment = dict(os.environ, ASAN_OPTIONS="detect_stack_use_after_return=1")
        run = subprocess.Popen(
            [self.build / "tests" / program, "--gtest_brief=1", "--gtest_fail_fast",
             "--gtest_catch_exceptions=0"],
            cwd=self.build / "tests", env=environment, start_new_session=True,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return run.wait(timeout=limit) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            try:
                os.killpg(run.pid, signal.SIGKILL)  # what it may have started
            except ProcessLookupError:
                pass
            run.wait()

    def judge(self, change: Change, limits: dict[str, float]) -> str:
        """Builds the change and runs its module's tests: killed, survived or refused."""
        file = self.source / change.path
        text = (ROOT / change.path).read_text()
        file.write_text(text[:change.start] + change.replacement + text[change.end:])
        try:
            programs = MODULES[change.module][1]
            if not self.ninja(["KivGCL", "VorTrace", *programs]):
                return "refused"
            return "survived" if all(self.passes(p, limits[p]) for p in programs) else "killed"
        finally:
            file.write_text(text)


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


def measure(worker: Worker, programs: list[str]) -> dict[str, float]:
    """The time that each program gets: several times what it needs unchanged."""
    limits = {}
    for program in programs:
        begun = time.monotonic()
        if not worker.passes(program, 600):
            sys.exit(f"{program} fails on the unchanged tree")
        limits[program] = 10 + 4 * (time.monotonic() - begun)
    return limits


def run(changes: list[Change], jobs: int) -> dict[Change, str]:
    """The verdict on each change."""
    programs = sorted({p for change in changes for p in MODULES[change.module][1]})
    targets = ["KivGCL", "VorTrace", *programs]
    if "VorTraceSinkTest" in programs:
        targets.append("SinkProbe")
    free: queue.Queue[Worker] = queue.Queue()
    for number in range(jobs):
        worker = Worker(number)
        worker.prepare(targets)
        free.put(worker)
    worker = free.get()
    limits = measure(worker, programs)
    free.put(worker)

    verdicts: dict[Change, str] = {}
    lock = threading.Lock()

    def one(change: Change) -> None:
        mine = free.get()
        try:
            verdict = mine.judge(change, limits)
        finally:
            free.put(mine)
        with lock:
            verdicts[change] = verdict
            if verdict == "survived":
                print(f"\nsurvived: {change}", flush=True)
            if len(verdicts) % 100 == 0:
                print(f"{len(verdicts)} of {len(changes)} changes judged", flush=True)

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done in concurrent.futures.as_completed([pool.submit(one, c) for c in changes]):
            done.result()
    return verdicts


def report(verdicts: dict[Change, str], complete: bool) -> bool:
    """Prints the figures of each module; whether all is as it should be."""
    explained = read_equivalents()
    good = True
    print(f"\n{'module':18}{'changes':>8}{'killed':>8}{'equal':>7}{'open':>6}  rate")
    for module in sorted({change.module for change in verdicts}):
        mine = [c for c in verdicts if c.module == module and verdicts[c] != "refused"]
        killed = [c for c in mine if verdicts[c] == "killed"]
        equal = [c for c in mine if verdicts[c] == "survived" and c.key() in explained]
        unexplained = len(mine) - len(killed) - len(equal)
        rate = len(killed) / (len(mine) - len(equal)) if len(mine) > len(equal) else 1.0
        print(f"{module:18}{len(mine):8}{len(killed):8}{len(equal):7}{unexplained:6}  {rate:.1%}")
        good = good and unexplained == 0 and (rate >= WANTED or not complete)
    if complete:
        alive = {c.key() for c in verdicts if verdicts[c] == "survived"}
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
        seed = arguments.seed if arguments.seed is not None else random.SystemRandom().randrange(10**6)
        print(f"a sample with --seed={seed}")
        changes = random.Random(seed).sample(changes, min(arguments.sample, len(changes)))
    verdicts = run(changes, arguments.jobs)
    return 0 if report(verdicts, complete=arguments.sample is None) else 1


if __name__ == "__main__":
    sys.exit(main())
