#!/usr/bin/env python3
"""Prints a Google Benchmark result as ratios of ours to each peer.

Benchmarks are named AREA/WHAT/WHO[/ARGUMENTS]; WHO is "ours" or the peer's name. Benchmarks that differ in WHO alone are
compared: by items or bytes per second where they are counted, else by time. Every number is the median of the repetitions;
the spread is their coefficient of variation. Of a single repetition there is but the one number, and no spread. A benchmark
that sets its time to 0 has its counters to tell, and nothing else.
"""
import json
import re
import sys


def split_names(names):
    """Maps each name to what is compared and who did it: ours, and the names that differ from one of ours there alone."""
    run_as = r"/(real_time|manual_time|process_time|iterations:\d+|repeats:\d+|threads:1)\b"
    parts_of = {name: re.sub(run_as, "", name).split("/") for name in names}

    def places(parts):
        return [(tuple(parts[:place]), tuple(parts[place + 1:]), parts[place]) for place in range(len(parts))]

    ours = {(before, behind) for parts in parts_of.values() for before, behind, who in places(parts) if who == "ours"}
    split = {}
    for name, parts in parts_of.items():
        for before, behind, who in places(parts):
            if (before, behind) in ours:
                split[name] = "/".join(before + behind), who
                break
    return split


# What Google Benchmark itself writes into a run; all other numbers are the benchmark's own counters.
OWN_KEYS = {"family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads", "iterations",
            "real_time", "cpu_time", "bytes_per_second", "items_per_second"}


def read(path):
    """Maps what -> who -> {time, rate, unit, counters, spread}; spread is missing where nothing was repeated."""
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    runs = [run for run in document["benchmarks"]
            if run.get("aggregate_name") in ("median", "cv")
            or run["run_type"] == "iteration" and run.get("repetitions", 1) == 1]
    runs = [run for run in runs if not run.get("error_occurred")]
    # Interleaved runs are reported in a random order.
    runs.sort(key=lambda run: (run.get("family_index", 0), run.get("per_family_instance_index", 0)))
    split = split_names({run["run_name"] for run in runs})
    table = {}
    for run in runs:
        if run["run_name"] not in split:
            continue
        what, who = split[run["run_name"]]
        entry = table.setdefault(what, {}).setdefault(who, {})
        if run.get("aggregate_name") != "cv":
            scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
            entry["time"] = run["real_time"] * scale
            entry["rate"] = run.get("bytes_per_second") or run.get("items_per_second")
            entry["unit"] = "B/s" if run.get("bytes_per_second") else "/s"
            entry["counters"] = {key: value for key, value in run.items()
                                 if key not in OWN_KEYS and isinstance(value, (int, float))}
        else:
            entry["spread"] = run.get("bytes_per_second") or run.get("items_per_second") or run["real_time"]
    return document["context"], table


def quantity(entry):
    """The figure of one side, readable."""
    if not entry["rate"]:
        time = entry["time"]
        for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
            if time >= scale:
                return f"{time / scale:.2f} {unit}"
        return f"{time:.1f} ns"
    rate = entry["rate"]
    for prefix, scale in (("G", 1e9), ("M", 1e6), ("k", 1e3)):
        if rate >= scale:
            return f"{rate / scale:.2f} {prefix}{entry['unit']}"
    return f"{rate:.1f} {entry['unit']}"


def speed(ours, peer):
    """How many times as fast ours is."""
    if ours["rate"] and peer["rate"]:
        return ours["rate"] / peer["rate"]
    return peer["time"] / ours["time"]


def spread(entry):
    """The spread of one side, readable; blank when unknown."""
    return f"+-{100 * entry['spread']:.0f} %" if "spread" in entry else ""


def has_time(entry):
    """Whether the time says anything."""
    return entry["time"] > 0


def show_counters(who, entry):
    if entry["counters"]:
        text = ", ".join(f"{name} {value:.3g}" for name, value in entry["counters"].items())
        print(f"  {'':34}{who:>14} {text}")


def main():
    for path in sys.argv[1:]:
        context, table = read(path)
        print(f"{context['num_cpus']} processors at {context['mhz_per_cpu']} MHz, load {context.get('load_avg', '?')}")
        for what, sides in table.items():
            ours = sides.get("ours")
            if ours is None:
                continue
            figure = f" ours {quantity(ours):>12}  {spread(ours)}" if has_time(ours) else ""
            print(f"  {what:44}{figure}".rstrip())
            show_counters("ours", ours)
            for who, peer in sides.items():
                if who == "ours":
                    continue
                if has_time(ours) and has_time(peer):
                    factor = speed(ours, peer)
                    print(f"  {'':34}{who:>14} {quantity(peer):>12}  {spread(peer)}"
                          f"   ours is {factor:.2f} x as fast, takes {1 / factor:.2f} x the time")
                show_counters(who, peer)


if __name__ == "__main__":
    main()
