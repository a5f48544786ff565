#!/usr/bin/env python3
"""Checks the documents against the project: every path they name exists, every link leads somewhere, and every library
name they show in code quotes is in the public headers or the sources."""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("include/", "src/", "tests/", "benchmarks/", "examples/", "docs/", "cmake/", "tools/")


def tracked(*patterns):
    out = subprocess.run(["git", "ls-files", *patterns], cwd=ROOT, check=True, capture_output=True, text=True)
    return [ROOT / line for line in out.stdout.splitlines() if (ROOT / line).exists()]


def main():
    code = "\n".join(path.read_text(encoding="utf-8", errors="replace")
                     for path in tracked("include", "src", "examples", "tests", "tools", "cmake")
                     if path.suffix in (".h", ".cpp", ".py", ".sh", ".cmake", ".txt", ".js", ".mjs", ".rc", ".mc"))
    words = set(re.findall(r"\w+", code))
    problems = []
    for document in tracked("*.md"):
        text = document.read_text(encoding="utf-8")
        name = document.relative_to(ROOT)
        prose = re.sub(r"```.*?```", "", text, flags=re.S)
        for target in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", prose):
            if "://" not in target and not (document.parent / target).exists():
                problems.append(f"{name}: link to {target}, which is not there")
        for quoted in re.findall(r"`([^`\n]+)`", prose):
            if quoted.startswith(FOLDERS) and not re.search(r"[*<>{}\s]", quoted) and not (ROOT / quoted.rstrip("/")).exists():
                problems.append(f"{name}: path {quoted}, which is not there")
            match = re.fullmatch(r"(?:[A-Z]\w+::)+(~?\w+)(?:\(\))?", quoted)
            if match and match.group(1).lstrip("~") not in words:
                problems.append(f"{name}: {quoted}, a name that no source has")
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
