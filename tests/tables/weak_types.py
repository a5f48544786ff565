#!/usr/bin/env python3
"""Writes weak_types_table.inc: what every operator gives for every pair of operands, in and out of strict mode.

A second statement of the operators' rules, independent of the C++ code; the table it prints is kept under version control,
so that the tests compare with values that are written out. Run it only when a rule changes, and read the difference.
"""
import math
import pathlib
import struct

OPERANDS = ["B1", "B0", "I7", "I-3", "I0", "F2.5", "F0", "Fnan", "S12", "Sab", "Strue", "X", "RI7", "RS12"]
COMPARISONS = ["==", "!=", "<", "<=", ">", ">="]
ARITHMETIC = ["+", "-", "*", "/", "%"]
BITWISE = ["&", "|", "^", "<<", ">>"]
NAMES = {"R": "Reference", "B": "Boolean", "I": "Integer", "F": "Float", "S": "String", "X": "Invalid"}


def f32(value):
    try:
        return struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        return math.copysign(math.inf, value)


def wrap(value):
    return (value + 2**31) % 2**32 - 2**31


def parse(code):
    """A resolved value as (type letter, value)."""
    code = code[1:] if code[0] == "R" else code
    kind, text = code[0], code[1:]
    return {"B": lambda: (kind, text == "1"), "I": lambda: (kind, int(text)), "F": lambda: (kind, f32(float(text))),
            "S": lambda: (kind, text), "X": lambda: (kind, 0)}[kind]()


def as_integer(value):
    kind, payload = value
    if kind == "F":
        return wrap(0 if math.isnan(payload) else int(payload))
    if kind == "S":
        return {"12": 12}.get(payload, 0)
    return int(payload)


def as_float(value):
    kind, payload = value
    return {"12": 12.0}.get(payload, 0.0) if kind == "S" else f32(float(payload))


def as_boolean(value):
    kind, payload = value
    if kind == "F":
        return payload < 0 or payload > 0
    return payload == "true" if kind == "S" else bool(payload)


def as_string(value):
    kind, payload = value
    if kind == "B":
        return "true" if payload else "false"
    if kind == "F":
        return "NaN" if math.isnan(payload) else {2.5: "2.5", 0.0: "0.0"}[payload]
    return "" if kind == "X" else str(payload)


def byte(value):
    """First byte of the payload; a text's is one of its address: even and not zero."""
    return 0x10 if value[0] == "S" else int(value[1])


def show(kind, payload):
    if kind == "F":
        text = "nan" if math.isnan(payload) else "%.9g" % payload
        return "F" + text
    if kind == "B":
        return "B%d" % payload
    return kind + str(payload)


def mismatch(left, right):
    return f"!{NAMES[left]}-{NAMES[right]}"


def compare(op, left_code, right_code, strict):
    left, right = parse(left_code), parse(right_code)
    if strict and left_code[0] != right_code[0] and "X" not in (left[0], right[0]):
        if left[0] not in "IF" or right[0] not in "IF":
            return mismatch(left_code[0], right_code[0])
    kinds = left[0] + right[0]
    if op in ("==", "!="):
        if "F" in kinds:
            difference = f32(as_float(left) - as_float(right))
            result = f32(-0.000001) < difference < f32(0.000001)
        elif "I" in kinds:
            result = as_integer(left) == as_integer(right)
        elif kinds == "SS":
            result = left[1] == right[1]
        else:
            result = as_boolean(left) == as_boolean(right)
        return "10"[result == (op == "!=")]
    if kinds == "SS":
        a, b = left[1], right[1]
    elif "F" in kinds:
        a, b = as_float(left), as_float(right)
    else:
        a, b = as_integer(left), as_integer(right)
    result = {"<": not a >= b, "<=": a <= b, ">": a > b, ">=": a >= b}[op]
    return "1" if result else "0"


def prepare(value, other):
    if value[0] != "X":
        return value
    return {"B": ("B", False), "I": ("I", 0), "F": ("F", 0.0), "S": ("S", ""), "X": value}[other[0]]


def arithmetic(op, left_code, right_code, strict):
    a, b = parse(left_code), parse(right_code)
    left, right = prepare(a, b), prepare(b, a)
    kinds = left[0] + right[0]
    if strict and "X" not in kinds:
        allowed = "IF" if op in ARITHMETIC else "I"
        if left[0] not in allowed or right[0] not in allowed:
            return mismatch(left[0], right[0])
    if op in BITWISE:
        x, y = as_integer(left), as_integer(right)
        return "I%d" % {"&": x & y, "|": x | y, "^": x ^ y, "<<": wrap(x << (y % 32)), ">>": x >> (y % 32)}[op]
    if "F" in kinds:
        x, y = as_float(left), as_float(right)
        if op in "/%":
            zero = not (y < 0 or y > 0)
            result = 0.0 if zero else (x / y if op == "/" else math.fmod(x, y))
        else:
            result = {"+": x + y, "-": x - y, "*": x * y}[op]
        return show("F", f32(result))
    if "I" in kinds:
        x, y = as_integer(left), as_integer(right)
        if op in "/%":
            quotient = 0 if y == 0 else abs(x) // abs(y) * (1 if (x < 0) == (y < 0) else -1)
            return "I%d" % (0 if y == 0 else wrap(quotient) if op == "/" else x - quotient * y)
        return "I%d" % wrap({"+": x + y, "-": x - y, "*": x * y}[op])
    if op == "+" and "S" in kinds:
        return "S" + as_string(left) + as_string(right)
    if op == "-" and kinds == "SS":
        return "S" + (left[1].replace(right[1], "") if right[1] else left[1])
    result = {"+": byte(left) or byte(right), "-": byte(left) ^ byte(right)}.get(op, byte(left) and byte(right))
    return "B%d" % bool(result)


def main():
    lines = ["// Written by weak_types.py: operator, strict mode, left operand, then the result for each right operand in turn.",
             "// B Boolean, I Integer, F Float, S String, X Invalid, R a reference to what follows; !A-B a type mismatch.",
             "// Right operands: " + " ".join(OPERANDS)]
    for strict in (False, True):
        for op in COMPARISONS + ARITHMETIC + BITWISE:
            rule = compare if op in COMPARISONS else arithmetic
            for left in OPERANDS:
                results = " ".join(rule(op, left, right, strict) for right in OPERANDS)
                lines.append('{"%s", %s, "%s", "%s"},' % (op, "true" if strict else "false", left, results))
    path = pathlib.Path(__file__).with_name("weak_types_table.inc")
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()
