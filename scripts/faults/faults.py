#!/usr/bin/env python3
"""Checks that the tests find a fixed list of faults in the sources.

faults.py check                 check that every original text occurs exactly once in its file
faults.py apply NR              insert one fault (`git checkout -- FILE` removes it)
faults.py run [NR ...]          for each fault, or for all: insert it, build and run the test program that should catch
                                it, remove the fault, and print the result as a row of a table

--preset NAME   the build tree to use, build/NAME (default: release)
--whole         build everything and run all tests instead of the one program
--list FILE     the list (faults.json beside this script)
--tree DIR      the checkout to work in (the one that holds this script)

faults.json is a list of objects: `nr`, `file`, `original` and `replacement` (texts), `fault` (a description) and `test`
(the test programs that should catch it, separated by spaces).
The exit code is 1 when a fault was not caught.
"""
import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent


def changed(fault, text):
    """Returns: the text of the file with the fault."""
    times = text.count(fault["original"])
    if times != 1:
        raise SystemExit(f"{fault['nr']}: its original text occurs {times} times in {fault['file']}")
    return text.replace(fault["original"], fault["replacement"])


def read(tree, fault):
    return (tree / fault["file"]).read_text(encoding="utf-8")


def build_and_test(tree, preset, fault, whole, log):
    """Returns: whether the build succeeded, and the names of the failed tests."""
    programs = fault["test"].split()
    build = ["cmake", "--build", f"build/{preset}"] + ([] if whole else ["--target", *programs])
    if subprocess.run(build, cwd=tree, stdout=log, stderr=log, check=False).returncode != 0:
        return False, []
    only = [] if whole else ["-R", "^(" + "|".join(re.escape(name) for name in programs) + ")[:.]"]
    junit = pathlib.Path(log.name).with_suffix(".xml")
    subprocess.run(["ctest", "--preset", preset, "--timeout", "100", "--no-tests=error", "--output-junit", str(junit), *only], cwd=tree,
                   stdout=log, stderr=log, check=False)
    report = junit.read_text(encoding="utf-8", errors="replace")
    return True, re.findall(r'<testcase name="([^"]*)"[^>]*status="fail"', report)


def run(tree, preset, faults, whole):
    logs = tree / "build" / "faults"
    logs.mkdir(parents=True, exist_ok=True)
    survivors = 0
    for fault in faults:
        begin = time.monotonic()
        file = tree / fault["file"]
        before = read(tree, fault)
        with open(logs / f"{fault['nr']}.log", "w", encoding="utf-8") as log:
            try:
                file.write_text(changed(fault, before), encoding="utf-8")
                built, failed = build_and_test(tree, preset, fault, whole, log)
            finally:
                file.write_text(before, encoding="utf-8")
        verdict = "does not build" if not built else f"caught by {len(failed)}" if failed else "SURVIVED"
        survivors += not failed
        names = ", ".join(f"`{name}`" for name in failed[:2])
        print(f"| {fault['nr']} | {fault['file']} | {fault['fault']} | {verdict} | {names} |"
              f" {time.monotonic() - begin:.0f} s |", flush=True)
    return survivors


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("command", choices=["check", "apply", "run"])
    parser.add_argument("names", nargs="*", metavar="NR")
    parser.add_argument("--preset", default="release")
    parser.add_argument("--whole", action="store_true")
    parser.add_argument("--list", type=pathlib.Path, default=HERE / "faults.json")
    parser.add_argument("--tree", type=pathlib.Path, default=HERE.parent.parent)
    options = parser.parse_args()
    faults = json.loads(options.list.read_text(encoding="utf-8"))
    unknown = set(options.names) - {fault["nr"] for fault in faults}
    if unknown:
        raise SystemExit(f"no fault is named {', '.join(sorted(unknown))}")
    chosen = [fault for fault in faults if not options.names or fault["nr"] in options.names]
    if options.command == "run":
        print("| Nr | File | Fault | Verdict | First tests that failed | Time |\n|---|---|---|---|---|---|")
        survivors = run(options.tree, options.preset, chosen, options.whole)
        print(f"\n{len(chosen) - survivors} of {len(chosen)} faults caught.")
        return 1 if survivors else 0
    for fault in chosen:
        text = changed(fault, read(options.tree, fault))
        if options.command == "apply":
            (options.tree / fault["file"]).write_text(text, encoding="utf-8")
    print(f"{len(chosen)} faults, each text found once")
    return 0


if __name__ == "__main__":
    sys.exit(main())
