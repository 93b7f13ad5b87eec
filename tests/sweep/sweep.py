#!/usr/bin/env python3
"""The failure sweep: each call that a scenario makes of the platform fails in turn.

Each scenario is run once to count the calls of its first round. Then, for each call and for each
error of its manual page, and for each allocation, it is run in a process of its own in which that
call fails, with a second round behind it. The lines that it then says must be those of the run
without a failure, but for the differences on record in outcomes.txt: results, reports with text
and code, what is left over. Nothing may differ in the second round.

An import of the libraries that no scenario fails must stand, with the reason, in never-failed.txt
or in ../abi/not-failed.txt.

With --record the outcomes found are written to outcomes.txt; compare what changes with the headers.
"""

import argparse
import concurrent.futures
import difflib
import errno
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
from typing import NamedTuple

HERE = pathlib.Path(__file__).resolve().parent
OUTCOMES = HERE / "outcomes.txt"
ROUNDS = 2
TIME_LIMIT_S = 30
SINK = "sink"
# A polling loop makes as many calls as there is time for: the first ones stand for all of them.
MOST_CALLS = {"drain": 3, "timer": 8}

SCENARIOS = ["list", "hashTable", "stack", "pool", "fifo0", "fifo1", "fifo2", "server", "client",
             "drain", "framedClient", "timer", "sleep", "sysLog", SINK]

# The errors of the manual pages of section 2 and 3, but for those that only a wrong call gives
# where a right one is made by construction (EFAULT). "-" is the table's usual error.
ERRORS: dict[str, str] = {
    "newScalar": "-", "newArray": "-", "malloc": "ENOMEM", "calloc": "ENOMEM",
    "realloc": "ENOMEM",
    "puts": "EIO EPIPE ENOSPC", "putc": "EIO EPIPE ENOSPC", "putchar": "EIO EPIPE ENOSPC",
    "printf": "EIO EPIPE ENOSPC ENOMEM",
    "snprintf": "ENOMEM EILSEQ EOVERFLOW", "vsnprintf": "ENOMEM EILSEQ EOVERFLOW",
    "sem_init": "EINVAL ENOSYS", "sem_wait": "EINTR EINVAL", "sem_post": "EINVAL EOVERFLOW",
    "pthread_mutex_init": "EAGAIN ENOMEM EPERM",
    "pthread_mutex_lock": "EINVAL EDEADLK EAGAIN EOWNERDEAD",
    "pthread_mutex_unlock": "EINVAL EPERM",
    "pthread_mutex_destroy": "EBUSY EINVAL",
    "pthread_create": "EAGAIN EINVAL EPERM",
    "pthread_getschedparam": "ESRCH", "pthread_setschedparam": "ESRCH EINVAL EPERM",
    "pthread_key_create": "EAGAIN ENOMEM", "pthread_setspecific": "ENOMEM EINVAL",
    "register_atfork": "ENOMEM",
    "sched_get_priority_min": "EINVAL", "sched_get_priority_max": "EINVAL",
    "prctl": "EINVAL EPERM",
    "pthread_cond_timedwait": "EINVAL EPERM ETIMEDOUT",
    "nanosleep": "EINTR EINVAL",
    "getaddrinfo": "EAI_ADDRFAMILY EAI_AGAIN EAI_FAIL EAI_FAMILY EAI_MEMORY EAI_NODATA EAI_NONAME "
                   "EAI_SERVICE EAI_SOCKTYPE EAI_SYSTEM",
    "inet_aton": "-",
    "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT",
    "setsockopt": "EBADF EDOM EINVAL ENOPROTOOPT ENOTSOCK EISCONN ENOMEM",
    "bind": "EACCES EADDRINUSE EBADF EINVAL ENOTSOCK EADDRNOTAVAIL",
    "listen": "EADDRINUSE EBADF ENOTSOCK EOPNOTSUPP",
    "accept": "EAGAIN EBADF ECONNABORTED EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM ENOTSOCK "
              "EOPNOTSUPP EPERM EPROTO",
    "connect": "EACCES EPERM EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EALREADY EBADF "
               "ECONNREFUSED EINPROGRESS EINTR EISCONN ENETUNREACH ENOTSOCK EPROTOTYPE ETIMEDOUT",
    "select": "EBADF EINTR EINVAL ENOMEM",
    "send": "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EINTR EINVAL EISCONN EMSGSIZE "
            "ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE",
    "recv": "EAGAIN EBADF ECONNREFUSED EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK ECONNRESET ETIMEDOUT",
    "read": "EAGAIN EBADF EINTR EINVAL EIO ECONNRESET ETIMEDOUT ENOTCONN",
    "write": "EAGAIN EBADF EDQUOT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE",
    "writev": "EAGAIN EBADF EINTR EINVAL EIO EPIPE ECONNRESET ENOBUFS ENOMEM",
    "open": "EACCES EDQUOT EEXIST EINTR EISDIR ELOOP EMFILE ENAMETOOLONG ENFILE ENOENT ENOMEM "
            "ENOSPC ENOTDIR ENXIO EPERM EROFS ETXTBSY",
    "shutdown": "EBADF EINVAL ENOTCONN ENOTSOCK", "close": "EBADF EINTR EIO ENOSPC EDQUOT",
    "ioctl": "EBADF EINVAL ENOTTY", "fcntl": "EACCES EAGAIN EBADF EINTR EINVAL EMFILE EPERM",
    "secure_getenv": "-", "dlopen": "-", "dladdr": "-", "dlclose": "-",
}

# The table's names of functions that the libraries import by other names.
IMPORTED_AS = {
    "_Znwm": "newScalar", "_Znwj": "newScalar", "_Znam": "newArray", "_Znaj": "newArray",
    "_ZdaPv": "deleteArray", "__register_atfork": "register_atfork", "__gmtime64_r": "gmtime_r",
    "open64": "open", "__open_2": "open", "fcntl64": "fcntl",
}


class Failure(NamedTuple):
    """The n-th call of a function in a scenario, and the error that it is given."""

    scenario: str
    function: str
    nth: int
    error: str


class Run(NamedTuple):
    """What a process said, and the calls and failures that were counted for each function."""

    lines: list[str]
    calls: dict[str, tuple[int, int]]


class Sweep:
    """The programs, and how they are run."""

    def __init__(self, options: argparse.Namespace, folder: pathlib.Path) -> None:
        self.options = options
        self.folder = folder

    def run(self, name: str, scenario: str, rounds: int, faults: str) -> Run:
        """Runs a scenario; `name` tells its files from those of other runs."""
        counts = self.folder / f"{name}.counts"
        output = self.folder / f"{name}.output"
        is_sink = scenario == SINK
        environment = {
            "PATH": os.environ["PATH"],
            "KIVGCL_FAULTS_COUNT": str(counts),
            "KIVGCL_FAULTS_CALLERS": "libVorTrace.so" if is_sink else "libKivGCL.so",
            "VT_OUTPUT": str(output),
            "VT_LEVELS": "KIV.SWEEP=4,KIV.OTHER=3",
        }
        if faults:
            environment["KIVGCL_FAULTS"] = faults
        program = self.options.sink_probe if is_sink else self.options.probe
        command = [program, str(output) if is_sink else scenario, str(rounds)]
        emulator = self.options.emulator.split()
        if emulator:
            command = [*emulator, "-E", f"LD_PRELOAD={self.options.preload}", *command]
        else:
            environment["LD_PRELOAD"] = self.options.preload
        try:
            done = subprocess.run(command, env=environment, capture_output=True, text=True,
                                  errors="replace", timeout=TIME_LIMIT_S, check=False, stdin=subprocess.DEVNULL)
            lines = (done.stdout + done.stderr).splitlines()
            if done.returncode != 0:
                lines.append(f"exit status: {done.returncode}")
        except subprocess.TimeoutExpired:
            lines = ["no end"]
        calls = {}
        if counts.exists():
            for line in counts.read_text().splitlines():
                function, called, failed = line.split()
                calls[function] = (int(called), int(failed))
            counts.unlink()
        output.unlink(missing_ok=True)
        lines = [normalised(line) for line in lines]
        if not is_sink:
            lines.append(f"arrays left: {arrays_left(lines, calls)}")
        return Run(lines, calls)


def arrays_left(lines: list[str], calls: dict[str, tuple[int, int]]) -> int:
    """The arrays that the library has made, less those freed and those handed to the program."""
    made, failed = calls.get("newArray", (0, 0))
    below = sum(calls.get(function, (0, 0))[1] for function in ("newScalar", "malloc"))
    handed = lines.count("create: 0") + lines.count("wait for connection: 0")
    refused = sum("std::bad_alloc" in line for line in lines) if below and made else 0
    return made - failed - refused - calls.get("deleteArray", (0, 0))[0] - handed


def normalised(line: str) -> str:
    """The line without what differs from run to run: times, waits, descriptors, ports."""
    line = re.sub(r"for socket \d+ waited \d+ mS and \d+ times", "for socket N waited N mS and N "
                  "times", line)
    line = re.sub(r"at port '\d+'", "at port 'N'", line)
    # A line of the sink begins with the time, the process and the thread.
    line = re.sub(r"^\d{4}-.*?Z \d+/\d+ ", "", line)
    line = re.sub(r"x{1500}", "<whole>", line)
    line = re.sub(r"x{100,}", "<cut>", line)
    return re.sub(re.escape(tempfile.gettempdir()) + r"/sweep\.[^\"]*", "FILE", line)


def without_error(lines: list[str], error: str) -> list[str]:
    """The lines with the error's number and text replaced, so that all errors look alike."""
    number = getattr(errno, error, None)
    if number is None:
        return lines
    return [line.replace(f"errno: {number})", "errno: <error>)")
            .replace(os.strerror(number), "<text of the error>") for line in lines]


def difference(base: list[str], lines: list[str]) -> tuple[str, ...]:
    """The lines that went away and that came, in their order."""
    delta = [line for line in difflib.ndiff(base, lines) if line[0] in "+-"]
    return tuple(line[0] + line[2:] for line in delta)


def second_round(lines: list[str]) -> list[str]:
    """What was said in the second round, and what is left over behind it."""
    start = lines.index(f"round {ROUNDS}") if f"round {ROUNDS}" in lines else 0
    end = next((i for i, line in enumerate(lines) if line.startswith("threads left")), len(lines))
    # The sink's lines are read back at the end; those of the second round begin with a 2.
    return lines[start:end + 1] + [line for line in lines[end + 1:] if "function: 2 " in line]


def without_own_traces(lines: list[str], base: list[str], function: str) -> list[str]:
    """The lines without what the way of failing leaves behind."""
    kept = []
    for line in lines:
        # A close that is made to fail is not made, while one that fails closes on Linux.
        if function == "close" and line == "descriptors left: 1":
            line = "descriptors left: 0"
        # Less than without a failure is no leak: what was not made needs nothing.
        for without in base:
            if re.match("descriptors left: ", line) and (
                    without.split()[:2] == line.split()[:2]
                    and int(line.split()[2]) < int(without.split()[2])):
                line = without
        kept.append(line)
    return kept


# The outcomes: (scenario, function, nth) -> {difference: errors}
Outcomes = dict[tuple[str, str, int], dict[tuple[str, ...], list[str]]]


def read_outcomes() -> Outcomes:
    """Takes the file apart."""
    outcomes: Outcomes = {}
    key, errors, delta = None, [], []

    def finish() -> None:
        if key is not None:
            outcomes.setdefault(key, {}).setdefault(tuple(delta), []).extend(errors)

    for line in OUTCOMES.read_text().splitlines():
        if line.startswith("    "):
            delta.append(line[4:])
        elif line and not line.startswith("#"):
            finish()
            scenario, function, nth, *errors = line.split()
            key, delta = (scenario, function, int(nth)), []
    finish()
    return outcomes


def write_outcomes(outcomes: Outcomes) -> None:
    """Writes the file, behind the comment that it begins with."""
    head = []
    if OUTCOMES.exists():
        for line in OUTCOMES.read_text().splitlines():
            if not line.startswith("#"):
                break
            head.append(line)
    text = "\n".join(head) + "\n"
    for (scenario, function, nth), by_difference in outcomes.items():
        for delta, errors in by_difference.items():
            named = ["all"] if len(by_difference) == 1 else errors
            text += f"\n{scenario} {function} {nth} {' '.join(named)}\n"
            text += "".join(f"    {line}\n" for line in delta)
    OUTCOMES.write_text(text)


def patterns_of(path: pathlib.Path) -> list[str]:
    """The lines of a list with reasons that are no comments."""
    return [line for line in path.read_text().splitlines() if line and not line.startswith("#")]


def unfailed_imports(options: argparse.Namespace, failed: set[str]) -> list[str]:
    """The imports that no failure has struck and that no list excuses."""
    excuses = patterns_of(HERE / "never-failed.txt") + patterns_of(
        HERE.parent / "abi" / "not-failed.txt")
    names = set()
    for library in options.libraries:
        table = subprocess.run([options.nm, "-D", "--undefined-only", library], check=True,
                               capture_output=True, text=True).stdout
        names |= {line.split()[-1].split("@")[0] for line in table.splitlines()}
    missing = []
    for name in sorted(names):
        plain = re.sub(r"^__(\w+?)(_chk|_time64|64)$", r"\1", name)
        known = IMPORTED_AS.get(name, plain)
        if known not in failed and not any(re.fullmatch(excuse, candidate) for excuse in excuses
                                           for candidate in (name, known, *(
                                               f"{each}:{known}" for each in SCENARIOS))):
            missing.append(name)
    return missing


def has_ipv6() -> bool:
    """Whether a server has a second address to go on to."""
    try:
        with socket.socket(socket.AF_INET6, socket.SOCK_STREAM) as candidate:
            candidate.bind(("::", 0))
    except OSError:
        return False
    return True


def main() -> int:
    """Runs the sweep."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for name in ("--probe", "--sink-probe", "--preload"):
        parser.add_argument(name, required=True)
    parser.add_argument("--nm", default="nm")
    parser.add_argument("--emulator", default="", help="what runs the programs")
    parser.add_argument("--libraries", nargs=2, required=True)
    parser.add_argument("--record", action="store_true")
    parser.add_argument("--scenario", action="append", help="this one only; may be repeated")
    options = parser.parse_args()
    scenarios = options.scenario or SCENARIOS
    if not has_ipv6() and "server" in scenarios:
        print("without IPv6 the scenario server is left out")
        scenarios = [scenario for scenario in scenarios if scenario != "server"]
    complaints: list[str] = []

    with tempfile.TemporaryDirectory(prefix="sweep.") as folder:
        sweep = Sweep(options, pathlib.Path(folder))
        workers = concurrent.futures.ThreadPoolExecutor(os.cpu_count())
        bases = dict(zip(scenarios, workers.map(
            lambda scenario: sweep.run(f"{scenario}.base", scenario, ROUNDS, ""), scenarios)))
        firsts = dict(zip(scenarios, workers.map(
            lambda scenario: sweep.run(f"{scenario}.first", scenario, 1, ""), scenarios)))
        failures = []
        skipped = patterns_of(HERE / "never-failed.txt")
        for scenario in scenarios:
            if "round 2" not in bases[scenario].lines or not firsts[scenario].calls:
                print(f"{scenario} does not run: {bases[scenario].lines}")
                return 1
            for function, (called, _) in firsts[scenario].calls.items():
                if any(re.fullmatch(excuse, name) for excuse in skipped
                       for name in (function, f"{scenario}:{function}")):
                    continue
                if function not in ERRORS:
                    complaints.append(f"{scenario}: no errors are known for {function}")
                    continue
                for nth in range(1, min(called, MOST_CALLS.get(scenario, called)) + 1):
                    failures += [Failure(scenario, function, nth, error)
                                 for error in ERRORS[function].split()]

        def strike(numbered: tuple[int, Failure]) -> Run:
            number, failure = numbered
            error = "" if failure.error == "-" or failure.function in (
                "newScalar", "newArray") else f":{failure.error}"
            return sweep.run(str(number), failure.scenario, ROUNDS,
                             f"{failure.function}:{failure.nth}{error}")

        found: Outcomes = {}
        failed_functions = set()
        for failure, run in zip(failures, workers.map(strike, enumerate(failures))):
            base = bases[failure.scenario].lines
            what = " ".join(map(str, failure))
            if run.calls.get(failure.function, (0, 0))[1] != 1:
                complaints.append(f"{what}: the call was not failed: {run.lines}")
                continue
            failed_functions.add(failure.function)
            lines = without_own_traces(without_error(run.lines, failure.error), base,
                                       failure.function)
            if second_round(lines) != second_round(base):
                complaints.append(f"{what}: the second round differs: "
                                  f"{difference(second_round(base), second_round(lines))}")
            if any(" left: " in line for line in difference(base, lines)):
                complaints.append(f"{what}: left over: {difference(base, lines)}")
            key = (failure.scenario, failure.function, failure.nth)
            found.setdefault(key, {}).setdefault(difference(base, lines), []).append(failure.error)

    if options.record:
        write_outcomes(found)
    documented = read_outcomes()
    for key, by_difference in found.items():
        for delta, errors in by_difference.items():
            promised = documented.get(key, {}).get(delta, [])
            for error in errors:
                if error not in promised and "all" not in promised:
                    complaints.append("\n    ".join((f"{' '.join(map(str, key))} {error}: not the "
                                                     "outcome on record:",) + delta))
    if scenarios == SCENARIOS:
        complaints += [f"{' '.join(map(str, key))}: on record, and never made"
                       for key in documented if key not in found]
        complaints += [f"{name}: imported, and failed by no scenario"
                       for name in unfailed_imports(options, failed_functions)]
    for complaint in complaints:
        print(complaint)
    print(f"{len(failures)} failures of {len(failed_functions)} functions in {len(scenarios)} "
          f"scenarios, {len(complaints)} complaints")
    return 1 if complaints or not failures else 0


if __name__ == "__main__":
    sys.exit(main())
