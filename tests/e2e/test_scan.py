"""Whole runs of the real binary over shares described in tables (tests/data/e2e/*.json): each case
gives the settings, the share and what the run must leave (status, stdout lines, database rows,
/tmp files, xmldb nodes, detector calls). One test per table, one subtest per case."""

import os
import re
import stat

import harness

FILL = re.compile(r"\{fill:(.):(\d+)\}")
DATE = re.compile(r"^[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d UTC \d{4}$")


class Scans(harness.SandboxTestCase):
    def expand(self, sb, value):
        """Table texts name the sandbox's paths as {share}, {mnt}, {db}, {tmp}, {root}, {bin}."""
        if isinstance(value, str):
            for key, path in (("share", sb.share), ("mnt", sb.mnt), ("db", sb.db_path()), ("tmp", sb.tmp),
                              ("root", sb.root), ("bin", sb.bin)):
                value = value.replace("{%s}" % key, path)
            # {fill:C:N}: the character C as often as brings the text up to here to N characters.
            while FILL.search(value):
                m = FILL.search(value)
                value = value[:m.start()] + m.group(1) * (int(m.group(2)) - m.start()) + value[m.end():]
            return value
        if isinstance(value, list):
            return [self.expand(sb, v) for v in value]
        if isinstance(value, dict):
            return {self.expand(sb, k): self.expand(sb, v) for k, v in value.items()}
        return value

    def build(self, sb, case):
        if "conf" in case:
            sb.etc("upnpav.conf", case["conf"])
        if "codepage" in case:
            sb.etc("codepage", case["codepage"])
        if "detector" in case:
            sb.detector(case["detector"], case.get("detector_status", 0), case.get("detector_extra", ""))
        for rel, desc in case.get("files", []):  # paths relative to the share, or absolute
            target = os.path.join(harness.raw(sb.share), harness.raw(rel))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            if isinstance(desc, dict) and "link" in desc:
                os.symlink(harness.raw(desc["link"]), target)
            elif isinstance(desc, dict) and "fifo" in desc:
                os.mkfifo(target)
            elif isinstance(desc, dict) and "dir" in desc:
                os.makedirs(target, exist_ok=True)
            elif isinstance(desc, dict) and "sparse" in desc:
                with open(target, "wb") as f:
                    f.truncate(desc["sparse"])
                    for offset, data in desc.get("at", []):  # bytes written into the holes
                        f.seek(offset), f.write(harness.raw(data))
            else:
                sb.file(target, harness.content(desc), mtime=1700000000)

    def check(self, sb, case, res):
        want = case["expect"]
        self.assertEqual(res.status, want.get("status", 1), res)
        lines = ["<date>" if DATE.match(line) else line for line in map(harness.text, res.lines)]
        if "stdout" in want:
            self.assertEqual(lines, want["stdout"])
        for line in want.get("has", []):
            self.assertIn(line, lines)
        out = harness.text(res.stdout)
        for piece, n in want.get("count", {}).items():
            self.assertEqual(out.count(piece), n, piece)
        for sql, rows in want.get("rows", {}).items():
            got = [[harness.text(v) for v in row] for row in sb.query(sql)]
            self.assertEqual(got, rows, sql)
        for name, data in want.get("tmp", {}).items():
            self.assertEqual(sb.read_tmp(name), None if data is None else harness.raw(data), name)
        if "tmp_names" in want:
            self.assertEqual(sorted(os.listdir(sb.tmp)), want["tmp_names"])
        if "xmldb" in want:  # the last values, and scan_done once and last (the progress thread is
            got = sb.xmldb.requests  # never joined: its last pair may come after the driver's)
            self.assertEqual(dict(got), want["xmldb"], got)
            self.assertEqual([i for i, (n, _) in enumerate(got) if n == "scan_done"], [len(got) - 1] if got else [])
        if "xmldb_log" in want:  # a pattern of the requests in order, one "node value" line each
            with open(sb.path("log", "xmldb")) as f:
                self.assertRegex(f.read(), want["xmldb_log"])
        if "detector_calls" in want:  # how many, and the sample of some by their place in the walk
            calls = [harness.text(c) for c in sb.detector_calls()]
            self.assertEqual(len(calls), want["detector_calls"]["count"])
            for n, sample in want["detector_calls"]["at"].items():
                self.assertEqual(calls[int(n)], sample)
            with open(sb.detector_log + ".argc") as f:
                self.assertEqual(set(f.read().split()), {"1"})
        for path, data in want.get("files", {}).items():
            if data is None:
                self.assertFalse(os.path.lexists(path), path)
            elif data == "<fifo>":
                self.assertTrue(stat.S_ISFIFO(os.lstat(path).st_mode), path)
            elif isinstance(data, int):
                self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), data, path)
            else:
                with open(path, "rb") as f:
                    self.assertEqual(f.read(), harness.raw(data), path)

    def run_table(self, name):
        for case in harness.load_cases(name):
            with self.subTest(case["name"]):
                sb = self.sandbox(case["name"][:8], case.get("tz", "UTC"))
                case = self.expand(sb, case)
                self.build(sb, case)
                sb.wrapper = case.get("wrapper", [])
                self.check(sb, case, sb.run(xmldb=case.get("xmldb", "answer")))


for _table in ("driver", "media", "library", "hostile"):  # one test per table
    setattr(Scans, "test_" + _table, lambda self, name=_table + ".json": self.run_table(name))
