"""The reader in tools/ and the library have to agree about every document, whole or damaged."""
import contextlib
import importlib.machinery
import importlib.util
import io
import json
import os
import random
import shutil
import subprocess
import sys
import unittest

ROOT, SAMPLES, FOLDER = sys.argv[1:4]
TOOL = os.path.join(ROOT, "tools", "read-document")
sys.path.insert(0, os.path.join(ROOT, "tools"))
LOADER = importlib.machinery.SourceFileLoader("reader", TOOL)
reader = importlib.util.module_from_spec(importlib.util.spec_from_loader("reader", LOADER))
LOADER.exec_module(reader)

RECORDED = os.path.join(ROOT, "tests", "data", "version-1.doc")
ALBUM, PICTURES = os.path.join(FOLDER, "album.doc"), os.path.join(FOLDER, "pictures.doc")
DAMAGED = os.path.join(FOLDER, "damaged.doc")


def ask_library(path):
    """What the library says: of its items, of its check (None if it refuses the file)."""
    lines = subprocess.run([SAMPLES, "describe", path], stdout=subprocess.PIPE, check=True).stdout.decode().splitlines()
    items = [line.split(" ", 6)[1:] for line in lines if line.startswith("item ")]
    verified = [line.split()[1:] for line in lines if line.startswith("verified")]
    return lines[0].split(), items, [int(number) for number in verified[0]] if verified else None


def run(*arguments):
    """The reader's exit code and what it prints, in this process."""
    sys.argv = ["read-document", *arguments]
    output, errors = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(output), contextlib.redirect_stderr(errors):
        try:
            code = reader.main()
        except SystemExit as end:
            code = end.code
    return code, output.getvalue()


def damage(path, change):
    with open(path, "rb") as file:
        data = bytearray(file.read())
    changed = change(data)
    data = data if changed is None else changed
    with open(DAMAGED, "wb") as file:
        file.write(data)


class Hashes(unittest.TestCase):
    def test_are_those_of_the_library(self):
        data = bytes((i * i >> 3 ^ i) & 255 for i in range(20000))
        lines = subprocess.run([SAMPLES, "hashes"], stdout=subprocess.PIPE, check=True).stdout.decode().splitlines()
        self.assertGreater(len(lines), 300)
        for line in lines:
            size, narrow, low, high = (int(number) for number in line.split())
            self.assertEqual(reader.xxh3.hash64(data[:size]), narrow, size)
            self.assertEqual(reader.xxh3.hash128(data[:size]), (low, high), size)


class WholeDocuments(unittest.TestCase):
    def test_have_the_items_that_the_library_names(self):
        for path in (ALBUM, PICTURES):
            code, text = run("list", "--json", path)
            self.assertEqual(code, 0)
            listed = json.loads(text)
            archive, items, _ = ask_library(path)
            self.assertEqual([str(listed[key]) for key in ("fileBytes", "deadBytes", "commitNumber", "tag")],
                             archive[1:])
            self.assertEqual([[str(item[key]) for key in ("offset", "type", "rawSize", "storedSize", "id", "name")]
                              for item in listed["items"]], items)
            self.assertEqual(listed["unfinishedBytes"], 0)

    def test_check(self):
        for path in (ALBUM, PICTURES):
            code, text = run("check", path)
            self.assertEqual((code, text), (0, "%d items checked, 0 problems\n" % ask_library(path)[2][1]))

    def test_hold_items_of_every_form(self):
        document = reader.Document(PICTURES)
        headers = [document.read_header(entry) for entry in document.newest()[1]]
        self.assertEqual({(header.codec, header.sample_bytes) for header in headers if header.type == b"bolB"},
                         {(reader.RAW, 0), *((reader.ZSTD, size) for size in (1, 2, 4, 8))})
        self.assertEqual({header.sample_bytes for header in headers if header.type == b"ItaD"}, {1, 2, 4})

    def test_show_their_properties(self):
        code, text = run("dump", PICTURES, "Document.dat")
        self.assertEqual(code, 0)
        for line in ('Docu, version 3', '  Name: "A layer"', "  Rect: RectInt32 1 -2 300 400", "  Opac: Double 0.75",
                     "  Raw : RawData, 10 bytes 3031323334353637", "  Lay2: DyBm, version 1", "    Frmt: Enum 11 1",
                     "    Sta1: UInt8 0 1 4 4 0 1", "      0: Blck, version 1",
                     "  Crve: Spln, version 1", "    Pnts: PointDouble 0.0 0.0 0.5 0.25 1.0 1.0",
                     "  Meta: 2 texts", '    "Author": "nobody"'):
            self.assertIn(line + "\n", text)
        self.assertRegex(text, r"  Prd8: item -> Blob b/\d+ \([0-9a-f]{16}:\d+\)\n")
        code, text = run("dump", ALBUM, "Album.dat")
        self.assertRegex(text, r"  Labl: shared -> ShOb s/\d+ \(([0-9a-f]{16}:\d+)\)\n")
        shared = text[text.rindex("(") + 1:text.rindex(")")]
        self.assertEqual(run("dump", ALBUM, shared), (0, 'Labl, version 1\n  Text: "An album"\n'))

    def test_tell_of_a_save_that_was_cut_off(self):
        tail = bytes(random.Random(1).choices(range(256), k=1000))
        damage(ALBUM, lambda data: data + tail)
        code, text = run("check", DAMAGED)
        self.assertEqual(code, 0)
        self.assertIn("1000 bytes behind the last commit", text)
        self.assertEqual(ask_library(DAMAGED)[2], [0, 12, 1000])


class RecordedDocument(unittest.TestCase):
    """The document that is kept is read for ever, by this reader too."""

    def test_is_listed(self):
        code, text = run("list", "--json", RECORDED)
        self.assertEqual(code, 0)
        listed = json.loads(text)
        archive, items, _ = ask_library(RECORDED)
        self.assertEqual([str(listed[key]) for key in ("fileBytes", "deadBytes", "commitNumber", "tag")], archive[1:])
        self.assertEqual(len(listed["items"]), len(items))
        self.assertEqual((listed["version"], listed["tag"], len(listed["commits"])), (1, "Rast", 2))
        self.assertEqual(sorted(item["name"] for item in listed["items"] if item["type"] == "Strm"),
                         ["Document.dat", *("Layer-%04d.dat" % i for i in range(1, 8)), "Notes/\xe9t\xe9",
                          "Types.dat"])

    def test_checks(self):
        code, text = run("check", RECORDED)
        self.assertEqual((code, text), (0, "%d items checked, 0 problems\n" % ask_library(RECORDED)[2][1]))

    def test_shows_its_properties(self):
        code, text = run("dump", RECORDED, "Types.dat")
        self.assertEqual(code, 0)
        for line in ("Type, version 7", "  Ui64: UInt64 9223372036854775808", "  In16: Int16 -30000",
                     "  Dbl : Double 0.1", '  Utf8: "\u20ac"', "  Rect: RectInt32 -4 3 2 1", "  Arra: UInt16 1 2 3",
                     "  Crve: Spln, version 1", "  Meta: 1 texts", '    "Author": "nobody"'):
            self.assertIn(line + "\n", text)
        for name in ("Document.dat", "Layer-0005.dat"):
            self.assertEqual(run("dump", RECORDED, name)[0], 0)


class DamagedDocuments(unittest.TestCase):
    def expect_agreement(self, what):
        code, text = run("check", DAMAGED)
        verified = ask_library(DAMAGED)[2]
        is_damaged = verified is None or verified[0] != 0
        self.assertEqual(code != 0, is_damaged, (what, text, verified))
        return code, text

    def test_are_found_wherever_a_byte_changes(self):
        numbers = random.Random(2)
        size = os.path.getsize(ALBUM)
        for at in [0, 9, 30, 60, *(numbers.randrange(size) for _ in range(40))]:
            def change(data):
                data[at] ^= 1 << numbers.randrange(8)
            damage(ALBUM, change)
            self.assertNotEqual(self.expect_agreement(at)[0], 0, at)

    def test_are_found_in_every_part(self):
        listed = json.loads(run("list", "--json", ALBUM)[1])
        for commit in listed["commits"]:
            for at in (commit["footer"], commit["index"] + 40, commit["footer"] - 64 + 5):
                def change(data):
                    data[at + 1] ^= 4
                damage(ALBUM, change)
                self.assertEqual(self.expect_agreement(at)[0], 1, at)
        for item in listed["items"]:
            for at in (item["offset"] + 50, item["offset"] + 120):
                def change(data):
                    data[at] ^= 4
                damage(ALBUM, change)
                code, text = self.expect_agreement(at)
                self.assertEqual(code, 1, at)
                self.assertIn("item %s (%s) at %d is damaged" % (item["name"], item["type"], item["offset"]), text)

    def test_open_in_the_state_before_where_the_end_is_lost(self):
        size = os.path.getsize(ALBUM)
        ends = sorted(commit["footer"] + 64 for commit in json.loads(run("list", "--json", ALBUM)[1])["commits"])
        self.assertEqual(ends[-1], size)
        for length in (size - 1, size - 64, size - 65, ends[-2], ends[-2] - 1, ends[0]):
            damage(ALBUM, lambda data: data[:length])
            code, text = run("list", "--json", DAMAGED)
            self.assertEqual(code, 0)
            self.assertEqual(str(json.loads(text)["commitNumber"]), ask_library(DAMAGED)[0][3], length)
        for length in (0, 63, 64, 5000):
            damage(ALBUM, lambda data: data[:length])
            self.assertNotEqual(self.expect_agreement(length)[0], 0)

    def test_report_a_lost_footer(self):
        def change(data):
            data[-64:] = bytes(64)
        damage(ALBUM, change)
        self.assertIn("the end of the last commit is damaged", self.expect_agreement("footer")[1])


class Command(unittest.TestCase):
    def test_ends_with_2_for_what_it_cannot_do(self):
        self.assertEqual(run("check", TOOL)[0], 2)
        self.assertEqual(run("check", os.path.join(FOLDER, "none"))[0], 2)
        self.assertEqual(run("guess", ALBUM)[0], 2)
        self.assertEqual(run("dump", ALBUM, "none")[0], 2)

    def test_says_what_it_leaves_out_without_zstd(self):
        result = subprocess.run([sys.executable, "-B", TOOL, "check", ALBUM], env={**os.environ, "PATH": FOLDER},
                                stdout=subprocess.PIPE, check=False)
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"not checked: the entries of lists of contents", result.stdout)

    def test_prints_no_control_characters(self):
        self.assertEqual(reader.name_text(b"a\x1b[2Jb\xff"), "a\\x1b[2Jb\\xff")
        self.assertEqual(reader.tag_text(b"\x1btrS"), "Srt\\x1b")


if __name__ == "__main__":
    subprocess.run([SAMPLES, "make", FOLDER], check=True)
    unittest.main(argv=["ReadDocument"])
