#!/usr/bin/env python3
"""Checks who may include whom: a file includes only its own floor and those below, and no two files include each other.

A function or a member is defined on the floor that declares it: otherwise a lower floor calls a higher one without an include.
"""
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
# Declared on one floor and defined on another, because other components were promised the declaration where it is.
PROMISED_ELSEWHERE = {f"BaseApiUtil::{member}" for member in
                      ("StartHeartBeat", "StopHeartBeat", "PutIfAbsent", "GetIfExist", "g_HeartBeatFlag", "heartBeatLock")}
# The functions that leave the library are declared on the ground and defined by the floor that serves them.
EXPORTED = "include/vyn/"
# Programs that take the place of functions of the lower floors.
REPLACES = ("tests/", "bench/", "examples/")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
ROOTS = ["src", ".", "include", "tests", "bench"]
GENERATED = re.compile(r"^(build_id\.h|schema/\w+_generated\.h)$")


COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:[^"\\\n]|\\.)*"', re.S)
UNNAMED = re.compile(r"^namespace \{\n.*?^\}  // namespace$", re.S | re.M)
CLASS = re.compile(r"\b(?:class|struct)\s+(\w+)(?:\s+final)?(?:\s*:[^;{()]*)?\s*\{")
# A declaration or a definition begins at the start of a line. Groups: the class, the name, what ends it.
FUNCTION = re.compile(r"^(?!(?:using|return|typedef|template|static|extern|inline|constexpr|class|struct)\b)"
                      r"[A-Za-z_][\w:<>,&*\s]*?(?:\b(\w+)::)?(~?\b\w+)\([^;{}]*\)[^;{}()]*(?:\([^;{}]*)?([;{])", re.M)
MEMBER = re.compile(r"^[A-Za-z_][\w:<>,&*\s]*[\s&*](\w+)::(\w+)\s*(?:=|\{|;)", re.M)


def declarations(text: str):
    """The classes that a header defines, and the functions that it declares outside of them."""
    text = COMMENT.sub("", text)
    return set(CLASS.findall(text)), {name for owner, name, end in FUNCTION.findall(text) if end == ";" and not owner}


def definitions(text: str):
    """What a source defines, as (class or the empty text, name)."""
    text = COMMENT.sub("", UNNAMED.sub("", text))
    return {(owner, name) for owner, name, end in FUNCTION.findall(text) if end == "{"} | set(MEMBER.findall(text))


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


def misplaced(graph, texts):
    """The complaints about what is defined on another floor than declared."""
    headers = {name: declarations(text) for name, text in texts.items()
               if name.endswith(".h") and not name.startswith(EXPORTED)}
    complaints = []
    for source, text in texts.items():
        if not source.endswith(".cpp") or source.startswith(REPLACES):
            continue
        reached = set()
        waiting = [source]
        while waiting:
            for target in graph.get(waiting.pop(), []):
                if target not in reached:
                    reached.add(target)
                    waiting.append(target)
        for owner, name in sorted(definitions(text)):
            found = [header for header in reached & headers.keys()
                     if (owner in headers[header][0] if owner else name in headers[header][1])]
            whole = f"{owner}::{name}" if owner else name
            if found and whole not in PROMISED_ELSEWHERE and all(floor(header) != floor(source) for header in found):
                complaints.append(f"{source}: defines {whole}, which {min(found)} declares on another floor")
    return complaints


def main() -> int:
    complaints = []
    graph = {}
    texts = {}
    for path in sorted(TOP.rglob("*")):
        if path.suffix not in (".h", ".cpp") or "build" in path.relative_to(TOP).parts[:1]:
            continue
        name = str(path.relative_to(TOP))
        own = floor(name)
        if own is None:
            complaints.append(f"{name}: stands on no floor")
            continue
        targets = []
        texts[name] = path.read_text(encoding="utf-8")
        for include in INCLUDE.findall(texts[name]):
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

    complaints += misplaced(graph, texts)
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
