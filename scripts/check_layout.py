#!/usr/bin/env python3
"""Checks the source tree's layout: no cycle among the project's #include
lines, no include up a floor (the library's floors, lowest first: common,
process, mail, cli; tests and tools outside them may include any), and no
source file over 600 lines unless its opening comment says why ("Longer
than ..."). Prints each finding; exits 1 when there is one."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAX_LINES = 600
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)

sources = [p for p in ROOT.rglob("*") if p.suffix in (".h", ".cc", ".in")
           and "build" not in p.relative_to(ROOT).parts[:1] and p.is_file()]
names = {str(p.relative_to(ROOT)).removesuffix(".in"): p for p in sources}
graph = {name: [i for i in INCLUDE.findall(path.read_text(errors="replace")) if i in names]
         for name, path in names.items()}

FLOORS = ["common", "process", "mail", "cli"]


def floor(name):
    top = name.split("/")[0]
    return FLOORS.index(top) if top in FLOORS else None


findings = []
for name, targets in sorted(graph.items()):
    for target in targets:
        here, there = floor(name), floor(target)
        if here is not None and there is not None and there > here:
            findings.append(f"include up a floor: {name} -> {target}")

state = {}  # name -> 1 while on the current path, 2 when done


def visit(name, path):
    state[name] = 1
    for target in graph[name]:
        if state.get(target) == 1:
            findings.append("include cycle: " + " -> ".join(path[path.index(target):] + [target]))
        elif target not in state:
            visit(target, path + [target])
    state[name] = 2


for name in sorted(graph):
    if name not in state:
        visit(name, [name])

for name, path in sorted(names.items()):
    lines = path.read_text(errors="replace").splitlines()
    head = " ".join(lines[:8])
    if len(lines) > MAX_LINES and "Longer than" not in head:
        findings.append(f"{name}: {len(lines)} lines and no reason at its top")

print("\n".join(findings) if findings else
      f"{len(names)} files: no include cycle, none up a floor, none over {MAX_LINES} lines "
      "without a reason")
sys.exit(1 if findings else 0)
