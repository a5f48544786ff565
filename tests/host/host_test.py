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
import xml.parsers.expat
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
        self.assertIn("XML: 10 elements of 6 names, 7 attributes of 3 names\n", output)
        lines = [line for line in output.splitlines() if not line.startswith("XML: ")]
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
        names = ["Übersicht.txt", "дом.txt", "文字.txt", "😀 und 𐍈.txt"]
        inner = self.folder / "𝄞"
        inner.mkdir()
        for folder in (self.folder, inner):
            for name in names:
                (folder / name).write_text(name, encoding="utf-8")
        index = json.loads(self.run_host("--json", self.folder)[0])
        found = [row["path"].replace("\\", "/").rsplit("/", 1)[1] for row in index["files"]]
        self.assertEqual(found, sorted(names, key=str.encode) * 2)
        for name in names:
            for path in (self.folder / name, inner / name):
                single = json.loads(self.run_host("--json", path)[0])
                self.assertEqual(single["files"][0]["codePoints"], len(name))
        rows = json.loads(self.run_host("--json", "--mount", self.folder, "𝄞/😀 und 𐍈.txt", "𝄞")[0])["files"]
        self.assertEqual(len(rows), 5)
        target = self.work / "🗑"
        target.mkdir()
        self.run_host("--log", self.work / "📜.log", "--replace", "und", "oder", "--into", target, inner)
        self.assertEqual((target / "😀 und 𐍈.txt").read_text(encoding="utf-8"), "😀 oder 𐍈.txt")
        self.assertTrue((self.work / "📜.log").exists())

    def test_names_that_are_no_text(self):
        if EMULATOR:
            self.skipTest("names are text there")
        (pathlib.Path(os.fsdecode(os.fsencode(self.folder) + b"/caf\xe9.txt"))).write_bytes(b"x")
        (self.folder / "back\\slash.txt").write_bytes(b"yy")
        rows = json.loads(self.run_host("--json", self.folder)[0])["files"]
        self.assertEqual([row["bytes"] for row in rows], [2, 1])
        self.assertTrue(rows[1]["path"].endswith("/caf\udce9.txt"), rows[1]["path"])

    def test_links_to_folders_are_passed_over(self):
        (self.folder / "inner").mkdir()
        (self.folder / "inner" / "one.txt").write_bytes(b"1")
        try:
            for place, name in ((self.folder, "a"), (self.folder, "b"), (self.folder / "inner", "up")):
                (place / name).symlink_to(self.folder, target_is_directory=True)
            (self.folder / "file-link").symlink_to(self.folder / "inner" / "one.txt")
        except OSError:
            self.skipTest("no links here")
        for arguments in ((self.folder,), ("--mount", self.work, "input")):
            rows = json.loads(self.run_host("--json", *arguments)[0])["files"]
            ends = [row["path"].replace("\\", "/").split("input/")[1] for row in rows]
            self.assertEqual(ends, ["file-link", "inner/one.txt"])
        # Asked for by name, a link is what it leads to.
        rows = json.loads(self.run_host("--json", self.folder / "a")[0])["files"]
        self.assertEqual(len(rows), 2)

    def test_an_empty_folder_has_no_files_and_a_closed_one_is_named(self):
        self.assertEqual(json.loads(self.run_host("--json", self.folder)[0])["files"], [])
        if EMULATOR or os.geteuid() == 0:
            return
        (self.folder / "closed").mkdir(mode=0)
        rows = json.loads(self.run_host("--json", self.folder, code=1)[0])["files"]
        self.assertEqual(len(rows), 1)
        self.assertIn("error", rows[0])

    def test_a_folder_beside_the_program_through_its_archive(self):
        beside = pathlib.Path(PROGRAM).parent / "vlmhost-beside"
        shutil.rmtree(beside, ignore_errors=True)
        (beside / "inner").mkdir(parents=True)
        try:
            (beside / "one.txt").write_bytes(b"1")
            (beside / "inner" / "two.txt").write_bytes(b"22")
            rows = json.loads(self.run_host("--json", "--mount", ":", "vlmhost-beside", "vlmhost-beside/one.txt",
                                            ":RCDATA/1")[0])["files"]
            self.assertEqual([row["bytes"] for row in rows], [2, 1, 1, 246])
        finally:
            shutil.rmtree(beside)

    def test_more_jobs_give_the_same_index(self):
        one = self.run_host("--json", "--find", "e", "docs", "examples", "README.md")[0]
        for jobs in ("2", "7", "255"):
            self.assertEqual(self.run_host("--json", "--find", "e", "--jobs", jobs, "docs", "examples", "README.md")[0], one)
        log = self.log.read_text(encoding="utf-8").splitlines()
        self.assertEqual(len(log), 2 + len(json.loads(one)["files"]))

    def test_find_agrees_with_grep(self):
        text = "eins zwei\nzwei zwei drei\n\nzzwei\nünfzwei zwe\n"
        for codec, mark in (("utf-8", b""), ("utf-16-le", b"\xff\xfe"), ("utf-16-be", b"\xfe\xff"),
                            ("utf-32-le", b"\xff\xfe\0\0"), ("utf-32-be", b"\0\0\xfe\xff")):
            (self.folder / "text.txt").write_bytes(mark + text.encode(codec))
            for wanted in ("zwei", "z", "ü", "nichts"):
                found = json.loads(self.run_host("--json", "--find", wanted, self.folder)[0])["files"][0]["found"]
                grep = subprocess.run(["grep", "-onF", "-b", "--", wanted], input=text.encode(), capture_output=True,
                                      env={**os.environ, "LC_ALL": "C.UTF-8"}, check=False).stdout.decode().splitlines()
                places = []
                for line in grep:
                    number, offset = (int(part) for part in line.split(":")[:2])
                    before = text.encode()[:offset].decode()
                    places.append([number, len(before) - (before.rfind("\n") + 1) + 1])
                self.assertEqual(found, places, (codec, wanted))
        listed = self.run_host("--find", "drei", self.folder)[0]
        self.assertRegex(listed, r"text\.txt:2:11\n1 occurrence\(s\)\n$")

    def test_replace_agrees_with_sed_in_every_encoding(self):
        target = self.work / "changed"
        target.mkdir()
        text = "Öl und Öl\nohne\nÖlÖl\n"
        want = tool("sed", "s/Öl/Wasser/g", data=text.encode()).decode()
        kinds = {"a.txt": ("utf-8", b""), "b.txt": ("utf-16-le", b"\xff\xfe"), "c.txt": ("utf-16-be", b"\xfe\xff"),
                 "d": ("utf-32-le", b"\xff\xfe\0\0"), "e.x.txt": ("utf-32-be", b"\0\0\xfe\xff"), "f.txt": ("utf-8", b"\xef\xbb\xbf")}
        for name, (codec, mark) in kinds.items():
            (self.folder / name).write_bytes(mark + text.encode(codec))
        self.run_host("--replace", "Öl", "Wasser", "--into", target, self.folder)
        for name, (codec, mark) in kinds.items():
            self.assertEqual((target / name).read_bytes(), mark + want.encode(codec), name)
            self.assertEqual((self.folder / name).read_bytes(), mark + text.encode(codec), "the original stays")
        self.assertIn("--replace and --into belong together.", self.run_host("--into", target, self.folder, code=2)[1])

    def test_xml_counts_agree_with_expat(self):
        beyond_ascii = self.folder / "names.xml"
        beyond_ascii.write_text("<größe><größe1 ä1='1'> </größe1><größe2 ä2='2'> </größe2><größe1/> </größe>\n", encoding="utf-8")
        documents = [SOURCES / "examples/host/samples/catalog.xml", beyond_ascii]
        # Real documents without an apostrophe or a ">" in an attribute's value, which the tokenizer reads its own way.
        real = ("/usr/share/xml/iso-codes/iso_639-5.xml", "/usr/share/metainfo/org.winehq.wine.appdata.xml",
                "/usr/share/unicode/cldr/common/main/de.xml")
        documents += [path for path in map(pathlib.Path, real) if path.exists()]
        for document in documents:
            names, attribute_names, counts = set(), set(), [0, 0]

            def start(name, attributes):
                names.add(name)
                attribute_names.update(attributes)
                counts[0] += 1
                counts[1] += len(attributes)

            parser = xml.parsers.expat.ParserCreate()
            parser.StartElementHandler = start
            parser.Parse(document.read_bytes(), True)
            total = json.loads(self.run_host("--json", document)[0])["total"]
            self.assertEqual([total[key] for key in ("elements", "attributes", "elementNames", "attributeNames")],
                             [*counts, len(names), len(attribute_names)], document)

    def test_a_broken_document_is_named(self):
        (self.folder / "broken.xml").write_text("<a b>c</a>\n", encoding="utf-8")
        self.assertIn("XML parser error (malformed XML).", self.run_host(self.folder, code=1)[1])

    def test_embedded_samples_are_the_files_they_were_made_of(self):
        rows = {row["path"]: row for row in json.loads(self.run_host("--json", ":")[0])["files"]}
        samples = SOURCES / "examples/host/samples"
        for path, file in ((":RCDATA/1", "plain-utf8.txt"), (":RCDATA/2", "little-utf16.txt"),
                           (":RCDATA/3", "catalog.xml"), (":SAMPLE/1", "emoji-utf8.txt")):
            self.assertEqual(rows[path]["crc32"], f"{zlib.crc32((samples / file).read_bytes()):08x}")
        self.assertEqual(len(rows), 4)
        self.assertIn("could not be found", self.run_host(":RCDATA/9", code=1)[1])

    def test_the_first_mounted_folder_that_has_a_path_answers(self):
        first, second = self.folder / "first", self.folder / "second"
        for folder, text in ((first, "1"), (second, "22")):
            folder.mkdir()
            (folder / "both.txt").write_text(text, encoding="utf-8")
        (second / "one.txt").write_text("only here", encoding="utf-8")
        rows = json.loads(self.run_host("--json", "--mount", first, "--mount", second, "--mount", ":", "both.txt", "one.txt",
                                        ":RCDATA/1")[0])["files"]
        self.assertEqual([row["bytes"] for row in rows], [1, 9, 246])

    def test_memory_statistics_and_the_memory_log(self):
        output, _ = self.run_host("--memory", "--memlog", self.work, "examples/host/samples")
        self.assertRegex(output, r"Heap: \d+ bytes in use")
        events = json.loads((self.work / "events.json").read_text(encoding="utf-8"))["Data"]
        stacks = json.loads((self.work / "stacks.json").read_text(encoding="utf-8"))["Data"]
        self.assertGreater(len(events), 100)
        self.assertLessEqual({event["CSHash"] for event in events}, {stack["CSHash"] for stack in stacks})

    def test_wrong_use(self):
        self.assertIn("--jobs takes a number from 1 to 255, not 0.", self.run_host("--jobs", "0", "x", code=2)[1])
        self.assertIn("--jobs takes a number from 1 to 255, not many.", self.run_host("--jobs", "many", "x", code=2)[1])
        self.assertIn("Nothing to index", self.run_host(code=2)[1])
        self.assertIn("A path is empty.", self.run_host("", code=2)[1])
        self.assertIn("Unknown option --wrong", self.run_host("--wrong", code=2)[1])
        self.assertIn("--log needs a value.", self.run_host("--log", code=2)[1])
        self.assertIn("Exit code", self.run_host("--help")[0])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
