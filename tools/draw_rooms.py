#!/usr/bin/env python3
"""Draws the rooms of the tree and their arrows from the build's own targets, as a Mermaid picture in a document.

Usage: draw_rooms.py [--check] BUILD_FOLDER DOCUMENT
The picture stands between the two marker lines. With --check nothing is written and a stale picture is an error.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

BEGIN = "<!-- rooms: drawn by tools/draw_rooms.py -->"
END = "<!-- rooms: end -->"


def targets(build):
    """Returns {target: set of targets it links} for the project's own libraries and programs."""
    with tempfile.TemporaryDirectory() as folder:
        dot = pathlib.Path(folder, "targets.dot")
        subprocess.run(["cmake", f"--graphviz={dot}", str(build)], check=True, stdout=subprocess.DEVNULL)
        text = dot.read_text(encoding="utf-8")
    names = {node: label.split("\\n")[0] for node, label in re.findall(r'"(node\d+)" \[ label = "([^"]+)"', text)}
    own = {name for name in names.values()
           if re.fullmatch(r"mirn_[a-z_]+|flutter_mirn|mirn-[a-z]+|mirnctl", name) and not re.search(r"test|bench|fuzz", name)}
    links = {name: set() for name in own}
    for source, target in re.findall(r'"(node\d+)" -> "(node\d+)"', text):
        a, b = names.get(source), names.get(target)
        if a in own and b in own and a != b:
            links[a].add(b)
    return links


def reduced(links):
    """Drops an arrow that a chain of other arrows implies, so that the picture can be read."""
    def reaches(start, goal, skip):
        seen, todo = set(), [x for x in links[start] if x != skip]
        while todo:
            at = todo.pop()
            if at == goal:
                return True
            if at not in seen:
                seen.add(at)
                todo.extend(links[at])
        return False
    return {a: {b for b in bs if not reaches(a, b, b)} for a, bs in links.items()}


def node(name):
    """A name that Mermaid takes: mirn-virtual, the program, stays apart from mirn_virtual, the room."""
    return name.replace("-", "_program_")


def picture(build):
    lines = ["```mermaid", "graph TD"]
    links = reduced(targets(build))
    for a in sorted(links):
        lines.append(f'  {node(a)}["{a}"]')
    for a in sorted(links):
        for b in sorted(links[a]):
            lines.append(f'  {node(a)} --> {node(b)}')
    lines.append("```")
    return "\n".join(lines)


def main():
    arguments = [word for word in sys.argv[1:] if word != "--check"]
    build, document = pathlib.Path(arguments[0]), pathlib.Path(arguments[1])
    text = document.read_text(encoding="utf-8")
    head, rest = text.split(BEGIN + "\n")
    _, tail = rest.split(END)
    drawn = f"{head}{BEGIN}\n{picture(build)}\n{END}{tail}"
    if drawn == text:
        return 0
    if "--check" in sys.argv:
        print(f"{document}: the picture of the rooms is stale; run tools/draw_rooms.py {build} {document}")
        return 1
    document.write_text(drawn, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
