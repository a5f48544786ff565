#!/usr/bin/env python3
"""Runs the calculator as a user does. Usage: calculator_test.py CALCULATOR [EMULATOR]"""
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv[1]
EMULATOR = sys.argv[2:]

# What is typed, and the answer.
SESSION = [
    ("1 + 2", "3 : Integer"),
    ("7 / 0", "0 : Integer"),
    ("7.0 / 0", "0.0 : Float"),
    ("7 % 0", "0 : Integer"),
    ("1 + 0.5", "1.5 : Float"),
    ('2 + "3"', "5 : Integer"),
    ('"a" + true', '"atrue" : String'),
    ('"banana" - "an"', '"ba" : String'),
    ("0.1 == 0.1000005", "true : Boolean"),
    ("1 == true", "true : Boolean"),
    ('"b" < "a"', "false : Boolean"),
    ('"10" < 9', "false : Boolean"),
    ("!0.0", "false : Boolean"),
    ("!2.0", "true : Boolean"),
    ("!0", "true : Boolean"),
    ("~1.0", "-1065353216.0 : Float"),
    ('-"a"', " : Invalid"),
    ("-2147483648 / -1", "-2147483648 : Integer"),
    ("1 << 33", "2 : Integer"),
    ("2 + 3 * 4", "14 : Integer"),
    ("(2 + 3) * 4", "20 : Integer"),
    ("0x10", "16 : Integer"),
    ("a = b = 5", "5 : Integer"),
    ("r = ref a", "5 : Integer"),
    ("++r", "6 : Integer"),
    ("a", "6 : Integer"),
    ("a = ref r", "error: A weak type cannot refer to itself."),
    ("a", "6 : Integer"),
    ("nothing", " : Invalid"),
    ("unknown", " : Invalid"),
    ("grün = 1", "1 : Integer"),
    ("grün", "1 : Integer"),
    ("größe1 = 1", "1 : Integer"),
    ("größe2 = 2", "2 : Integer"),
    ("größe1", "1 : Integer"),
    ("strict on", None),
    ("1 + 0.5", "1.5 : Float"),
    ('"a" + "b"', "error: Type mismatch between String and String."),
    ("1 & 0.5", "error: Type mismatch between Integer and Float."),
    ('r == "6"', "error: Type mismatch between Reference and String."),
    ("t = true", "true : Boolean"),
    ("++t", "error: Type Boolean invalid in context."),
    ("strict off", None),
    ("", None),
    ("1 +", "error: Column 4: a value is missing."),
    ("(1", "error: Column 3: a closing parenthesis is missing."),
    ('"abc', "error: Column 5: a closing quote is missing."),
    ("1 2", "error: Column 3: an operator or the end is missing."),
    ("++ 1", "error: Column 4: a name is missing."),
    ("(" * 1000, "error: Column 101: this is nested too deeply."),
    ("+".join(["1"] * 2000), "2000 : Integer"),
]


class Calculator(unittest.TestCase):
    def run_calculator(self, *arguments, text="", code=0):
        # Into a file: what an emulator leaves running would keep a pipe open.
        with tempfile.TemporaryFile() as entered, tempfile.TemporaryFile() as printed:
            entered.write(text.encode())
            entered.seek(0)
            run = subprocess.run([*EMULATOR, PROGRAM, *arguments], stdin=entered, stdout=printed,
                                 stderr=subprocess.DEVNULL, check=False)
            printed.seek(0)
            output = printed.read().decode().replace("\r\n", "\n")
        self.assertEqual(run.returncode, code, output)
        return output.splitlines()

    def test_a_session(self):
        lines = self.run_calculator(text="".join(typed + "\n" for typed, _ in SESSION))
        self.assertEqual(lines, [answer for _, answer in SESSION if answer is not None])

    def test_texts_of_the_command_line(self):
        self.assertEqual(self.run_calculator("--eval", "x = 2", "x * x"), ["2 : Integer", "4 : Integer"])
        self.assertEqual(self.run_calculator("--eval", "x =", "3", code=1),
                         ["error: Column 4: a value is missing.", "3 : Integer"])
        self.assertEqual(self.run_calculator("--eval", code=2), [])
        self.assertEqual(self.run_calculator("--wrong", "1", code=2), [])

    def test_the_last_line_needs_no_end(self):
        self.assertEqual(self.run_calculator(text="1\r\n2"), ["1 : Integer", "2 : Integer"])
        self.assertEqual(self.run_calculator(text=""), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
