#!/usr/bin/env python3
"""Plants each fault of tests/mutants/*.txt in turn, rebuilds, runs the suite and says whether it noticed.

A fault is a paragraph:

    # what the mistake means for a user
    file: path/from/the/root
    find: the exact text, found once in the file
    replace: what a person might have written instead

A line that starts with none of these continues the text of `find` or `replace` before it.

For each fault the file is changed, build/plain is rebuilt incrementally, the tests run (ctest, without the
slow stages), and the file is put back whatever happens. A fault is caught when a test fails, missed when all
pass, stale when its text is no longer in the file (once) or the change does not build.

    scripts/mutants.py [--only TEXT] [--from N] [--list] [--check]
"""

import argparse
import glob
import os
import subprocess
import sys
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
BUILD = os.path.join(ROOT, "build", "plain")
# Stages that take minutes or need a database, a browser or root: the suite minus these runs in about two.
SLOW = "PostgreSQL|report_in_browser|FitIn64MiB|FitsIn64MiB|TenThousand|HungDatabase"
TIMEOUT = 900


def read_faults():
    faults = []
    for path in sorted(glob.glob(os.path.join(ROOT, "tests", "mutants", "*.txt"))):
        with open(path, encoding="utf-8") as f:
            block, last = {}, None
            for number, line in enumerate(f.read().splitlines() + [""], 1):
                if not line.strip():
                    if block:
                        faults.append(check(block, path, number))
                        block, last = {}, None
                    continue
                if line.startswith("#"):
                    block.setdefault("means", line[1:].strip())
                    continue
                key, sep, value = line.partition(": ")
                if sep and key in ("file", "find", "replace"):
                    block[key], last = value, key
                elif last in ("find", "replace"):
                    block[last] += "\n" + line  # the text goes on over this line
                else:
                    sys.exit(f"{path}:{number}: expected 'file: ', 'find: ' or 'replace: ', got {line!r}")
    return faults


def check(block, path, number):
    missing = [k for k in ("means", "file", "find", "replace") if k not in block]
    if missing:
        sys.exit(f"{path}: the fault ending at line {number} has no {', '.join(missing)}")
    block["list"] = os.path.basename(path)
    return block


def run(command, timeout=TIMEOUT):
    try:
        return subprocess.run(command, cwd=BUILD, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def try_fault(fault):
    path = os.path.join(ROOT, fault["file"])
    try:
        with open(path, encoding="utf-8") as f:
            original = f.read()
    except OSError as error:
        return "stale", f"cannot read it: {error.strerror}"
    if original.count(fault["find"]) != 1:
        return "stale", f"the text is there {original.count(fault['find'])} times, not once"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original.replace(fault["find"], fault["replace"]))
        if run(["ninja"]) != 0:
            return "stale", "does not build"
        outcome = run(["ctest", "-j", str(os.cpu_count() or 2), "--stop-on-failure", "-E", SLOW])
        if outcome == "timeout":
            return "caught", "the suite did not end"
        return ("caught", "") if outcome != 0 else ("missed", "")
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)
        # Changed now, so that the next build compiles the code as it is again, not the fault's object.
        os.utime(path)


def main():
    parser = argparse.ArgumentParser(description="Plants the faults of tests/mutants/*.txt one at a time.")
    parser.add_argument("--only", action="append",
                        help="only the faults whose file or meaning contains this text (may be repeated)")
    parser.add_argument("--list", action="store_true", help="list the faults and stop")
    parser.add_argument("--from", dest="start", type=int, default=1, help="begin at this fault of the list")
    parser.add_argument("--check", action="store_true", help="check that each fault's text is found once")
    args = parser.parse_args()
    faults = read_faults()
    if args.only:
        faults = [f for f in faults if any(text in f["file"] or text in f["means"] for text in args.only)]
    faults = faults[args.start - 1:]
    if args.list:
        for f in faults:
            print(f"{f['file']}: {f['means']}")
        print(f"{len(faults)} faults")
        return 0
    if args.check:
        stale = 0
        for f in faults:
            try:
                with open(os.path.join(ROOT, f["file"]), encoding="utf-8") as source:
                    found = source.read().count(f["find"])
            except OSError:
                found = 0
            if found != 1:
                stale += 1
                print(f"stale: {f['file']}: {f['means']} (found {found} times)")
        print(f"{len(faults)} faults, {stale} stale")
        return 1 if stale else 0
    if not os.path.isfile(os.path.join(BUILD, "build.ninja")):
        subprocess.run([os.path.join(ROOT, "scripts", "build.sh"), "plain"], check=True)
    elif run(["ninja"]) != 0:
        sys.exit("build/plain does not build as it is; fix that first")
    counts = {"caught": 0, "missed": 0, "stale": 0}
    for number, fault in enumerate(faults, 1):
        started = time.monotonic()
        outcome, why = try_fault(fault)
        counts[outcome] += 1
        print(f"[{number}/{len(faults)}] {outcome:6} {fault['file']}: {fault['means']}"
              f"{' (' + why + ')' if why else ''} [{time.monotonic() - started:.0f} s]", flush=True)
    run(["ninja"])  # back to the code as it is
    judged = counts["caught"] + counts["missed"]
    score = 100.0 * counts["caught"] / judged if judged else 0.0
    print(f"\n{counts['caught']} caught, {counts['missed']} missed, {counts['stale']} stale: "
          f"score {score:.0f} % of {judged}")
    return 0 if counts["stale"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
