#!/usr/bin/env python3
"""Every public name has a docstring: doxygen reads the public headers and names what has none.

One docstring may stand above several declarations that follow each other without an empty line; doxygen gives it to the
first alone, so the others are looked up here. What explains itself by its form needs none: destructors, copying and moving,
overrides, operators, what makes a type a range, the enumeration inside an E... namespace, and what the library's own headers
keep in Impl and Encodings.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
SELF_EVIDENT = re.compile(
    r"Type \(enumeration\)|~\w+\(|\boverride\b|operator=\(|Member (\w+)\(\1(?:< .* >)? (?:const ?)?&|= delete|= default|"
    r"namespace Velmor::Impl\b|Velmor::Impl::|DerivedFromCResource|\(friend\)|\(macro definition\)|"
    r"Member (operator|begin\(|end\(|value_type|difference_type|reference |pointer |iterator_c|\w+\(std::nullptr_t\))|"
    r"Velmor::Encodings")


def has_group_docstring(path, line):
    """True when a docstring stands above the declaration with no empty line between."""
    lines = (ROOT / path).read_text(encoding="utf-8").splitlines()
    for index in range(line - 1, -1, -1):
        text = lines[index].strip()
        if "///" in text:
            return True
        if not text or re.match(r"(public|protected):|(class|struct|namespace)\b.*\{$", text):
            return False
    return False


def main():
    (ROOT / "build").mkdir(exist_ok=True)
    run = subprocess.run(["doxygen", "docs/Doxyfile"], cwd=ROOT, check=True, capture_output=True, text=True)
    missing = []
    for warning in run.stderr.splitlines():
        match = re.match(rf"{ROOT}/(\S+?):(\d+): warning: (.*) is not documented\.", warning)
        if not match or SELF_EVIDENT.search(match.group(3)):
            continue
        path, line = match.group(1), int(match.group(2))
        declaration = (ROOT / path).read_text(encoding="utf-8").splitlines()[line - 1]
        if re.search(r"\boverride\b|= delete|= default", declaration) or "impl/" in path and "private" in declaration:
            continue
        if not has_group_docstring(path, line):
            missing.append(f"{path}:{line}: {match.group(3)}")
    print("\n".join(sorted(set(missing))), end="\n" if missing else "")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
