#!/usr/bin/env python3
"""Checks the layers of the source tree, called floors. A file may include files of its own floor and of lower ones, and
includes may not form a circle.

A function or a member must be defined on the floor that declares it. Otherwise a lower floor could call a higher one
without an include.
"""
import collections
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent

# The floor of each folder, 0 is the lowest. The first matching prefix counts.
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
# Includes within one floor that are forbidden: (including, included).
SIDEWAYS_REFUSED = [("include/vyn/", "platform/"), ("src/tuning/", "src/tessel/sdk/"), ("src/tuning/", "src/tessel/rpc/"), ("src/tessel/rpc/", "src/tessel/sdk/"),
                    ("src/tessel/message/", "src/tessel/rpc/"), ("src/tessel/message/", "src/tessel/sdk/")]
# Members that may be defined on another floor than declared: other components rely on the place of the
# declaration.
PROMISED_ELSEWHERE = {f"BaseApiUtil::{member}" for member in
                      ("StartHeartBeat", "StopHeartBeat", "PutIfAbsent", "GetIfExist", "g_HeartBeatFlag", "heartBeatLock")}
# Exported functions are declared on floor 0 and defined on the floor that implements them.
EXPORTED = "include/vyn/"
# Programs that may define functions of lower floors again, to replace them.
REPLACES = ("tests/", "bench/", "examples/")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
ROOTS = ["src", ".", "include", "tests", "bench"]
GENERATED = re.compile(r"^(build_id\.h|schema/\w+_generated\.h)$")


COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:[^"\\\n]|\\.)*"', re.S)
UNNAMED = re.compile(r"^namespace \{\n.*?^\}  // namespace$", re.S | re.M)
CLASS = re.compile(r"\b(?:class|struct)\s+(\w+)(?:\s+final)?(?:\s*:[^;{()]*)?\s*\{")
# A declaration or a definition begins at the start of a line. Groups: the class, the name, what ends it.
FUNCTION = re.compile(r"^(?!(?:using|return|typedef|template|static|extern|inline|constexpr|class|struct)\b)"
                      r"[A-Za-z_][\w:<>,&*\s]*?(?:\b(\w+)(?:<\w+>)?::)?(~?\b\w+)\([^;{}]*\)[^;{}()]*(?:\([^;{}]*)?([;{])", re.M)
MEMBER = re.compile(r"^[A-Za-z_][\w:<>,&*\s]*[\s&*](\w+)::(\w+)\s*(?:=|\{|;)", re.M)


def declarations(text: str):
    """Returns: the classes that a file defines, and the functions that it declares outside classes."""
    text = COMMENT.sub("", UNNAMED.sub("", text))
    return set(CLASS.findall(text)), {name for owner, name, end in FUNCTION.findall(text) if end == ";" and not owner}


def definitions(text: str):
    """Returns: the functions and members that a source defines, as (class or "", name)."""
    text = COMMENT.sub("", UNNAMED.sub("", text))
    return {(owner, name) for owner, name, end in FUNCTION.findall(text) if end == "{"} | set(MEMBER.findall(text))


def floor(path: str):
    for prefix, number in FLOORS:
        if path.startswith(prefix):
            return number
    return None


def resolve(name: str, own: str):
    # An example also builds outside the source tree, so it may include only files of its own folder.
    for root in [str(pathlib.Path(own).parent)] if own.startswith("examples/") else ROOTS:
        path = (TOP / root / name)
        if path.is_file():
            return str(path.resolve().relative_to(TOP))
    return None


def misplaced(graph, texts):
    """Returns: a complaint for each function or member that is defined on another floor than declared."""
    declared = {name: declarations(text) for name, text in texts.items() if not name.startswith((EXPORTED, *REPLACES))}
    # The files that declare a function, included by its source or not: a linker does not ask.
    places = collections.defaultdict(set)
    for file, (_, functions) in declared.items():
        for function in functions:
            places[function].add(file)
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
            found = [header for header in reached & declared.keys()
                     if (owner in declared[header][0] if owner else name in declared[header][1])]
            if not found and not owner:
                found = places[name]
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
