#!/usr/bin/env python3
"""Checks the sizes of the source tree: no source file has more than 450 lines, no folder more than 14 source files.

Source files are the C++ and Python files and the shell scripts that git knows or would add.
"""
import collections
import pathlib
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
MOST_LINES = 450
MOST_FILES = 14
SUFFIXES = {".cpp", ".h", ".c", ".java", ".scala", ".py", ".sh"}


def is_source(path):
    if path.suffix:
        return path.suffix in SUFFIXES
    with path.open("rb") as file:
        first = file.readline()
    return first.startswith(b"#!") and (b"sh" in first or b"python" in first)


def main() -> int:
    names = subprocess.run(["git", "-c", f"safe.directory={TOP}", "ls-files", "--cached", "--others", "--exclude-standard"],
                           cwd=TOP, check=True, capture_output=True, text=True).stdout.splitlines()
    sources = [name for name in names if (TOP / name).is_file() and is_source(TOP / name)]
    complaints = []
    for name in sources:
        lines = len((TOP / name).read_text(encoding="utf-8").splitlines())
        if lines > MOST_LINES:
            complaints.append(f"{name}: has {lines} lines, more than {MOST_LINES}; split it by topic")
    folders = collections.Counter(str(pathlib.PurePosixPath(name).parent) for name in sources)
    for folder, files in sorted(folders.items()):
        if files > MOST_FILES:
            complaints.append(f"{folder}: has {files} source files, more than {MOST_FILES}; move some into a folder below it")
    for complaint in complaints:
        print(complaint)
    print(f"{len(sources)} source files in {len(folders)} folders, {len(complaints)} complaints")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
