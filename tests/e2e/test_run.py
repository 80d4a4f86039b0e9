"""SIGTERM at known points of a run, held there by a detector that waits for a file or by stopping
the process. Every wait is for an event; the deadlines only guard against a run that never gets there."""

import os
import signal

import harness

# Holds the call whose sample holds HOLD until the go file exists, after saying where it is (the pid
# file appears whole).
HOLD = 'case "$1" in *HOLD*) echo $$ > {log}/pid; mv {log}/pid {log}/held; while [ ! -e {log}/go ]; do sleep 0.01; done ;; esac'


def committed(sb):
    """(tables, music rows with their playlist column) the database file holds committed."""
    if not os.path.exists(sb.db_path()):
        return None
    con = sb.committed()
    tables = [n for (n,) in con.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
    rows = con.execute("SELECT Real_fname, PlsFile FROM music_tbl").fetchall() if b"music_tbl" in tables else []
    return len(tables), rows


class HeldRuns(harness.SandboxTestCase):
    def held(self, sb, proc):
        """Waits until the detector holds the walk; False when the run ended first."""
        return harness.wait_for(lambda: os.path.exists(sb.path("log", "held")) or proc.poll() is not None) \
            and proc.poll() is None

    def test_sigterm_in_the_playlist_phase_keeps_what_the_m3u_committed(self):
        # The first m3u commits the walk and leaves the connection in autocommit, so a run cut in
        # the pls pass leaves the walk's rows and the resolved playlists; without an m3u nothing.
        for with_m3u in (True, False):
            with self.subTest(with_m3u=with_m3u):
                sb = self.sandbox("pls")
                sb.detector("", extra=HOLD.format(log=sb.path("log")))
                for name, data in (("a.mp3", ""), ("b.mp3", ""), ("p1.pls", "File1=b.mp3\n"),
                                   ("p2.pls", "File1=none.mp3\n" * 20000),
                                   ("zz/held.mp3", harness.latin1_tag([("TIT2", b"HOLD")]))):
                    sb.file(name, data)
                if with_m3u:
                    sb.file("a.m3u", "a.mp3\n")
                seen = {}

                def cut(proc):
                    try:
                        if not self.held(sb, proc):
                            return
                        seen["walk"] = committed(sb)
                        open(sb.path("log", "go"), "w").close()
                        while proc.poll() is None:  # stop it, look whether it reads p2.pls, go on
                            os.kill(proc.pid, signal.SIGSTOP)
                            if not harness.wait_for(lambda: harness.process_state(proc.pid) in ("T", "t", "Z", None)):
                                return
                            if any(p.endswith("/p2.pls") for p in harness.open_paths(proc.pid)):
                                seen["pls"] = committed(sb)
                                os.kill(proc.pid, signal.SIGTERM)
                                os.kill(proc.pid, signal.SIGCONT)
                                return
                            os.kill(proc.pid, signal.SIGCONT)
                    finally:
                        open(sb.path("log", "go"), "w").close()

                res = sb.run(during=cut)
                self.assertEqual((res.status, res.lines[-1]), (0, b"mediawalk(): terminate"), res)
                self.assertIn(b"Parse playlist-->", res.lines)
                self.assertNotIn(b"Sort DBtable-->", res.lines)
                self.assertIsNone(sb.read_tmp("mediawalking.tmp"))
                self.assertEqual(seen["walk"], (0, []))
                want = (11, [(b"a.m3u", b"2,"), (b"a.mp3", b"0"), (b"b.mp3", b"0"), (b"p1.pls", b"3,"),
                             (b"p2.pls", b"0"), (b"held.mp3", b"0")]) if with_m3u else (0, [])
                self.assertEqual(seen["pls"], want)
                self.assertEqual(committed(sb), want)

    def test_sigterm_in_the_walk_ends_the_detector_and_removes_the_marker(self):
        sb = self.sb
        sb.detector("windows-1252", extra=HOLD.format(log=sb.path("log")))
        sb.file("a.mp3", harness.latin1_tag([("TIT2", b"HOLD")]))
        sb.file("b.m3u", "a.mp3\n")
        sb.file("sub/c.srt", "1")
        seen = {}

        def terminate(proc):
            try:
                if not self.held(sb, proc):
                    return
                seen["marker"], seen["pid"] = sb.read_tmp("mediawalking.tmp"), proc.pid
                os.kill(proc.pid, signal.SIGTERM)
                with open(sb.path("log", "held")) as f:
                    detector = int(f.read())
                seen["ended"] = harness.wait_for(lambda: harness.process_state(detector) in (None, "Z"))
            finally:
                open(sb.path("log", "go"), "w").close()

        res = sb.run(during=terminate)
        self.assertEqual((res.status, res.lines[-1]), (0, b"mediawalk(): terminate"), res)
        self.assertNotIn(b"Parse playlist-->", res.lines)
        self.assertTrue(seen["ended"], "the detector outlived the scan")
        if not harness.LAUNCHER:  # under an emulator pidof finds no process of that name
            self.assertIn(b"%d" % seen["pid"], seen["marker"].split())
        self.assertIsNone(sb.read_tmp("mediawalking.tmp"))  # so the next run is not refused
