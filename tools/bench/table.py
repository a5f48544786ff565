#!/usr/bin/env python3
"""Writes docs/benchmarks.md from the results of `./build.sh bench`: one table for each program, beside its peers.

    python3 tools/bench/table.py [--machine TEXT] [build/bench/*_bench.json ...]

Tables of programs that have no result here stay as they stand in the document, so that areas can be measured one by one.
"""
import argparse
import glob
import os
import re

import ratios

DOCUMENT = "docs/benchmarks.md"
# The first part of a benchmark's name, in the order of the document.
AREAS = {
    "Strings": "Strings",
    "Numbers": "Numbers",
    "Format": "Format",
    "Hashes": "Checksums and hashes",
    "Memory": "Memory manager",
    "Threads": "Locks, threads and the pool",
    "Map": "Ordered map",
    "WeakType": "Weak types",
    "XML": "XML",
    "Files": "Files and archives",
    "Logging": "Loggers",
    "LogWriters": "Writers of the loggers",
    "MemoryLog": "Memory event log",
    "Debug": "Call stacks",
}
HEAD = """# Benchmarks

Every figure is measured beside what a user would take instead, in the same run on the same machine. `x` is how many times as
fast ours is: above 1 ours is faster. Figures are medians of the repetitions, the spread is their coefficient of variation;
machines that others use at the same time spread more. GB are 10^9 bytes of the source.

`./build.sh bench [AREA]` measures, `python3 tools/bench/table.py` writes the tables below from `build/bench/`. An area that
was not measured keeps its table. What is behind the figures is in the guides of the areas.
"""


def read_sections():
    """The document's tables, by title."""
    if not os.path.exists(DOCUMENT):
        return {}
    with open(DOCUMENT, encoding="utf-8") as file:
        parts = re.split(r"^## (.*)\n", file.read(), flags=re.MULTILINE)
    return {title: body.strip("\n") for title, body in zip(parts[1::2], parts[2::2])}


def spread(entry):
    return f"{100 * entry.get('spread', 0):.0f} %"


def split_unit(counter):
    """Splits longest_stall_ms into what is counted and its unit; no unit, no figure for the document."""
    found = re.fullmatch(r"(\w+?)_(us|ms|percent|per_byte)", counter)
    if found is None:
        return counter, None
    return found[1].replace("_", " "), found[2].replace("percent", "%").replace("_", " ")


def number(value):
    return f"{value:.3g}" if value < 999.5 else f"{value:.0f}"


def rows(name, sides, cells, compare):
    """Lines of one table: ours with the first peer, each other peer below. `cells` gives a side's figure and spread."""
    front = f"| {name} | {' | '.join(cells(sides['ours']))} "
    peers = [(who, peer) for who, peer in sides.items() if who != "ours"]
    lines = []
    for who, peer in peers:
        lines.append(f"{front}| {who} | {' | '.join(cells(peer))} | {compare(sides['ours'], peer)} |")
        front = "| | | "
    return [re.sub(r"\|\s+(?=\|)", "| ", line) for line in lines or [f"{front}| | | | |"]]


def tables_of(path, machine):
    """The tables of one program's result, by title."""
    program = re.sub(r"_bench\.json$", "", os.path.basename(path))
    context, table = ratios.read(path)
    load = ", ".join(f"{value:.1f}" for value in context.get("load_avg", []))
    tables = {}
    for what, sides in table.items():
        area, name = what.split("/", 1)
        lines = tables.setdefault(AREAS.get(area, area), [
            f"{machine}, {context['num_cpus']} processors, load {load}; {context['date'][:10]}, `./build.sh bench {program}`.",
            "", "| What | Ours | Spread | Beside | Its figure | Spread | x |", "|---|--:|--:|---|--:|--:|--:|"])
        if ratios.has_time(sides["ours"]):
            lines += rows(name, sides, lambda entry: (ratios.quantity(entry), spread(entry)),
                          lambda ours, peer: f"{ratios.speed(ours, peer):.2f}")
        for counter in sides["ours"]["counters"]:
            label, unit = split_unit(counter)
            if unit:
                lines += rows(f"{name}: {label}", {who: side for who, side in sides.items() if counter in side["counters"]},
                              lambda entry: (f"{number(entry['counters'][counter])} {unit}", ""), lambda ours, peer: "")
    return {title: "\n".join(lines) for title, lines in tables.items()}


def processor():
    """The processor's name, where the system tells it."""
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as file:
            return re.search(r"model name\s*: (.*)", file.read()).group(1)
    except (OSError, AttributeError):
        return "unknown processor"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--machine", default=processor(), help="what the results were measured on")
    parser.add_argument("results", nargs="*", help="build/bench/*_bench.json")
    arguments = parser.parse_args()
    sections = read_sections()
    for path in sorted(arguments.results or glob.glob("build/bench/*_bench.json")):
        sections.update(tables_of(path, arguments.machine))
    titles = list(AREAS.values()) + sorted(set(sections) - set(AREAS.values()))
    with open(DOCUMENT, "w", encoding="utf-8") as file:
        file.write(HEAD)
        for title in titles:
            file.write(f"\n## {title}\n\n{sections.get(title, 'Not measured yet.')}\n")


if __name__ == "__main__":
    main()
