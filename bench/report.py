#!/usr/bin/python3
"""Writes the page on performance from what the bench programs measured.

The results are the JSON files of the bench programs, one a module. The page is a template in which
these lines, alone on theirs, are replaced:

    @machine                  what was measured, on what, and when
    @verdict                  how many targets were met, and which were missed
    @table                    a table of the operations named on the lines that follow, up to @end,
                              and what they miss
    @sides                    the same, with every side and what ours takes of its time
    @plot FILE | OPERATION | AXIS | FIXED | CAPTION
                              a plot of an operation's cost against an axis of its setting; FIXED
                              gives the other axes a value each ("load=1, key=16"), or is empty
    @footprint                the sizes of the libraries

Below an operation in a @table may stand why its targets are missed, if they are:

    OPERATION
      why SIDE; SIDE... | AXIS VALUE, AXIS VALUE...
        text

The setting may be left out. In the text {SIDE/SIDE} stands for a ratio and {SIDE} for a time, both of
the case that misses. A miss without such a reason is printed as one, and named on standard error.

Every operation that was measured must stand in a table, and every one that stands there must have
been measured, on both sides.
"""

from __future__ import annotations

import argparse
import glob
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass, field

PEER_PACKAGES = (
    "libace-dev",
    "libapr1",
    "libaprutil1",
    "libboost-dev",
    "libc6",
    "libglib2.0-0",
    "libnng1",
    "libspdlog-dev",
    "libstdc++6",
    "libuv1",
    "libzmq5",
    "uthash-dev",
)
PEER_LIBRARIES = (
    "libglib-2.0.so.0",
    "libapr-1.so.0",
    "libaprutil-1.so.0",
    "libACE-7.0.8.so",
    "libnng.so.1",
    "libspdlog.so.1.10",
    "libuv.so.1",
    "libzmq.so.5",
)

NAME = re.compile(
    r"(?P<operation>[^/@]+)(?P<setting>(?:/[^/:@]+:[-+.e0-9]+)*)@(?P<side>.+?)"
    r"(?:/(?:iterations|repeats|threads|min_time|min_warmup_time):[.0-9]+"
    r"|/real_time|/manual_time|/process_time)*"
)


NO_REASON = "**No reason is known.**"
PLACEHOLDER = re.compile(r"\{([^{}/]+)(?:/([^{}/]+))?\}")


class Incomplete(Exception):
    """The results and the template do not fit each other."""


@dataclass
class Side:
    """What one side of a case took, in seconds an operation."""

    samples: list[float] = field(default_factory=list)
    why_shown: str = ""

    @property
    def median(self) -> float:
        return statistics.median(self.samples)

    @property
    def spread(self) -> float:
        """Half the range of the middle half of the samples, as a part of the median."""
        if len(self.samples) < 4:
            return 0.0
        quartiles = statistics.quantiles(self.samples, n=4)
        return (quartiles[2] - quartiles[0]) / 2 / self.median


@dataclass
class Case:
    """One operation at one setting."""

    operation: str
    setting: dict[str, float]
    sides: dict[str, Side] = field(default_factory=dict)

    @property
    def title(self) -> str:
        return f"{self.operation}, {self.place}" if self.place else self.operation

    def best_peer(self) -> str | None:
        peers = [
            name
            for name, side in self.sides.items()
            if name not in ("ours", "floor") and not side.why_shown
        ]
        return min(peers, key=lambda name: self.sides[name].median, default=None)

    @property
    def place(self) -> str:
        return ", ".join(f"{axis} {value:g}" for axis, value in self.setting.items())

    def ratio(self, other: str, one: str = "ours") -> float:
        return round(self.sides[one].median / self.sides[other].median, 2)


@dataclass(frozen=True)
class Miss:
    """A target that a case misses."""

    side: str
    ratio: float
    target: float

    def __str__(self) -> str:
        name = "the floor" if self.side == "floor" else self.side
        return f"{self.ratio:.2f} of {name}, target {self.target:.2f}"


@dataclass
class Reason:
    """Why an operation misses targets, at some of its settings or at all of them."""

    operation: str
    sides: list[str]
    setting: dict[str, float]
    text: str = ""

    def fits(self, case: Case, side: str) -> bool:
        same = all(case.setting.get(axis) == value for axis, value in self.setting.items())
        return case.operation == self.operation and side in self.sides and same

    def of(self, case: Case) -> str:
        """The text with the figures of a case."""

        def figure(match: re.Match[str]) -> str:
            for side in match.groups():
                if side is not None and side not in case.sides:
                    raise Incomplete(f"{case.title}: the reason names {side}, not measured")
            if match[2] is None:
                return time_text(case.sides[match[1]].median)
            return f"{case.ratio(match[2], match[1]):.2f}"

        return PLACEHOLDER.sub(figure, self.text)


class Results:
    """All that was measured."""

    def __init__(self, directory: str) -> None:
        self.cases: dict[tuple[str, tuple[tuple[str, float], ...]], Case] = {}
        self.targets: dict[str, tuple[float, float]] = {}
        self.peer_targets: dict[tuple[str, str], float] = {}
        self.dates: list[str] = []
        self.loads: list[float] = []
        self.repetitions = 0
        paths = sorted(glob.glob(os.path.join(directory, "*.json")))
        if not paths:
            raise Incomplete(f"no results in {directory}")
        for path in paths:
            with open(path, encoding="utf-8") as file:
                self._add(json.load(file), path)
        for case in self.cases.values():
            for side in ("ours", "floor"):
                if side not in case.sides:
                    raise Incomplete(f"{case.title}: {side} was not measured")

    def _add(self, run: dict, path: str) -> None:
        context = run["context"]
        self.dates.append(context["date"][:10])
        self.loads.append(context["load_avg"][0] if context["load_avg"] else 0.0)
        for key, value in context.items():
            if key.startswith("targets:"):
                of_floor, of_peer = value.split()
                self.targets[key[len("targets:") :]] = (float(of_floor), float(of_peer))
            elif key.startswith("target:"):
                operation, _, peer = key[len("target:") :].partition("@")
                self.peer_targets[operation, peer] = float(value)
        for sample in run["benchmarks"]:
            if sample["run_type"] != "iteration":
                continue
            match = NAME.fullmatch(sample["name"])
            if match is None:
                raise Incomplete(f"{path}: the name {sample['name']} says no side")
            if sample.get("error_occurred"):
                raise Incomplete(f"{sample['name']}: {sample['error_message']}")
            self.repetitions = max(self.repetitions, sample["repetitions"])
            setting = {}
            for pair in match["setting"].split("/")[1:]:
                axis, value = pair.split(":")
                setting[axis] = float(value)
            key = (match["operation"], tuple(setting.items()))
            case = self.cases.setdefault(key, Case(match["operation"], setting))
            side = case.sides.setdefault(match["side"], Side())
            side.samples.append(sample["operation"])
            side.why_shown = sample.get("label", "")

    def of(self, operation: str) -> list[Case]:
        cases = [case for case in self.cases.values() if case.operation == operation]
        cases.sort(key=lambda case: list(case.setting.values()))
        if not cases:
            raise Incomplete(f"{operation} was not measured")
        return cases

    def target_of(self, case: Case, peer: str) -> float:
        """What ours may take of the peer's time; 0 for no target."""
        own = self.peer_targets.get((case.operation, peer), 0.0)
        if own or peer != case.best_peer():
            return own
        return self.targets[case.operation][1]

    def judged(self, case: Case) -> bool:
        of_floor = self.targets[case.operation][0]
        return bool(of_floor) or any(self.target_of(case, side) for side in case.sides)

    def misses(self, case: Case) -> list[Miss]:
        """The targets that the case misses."""
        targets = {"floor": self.targets[case.operation][0]}
        targets |= {side: self.target_of(case, side) for side in case.sides if side != "floor"}
        return [
            Miss(side, case.ratio(side), target)
            for side, target in targets.items()
            if target and case.ratio(side) > target
        ]

    def reason(self, reasons: list[Reason], case: Case, side: str) -> str:
        """Why a case misses its target on a side; empty if nobody knows."""
        return next((reason.of(case) for reason in reasons if reason.fits(case, side)), "")

    def check(self, reasons: list[Reason]) -> None:
        """Each reason must be one for something that was measured, and its figures must exist."""
        operations = {case.operation for case in self.cases.values()}
        for reason in reasons:
            if not reason.text:
                raise Incomplete(f"{reason.operation}: a reason without a text")
            if reason.operation not in operations:
                continue
            for side in reason.sides:
                fitting = [case for case in self.of(reason.operation) if reason.fits(case, side)]
                fitting = [case for case in fitting if side in case.sides]
                if not fitting:
                    raise Incomplete(f"{reason.operation}: a reason for {side}, which fits no case")
                for case in fitting:
                    reason.of(case)


def time_text(seconds: float) -> str:
    for unit, scale in (("ns", 1e-9), ("µs", 1e-6), ("ms", 1e-3)):
        if seconds < 1000 * scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds:.3g} s"


def output_of(*command: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def missed(results: Results, operations: list[str], reasons: list[Reason]) -> list[str]:
    """What the operations miss, and why; what they miss for the same reason stands together."""
    whys: dict[tuple[str, str], list[str]] = {}
    for operation in operations:
        for case in results.of(operation):
            for miss in results.misses(case):
                why = results.reason(reasons, case, miss.side) or NO_REASON
                text = f"{case.place}: {miss}" if case.place else str(miss)
                whys.setdefault((operation, why), []).append(text)
    if not whys:
        return []
    lines = ["", "Missed:", ""]
    lines += [f"- `{name}`: {'; '.join(texts)}. {why}" for (name, why), texts in whys.items()]
    return lines


def table(results: Results, operations: list[str]) -> list[str]:
    lines = [
        "| operation | setting | ours | floor | ratio | target | best peer | ratio | target | |",
        "|---|---|--:|--:|--:|--:|---|--:|--:|---|",
    ]
    for operation in operations:
        for case in results.of(operation):
            of_floor = results.targets[operation][0]
            ours = case.sides["ours"]
            cells = [
                f"`{operation}`",
                case.place,
                f"{time_text(ours.median)} ±{ours.spread:.0%}",
                time_text(case.sides["floor"].median),
                f"{case.ratio('floor'):.2f}",
                f"{of_floor:.2f}" if of_floor else "",
            ]
            peer = case.best_peer()
            if peer is None:
                cells += ["", "", ""]
            else:
                of_peer = results.target_of(case, peer)
                cells += [
                    f"{peer} {time_text(case.sides[peer].median)}",
                    f"{case.ratio(peer):.2f}",
                    f"{of_peer:.2f}" if of_peer else "",
                ]
            judged = results.judged(case)
            cells.append(("**missed**" if results.misses(case) else "met") if judged else "")
            lines.append("| " + " | ".join(cells) + " |")
    shown = {
        (name, side.why_shown)
        for operation in operations
        for case in results.of(operation)
        for name, side in case.sides.items()
        if side.why_shown
    }
    if shown:
        named = "; ".join(f"{name} ({why})" for name, why in sorted(shown))
        lines += ["", f"Measured as well, but not a peer in the table: {named}."]
    return lines


def sides(results: Results, operations: list[str]) -> list[str]:
    lines = [
        "| operation | setting | side | time | ours takes | target | |",
        "|---|---|---|--:|--:|--:|---|",
    ]
    for operation in operations:
        for case in results.of(operation):
            where = [f"`{operation}`", case.place]
            for name, side in sorted(case.sides.items(), key=lambda item: item[1].median):
                target = results.target_of(case, name)
                if name == "floor":
                    target = results.targets[operation][0]
                cells = where + [
                    f"**{name}**" if name == "ours" else name,
                    f"{time_text(side.median)} ±{side.spread:.0%}",
                    "" if name == "ours" else f"{case.ratio(name):.2f}",
                    f"{target:.2f}" if target else "",
                    side.why_shown,
                ]
                lines.append("| " + " | ".join(cells) + " |")
    return lines


def plot(
    results: Results, path: str, operation: str, axis: str, fixed: dict[str, float], caption: str
) -> None:
    # Only the page needs the library; a check of the results does without.
    import matplotlib  # pylint: disable=import-outside-toplevel

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "kivgcl"
    from matplotlib import pyplot  # pylint: disable=import-outside-toplevel

    lines: dict[str, list[tuple[float, float]]] = {}
    for case in results.of(operation):
        others = {name: value for name, value in case.setting.items() if name != axis}
        if axis in case.setting and others == fixed:
            for name, side in case.sides.items():
                label = f"{name} ({side.why_shown})" if side.why_shown else name
                lines.setdefault(label, []).append((case.setting[axis], side.median * 1e9))
    if "ours" not in lines or len(lines["ours"]) < 2:
        raise Incomplete(f"{operation} was not measured along {axis} with {fixed}")

    figure, axes = pyplot.subplots(figsize=(7, 4))
    for label, points in lines.items():
        points.sort()
        style = {"ours": {"linewidth": 2.5, "color": "black"}, "floor": {"linestyle": "--"}}
        axes.plot(*zip(*points), marker="o", markersize=4, label=label, **style.get(label, {}))
    positions = sorted(position for position, _ in lines["ours"])
    if positions[0] > 0:
        axes.set_xscale("log", base=2)
    axes.set_xticks(positions, [f"{position:g}" for position in positions])
    axes.minorticks_off()
    times = [time for points in lines.values() for _, time in points]
    if max(times) > 30 * min(times):
        axes.set_yscale("log")
    else:
        axes.set_ylim(bottom=0)
    axes.set_xlabel(axis)
    axes.set_ylabel("ns an operation")
    axes.set_title(caption, fontsize=10)
    axes.grid(alpha=0.3)
    axes.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def machine(results: Results, build: str) -> list[str]:
    processor = "unknown"
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.lower().startswith("model name"):
                processor = line.split(":", 1)[1].strip()
                break
    compiler = ""
    flags = []
    with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as file:
        for line in file:
            key, _, value = line.strip().partition("=")
            if key.startswith("CMAKE_CXX_COMPILER:"):
                compiler = output_of(value, "--version").splitlines()[0]
            elif key.startswith(("CMAKE_CXX_FLAGS:", "CMAKE_CXX_FLAGS_RELWITHDEBINFO:")):
                flags.append(value)
    versions = []
    for package in PEER_PACKAGES:
        versions.append(package + " " + output_of("dpkg-query", "-W", "-f", "${Version}", package))
    return [
        "| | |",
        "|---|---|",
        f"| processor | {processor}, {os.cpu_count()} of them |",
        f"| system | Linux {os.uname().release.split('-')[0]}, {os.uname().machine} |",
        f"| compiler | {compiler} |",
        f"| flags | `{' '.join(flags)}` |",
        f"| packages | {', '.join(versions)} |",
        f"| date | {max(results.dates)} |",
        f"| repetitions | {results.repetitions} of each side, in random order |",
        f"| load average before | {max(results.loads):.2f} at most |",
    ]


def verdict(results: Results, reasons: list[Reason]) -> list[str]:
    judged = [case for case in results.cases.values() if results.judged(case)]
    missing = [case for case in judged if results.misses(case)]
    lines = [f"{len(judged) - len(missing)} of {len(judged)} cases meet their targets."]
    if missing:
        lines += ["Missed, each with its reason below its table:", ""]
    for case in missing:
        texts = [
            f"{miss}" if results.reason(reasons, case, miss.side) else f"{miss} ({NO_REASON})"
            for miss in results.misses(case)
        ]
        lines.append(f"- {case.title}: {'; '.join(texts)}")
    return lines


def footprint(build: str) -> list[str]:
    lines = ["| library | stripped | text | data | bss |", "|---|--:|--:|--:|--:|"]
    paths = [os.path.join(build, "libKivGCL.so"), os.path.join(build, "libVorTrace.so")]
    known = output_of("/sbin/ldconfig", "-p")
    for name in PEER_LIBRARIES:
        found = re.search(rf"^\s*{re.escape(name)} .*=> (\S+)$", known, re.MULTILINE)
        if found is None:
            raise Incomplete(f"{name} is not installed")
        paths.append(found[1])
    with tempfile.TemporaryDirectory() as directory:
        for path in paths:
            stripped = os.path.join(directory, "stripped")
            subprocess.run(["strip", "-o", stripped, os.path.realpath(path)], check=True)
            text, data, bss = output_of("size", stripped).splitlines()[1].split()[:3]
            size = os.path.getsize(stripped)
            lines.append(f"| {os.path.basename(path)} | {size} | {text} | {data} | {bss} |")
    return lines


def read_block(lines: Iterator[str]) -> tuple[list[str], list[Reason]]:
    """The operations of a table and the reasons below them, up to @end."""
    operations: list[str] = []
    reasons: list[Reason] = []
    for line in lines:
        words = line.strip()
        if words == "@end":
            return operations, reasons
        if not line.startswith(" "):
            operations.append(words)
        elif words.startswith("why ") and operations:
            names, _, setting = words[len("why ") :].partition("|")
            pairs = [pair.strip().rpartition(" ") for pair in setting.split(",") if pair.strip()]
            values = {axis: float(value) for axis, _, value in pairs}
            reasons.append(Reason(operations[-1], [n.strip() for n in names.split(";")], values))
        elif reasons:
            reasons[-1].text = f"{reasons[-1].text} {words}".strip()
        else:
            raise Incomplete(f"the template's line is not understood: {line}")
    raise Incomplete("a table of the template has no @end")


def read_reasons(template: str) -> list[Reason]:
    reasons: list[Reason] = []
    lines = iter(template.splitlines())
    for line in lines:
        if line in ("@table", "@sides"):
            reasons += read_block(lines)[1]
    return reasons


def page(
    results: Results,
    template: str,
    reasons: list[Reason],
    build: str,
    plots: str,
    output: str,
) -> str:
    written: list[str] = []
    tabled: list[str] = []
    lines = iter(template.splitlines())
    for line in lines:
        command, _, rest = line.partition(" ")
        if command == "@machine":
            written += machine(results, build)
        elif command == "@verdict":
            written += verdict(results, reasons)
        elif command == "@footprint":
            written += footprint(build)
        elif command in ("@table", "@sides"):
            operations = read_block(lines)[0]
            tabled += operations
            if command == "@sides":
                written += sides(results, operations)
            else:
                written += table(results, operations) + missed(results, operations, reasons)
        elif command == "@plot":
            name, operation, axis, fixed, caption = [part.strip() for part in rest.split("|")]
            values = dict(pair.strip().split("=") for pair in fixed.split(",") if pair.strip())
            path = os.path.join(plots, name)
            plot(
                results,
                path,
                operation,
                axis,
                {key: float(value) for key, value in values.items()},
                caption,
            )
            written.append(f"![{caption}]({os.path.relpath(path, os.path.dirname(output))})")
        elif command.startswith("@"):
            raise Incomplete(f"the template's line is not understood: {line}")
        else:
            written.append(line)
    forgotten = {case.operation for case in results.cases.values()} - set(tabled)
    if forgotten:
        raise Incomplete("in no table of the template: " + "; ".join(sorted(forgotten)))
    return "\n".join(written) + "\n"


def main() -> int:
    parser = argparse.ArgumentParser(description="Writes the page on performance.")
    parser.add_argument("--results", required=True, help="directory of the JSON files")
    parser.add_argument("--build", required=True, help="the build directory that was measured")
    parser.add_argument("--template", required=True, help="the page's template")
    parser.add_argument("--output", help="the page to write; its plots go beside it. Without it, "
                        "what was measured is printed as one table")
    arguments = parser.parse_args()
    try:
        results = Results(arguments.results)
        with open(arguments.template, encoding="utf-8") as file:
            template = file.read()
        reasons = read_reasons(template)
        results.check(reasons)
        if arguments.output is None:
            operations = list(dict.fromkeys(case.operation for case in results.cases.values()))
            lines = table(results, operations) + missed(results, operations, reasons)
            print("\n".join(lines + [""] + verdict(results, reasons)))
            return 0
        plots = os.path.splitext(arguments.output)[0]
        os.makedirs(plots, exist_ok=True)
        text = page(results, template, reasons, arguments.build, plots, arguments.output)
        with open(arguments.output, "w", encoding="utf-8") as file:
            file.write(text)
        for case in results.cases.values():
            for miss in results.misses(case):
                if not results.reason(reasons, case, miss.side):
                    print(f"missed without a reason: {case.title}: {miss}", file=sys.stderr)
    except Incomplete as error:
        print(f"bench/report.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
