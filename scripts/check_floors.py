#!/usr/bin/env python3
"""Checks who may include whom: a file includes only its own floor and those below, and no two files include each other."""
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent

# Floors from the ground. The first prefix that fits counts.
FLOORS = [
    ("include/vyn/", 0),
    ("platform/", 0),
    ("src/common/", 1),
    ("src/cluster/", 2),
    ("src/tessel/", 3),
    ("src/tuning/", 3),
    ("services/", 4),
    ("tools/", 5),
    ("examples/", 6),
    ("bench/", 6),
    ("tests/", 6),
]
# On one floor, who may look sideways: (from, to).
SIDEWAYS_REFUSED = [("include/vyn/", "platform/"), ("src/tuning/", "src/tessel/sdk/"), ("src/tuning/", "src/tessel/rpc/"), ("src/tessel/rpc/", "src/tessel/sdk/"),
                    ("src/tessel/message/", "src/tessel/rpc/"), ("src/tessel/message/", "src/tessel/sdk/")]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
ROOTS = ["src", ".", "include", "tests", "bench"]
GENERATED = re.compile(r"^(build_id\.h|schema/\w+_generated\.h)$")


def floor(path: str):
    for prefix, number in FLOORS:
        if path.startswith(prefix):
            return number
    return None


def resolve(name: str, own: str):
    # An example also builds away from the source tree: it includes the files of its own folder.
    for root in [str(pathlib.Path(own).parent)] if own.startswith("examples/") else ROOTS:
        path = (TOP / root / name)
        if path.is_file():
            return str(path.resolve().relative_to(TOP))
    return None


def main() -> int:
    complaints = []
    graph = {}
    for path in sorted(TOP.rglob("*")):
        if path.suffix not in (".h", ".cpp") or "build" in path.relative_to(TOP).parts[:1]:
            continue
        name = str(path.relative_to(TOP))
        own = floor(name)
        if own is None:
            complaints.append(f"{name}: stands on no floor")
            continue
        targets = []
        for include in INCLUDE.findall(path.read_text(encoding="utf-8")):
            target = resolve(include, name)
            if target is None:
                if not GENERATED.match(include):
                    complaints.append(f"{name}: includes {include}, which is no path from a root of includes")
                continue
            targets.append(target)
            below = floor(target)
            if below is not None and below > own:
                complaints.append(f"{name}: includes {target}, which stands above it")
            for source, refused in SIDEWAYS_REFUSED:
                if name.startswith(source) and target.startswith(refused):
                    complaints.append(f"{name}: includes {target}, which it must not know")
        graph[name] = targets

    state = {}

    def visit(node, trail):
        state[node] = 1
        for target in graph.get(node, []):
            if state.get(target) == 1:
                circle = trail[trail.index(target):] if target in trail else [node]
                complaints.append("circle: " + " -> ".join(circle + [target]))
            elif target not in state:
                visit(target, trail + [target])
        state[node] = 2

    sys.setrecursionlimit(10000)
    for node in graph:
        if node not in state:
            visit(node, [node])
    for complaint in complaints:
        print(complaint)
    print(f"{len(graph)} files, {len(complaints)} complaints")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
