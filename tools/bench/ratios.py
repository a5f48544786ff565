#!/usr/bin/env python3
"""Prints a Google Benchmark result as ratios of ours to each peer.

Benchmarks are named AREA/WHAT/WHO[/ARGUMENTS]; WHO is "ours" or the peer's name. Benchmarks that differ in WHO alone are
compared: by items or bytes per second where they are counted, else by time. Every number is the median of the repetitions;
the spread is their coefficient of variation.
"""
import json
import re
import sys


def split_name(name):
    """Gives what is compared, and who did it; None for a benchmark without that form."""
    name = re.sub(r"/(real_time|process_time|repeats:\d+|threads:1)\b", "", name)
    parts = name.split("/")
    for position, part in enumerate(parts):
        if part == "ours" or position == 2:
            return "/".join(parts[:position] + parts[position + 1:]), part
    return None


# What Google Benchmark itself writes into a run; all other numbers are the benchmark's own counters.
OWN_KEYS = {"family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads", "iterations",
            "real_time", "cpu_time", "bytes_per_second", "items_per_second"}


def read(path):
    """Maps what -> who -> {median, spread, rate}."""
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    table = {}
    for run in document["benchmarks"]:
        aggregate = run.get("aggregate_name")
        if aggregate not in ("median", "cv"):
            continue
        split = split_name(run["run_name"])
        if split is None:
            continue
        entry = table.setdefault(split[0], {}).setdefault(split[1], {})
        if aggregate == "median":
            scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
            entry["time"] = run["real_time"] * scale
            entry["rate"] = run.get("bytes_per_second") or run.get("items_per_second")
            entry["unit"] = "B/s" if run.get("bytes_per_second") else "/s"
            entry["counters"] = {key: value for key, value in run.items()
                                 if key not in OWN_KEYS and isinstance(value, (int, float))}
        else:
            entry["spread"] = run["real_time"]
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
            print(f"  {what:44} ours {quantity(ours):>12}  +-{100 * ours.get('spread', 0):.0f} %")
            show_counters("ours", ours)
            for who, peer in sides.items():
                if who == "ours":
                    continue
                speed = peer["time"] / ours["time"]
                if ours["rate"] and peer["rate"]:
                    speed = ours["rate"] / peer["rate"]
                print(f"  {'':34}{who:>14} {quantity(peer):>12}  +-{100 * peer.get('spread', 0):.0f} %"
                      f"   ours is {speed:.2f} x as fast, takes {1 / speed:.2f} x the time")
                show_counters(who, peer)


if __name__ == "__main__":
    main()
