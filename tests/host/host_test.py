#!/usr/bin/env python3
"""Runs vlmhost as a user does. Usage: host_test.py VLMHOST SOURCES [EMULATOR]

What a file's numbers must be comes from wc, iconv and zlib, not from the library.
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import zlib

PROGRAM = sys.argv[1]
SOURCES = pathlib.Path(sys.argv[2])
EMULATOR = sys.argv[3:]
MARKS = [(b"\xff\xfe\0\0", "UTF-32LE"), (b"\0\0\xfe\xff", "UTF-32BE"), (b"\xef\xbb\xbf", "UTF-8"),
         (b"\xff\xfe", "UTF-16LE"), (b"\xfe\xff", "UTF-16BE")]


def fnv1a64(data):
    value = 0xCBF29CE484222325
    for byte in data:
        value = (value ^ byte) * 0x100000001B3 % 2**64
    return value


def tool(*command, data):
    return subprocess.run(command, input=data, stdout=subprocess.PIPE, check=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout


def expected(path):
    """The row of one file, by other people's tools."""
    data = path.read_bytes()
    mark, encoding = next(((m, e) for m, e in MARKS if data.startswith(m)), (b"", "UTF-8"))
    utf8 = tool("iconv", "-f", encoding, "-t", "UTF-8", data=data[len(mark):])
    return {
        "encoding": encoding,
        "byteOrderMark": bool(mark),
        "bytes": int(tool("wc", "-c", data=data)),
        "lines": int(tool("wc", "-l", data=utf8)),
        "codePoints": int(tool("wc", "-m", data=utf8)),
        "utf8Bytes": len(utf8),
        "utf16Bytes": len(tool("iconv", "-f", "UTF-8", "-t", "UTF-16LE", data=utf8)),
        "utf32Bytes": len(tool("iconv", "-f", "UTF-8", "-t", "UTF-32LE", data=utf8)),
        "crc32": f"{zlib.crc32(data):08x}",
        "fnv1a64": f"{fnv1a64(data):016x}",
    }


class Host(unittest.TestCase):
    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp())
        self.log = self.work / "host.log"
        self.folder = self.work / "input"
        self.folder.mkdir()

    def tearDown(self):
        shutil.rmtree(self.work)

    def run_host(self, *arguments, code=0):
        # Into files: what an emulator leaves running would keep a pipe open.
        with open(self.work / "output", "w+b") as output_file, open(self.work / "errors", "w+b") as error_file:
            run = subprocess.run([*EMULATOR, PROGRAM, "--log", str(self.log), *map(str, arguments)],
                                 stdin=subprocess.DEVNULL, stdout=output_file, stderr=error_file, cwd=SOURCES, check=False)
        output, errors = ((self.work / name).read_bytes().decode().replace("\r\n", "\n") for name in ("output", "errors"))
        self.assertEqual(run.returncode, code, output + errors)
        self.assertIn("No memory leaks.\n", errors)
        return output, errors

    def check_numbers(self, index, root):
        for row in index["files"]:
            want = {"path": row["path"], **expected(root / row["path"])}
            self.assertEqual({key: row[key] for key in want}, want)

    def test_numbers_agree_with_wc_iconv_and_zlib(self):
        inputs = ["README.md", "docs", "examples/host/samples"]
        inputs += [str(path) for path in map(pathlib.Path, ("/usr/share/common-licenses/GPL-3",)) if path.exists()]
        index = json.loads(self.run_host("--json", *inputs)[0])
        names = [row["path"] for row in index["files"]]
        self.assertIn("README.md", names)
        self.assertIn("examples/host/samples/big-utf32.txt", names)
        self.assertIn("docs/architecture.md", names)
        self.check_numbers(index, SOURCES)
        for key in ("bytes", "lines", "codePoints", "utf8Bytes", "utf16Bytes", "utf32Bytes"):
            self.assertEqual(index["total"][key], sum(row[key] for row in index["files"]), key)

    def test_the_table_and_the_log_show_the_same_numbers(self):
        output, _ = self.run_host("examples/host/samples")
        index = json.loads(self.run_host("--json", "examples/host/samples")[0])
        lines = output.splitlines()
        self.assertEqual(len(lines), 2 + len(index["files"]))
        for line, row in zip(lines[1:], index["files"]):
            cells = line.split()
            self.assertEqual(cells, [row["path"], row["encoding"], str(row["bytes"]), str(row["lines"]),
                                     str(row["codePoints"]), str(row["utf8Bytes"]), str(row["utf16Bytes"]),
                                     str(row["utf32Bytes"]), row["crc32"], row["fnv1a64"]])
        self.assertEqual(len({len(line.rstrip()) for line in lines[1:-1]}), 1, "columns are aligned")
        log = self.log.read_text(encoding="utf-8").splitlines()
        self.assertRegex(log[0], r"^\d+: \[Info\] Log start\.$")
        self.assertRegex(log[-1], r"^\d+: \[Info\] Log end\.$")
        self.assertEqual(len(log), 2 + len(index["files"]))
        for line, row in zip(log[1:], index["files"]):
            self.assertRegex(line, rf"^\d+: \[Info\] {row['path']}: {row['encoding']}, {row['bytes']} bytes, ")

    def test_bad_files_are_named_and_the_others_go_on(self):
        (self.folder / "good.txt").write_bytes("gut äöü\n".encode())
        bad = {
            "zero.txt": (b"a\0b", "Not a text file: no UTF-8 character at byte 1."),
            "latin.txt": (b"caf\xe9 au lait", "Not a text file: no UTF-8 character at byte 3."),
            "cut.txt": (b"ok \xe2\x82", "Not a text file: no UTF-8 character at byte 3."),
            "overlong.txt": (b"\xc0\xaf", "Not a text file: no UTF-8 character at byte 0."),
            "surrogate.txt": (b"\xed\xa0\x80", "Not a text file: no UTF-8 character at byte 0."),
            "beyond.txt": (b"\xf4\x90\x80\x80", "Not a text file: no UTF-8 character at byte 0."),
            "lone16.txt": (b"\xff\xfea\0\x00\xdc", "Not a text file: no UTF-16LE character at byte 4."),
            "odd16.txt": (b"\xff\xfea\0b", "Not a text file: no UTF-16LE character at byte 4."),
            "large32.txt": (b"\xff\xfe\0\0\0\0\x11\0", "Not a text file: no UTF-32LE character at byte 4."),
        }
        for name, (data, _) in bad.items():
            (self.folder / name).write_bytes(data)
        output, errors = self.run_host(self.folder, self.folder / "missing.txt", code=1)
        self.assertIn("good.txt", output)
        self.assertIn(f"1 of {len(bad) + 2} file(s)", output)
        for name, (_, message) in bad.items():
            self.assertIn(f"{name}: {message}\n", errors)
        self.assertRegex(errors, r"missing\.txt: \S+")
        index = json.loads(self.run_host("--json", self.folder, code=1)[0])
        self.assertEqual(sum("error" in row for row in index["files"]), len(bad))

    def test_names_beyond_ascii(self):
        for name in ("Übersicht.txt", "дом.txt", "文字.txt"):
            (self.folder / name).write_text(name, encoding="utf-8")
        index = json.loads(self.run_host("--json", self.folder)[0])
        names = [row["path"].replace("\\", "/").rsplit("/", 1)[1] for row in index["files"]]
        self.assertEqual(sorted(names), sorted(["Übersicht.txt", "дом.txt", "文字.txt"]))
        single = json.loads(self.run_host("--json", self.folder / "文字.txt")[0])
        self.assertEqual(single["files"][0]["codePoints"], len("文字.txt"))

    def test_wrong_use(self):
        self.assertIn("Nothing to index", self.run_host(code=2)[1])
        self.assertIn("Unknown option --wrong", self.run_host("--wrong", code=2)[1])
        self.assertIn("--log needs a value.", self.run_host("--log", code=2)[1])
        self.assertIn("Exit code", self.run_host("--help")[0])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
