#!/usr/bin/env python3
"""Applies the faults of faults.txt one at a time to a source tree, rebuilds it and runs the
suite, and reports which test caught each fault (or MISSED).

Each fault is built in <source>/build-faults (Release, no benchmarks, no Python, warnings as
errors like the main build, so that ccache serves every file the fault leaves alone). The tests of
the fault's area run first; only when they pass does the whole suite run. The source file is
restored after every fault, also when the run is interrupted.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent

# The targets of each area, built first for a fault of that area; the tests of those ending in
# _test run first (ctest -R).
AREA_TARGETS = {
    "errors": ["tarnio_errors_test"],
    "disk_file": ["tarnio_bf_test"],
    "container": ["tarnio_bf_test"],
    "stacks": ["tarnio_bf_test"],
    "zlib": ["tarnio_bf_test"],
    "growing": ["tarnio_bf_test"],
    "types": ["tarnio_arrays_test"],
    "stack_info": ["tarnio_arrays_test", "tarnio_bf_test"],
    "units": ["tarnio_units_test"],
    "props": ["tarnio_props_test"],
    "json": ["tarnio_json_test"],
    "archive": ["tarnio_archive_test"],
    "tcp": ["tarnio_tcp_test"],
    "shared_objects": ["tarnio_shared_objects_test", "tarnio_shared_object_helper"],
    "ome": ["tarnio_ome_test"],
    "tool": ["tarn", "tarnio_public_test"],
}

# Entries of the suite that say nothing about the library's behaviour: the format check would
# "catch" every fault whose text is not in the project's layout, and the install checks only
# repeat the build.
EXCLUDED_TESTS = "source_format|tracked_paths|install_into_build_tree|consumer_"


@dataclass
class Fault:
    id: str
    area: str
    file: str
    what: str
    old: str
    new: str


def unescape(text):
    return text.replace("\\n", "\n")


def read_faults(path):
    faults, current = [], None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        header = re.fullmatch(r"\[(\S+)\] (\S+) (\S+)", line)
        if header:
            current = Fault(*header.groups(), what="", old="", new="")
            faults.append(current)
            continue
        field = re.fullmatch(r"(what|old|new): (.*)", line)
        if current is None or field is None:
            sys.exit(f"{path}:{number}: expected a '[ID] AREA FILE' header or a field")
        key, value = field.groups()
        setattr(current, key, value if key == "what" else unescape(value))
    for fault in faults:
        if not (fault.what and fault.old and fault.new):
            sys.exit(f"fault {fault.id}: what, old and new are all needed")
        if fault.area not in AREA_TARGETS:
            sys.exit(f"fault {fault.id}: unknown area '{fault.area}'")
    return faults


def check_applicable(source, fault):
    """The fault's file, or an error text when its original text is not there exactly once."""
    path = source / fault.file
    if not path.is_file():
        return None, f"{fault.file} not found"
    count = path.read_text().count(fault.old)
    if count != 1:
        return None, f"original text occurs {count} times in {fault.file}"
    return path, None


def run(command, log):
    """The exit code of command; on an interruption its whole process group is ended."""
    log.write(f"$ {' '.join(command)}\n")
    log.flush()
    process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT,
                               start_new_session=True)
    try:
        return process.wait()
    except BaseException:
        os.killpg(process.pid, signal.SIGTERM)
        process.wait()
        raise


def first_failed_test(build):
    """The first failed test of the last ctest run."""
    failed = build / "Testing" / "Temporary" / "LastTestsFailed.log"
    if not failed.is_file():
        return "?"
    for line in failed.read_text().splitlines():
        number, _, name = line.partition(":")
        if name:
            return name
    return "?"


class Runner:
    def __init__(self, source, build, jobs, test_timeout):
        self.source = source
        self.build = build
        self.jobs = str(jobs)
        self.test_timeout = str(test_timeout)
        self.logs = build / "fault-logs"

    def configure(self):
        self.logs.mkdir(parents=True, exist_ok=True)
        with open(self.logs / "configure.log", "w") as log:
            code = run(
                ["cmake", "-S", str(self.source), "-B", str(self.build), "-DCMAKE_BUILD_TYPE=Release",
                 "-DTARNIO_BUILD_BENCHMARKS=OFF", "-DTARNIO_BUILD_PYTHON=OFF", "-DTARNIO_WERROR=ON",
                 "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"], log)
            if code == 0:
                code = run(["cmake", "--build", str(self.build), "-j", self.jobs], log)
        if code != 0:
            sys.exit(f"the unchanged tree does not build: see {self.logs / 'configure.log'}")

    def build_targets(self, targets, log):
        command = ["cmake", "--build", str(self.build), "-j", self.jobs]
        for target in targets or []:
            command += ["--target", target]
        return run(command, log) == 0

    def ctest(self, log, pattern=None):
        command = ["ctest", "--test-dir", str(self.build), "-j", self.jobs, "--timeout",
                   self.test_timeout, "--stop-on-failure", "-E", EXCLUDED_TESTS]
        if pattern:
            command += ["-R", pattern]
        return run(command, log) == 0

    def outcome(self, fault):
        """What the suite did with the fault applied: the catching test, MISSED or NO-BUILD."""
        targets = AREA_TARGETS[fault.area]
        with open(self.logs / f"{fault.id}.log", "w") as log:
            if not self.build_targets(targets, log):
                return "NO-BUILD"
            tests = [t for t in targets if t.endswith("_test")]
            if not self.ctest(log, "^(" + "|".join(re.escape(t) + r"\." for t in tests) + ")"):
                return first_failed_test(self.build)
            if not self.build_targets(None, log):
                return "NO-BUILD"
            if not self.ctest(log):
                return first_failed_test(self.build)
        return "MISSED"

    def try_fault(self, fault):
        path, problem = check_applicable(self.source, fault)
        if problem:
            return f"NOT-APPLICABLE ({problem})"
        original = path.read_bytes()
        try:
            path.write_text(original.decode().replace(fault.old, fault.new))
            return self.outcome(fault)
        finally:
            # Written anew, the restored file is newer than its objects: the next build compiles
            # it again (from ccache).
            path.write_bytes(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="example: inject.py --source /work/tree --area units,json")
    parser.add_argument("--source", type=Path, default=HERE.parent.parent,
                        help="the source tree to inject into (default: this one)")
    parser.add_argument("--faults", type=Path, default=HERE / "faults.txt")
    parser.add_argument("--area", help="only the faults of these areas, comma separated")
    parser.add_argument("--ids", help="only these fault ids, comma separated")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--test-timeout", type=int, default=120,
                        help="seconds after which a test counts as hung (and the fault as caught)")
    parser.add_argument("--output", type=Path, help="the result table (default: <build>/fault-results.txt)")
    parser.add_argument("--baseline", type=Path,
                        help="a result table of an earlier run: name the faults it caught that "
                             "this run misses, and fail if there are any")
    parser.add_argument("--check", action="store_true",
                        help="only check that every fault applies to the source tree")
    args = parser.parse_args()

    source = args.source.resolve()
    faults = read_faults(args.faults)
    if args.area:
        areas = set(args.area.split(","))
        faults = [f for f in faults if f.area in areas]
    if args.ids:
        ids = set(args.ids.split(","))
        faults = [f for f in faults if f.id in ids]

    if args.check:
        problems = [(f.id, check_applicable(source, f)[1]) for f in faults]
        for fault_id, problem in problems:
            if problem:
                print(f"{fault_id}: {problem}")
        print(f"{len(faults)} faults, {sum(1 for _, p in problems if p)} not applicable")
        return 1 if any(p for _, p in problems) else 0

    build = source / "build-faults"
    output = args.output or build / "fault-results.txt"
    runner = Runner(source, build, args.jobs, args.test_timeout)
    # Ctrl-C and a kill both unwind through try_fault's finally, which restores the file.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    runner.configure()

    rows = []
    started = time.monotonic()
    with open(output, "w") as table:
        header = f"{'id':<14} {'area':<15} result"
        print(header)
        table.write(header + "\n")
        for fault in faults:
            row = f"{fault.id:<14} {fault.area:<15} {runner.try_fault(fault)}"
            rows.append(row)
            print(row, flush=True)
            table.write(row + "\n")
            table.flush()
        missed = sum(1 for r in rows if r.endswith("MISSED"))
        broken = sum(1 for r in rows if "NO-BUILD" in r or "NOT-APPLICABLE" in r)
        summary = (f"{len(rows)} faults: {len(rows) - missed - broken} caught, {missed} missed, "
                   f"{broken} not built or not applicable ({time.monotonic() - started:.0f} s)")
        print(summary)
        table.write(summary + "\n")
    if args.baseline:
        return report_lost(read_results(args.baseline), read_results(output))
    return 0


def read_results(path):
    """The result of each fault id in a result table; lines starting with # are comments."""
    results = {}
    for line in path.read_text().splitlines():
        fields = [] if line.startswith("#") else line.split(None, 2)
        if len(fields) == 3 and fields[0] != "id" and fields[1] != "faults:":
            results[fields[0]] = fields[2]
    return results


def report_lost(before, now):
    """Names the faults caught before that are missed now; 1 when there are any."""
    lost = [i for i, result in now.items()
            if result == "MISSED" and i in before and before[i] not in ("MISSED", "NO-BUILD")]
    for fault_id in lost:
        print(f"LOST {fault_id}: caught before by {before[fault_id]}")
    print(f"{len(lost)} faults caught before are missed now")
    return 1 if lost else 0


if __name__ == "__main__":
    sys.exit(main())
