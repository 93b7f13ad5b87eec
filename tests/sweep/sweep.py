#!/usr/bin/env python3
"""The failure sweep: each call that a scenario makes of the platform fails in turn.

Each scenario is run once to count the calls of its first round. Then, for each call and for each
error of its manual page, and for each allocation, it is run in a process of its own in which that
call fails, with a second round behind it. documented.txt says, from the headers, what must come of
it: the result and the reports of the operation that made the call, and whether the operation has
been done all the same. What follows must be what follows in a run without a failure or, where the
operation has not been done, in a run in which the program leaves it out. In the second round
nothing may differ. No descriptor, no thread and no memory may be left over.

Each entry of documented.txt must be seen at least once. An import of the libraries that no scenario
fails must stand, with the reason, in never-failed.txt or in ../abi/not-failed.txt.
"""

import argparse
import concurrent.futures
import dataclasses
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
ROUNDS = 2
TIME_LIMIT_S = 60
SINKS = ("sink", "sinkPipe")
# Polling and waiting make as many calls as there is time for: these are failed, and on a slow
# machine all but the first may not be made in the first round.
MOST_CALLS = {("drain", "ioctl"): 3, ("drain", "nanosleep"): 3,
              ("sinkPipe", "poll"): 1, ("sinkPipe", "write"): 2,
              ("timerOnce", "pthread_cond_timedwait"): 1,
              ("timerCyclic", "pthread_cond_timedwait"): 2}
# By contract a write whose wait has failed goes on waiting until a wait is interrupted: the next
# one is.
AND_THEN = {("client", "select", 1): "select:2:EINTR"}

SCENARIOS = ["list", "hashTable", "stack", "pool", "fifo0", "fifo1", "fifo2", "server", "client",
             "drain", "framedClient", "timerOnce", "timerCyclic", "sleep", "sysLog", *SINKS]

# The errors of the manual pages of section 2 and 3, but for those that only a wrong call gives
# where a right one is made by construction (EFAULT). "-" is the table's usual error.
ERRORS: dict[str, str] = {
    "newScalar": "-", "newArray": "-", "malloc": "ENOMEM", "calloc": "ENOMEM",
    "realloc": "ENOMEM",
    **dict.fromkeys(("puts", "putc", "putchar", "printf"),
                    "EAGAIN EBADF EFBIG EINTR EIO ENOMEM ENOSPC ENXIO EPIPE"),
    "snprintf": "ENOMEM EILSEQ EOVERFLOW", "vsnprintf": "ENOMEM EILSEQ EOVERFLOW",
    "sem_init": "EINVAL ENOSYS ENOSPC EPERM", "sem_wait": "EINTR EINVAL EDEADLK",
    "sem_post": "EINVAL EOVERFLOW",
    "pthread_mutex_init": "EAGAIN ENOMEM EPERM EINVAL",
    "pthread_mutex_lock": "EINVAL EDEADLK EAGAIN EOWNERDEAD ENOTRECOVERABLE",
    "pthread_mutex_unlock": "EINVAL EPERM",
    "pthread_mutex_destroy": "EBUSY EINVAL",
    "pthread_create": "EAGAIN EINVAL EPERM",
    "pthread_getschedparam": "ESRCH", "pthread_setschedparam": "ESRCH EINVAL EPERM ENOTSUP",
    "pthread_setcancelstate": "EINVAL",
    "pthread_key_create": "EAGAIN ENOMEM", "pthread_setspecific": "ENOMEM EINVAL",
    "register_atfork": "ENOMEM",
    "sched_get_priority_min": "EINVAL", "sched_get_priority_max": "EINVAL",
    "prctl": "EINVAL EPERM",
    "pthread_cond_timedwait": "EINVAL EPERM ETIMEDOUT EINTR",
    "nanosleep": "EINTR EINVAL",
    "getaddrinfo": "EAI_ADDRFAMILY EAI_AGAIN EAI_BADFLAGS EAI_FAIL EAI_FAMILY EAI_MEMORY "
                   "EAI_NODATA EAI_NONAME EAI_SERVICE EAI_SOCKTYPE EAI_SYSTEM",
    "inet_aton": "-",
    "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT",
    "setsockopt": "EBADF EDOM EINVAL ENOPROTOOPT ENOTSOCK EISCONN ENOMEM ENOBUFS",
    "bind": "EACCES EADDRINUSE EBADF EINVAL ENOTSOCK EADDRNOTAVAIL",
    "listen": "EADDRINUSE EBADF ENOTSOCK EOPNOTSUPP",
    "accept": "EAGAIN EBADF ECONNABORTED EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM ENOTSOCK "
              "EOPNOTSUPP EPERM EPROTO ENOSR ESOCKTNOSUPPORT EPROTONOSUPPORT ETIMEDOUT ENETDOWN "
              "ENOPROTOOPT EHOSTDOWN ENONET EHOSTUNREACH ENETUNREACH",
    "connect": "EACCES EPERM EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EALREADY EBADF "
               "ECONNREFUSED EINPROGRESS EINTR EISCONN ENETUNREACH ENOTSOCK EPROTOTYPE ETIMEDOUT "
               "EHOSTUNREACH",
    "select": "EBADF EINTR EINVAL ENOMEM",
    "send": "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EINTR EINVAL EISCONN EMSGSIZE "
            "ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE",
    "recv": "EAGAIN EBADF ECONNREFUSED EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK ECONNRESET ETIMEDOUT",
    "read": "EAGAIN EBADF EINTR EINVAL EIO EISDIR ECONNRESET ETIMEDOUT ENOTCONN ECONNREFUSED",
    "write": "EAGAIN EBADF EDESTADDRREQ EDQUOT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE",
    "writev": "EAGAIN EBADF EDESTADDRREQ EDQUOT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE "
              "ECONNRESET ENOBUFS ENOMEM ENOTCONN",
    "open": "EACCES EAGAIN EBUSY EDQUOT EEXIST EFBIG EINTR EINVAL EISDIR ELOOP EMFILE ENAMETOOLONG "
            "ENFILE ENODEV ENOENT ENOMEM ENOSPC ENOTDIR ENXIO EOPNOTSUPP EOVERFLOW EPERM EROFS "
            "ETXTBSY",
    "shutdown": "EBADF EINVAL ENOTCONN ENOTSOCK", "close": "EBADF EINTR EIO ENOSPC EDQUOT",
    "ioctl": "EBADF EINVAL ENOTTY", "fcntl": "EACCES EAGAIN EBADF EINTR EINVAL EMFILE EPERM",
    "poll": "EINTR EINVAL ENOMEM",
    # Not EAGAIN, by which it says that no signal waits, nor EINVAL: one does, the time is valid.
    "sigtimedwait": "EINTR",
    "secure_getenv": "-", "dlopen": "-", "dladdr": "-", "dlclose": "-",
}
# What an entry of documented.txt for "allocation" holds for.
ALLOCATIONS = ("newScalar", "newArray", "malloc", "calloc", "realloc")

# The table's names of functions that the libraries import by other names.
IMPORTED_AS = {
    "_Znwm": "newScalar", "_Znwj": "newScalar", "_Znam": "newArray", "_Znaj": "newArray",
    "_ZdaPv": "deleteArray", "__register_atfork": "register_atfork",
    "_IO_putc": "putc",
    "open64": "open", "__open_2": "open", "fcntl64": "fcntl",
}


class Failure(NamedTuple):
    """The n-th call of a function in a scenario, and the error that it is given."""

    scenario: str
    function: str
    nth: int
    error: str


@dataclasses.dataclass
class Step:
    """A step of a scenario: its result, its reports, and which of its calls was failed, if any."""

    name: str
    result: str
    reports: list[str] = dataclasses.field(default_factory=list)
    struck: str = ""

    def text(self) -> str:
        return "\n    ".join([f"{self.name}: {self.result}", *self.reports])


class Run(NamedTuple):
    """What a process did, the calls and failures of each function, and what it left over."""

    rounds: list[list[Step]]
    left: list[str]
    calls: dict[str, tuple[int, int]]
    whole: list[str]


class Sweep:
    """The programs, and how they are run."""

    def __init__(self, options: argparse.Namespace, folder: pathlib.Path) -> None:
        self.options = options
        self.folder = folder

    def run(self, name: str, scenario: str, rounds: int, faults: str = "",
            left_out: int = 0, setting: str = "") -> Run:
        """Runs a scenario; `name` tells its files from those of other runs."""
        counts = self.folder / f"{name}.counts"
        output = self.folder / f"{name}.output"
        is_sink = scenario in SINKS
        environment = {
            "PATH": os.environ["PATH"],
            "KIVGCL_FAULTS_COUNT": str(counts),
            "KIVGCL_FAULTS_CALLERS": "libVorTrace.so" if is_sink else "libKivGCL.so",
            "VT_OUTPUT": str(output),
            "VT_LEVELS": "KIV.SWEEP=4,KIV.OTHER=3",
        }
        if faults:
            environment["KIVGCL_FAULTS"] = faults
        if setting:
            variable, _, value = setting.partition("=")
            environment[variable] = value
        program = self.options.sink_probe if is_sink else self.options.probe
        if scenario == "sinkPipe":
            os.mkfifo(output)
        command = [program, str(output) if is_sink else scenario, str(rounds), str(left_out)]
        emulator = self.options.emulator.split()
        if emulator:
            command = [*emulator, "-E", f"LD_PRELOAD={self.options.preload}", *command]
        else:
            environment["LD_PRELOAD"] = self.options.preload
        try:
            done = subprocess.run(command, env=environment, capture_output=True, text=True,
                                  errors="replace", timeout=TIME_LIMIT_S, check=False,
                                  stdin=subprocess.DEVNULL)
            lines = done.stdout.splitlines()
            if done.returncode != 0:
                lines += [*done.stderr.splitlines(), f"exit status: {done.returncode}"]
        except subprocess.TimeoutExpired:
            lines = ["no end"]
        calls = {}
        if counts.exists():
            for line in counts.read_text().splitlines():
                function, called, failed = line.split()
                calls[function] = (int(called), int(failed))
            counts.unlink()
        output.unlink(missing_ok=True)
        lines.append(f"blocks of memory left: {calls.pop('unfreed', ('unknown',))[0]}")
        return parsed([normalised(line) for line in lines], calls)


def parsed(lines: list[str], calls: dict[str, tuple[int, int]]) -> Run:
    """Takes the lines of a process apart."""
    rounds: list[list[Step]] = []
    left = []
    ended = False
    for line in lines:
        if re.fullmatch(r"round \d+", line):
            rounds.append([])
        elif line == "end":
            ended = True
        elif ended or not rounds:
            left.append(line)
        elif line.startswith("  struck: "):
            rounds[-1][-1].struck = line.split()[1]
        elif line.startswith("  ") and rounds[-1]:
            # A queue that empties slowly is said to be at several lengths.
            reports = rounds[-1][-1].reports
            if not (line.endswith("Bytes left: N      code: 0x840") and line[2:] in reports):
                reports.append(line[2:])
        else:
            name, _, result = line.partition(": ")
            rounds[-1].append(Step(name, result))
    return Run(rounds, left, calls, lines)


def normalised(line: str) -> str:
    """The line without what differs from run to run: times, waits, descriptors, ports."""
    line = re.sub(r"for socket \d+ waited \d+ mS and \d+ times", "for socket N waited N mS and N "
                  "times", line)
    line = re.sub(r"Bytes left: [1-9]\d*", "Bytes left: N", line)
    line = re.sub(r"completed, \d+ waits, \d+ mS. Closing socket \d+",
                  "completed, N waits, N mS. Closing socket N", line)
    line = re.sub(r"at port '\d+'", "at port 'N'", line)
    # A line of the sink begins with the time, the process and the thread.
    line = re.sub(r"^  (stderr: |)\d{4}-.*?Z \d+/\d+ ", r"  \1", line)
    line = re.sub(r"x{1500}", "<whole>", line)
    line = re.sub(r"x{100,}", "<cut>", line)
    line = re.sub(r"sweep\[\d+\]", "sweep[N]", line)
    line = re.sub(re.escape(tempfile.gettempdir()) + r"/sweep\.[^\"]*", "FILE", line)
    return line.rstrip()


def without_error(step: Step, error: str) -> Step:
    """The step with the error's number and text replaced, so that all errors look alike."""
    number = getattr(errno, error, None)
    if number is None:
        return step
    return dataclasses.replace(step, reports=[
        line.replace(f"errno: {number})", "errno: <error>)")
        .replace(os.strerror(number), "<text of the error>") for line in step.reports])


@dataclasses.dataclass
class Entry:
    """What documented.txt says of a failure: see there."""

    place: int
    scenario: re.Pattern[str]
    step: re.Pattern[str]
    function: re.Pattern[str]
    calls: re.Pattern[str]
    errors: re.Pattern[str]
    effect: str
    may: bool
    result: str | None = None
    gone: list[str] = dataclasses.field(default_factory=list)
    come: list[str] = dataclasses.field(default_factory=list)
    later: list[str] = dataclasses.field(default_factory=list)
    never: list[str] = dataclasses.field(default_factory=list)
    seen: bool = False

    def is_about(self, failure: Failure, step: str, call: str) -> bool:
        names = [failure.function]
        if failure.function in ALLOCATIONS:
            names.append("allocation")
        return bool(self.scenario.fullmatch(failure.scenario) and self.step.fullmatch(step)
                    and any(self.function.fullmatch(name) for name in names)
                    and self.calls.fullmatch(call) and self.errors.fullmatch(failure.error))

    def fits(self, usual: Step, step: Step) -> bool:
        """Whether the step went as the entry says; `usual` is the step without a failure."""
        if self.result is not None:
            return bool(re.fullmatch(self.result, step.result)) and step.reports == self.come
        reports = [line for line in usual.reports if line not in self.gone]
        return step.result == usual.result and without(step.reports, self.come) == reports


def without(lines: list[str], additions: list[str]) -> list[str] | None:
    """The lines less the additions, which must be among them in their order."""
    rest = []
    left = list(additions)
    for line in lines:
        if left and line == left[0]:
            left.pop(0)
        else:
            rest.append(line)
    return None if left else rest


def read_entries() -> list[Entry]:
    """Takes documented.txt apart."""
    entries: list[Entry] = []
    for number, line in enumerate((HERE / "documented.txt").read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if not line.startswith("    "):
            what, _, effect = line.partition(": ")
            patterns = [re.compile(".*" if word == "*" else word) for word in what.split()]
            words = effect.split()
            if len(patterns) != 5 or not re.fullmatch(
                    r"done|undone|as:\w+=\S*", words[0]) or words[1:] not in (
                    [], ["may"]):
                raise SystemExit(f"documented.txt:{number}: {line}")
            entries.append(Entry(number, *patterns, words[0], words[1:] == ["may"]))
        else:
            mark, text = line[4], line[6:]
            entry = entries[-1]
            if mark == "=":
                entry.result = text
            else:
                {"+": entry.come, "-": entry.gone, ">": entry.later,
                 "<": entry.never}[mark].append(text)
    return entries


def later_texts(steps: list[Step]) -> list[str]:
    """The steps as lines."""
    return [line for step in steps for line in (f"{step.name}: {step.result}", *step.reports)]


class Judge:
    """Holds what is documented against what came of a failure."""

    def __init__(self, sweep: Sweep, bases: dict[str, Run],
                 left_out: dict[tuple[str, int], Run]) -> None:
        self.sweep = sweep
        self.bases = bases
        self.left_out = left_out
        self.others: dict[tuple[str, str], Run] = {}
        self.entries = read_entries()

    def usual(self, scenario: str, entry: Entry | None = None) -> Run:
        """The run without a failure, in the environment that the entry names."""
        if entry is None or not entry.effect.startswith("as:"):
            return self.bases[scenario]
        key = scenario, entry.effect
        if key not in self.others:
            self.others[key] = self.sweep.run("other", scenario, ROUNDS,
                                              setting=entry.effect.removeprefix("as:"))
        return self.others[key]

    def complaints(self, failure: Failure, run: Run) -> list[str]:
        """What is not as it must be."""
        if len(run.rounds) != ROUNDS:
            return [f"it ended early: {run.whole}"]
        steps = [without_error(step, failure.error) for step in run.rounds[0]]
        place = next((i for i, step in enumerate(steps) if step.struck), len(steps))
        # A thread of the library's own may make calls between two steps.
        struck = steps[place] if place < len(steps) else Step("between", "", [], "0")
        entries = [entry for entry in self.entries
                   if entry.is_about(failure, struck.name, struck.struck)]
        reasons = [f"nothing is documented; call {struck.struck} of\n    {struck.text()}"]
        for entry in entries:
            reason = (self.misfit(entry, failure, steps, place)
                      or self.second_misfit(entry, failure, run))
            if not reason:
                entry.seen = True
                reasons = []
                break
            if len(reasons) == 1 and reasons[0].startswith("nothing"):
                reasons = []
            reasons.append(f"not as documented.txt:{entry.place} says: {reason}")
        return reasons + self.left_over(failure, run)

    def second_misfit(self, entry: Entry, failure: Failure, run: Run) -> str:
        second = later_texts(run.rounds[1])
        usual = later_texts(self.usual(failure.scenario, entry).rounds[1])
        return "" if second == usual else f"in the second round came\n    {second}"

    def left_over(self, failure: Failure, run: Run) -> list[str]:
        base = self.bases[failure.scenario]
        found = []
        for usual, line in zip(base.left, run.left):
            what, _, number = line.rpartition(": ")
            usual_number = usual.rpartition(": ")[2]
            # A close that is made to fail is not made, while one that fails closes on Linux.
            own = failure.function == "close" and what == "descriptors left"
            if not number.isdigit() or (
                    int(number) != 1 if own else int(number) > int(usual_number)):
                found.append(f"{line}; without a failure {usual_number}")
        if len(run.left) != len(base.left):
            found.append(f"left over: {run.left}")
        return found

    def misfit(self, entry: Entry, failure: Failure, steps: list[Step], place: int) -> str:
        """What is not as the entry says, in the round of the failure."""
        base = self.bases[failure.scenario].rounds[0]
        if later_texts(steps[:place]) != later_texts(base[:place]):
            return f"before it\n    {later_texts(steps[:place])}"
        reference = self.usual(failure.scenario, entry).rounds[0]
        if place < len(steps) and not (reference[place].name == steps[place].name and
                                       entry.fits(reference[place], steps[place])):
            return f"call {steps[place].struck} of\n    {steps[place].text()}"
        if entry.effect == "undone":
            reference = self.left_out[failure.scenario, place + 1].rounds[0]
        later = later_texts(steps[place + 1:])
        wanted = without(later_texts(reference[place + 1:]), entry.never)
        if wanted is None or without(later, entry.later) != wanted:
            return f"then came\n    {later}\n  instead of\n    {wanted}"
        return ""


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
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--scenario", action="append", help="this one only; may be repeated")
    options = parser.parse_args()
    scenarios = options.scenario or list(SCENARIOS)
    if not has_ipv6() and "server" in scenarios:
        print("without IPv6 the scenario server is left out")
        scenarios = [scenario for scenario in scenarios if scenario != "server"]
    complaints: list[str] = []

    with tempfile.TemporaryDirectory(prefix="sweep.") as folder:
        sweep = Sweep(options, pathlib.Path(folder))
        workers = concurrent.futures.ThreadPoolExecutor(options.jobs)
        bases = dict(zip(scenarios, workers.map(
            lambda scenario: sweep.run(f"{scenario}.base", scenario, ROUNDS), scenarios)))
        firsts = dict(zip(scenarios, workers.map(
            lambda scenario: sweep.run(f"{scenario}.first", scenario, 1), scenarios)))
        for scenario, base in bases.items():
            if len(base.rounds) != ROUNDS or not firsts[scenario].calls:
                print(f"{scenario} does not run: {base.whole}")
                return 1
            # The sink keeps its levels and its file to the end of the process.
            if scenario not in SINKS and any(not line.endswith(": 0") for line in base.left):
                complaints.append(f"{scenario}: left over without a failure: {base.left}")
        places = [(scenario, place) for scenario, base in bases.items()
                  for place in range(1, len(base.rounds[0]) + 1)]
        left_out = dict(zip(places, workers.map(
            lambda place: sweep.run(f"{place[0]}.without{place[1]}", place[0], 1, "", place[1]),
            places)))
        failures = []
        skipped = patterns_of(HERE / "never-failed.txt")
        for scenario in scenarios:
            for function, (called, _) in firsts[scenario].calls.items():
                if any(re.fullmatch(excuse, name) for excuse in skipped
                       for name in (function, f"{scenario}:{function}")):
                    continue
                if function not in ERRORS:
                    complaints.append(f"{scenario}: no errors are known for {function}")
                    continue
                most = MOST_CALLS.get((scenario, function), called)
                failures += [Failure(scenario, function, nth, error)
                             for nth in range(1, min(called, most) + 1)
                             for error in ERRORS[function].split()]

        def strike(numbered: tuple[int, Failure]) -> Run:
            number, failure = numbered
            error = "" if failure.error == "-" else f":{failure.error}"
            faults = f"{failure.function}:{failure.nth}{error}"
            further = AND_THEN.get(failure[:3])
            if further and failure.error != "EINTR":
                faults += f",{further}"
            return sweep.run(str(number), failure.scenario, ROUNDS, faults)

        judge = Judge(sweep, bases, left_out)
        failed_functions = set()
        for failure, run in zip(failures, workers.map(strike, enumerate(failures))):
            what = " ".join(map(str, failure))
            if run.calls.get(failure.function, (0, 0))[1] == 0:
                complaints.append(f"{what}: the call was not failed: {run.whole}")
                continue
            failed_functions.add(failure.function)
            if failure[:2] in MOST_CALLS and failure.nth > 1 and any(
                    step.struck for steps in run.rounds[1:] for step in steps):
                continue
            complaints += [f"{what}: {complaint}" for complaint in judge.complaints(failure, run)]

    if scenarios == SCENARIOS:
        complaints += [f"documented.txt:{entry.place}: this was never seen"
                       for entry in judge.entries if not entry.seen and not entry.may]
        complaints += [f"{name}: imported, and failed by no scenario"
                       for name in unfailed_imports(options, failed_functions)]
    for complaint in complaints:
        print(complaint)
    print(f"{len(failures)} failures of {len(failed_functions)} functions in {len(scenarios)} "
          f"scenarios, {len(complaints)} complaints")
    return 1 if complaints or not failures else 0


if __name__ == "__main__":
    sys.exit(main())
