#!/usr/bin/env python3
"""Says which code of a README, or of the tutorial, is not in the sources that are built, where it
would rot.

Called with the source folder. A block has to be there line by line; indentation and empty lines
do not count."""
import pathlib
import re
import sys


def lines(text):
    return "\n" + "\n".join(filter(None, map(str.strip, text.splitlines()))) + "\n"


root = pathlib.Path(sys.argv[1])
sources = [lines(path.read_text(encoding="utf-8"))
           for folder in ("examples", "tests/package/consumer")
           for path in (root / folder).rglob("*")
           if path.suffix in (".cpp", ".h", ".py", ".txt")]
found, missing = 0, []
for readme in (root / "README.md", root / "docs/tutorial.md", root / "docs/python.md",
               *(root / "examples").glob("*/README.md")):
    text = readme.read_text(encoding="utf-8")
    for block in re.findall(r"^```(?:cpp|cmake|python)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        found += 1
        if not any(lines(block) in source for source in sources):
            missing.append(f"{readme.relative_to(root)}: this is in no source:\n{block}")
print(f"{found} blocks, {len(missing)} of them in no source", *missing, sep="\n")
sys.exit(found == 0 or bool(missing))
