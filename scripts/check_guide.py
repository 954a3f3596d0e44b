#!/usr/bin/env python3
"""Checks that every C++ block of the guide is code from an example.

    scripts/check_guide.py docs/guide.md

A ```cpp block belongs to the last examples/<name>.cpp that the guide names
before it; the block must appear in that file as it stands (indentation
included). Exits 1 with the blocks that do not, 0 otherwise.
"""
import pathlib
import re
import sys


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    guide = pathlib.Path(sys.argv[1])
    root = guide.resolve().parent.parent
    text = guide.read_text()
    source = None
    problems = []
    blocks = 0
    for match in re.finditer(r"examples/(\w+\.cpp)|```cpp\n(.*?)```", text, re.S):
        if match.group(1):
            source = match.group(1)
            continue
        blocks += 1
        line = text.count("\n", 0, match.start()) + 1
        if source is None:
            problems.append("line %d: a C++ block before any examples/<name>.cpp" % line)
            continue
        path = root / "examples" / source
        if not path.exists():
            problems.append("line %d: examples/%s does not exist" % (line, source))
        elif match.group(2) not in path.read_text():
            problems.append("line %d: this block is not in examples/%s as it stands"
                            % (line, source))
    for problem in problems:
        print("docs/guide.md " + problem, file=sys.stderr)
    if blocks == 0:
        print("docs/guide.md has no C++ block", file=sys.stderr)
        return 1
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
