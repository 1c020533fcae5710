#!/usr/bin/env python3
"""mavscan driven as a user runs it: mavscan_test.py [unittest arguments].

The environment (CMakeLists.txt) names the binaries; the default adapter is
found beside the library, as installed. The signatures come from
scripts/make-testdb.sh; the EICAR test file is assembled here, never stored.
"""
import base64
import fcntl
import json
import os
import shutil
import signal
import subprocess
import tempfile
import termios
import time
import unittest

MAVSCAN = os.environ["MAVSCAN"]
CLAMAV = os.environ["CLAMAV_ADAPTER"]
SOURCE = os.environ["KORMO_SOURCE_DIR"]

EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}" + b"$EICAR-STANDARD-ANTIVIRUS" + b"-TEST-FILE!$H+H*"
EICAR_NAME = "Eicar-Test-Signature.UNOFFICIAL"
HASH1_NAME = "Kormo.Test.Hash.1.UNOFFICIAL"
MARKER_NAME = "Kormo.Test.Marker.UNOFFICIAL"

W = None  # the shared work folder (setUpModule)


def setUpModule():
    global W
    W = tempfile.mkdtemp(prefix="mavscan-test.")
    subprocess.run([os.path.join(SOURCE, "scripts", "make-testdb.sh"), path("db")],
                   check=True, stdout=subprocess.DEVNULL)
    for d in ("empty-db", "cwd"):
        os.makedirs(path(d))
    marker = read("db/marker.txt")
    # clean/: three harmless files; mixed/: clean files and one of each kind of finding.
    for rel, data in (("clean/a.txt", b"nothing to see\n"),
                      ("clean/b.html", b"<html><body>hello</body></html>\n"),
                      ("clean/sub/c.bin", bytes(range(256)) * 64),
                      ("mixed/readme.txt", b"a plain text\n"), ("mixed/eicar.com", EICAR),
                      ("mixed/deep/notes.txt", b"words, then " + marker + b" and more words\n"),
                      ("mixed/deep/empty.dat", b"")):
        put(rel, data)
    shutil.copy(path("db/samples/hash1.bin"), path("mixed/hash1.bin"))


def tearDownModule():
    shutil.rmtree(W, ignore_errors=True)


def path(rel):
    return os.path.join(W, rel)


def read(rel):
    with open(path(rel), "rb") as f:
        return f.read()


def put(rel, data, mode=0o644):
    p = path(rel)
    os.makedirs(os.path.dirname(p), exist_ok=True)
    with open(p, "wb") as f:
        f.write(data)
    os.chmod(p, mode)
    return p


def base_env(db=None):
    env = {k: v for k, v in os.environ.items() if k not in ("PEL_LIB", "LD_LIBRARY_PATH")}
    env["KORMO_CLAMAV_DATABASE"] = path("db") if db is None else db
    return env


def run(args, db=None, stdin=b"", cwd=None, prefix=()):
    """Runs mavscan; returns (exit status, stdout text, stderr text)."""
    p = subprocess.run([*prefix, MAVSCAN, *args], input=stdin, capture_output=True,
                       cwd=cwd or path("cwd"), env=base_env(db), timeout=120)
    return (p.returncode, *(t.decode("utf-8", "replace") for t in (p.stdout, p.stderr)))


def text_form(out):
    """The text form: its object lines sorted, and the summary's fields."""
    head, _, block = out.partition("----------- SCAN SUMMARY -----------\n")
    return (sorted(l for l in head.splitlines() if l),
            dict(l.split(": ", 1) for l in block.splitlines() if ": " in l))


def json_lines(out):
    objs = [json.loads(l) for l in out.splitlines()]
    return [o for o in objs if "summary" not in o], [o["summary"] for o in objs if "summary" in o]


def config(db):
    """A configuration: the default profile LOCAL, one step of ClamAV with the signatures in db."""
    p, a, d = ("mav.profile.LOCAL", "mav.provider.Pelmark.Adapters.CLAM",
               "mav.provider.Pelmark.Adapters.CLAM.Parameters.INITDRIVERDIRECTORY")
    return "\n".join([
        "mav.defaults.profile=LOCAL", p + "=LOCAL", p + ".Active=true", p + ".ProfileLinkage=0",
        p + ".ProfileSteps.0=0", p + ".ProfileSteps.0.ProfileEntryType=0",
        p + ".ProfileSteps.0.ProfileEntryValue=G", "mav.group.G=G", a + "=CLAM", a + ".Active=true",
        a + ".Group=G", a + ".PoolMaxInstances=4", a + ".AdapterPath=" + escape(CLAMAV),
        d + "=INITDRIVERDIRECTORY", d + ".Type=CHAR", d + ".Value=" + escape(db), ""]).encode()


def escape(text):
    """The configuration's \\u escapes for blanks, separators and bytes >= 0x80."""
    return "".join("\\u%04X" % b if b >= 0x80 or chr(b) in " \t;=\\" else chr(b)
                   for b in text.encode())


def check(test, args, status, lines=None, has=(), err=(), sums=None, **kw):
    """Runs mavscan and checks the exit status; lines: all object lines (with
    sums=NO_SUMMARY and lines=[]: nothing printed); has: texts that start some
    output line (blank runs read as one); err: texts on standard error; sums:
    the summary's scanned, infected and error counts. Returns standard output."""
    rc, out, errtext = run(args, **kw)
    objs, fields = text_form(out)
    counts = tuple(fields.get(k) for k in ("Scanned objects", "Infected objects", "Errors"))
    flat = [" ".join(l.split()) for l in out.splitlines()]
    test.assertEqual((status, lines is not None and sorted(lines), sums, [], []),
                     (rc, lines is not None and objs, sums and counts,
                      [w for w in has if not any(l.startswith(w) for l in flat)],
                      [t for t in err if t not in errtext]), (args, out, errtext))
    return out


NO_SUMMARY = (None, None, None)


def ok(rel):
    return path(rel) + ": OK"


class TableTest(unittest.TestCase):
    """Exit status (0 clean, 1 found, 2 error; an error outranks a finding), the
    text form, workers, configuration sources, options, standard input, links."""

    def test_rows(self):
        C, M, A, E, empty = map(path, ("clean", "mixed", "clean/a.txt", "mixed/eicar.com",
                                       "empty-db"))
        eicar = E + ": " + EICAR_NAME + " FOUND"
        notes = path("mixed/deep/notes.txt") + ": " + MARKER_NAME + " FOUND"
        found = [eicar, notes, path("mixed/hash1.bin") + ": " + HASH1_NAME + " FOUND"]
        mixed = found + [ok("mixed/deep/empty.dat"), ok("mixed/readme.txt")]
        clean = [ok("clean/a.txt"), ok("clean/b.html"), ok("clean/sub/c.bin")]
        limited = [l.replace(": OK", ": ERROR Not scanned: SCANLIMIT exceeded") for l in clean]
        put("cwd-props/mav.properties", config(path("db")))
        cfg, empty_cfg = put("conf/scan.properties", config(path("db"))), put(
            "conf/empty-db.properties", config(empty))
        files = put("conf/list.txt", ("%s\n\n%s\n" % (E, A)).encode())
        log, trace = path("conf/scan.log"), path("conf/scan.trc")
        put("outside/eicar.com", EICAR)
        put("linked/plain.txt", b"plain\n")
        link = path("linked/to-eicar")
        os.symlink(path("outside/eicar.com"), link)
        os.symlink(path("linked"), path("linked/loop"))
        linked, stdin_found = link + ": " + EICAR_NAME + " FOUND", "stdin: " + EICAR_NAME + " FOUND"
        rows = (  # arguments, exit status, checks
            ([C], 0, dict(lines=clean, sums=("3", "0", "0"))),
            ([M], 1, dict(lines=mixed, sums=("5", "3", "0"))),
            (["-j", "4", M, C], 1, dict(lines=mixed + clean, sums=("8", "3", "0"))),
            # An error outranks a finding.
            ([path("nothere"), A, E], 2, dict(sums=("3", "1", "1"), lines=[
                ok("clean/a.txt"), eicar, path("nothere") + ": ERROR No such file or directory"])),
            # The engine cannot clean: the finding stands.
            (["--clean", E], 1, dict(lines=[eicar, E + ": not cleaned"])),
            (["-q", M], 1, dict(lines=found, sums=NO_SUMMARY)),
            (["-q", C], 0, dict(lines=[], sums=NO_SUMMARY)),
            # A limit every object exceeds: each one an error, none clean.
            (["--set", "SCANLIMIT=10", C], 2, dict(has=limited, sums=("3", "0", "3"))),
            (["--set", "SCANLIMIT=30", "-", C], 2, dict(stdin=b"x" * 31, has=[
                "stdin: ERROR Not scanned: larger than SCANLIMIT (30 bytes)", ok("clean/a.txt"),
                "Data scanned: 0.00 MB", "Engine: clamav: ClamAV"])),
            # Configuration sources: the working folder, --config, --adapter and
            # --set, -d over a configuration.
            (["--profile", "LOCAL", M], 1,
             dict(cwd=path("cwd-props"), db=empty, sums=("5", "3", "0"))),
            (["--config", cfg, M], 1, dict(db=empty, sums=("5", "3", "0"))),
            (["--adapter", CLAMAV, "--set", "INITDRIVERDIRECTORY=" + path("db"), M], 1,
             dict(db=empty, sums=("5", "3", "0"))),
            (["-d", path("db"), E], 1, dict(db=empty, has=[eicar])),
            (["--config", empty_cfg, "-d", path("db"), E], 1, dict(db=empty, has=[eicar])),
            (["--set", "SCANLIMIT=123456", "--info"], 0, dict(has=[
                "Adapter: clamav", "SCANLIMIT SIZE_T 123456",
                "INITDRIVERDIRECTORY CHAR " + path("db")])),
            # Options.
            (["--exclude", "eicar", "--exclude-dir", "deep$", M], 1,
             dict(lines=[ok("mixed/readme.txt"), found[2]])),
            (["--include", r"\.(txt|com)$", M], 1,
             dict(lines=[eicar, notes, ok("mixed/readme.txt")])),
            (["-i", M], 1, dict(lines=found, sums=("5", "3", "0"))),
            (["--no-summary", M], 1, dict(lines=mixed, sums=NO_SUMMARY)),
            (["-f", files], 1, dict(lines=[eicar, ok("clean/a.txt")])),
            (["-l", log, A], 0, dict(lines=[ok("clean/a.txt")])),
            (["--trace", trace, "--trace-level", "2", A], 0, {}),
            (["--trace", path("no/such/x.trc"), A], 2, dict(err=("cannot write the trace file",))),
            # Standard input; links followed when named or with -L (the loop once).
            (["-"], 1, dict(stdin=EICAR, lines=[stdin_found])),
            ([path("linked")], 0, dict(lines=[ok("linked/plain.txt")])),
            (["-L", path("linked")], 1, dict(lines=[ok("linked/plain.txt"), linked])),
            ([link], 1, dict(lines=[linked])),
        )
        for args, status, checks in rows:
            check(self, args, status, **checks)
        self.assertEqual((True, True), ((ok("clean/a.txt") + "\n").encode() in read(log),
                                        b"MavScanFile" in read(trace)))
        # Only bytes an engine read count: a.txt (15) scanned, b.html over the limit.
        out = check(self, ["--json", "--set", "SCANLIMIT=20", A, path("clean/b.html")], 2)
        self.assertEqual(15, json_lines(out)[1][0]["bytes"])

    def test_refusals_and_usage_errors_report_nothing(self):
        C, empty, usage = path("clean"), path("empty-db"), "Try 'mavscan --help' for more"
        for args, texts in (
                ([C], ("the default profile has no usable adapter", "freshclam", empty)),
                (["--config", path("conf/none.properties"), C], ("cannot read configuration",)),
                (["--adapter", path("no.so"), C], ("cannot start", "MAV_E_PEL_LOAD_FAILED")),
                (["--profile", "LOCAL", C], ("LOCAL is not usable", "MAV_E_PROFILE_NOT_FOUND")),
                (["--set", "NOSUCHPARAM=1", C], ("NOSUCHPARAM is not offered",)),
                (["--set", "SCANLIMIT=lots", C], ("cannot set SCANLIMIT=lots (SIZE_T)",)),
                (["--set", "INITDRIVERDIRECTORY=/x", C], ("start parameter",)),
                (["--bogus", "x"], ("unknown option --bogus", usage)),
                ([], ("no path given", usage)),
                (["-j", "0", "x"], ("-j needs a number", usage)),
                (["--trace-level", "4", "x"], ("--trace-level needs", usage)),
                (["--set", "NOVALUE", "x"], ("--set needs NAME=VALUE", usage)),
                (["--adapter", CLAMAV, "--profile", "P", "x"], ("cannot be combined", usage)),
                (["--exclude", "(", "x"], ("pattern ( is not valid", usage)),
                (["-d"], ("-d needs a value", usage))):
            check(self, args, 2, lines=[], sums=NO_SUMMARY, err=texts,
                  db=empty if args == [C] else None)


class JsonTest(unittest.TestCase):
    """--json: one object per line that parses; names that cannot forge results."""

    def test_lines_parse(self):
        both = put("two/both.com", EICAR + b"\n" + read("db/marker.txt"))  # two findings
        objs, sums = json_lines(check(self, ["--json", path("mixed"), path("nothere"), both], 2))
        o = {o["path"]: o for o in objs}
        e, m = o[path("mixed/eicar.com")], o[path("nothere")]
        self.assertEqual(([(7, 4, 1)], "FOUND", "MAV_E_VIRUS_FOUND", len(EICAR),
                          [{"name": EICAR_NAME, "object": path("mixed/eicar.com")}],
                          ("ERROR", "MAV_E_INVALID_SCANOBJECT", "No such file or directory"),
                          [EICAR_NAME, MARKER_NAME]),
                         ([(s["scanned"], s["found"], s["errors"]) for s in sums], e["verdict"],
                          e["code"], e["size"], e["infections"],
                          (m["verdict"], m["code"], m["error"]),
                          sorted(i["name"] for i in o[both]["infections"])))

    def test_names_cannot_forge_results(self):
        name = put('odd/qu"ote\\back\tand\x01ctl\x1f \xe9.txt'.encode().decode(), b"fine\n")
        forged = os.path.join(path("odd").encode(), b"x\nforged: OK")
        raw = os.path.join(path("odd").encode(), b"bad\xffbyte.txt")
        look_alike = put("odd/bad\u00ffbyte.txt", b"fine\n")  # U+00FF, not the byte 0xFF
        for f, data in ((forged, b"fine\n"), (raw, EICAR)):
            with open(f, "wb") as fh:
                fh.write(data)
        objs, _ = json_lines(check(self, ["--json", path("odd")], 1))
        by_bytes = {base64.b64decode(o["path_bytes"]) if "path_bytes" in o else o["path"].encode():
                    o["verdict"] for o in objs}
        self.assertEqual({name.encode(): "OK", forged: "OK", raw: "FOUND",
                          look_alike.encode(): "OK"}, by_bytes)
        # Text: one line per object; no control byte reaches the terminal.
        p = subprocess.run([MAVSCAN, path("odd")], capture_output=True, env=base_env())
        lines = p.stdout.split(b"\n----------- SCAN SUMMARY")[0].splitlines()
        found = path("odd").encode() + b"/bad\\xffbyte.txt: " + EICAR_NAME.encode() + b" FOUND"
        controls = [c for c in p.stdout if c < 0x20 and c != 0x0A or c == 0x7F]
        forged_lines = [l for l in lines if l.startswith(b"forged")]
        self.assertEqual((4, [], [], True), (len(lines), forged_lines, controls, found in lines))


class AccessTest(unittest.TestCase):
    """Objects that cannot be read are errors, never clean. Root reads
    everything, so it runs without capabilities (the owner of mode 000 files)."""

    def test_unreadable_file_and_directory(self):
        put("locked/readable.txt", b"fine\n")
        put("locked/secret.com", EICAR, mode=0o000)
        put("locked/closed/inner.txt", b"fine\n")
        os.chmod(path("locked/closed"), 0o000)
        prefix = ("setpriv", "--bounding-set=-all", "--inh-caps=-all") if os.geteuid() == 0 else ()
        denied = ": ERROR Permission denied"
        check(self, [path("locked")], 2, prefix=prefix, sums=("3", "0", "2"), lines=[
            path("locked/closed") + denied, ok("locked/readable.txt"),
            path("locked/secret.com") + denied])
        os.chmod(path("locked/closed"), 0o755)


class ExampleTest(unittest.TestCase):
    """examples/mav.properties end to end: ClamAV and YARA must both be clean
    (the adapters named by file name are found beside the library)."""

    def test_both_engines_must_be_clean(self):
        for rel, data in (("rules/own.yar", b'import "hash"\nrule Own_Marker { strings: $a = "OWN-'
                           b'RULE-MARK"\n  condition: $a and hash.md5(0, filesize) == md5 }\n'),
                          ("objs/clean.txt", b"hello\n"), ("objs/eicar.com", EICAR),
                          ("objs/own.txt", b"x OWN-RULE-MARK x\n")):
            put("example/" + rel, data)
        os.environ["KORMO_YARA_RULES"] = path("example/rules")
        check(self, ["--config", SOURCE + "/examples/mav.properties", path("example/objs")], 1,
              lines=[ok("example/objs/clean.txt"),
                                 path("example/objs/eicar.com") + ": " + EICAR_NAME + " FOUND",
                                 path("example/objs/own.txt") + ": own:Own_Marker FOUND"])


def wait_for(cond, what):
    deadline = time.monotonic() + 30
    while not cond():
        assert time.monotonic() < deadline, "timed out waiting for " + what
        time.sleep(0.05)


def start(args, env=None):
    return subprocess.Popen([MAVSCAN] + args, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, cwd=path("cwd"), env=env or base_env())


class SwapTest(unittest.TestCase):
    """Objects replaced between the walk and the scan: an error line, never a
    hang, never the new object scanned."""

    def test_swapped_objects(self):
        put("swap-secret/eicar.com", EICAR)
        cases = {  # name: (replace, expected error)
            "fifo": (lambda f: (os.unlink(f), os.mkfifo(f)), "not a regular file"),
            "link": (lambda f: (os.unlink(f), os.symlink(path("swap-secret/eicar.com"), f)),
                     "symbolic link"),
            "repl": (lambda f: os.rename(put("swap-new", EICAR), f), "another file"),  # new inode
        }
        for name in cases:
            put("swap/" + name, b"harmless\n")
        listing = path("swap-list")
        os.mkfifo(listing)
        # One worker, held by standard input, while the walk of the listed
        # folder is done and mavscan waits for the next line of the list.
        p = start(["-j1", "-", "-f", listing])
        with open(listing, "wb", buffering=0) as lst:
            lst.write(path("swap").encode() + b"\n")

            def walked():
                n = fcntl.ioctl(lst, termios.FIONREAD, b"\0\0\0\0")
                with open("/proc/%d/syscall" % p.pid) as f:
                    return n == b"\0\0\0\0" and f.read().startswith("0 ")  # in read()
            wait_for(walked, "the walk")
            for name, (replace, _) in cases.items():
                replace(path("swap/" + name))
        out, err = p.communicate(b"", timeout=60)
        lines = text_form(out.decode())[0]
        errors = dict(l.split(": ERROR ", 1) for l in lines if ": ERROR " in l)
        self.assertEqual((2, ["stdin: OK"], {path("swap/" + n): True for n in cases}),
                         (p.returncode, [l for l in lines if ": ERROR " not in l],
                          {f: cases[os.path.basename(f)][1] in t for f, t in errors.items()}), out)


class SignalTest(unittest.TestCase):
    """SIGTERM ends a run: what was done is summed up, exit 2, no temporary
    file left behind."""

    def test_sigterm_during_a_run(self):
        tmp = path("sigtmp")
        os.makedirs(tmp)
        p = start(["-j1", "-", path("mixed")], env=dict(base_env(), TMPDIR=tmp))
        p.stdin.write(EICAR[:20])
        p.stdin.flush()

        def caught():
            with open("/proc/%d/status" % p.pid) as f:
                mask = [l for l in f if l.startswith("SigCgt:")][0].split()[1]
            return int(mask, 16) & (1 << (signal.SIGTERM - 1))
        wait_for(caught, "the signal handler")
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        self.assertEqual((2, True, False, []), (p.returncode, "Interrupted" in text_form(
            out.decode())[1], b"FOUND" in out, os.listdir(tmp)), (out, err))


if __name__ == "__main__":
    unittest.main()
