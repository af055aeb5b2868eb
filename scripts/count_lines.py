#!/usr/bin/env python3
"""Counts lines of code and of tests: count_lines.py [--limit PERCENT] [--folders]

A line counts if it is neither blank nor only a comment. The script recognises C++, Java and Scala files by their names,
Python and shell files by their names or their first lines. Message schemas, documents and data do not count.
Tests are all files in a folder named `tests` or `test`. All other files are code, including benchmarks and examples.
--limit     fails if the tests have more than PERCENT of the lines of the code
--folders   also prints the lines of each folder
"""
import argparse
import collections
import pathlib
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
LANGUAGES = {".cpp": "//", ".h": "//", ".c": "//", ".java": "//", ".scala": "//", ".py": "#", ".sh": "#"}


def comment_mark(path):
    """Returns: the mark with which a comment begins in this file; None for a file that does not count."""
    if path.suffix:
        return LANGUAGES.get(path.suffix)
    with path.open("rb") as file:
        first = file.readline()
    return "#" if first.startswith(b"#!") and (b"sh" in first or b"python" in first) else None


def count(path, mark):
    lines = 0
    in_block = False
    for line in path.read_text(encoding="utf-8").splitlines():
        text = line.strip()
        if mark == "//" and text.startswith("/*"):
            in_block = True
        if in_block:
            in_block = "*/" not in text
        elif text and not text.startswith(mark):
            lines += 1
    return lines


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--limit", type=float, help="the largest share of tests, in percent of the code")
    parser.add_argument("--folders", action="store_true")
    options = parser.parse_args()
    names = subprocess.run(["git", "-c", f"safe.directory={TOP}", "ls-files", "--cached", "--others", "--exclude-standard"],
                           cwd=TOP, check=True, capture_output=True, text=True).stdout.splitlines()
    code = tests = 0
    folders = collections.Counter()
    for name in names:
        path = TOP / name
        mark = comment_mark(path) if path.is_file() else None
        if mark is None:
            continue
        lines = count(path, mark)
        parts = pathlib.PurePosixPath(name).parts[:-1]
        if "tests" in parts or "test" in parts:
            tests += lines
        else:
            code += lines
        folders["/".join(parts[:3]) or "."] += lines
    if options.folders:
        for folder, lines in sorted(folders.items()):
            print(f"{lines:7} {folder}")
    share = 100 * tests / code
    print(f"tests {tests} lines, code {code} lines: {share:.1f} %")
    if options.limit is not None and share > options.limit:
        print(f"Tests may be at most {options.limit:g} % of the code.")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
