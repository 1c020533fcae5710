#!/usr/bin/env python3
"""mavscan driven as a user runs it.

Usage: mavscan_test.py [unittest arguments, e.g. ExitTest]
Environment (set by CMakeLists.txt): MAVSCAN, KORMO_LIB, CLAMAV_ADAPTER,
TESTPEL_ADAPTER, KORMO_SOURCE_DIR. The default adapter is found beside the
library, as installed; nothing points the loader at it.

The signatures come from scripts/make-testdb.sh; the EICAR test file is
assembled here, in pieces, and never stored.
"""
import base64
import fcntl
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unittest

MAVSCAN = os.environ["MAVSCAN"]
KORMO_LIB = os.environ["KORMO_LIB"]
CLAMAV = os.environ["CLAMAV_ADAPTER"]
TESTPEL = os.environ["TESTPEL_ADAPTER"]
SOURCE = os.environ["KORMO_SOURCE_DIR"]

EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}" + b"$EICAR-STANDARD-ANTIVIRUS" + b"-TEST-FILE!$H+H*"
EICAR_NAME = "Eicar-Test-Signature.UNOFFICIAL"
HASH1_NAME = "Kormo.Test.Hash.1.UNOFFICIAL"
MARKER_NAME = "Kormo.Test.Marker.UNOFFICIAL"

W = None  # the shared work folder (setUpModule)


def setUpModule():
    global W
    W = tempfile.mkdtemp(prefix="mavscan-test.")
    os.chmod(W, 0o755)
    subprocess.run([os.path.join(SOURCE, "scripts", "make-testdb.sh"), os.path.join(W, "db")],
                   check=True, stdout=subprocess.DEVNULL)
    os.makedirs(os.path.join(W, "empty-db"))
    os.makedirs(os.path.join(W, "cwd"))
    with open(os.path.join(W, "db", "marker.txt"), "rb") as f:
        marker = f.read()
    # clean/: three harmless files, one in a sub-folder.
    put("clean/a.txt", b"nothing to see\n")
    put("clean/b.html", b"<html><body>hello</body></html>\n")
    put("clean/sub/c.bin", bytes(range(256)) * 64)
    # mixed/: clean files and one of each kind of finding.
    put("mixed/readme.txt", b"a plain text\n")
    put("mixed/eicar.com", EICAR)
    shutil.copy(os.path.join(W, "db", "samples", "hash1.bin"), path("mixed/hash1.bin"))
    put("mixed/deep/notes.txt", b"some words, then " + marker + b" and more words\n")
    put("mixed/deep/empty.dat", b"")
    # Everything readable by the unprivileged user of AccessTest, whatever the umask.
    for root, dirs, files in os.walk(W):
        for d in dirs:
            os.chmod(os.path.join(root, d), 0o755)
        for f in files:
            os.chmod(os.path.join(root, f), 0o644)


def tearDownModule():
    shutil.rmtree(W, ignore_errors=True)


def path(rel):
    return os.path.join(W, rel)


def put(rel, data, mode=0o644):
    p = path(rel)
    os.makedirs(os.path.dirname(p), exist_ok=True)
    with open(p, "wb") as f:
        f.write(data)
    os.chmod(p, mode)
    return p


def base_env(db=None):
    env = dict(os.environ)
    for k in ("PEL_LIB", "LD_LIBRARY_PATH"):
        env.pop(k, None)
    env["KORMO_CLAMAV_DATABASE"] = db if db is not None else path("db")
    return env


def run(args, db=None, stdin=b"", cwd=None, prefix=(), exe=None):
    """Runs mavscan; returns (exit status, stdout text, stderr text)."""
    p = subprocess.run(list(prefix) + [exe or MAVSCAN] + list(args), input=stdin,
                       capture_output=True, cwd=cwd or path("cwd"),
                       env=base_env(db), timeout=120)
    return (p.returncode, p.stdout.decode("utf-8", "replace"),
            p.stderr.decode("utf-8", "replace"))


def object_lines(out):
    """The per-object lines of the text form (the summary block cut off)."""
    head = out.split("\n----------- SCAN SUMMARY -----------\n")[0]
    return sorted(l for l in head.splitlines() if l)


def summary(out):
    block = out.split("----------- SCAN SUMMARY -----------\n")[1]
    return dict(l.split(": ", 1) for l in block.splitlines() if ": " in l)


def json_lines(out):
    objs = [json.loads(l) for l in out.splitlines()]
    return [o for o in objs if "summary" not in o], [o["summary"] for o in objs if "summary" in o]


def properties(profiles, providers, default=None):
    """A configuration: profiles {name: (linkage, [group, ...])},
    providers {name: (group, adapter, {param: (type, value)})}."""
    lines = []
    if default:
        lines.append("mav.defaults.profile=%s" % default)
    for name, (linkage, groups) in profiles.items():
        p = "mav.profile." + name
        lines += ["%s=%s" % (p, name), p + ".Active=true", p + ".ProfileLinkage=%d" % linkage]
        for i, g in enumerate(groups):
            s = "%s.ProfileSteps.%d" % (p, i)
            lines += ["%s=%d" % (s, i), s + ".ProfileEntryType=0", s + ".ProfileEntryValue=" + g]
    for g in sorted({v[0] for v in providers.values()}):
        lines.append("mav.group.%s=%s" % (g, g))
    for name, (group, adapter, params) in providers.items():
        p = "mav.provider.Pelmark.Adapters." + name
        lines += ["%s=%s" % (p, name), p + ".Active=true", p + ".Group=" + group,
                  p + ".PoolMaxInstances=4", p + ".AdapterPath=" + escape(adapter)]
        for k, (t, v) in params.items():
            lines += ["%s.Parameters.%s=%s" % (p, k, k), "%s.Parameters.%s.Type=%s" % (p, k, t),
                      "%s.Parameters.%s.Value=%s" % (p, k, escape(v))]
    return "\n".join(lines) + "\n"


def escape(text):
    """The configuration's \\u escapes for blanks, separators and bytes >= 0x80."""
    out = ""
    for b in text.encode():
        out += "\\u%04X" % b if b >= 0x80 or chr(b) in " \t;=\\" else chr(b)
    return out


def check(test, args, rc, lines=None, err_has=(), **kw):
    """Runs mavscan; checks the exit status, the object lines and texts on
    standard error; returns (stdout, stderr)."""
    got, out, err = run(args, **kw)
    test.assertEqual(rc, got, (args, err))
    if lines is not None:
        test.assertEqual(sorted(lines), object_lines(out), args)
    for text in err_has:
        test.assertIn(text, err, args)
    return out, err


class ExitTest(unittest.TestCase):
    """Exit status (0 clean, 1 found, 2 error, an error outranking a finding)
    and the text form."""

    def test_verdicts_and_exit_status(self):
        eicar = path("mixed/eicar.com") + ": " + EICAR_NAME + " FOUND"
        mixed = [path("mixed/deep/empty.dat") + ": OK",
                 path("mixed/deep/notes.txt") + ": " + MARKER_NAME + " FOUND", eicar,
                 path("mixed/hash1.bin") + ": " + HASH1_NAME + " FOUND",
                 path("mixed/readme.txt") + ": OK"]
        for args, rc, lines, counts in (
                ([path("clean")], 0, [path(p) + ": OK" for p in
                                      ("clean/a.txt", "clean/b.html", "clean/sub/c.bin")],
                 ("3", "0", "0")),
                ([path("mixed")], 1, mixed, ("5", "3", "0")),
                ([path("nothere"), path("clean/a.txt")], 2,
                 [path("clean/a.txt") + ": OK", path("nothere") + ": ERROR No such file or directory"],
                 ("2", "0", "1")),
                ([path("mixed/eicar.com"), path("nothere")], 2, None, ("2", "1", "1")),
                # The engine cannot clean: the finding stands.
                (["--clean", path("mixed/eicar.com")], 1, [eicar, path("mixed/eicar.com") +
                                                          ": not cleaned"], None)):
            out, _ = check(self, args, rc, lines)
            if counts:
                s = summary(out)
                self.assertEqual(counts, (s["Scanned objects"], s["Infected objects"], s["Errors"]))
        out, _ = check(self, ["-q", path("mixed")], 1)
        self.assertEqual(sorted(l for l in mixed if l.endswith("FOUND")), sorted(out.splitlines()))
        self.assertEqual("", check(self, ["-q", path("clean")], 0)[0])


class ConfigTest(unittest.TestCase):
    """Where the configuration comes from, and scans that cannot be clean."""

    def test_no_usable_engine_reports_nothing_clean(self):
        for args, db, texts in (
                ([path("clean")], path("empty-db"),
                 ("the default profile has no usable adapter", "freshclam", path("empty-db"))),
                (["--config", path("conf/none.properties"), path("clean")], None,
                 ("cannot read configuration",)),
                (["--adapter", path("no-such-adapter.so"), path("clean")], None,
                 ("cannot start adapter", "MAV_E_PEL_LOAD_FAILED")),
                (["--profile", "LOCAL", path("clean")], None,
                 ("profile LOCAL is not usable", "MAV_E_PROFILE_NOT_FOUND")),
                (["--set", "NOSUCHPARAM=1", path("clean")], None, ("NOSUCHPARAM is not offered",)),
                (["--set", "SCANLIMIT=lots", path("clean")], None,
                 ("cannot set SCANLIMIT=lots (SIZE_T)",)),
                (["--set", "INITDRIVERDIRECTORY=/x", path("clean")], None, ("start parameter",))):
            self.assertEqual("", check(self, args, 2, db=db, err_has=texts)[0])
        # A limit every object exceeds: each is an error, none clean.
        for extra in ([], ["--adapter", CLAMAV]):
            out, _ = check(self, extra + ["--set", "SCANLIMIT=10", path("clean")], 2)
            self.assertEqual(3, len(object_lines(out)))
            for l in object_lines(out):
                self.assertRegex(l, r": ERROR Not scanned: SCANLIMIT exceeded")

    def test_configuration_sources(self):
        conf = properties({"LOCAL": (0, ["G"])},
                          {"CLAM": ("G", CLAMAV, {"INITDRIVERDIRECTORY": ("CHAR", path("db"))})},
                          default="LOCAL")
        cwd = path("cwd-props")
        put("cwd-props/mav.properties", conf.encode())
        cfg = put("conf/scan.properties", conf.encode())
        for args, where in ((["--profile", "LOCAL"], cwd), (["--config", cfg], None),
                            (["--adapter", CLAMAV, "--set", "INITDRIVERDIRECTORY=" + path("db")],
                             None)):
            out, _ = check(self, args + [path("mixed")], 1, cwd=where, db=path("empty-db"))
            self.assertEqual("3", summary(out)["Infected objects"], args)
        out, _ = check(self, ["--set", "SCANLIMIT=123456", "--info"], 0)
        self.assertIn("Adapter:     clamav", out)
        self.assertRegex(out, r"INITDRIVERDIRECTORY +CHAR +%s\n" % path("db"))
        self.assertRegex(out, r"SCANLIMIT +SIZE_T +123456\n")


class ProfilesTest(unittest.TestCase):
    """Profiles of two steps: the test adapter (clean by default), then ClamAV."""

    def config(self, linkage):
        return put("conf/two-%d.properties" % linkage, properties(
            {"TWO": (linkage, ["FIRST", "SECOND"])},
            {"TEST": ("FIRST", TESTPEL, {}),
             "CLAM": ("SECOND", CLAMAV, {"INITDRIVERDIRECTORY": ("CHAR", path("db"))})},
            default="TWO").encode())

    def test_linkage_decides_which_steps_count(self):
        out, _ = check(self, ["--config", self.config(0), "--json", path("mixed")], 1)
        objs, _ = json_lines(out)
        found = {o["path"]: [i["name"] for i in o["infections"]] for o in objs
                 if o["verdict"] == "FOUND"}
        # All steps must be clean: the findings are the second step's.
        self.assertEqual({path("mixed/eicar.com"): [EICAR_NAME],
                          path("mixed/hash1.bin"): [HASH1_NAME],
                          path("mixed/deep/notes.txt"): [MARKER_NAME]}, found)
        out, _ = check(self, ["--config", self.config(1), path("mixed")], 0)
        self.assertEqual("0", summary(out)["Infected objects"])
        out, _ = check(self, ["--config", self.config(0), "--info"], 0)
        self.assertIn("Step 2:", out)


class JsonTest(unittest.TestCase):
    """--json: one object per line that parses, the same verdicts as the text form."""

    def test_lines_parse_and_agree_with_text(self):
        out, _ = check(self, ["--json", path("mixed"), path("nothere")], 2)
        objs, summaries = json_lines(out)
        self.assertEqual([(6, 3, 1)], [(s["scanned"], s["found"], s["errors"]) for s in summaries])
        by_path = {o["path"]: o for o in objs}
        e = by_path[path("mixed/eicar.com")]
        self.assertEqual(("FOUND", "MAV_E_VIRUS_FOUND", len(EICAR)),
                         (e["verdict"], e["code"], e["size"]))
        self.assertEqual([{"name": EICAR_NAME, "object": path("mixed/eicar.com")}],
                         e["infections"])
        m = by_path[path("nothere")]
        self.assertEqual(("ERROR", "MAV_E_INVALID_SCANOBJECT", "No such file or directory"),
                         (m["verdict"], m["code"], m["error"]))
        _, text, _ = run([path("mixed"), path("nothere")])
        verdicts = {}
        for l in object_lines(text):
            p, rest = l.rsplit(": ", 1) if l.endswith(": OK") else l.split(": ", 1)
            verdicts[p] = "OK" if rest == "OK" else "ERROR" if rest.startswith("ERROR") else "FOUND"
        self.assertEqual({p: o["verdict"] for p, o in by_path.items()}, verdicts)
        out, _ = check(self, ["--json", "--set", "SCANLIMIT=10", path("clean/a.txt")], 2)
        (o,), _ = json_lines(out)
        self.assertEqual(("ERROR", "MAV_E_NOT_SCANNED"), (o["verdict"], o["code"]))
        self.assertIn("SCANLIMIT", o["scan_errors"][0]["text"])

    def test_every_finding_of_an_object_is_listed(self):
        with open(path("db/marker.txt"), "rb") as f:
            both = put("two/both.com", EICAR + b"\n" + f.read())
        objs, _ = json_lines(check(self, ["--json", both], 1)[0])
        self.assertEqual([EICAR_NAME, MARKER_NAME], sorted(i["name"] for i in objs[0]["infections"]))

    def test_names_cannot_forge_results(self):
        name = put('odd/qu"ote\\back\tand\x01ctl\x1f \xe9.txt'.encode().decode(), b"fine\n")
        forged = os.path.join(path("odd").encode(), b"x\nforged: OK")
        raw = os.path.join(path("odd").encode(), b"bad\xffbyte.txt")
        look_alike = put("odd/bad\u00ffbyte.txt", b"fine\n")  # U+00FF, not the byte 0xFF
        for f, data in ((forged, b"fine\n"), (raw, EICAR)):
            with open(f, "wb") as fh:
                fh.write(data)
        rc, out, err = run(["--json", path("odd")])
        self.assertEqual(1, rc, err)
        objs, _ = json_lines(out)
        by_bytes = {base64.b64decode(o["path_bytes"]) if "path_bytes" in o else o["path"].encode():
                    o["verdict"] for o in objs}
        self.assertEqual({name.encode(): "OK", forged: "OK", raw: "FOUND",
                          look_alike.encode(): "OK"}, by_bytes)
        # Text: one line per object; no control byte reaches the terminal.
        p = subprocess.run([MAVSCAN, path("odd")], capture_output=True, env=base_env())
        lines = p.stdout.split(b"\n----------- SCAN SUMMARY")[0].splitlines()
        self.assertEqual(4, len(lines))
        self.assertFalse(any(l.startswith(b"forged") for l in lines))
        self.assertFalse(any(c < 0x20 and c not in b"\n" or c == 0x7F for c in p.stdout))
        self.assertIn(path("odd").encode() + b"/bad\\xffbyte.txt: " + EICAR_NAME.encode() + b" FOUND",
                      lines)


class ParallelTest(unittest.TestCase):
    """Workers: the same verdicts whatever their number."""

    def test_same_verdicts_with_1_and_4_workers(self):
        with open(path("db/marker.txt"), "rb") as f:
            marker = f.read()
        for i in range(24):
            data = (EICAR, b"x" * i + marker, ("clean %d\n" % i).encode() * (i + 1))[i % 3]
            put("many/d%d/f%02d.bin" % (i % 5, i), data)
        results = {}
        for jobs in ("1", "4"):
            objs, (s,) = json_lines(check(self, ["-j", jobs, "--json", path("many")], 1)[0])
            results[jobs] = (sorted((o["path"], o["verdict"], tuple(i["name"] for i in o["infections"]))
                                    for o in objs), s["scanned"], s["found"], s["errors"])
        self.assertEqual(results["1"], results["4"])
        self.assertEqual((24, 16, 0), results["4"][1:])


class InputTest(unittest.TestCase):
    """Standard input and symbolic links."""

    def test_standard_input(self):
        for data, rc, verdict in ((EICAR, 1, EICAR_NAME + " FOUND"), (b"just words\n", 0, "OK"),
                                  (b"", 0, "OK")):
            check(self, ["-"], rc, ["stdin: " + verdict], stdin=data)
        objs, (s,) = json_lines(check(self, ["--json", "-", path("clean")], 1, stdin=EICAR)[0])
        self.assertEqual(4, s["scanned"])

    def test_symbolic_links(self):
        put("outside/eicar.com", EICAR)
        put("linked/plain.txt", b"plain\n")
        link = path("linked/to-eicar")
        if not os.path.islink(link):
            os.symlink(path("outside/eicar.com"), link)
            os.symlink(path("linked"), path("linked/loop"))
        found = link + ": " + EICAR_NAME + " FOUND"
        check(self, [path("linked")], 0, [path("linked/plain.txt") + ": OK"])
        # -L follows links; the loop is entered once.
        check(self, ["-L", path("linked")], 1, [path("linked/plain.txt") + ": OK", found])
        check(self, [link], 1, [found])  # a link named on the command line is followed


class AccessTest(unittest.TestCase):
    """Objects that cannot be read are errors, never clean. Run as an
    unprivileged user (root reads everything) from a copy of the binaries that
    the user can reach."""

    def test_unreadable_file_and_directory(self):
        put("locked/readable.txt", b"fine\n")
        put("locked/secret.com", EICAR, mode=0o000)
        put("locked/closed/inner.txt", b"fine\n")
        os.chmod(path("locked/closed"), 0o000)
        prefix = ()
        exe = MAVSCAN
        if os.geteuid() == 0:
            prefix = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")
            libdir = path("bin")
            os.makedirs(libdir, exist_ok=True)
            for f in (MAVSCAN, CLAMAV):
                shutil.copy(f, libdir)
            lib = os.path.realpath(KORMO_LIB)
            soname = os.path.basename(lib).rsplit(".", 2)[0]  # libkormomav.so.1
            shutil.copy(lib, os.path.join(libdir, soname))
            for f in os.listdir(libdir):
                os.chmod(os.path.join(libdir, f), 0o755)
            exe = os.path.join(libdir, os.path.basename(MAVSCAN))
        rc, out, err = run([path("locked")], prefix=prefix, exe=exe)
        os.chmod(path("locked/closed"), 0o755)
        self.assertEqual(2, rc, err)
        self.assertEqual(sorted([
            path("locked/closed") + ": ERROR Permission denied",
            path("locked/readable.txt") + ": OK",
            path("locked/secret.com") + ": ERROR Permission denied",
        ]), object_lines(out))
        self.assertEqual(("2", "0"), (summary(out)["Errors"], summary(out)["Infected objects"]))


def wait_for(cond, what):
    for _ in range(600):
        if cond():
            return
        time.sleep(0.05)
    raise AssertionError("timed out waiting for " + what)


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
        shutil.rmtree(path("swap"), ignore_errors=True)
        for name in cases:
            put("swap/" + name, b"harmless\n")
        listing = path("swap-list")
        if not os.path.exists(listing):
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
        self.assertEqual(2, p.returncode, err)
        lines = object_lines(out.decode())
        errors = dict(l.split(": ERROR ", 1) for l in lines if ": ERROR " in l)
        self.assertEqual((["stdin: OK"], {path("swap/" + n) for n in cases}),
                         ([l for l in lines if ": ERROR " not in l], set(errors)))
        for name, (_, text) in cases.items():
            self.assertIn(text, errors[path("swap/" + name)])


class SignalTest(unittest.TestCase):
    """SIGTERM ends a run: what was done is summed up, exit 2, no temporary
    file left behind."""

    def test_sigterm_during_a_run(self):
        tmp = path("sigtmp")
        os.makedirs(tmp, exist_ok=True)
        env = base_env()
        env["TMPDIR"] = tmp
        p = start(["-j1", "-", path("mixed")], env=env)
        p.stdin.write(EICAR[:20])
        p.stdin.flush()

        def caught():
            with open("/proc/%d/status" % p.pid) as f:
                mask = [l for l in f if l.startswith("SigCgt:")][0].split()[1]
            return int(mask, 16) & (1 << (signal.SIGTERM - 1))
        wait_for(caught, "the signal handler")
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        self.assertEqual(2, p.returncode, err)
        self.assertIn("Interrupted", summary(out.decode()))
        self.assertNotIn(b"FOUND", out)
        self.assertEqual([], os.listdir(tmp))


class OptionsTest(unittest.TestCase):
    """The options a clamscan user expects, one row each."""

    def test_option_table(self):
        cfg = put("conf/empty-db.properties", properties(
            {"MAIN": (0, ["G"])},
            {"CLAM": ("G", CLAMAV, {"INITDRIVERDIRECTORY": ("CHAR", path("empty-db"))})},
            default="MAIN").encode())
        files = put("conf/list.txt", ("%s\n\n%s\n" % (path("mixed/eicar.com"),
                                                      path("clean/a.txt"))).encode())
        log = path("conf/scan.log")
        eicar, readme = path("mixed/eicar.com") + ": " + EICAR_NAME + " FOUND", path(
            "mixed/readme.txt") + ": OK"
        notes = path("mixed/deep/notes.txt") + ": " + MARKER_NAME + " FOUND"
        rows = (  # args, standard input, exit status, lines present, texts absent
            (["-d", path("db"), path("mixed/eicar.com")], b"", 1, [eicar], []),
            (["--config", cfg, "-d", path("db"), path("mixed/eicar.com")], b"", 1, [eicar], []),
            (["--adapter", CLAMAV, "--database", path("db"), path("mixed")], b"", 1, [eicar], []),
            (["--exclude", "eicar", "--exclude-dir", "deep$", path("mixed")], b"", 1, [readme],
             ["eicar", "deep"]),
            (["--include", r"\.(txt|com)$", path("mixed")], b"", 1, [eicar, notes],
             ["hash1", "empty.dat"]),
            (["-i", path("mixed")], b"", 1, [eicar, "Infected objects: 3"], [": OK"]),
            (["--no-summary", path("mixed")], b"", 1, [eicar, readme], ["SUMMARY"]),
            (["-f", files], b"", 1, [eicar, path("clean/a.txt") + ": OK"], []),
            (["-l", log, path("clean/a.txt")], b"", 0, [path("clean/a.txt") + ": OK"], []),
            (["--set", "SCANLIMIT=30", "-", path("clean")], b"x" * 31, 2,
             ["stdin: ERROR Not scanned: larger than SCANLIMIT (30 bytes)",
              path("clean/a.txt") + ": OK", "Data scanned: 0.00 MB",
              "Engine: clamav: ClamAV"], []),
        )
        for args, stdin, status, present, absent in rows:
            db = path("empty-db") if {"-d", "--database"} & set(args) else None
            rc, out, err = run(args, db=db, stdin=stdin)
            self.assertEqual(status, rc, (args, out, err))
            for line in present:
                self.assertIn(line, out.splitlines() + [l[:len(line)] for l in out.splitlines()],
                              args)
            for text in absent:
                self.assertNotIn(text, out, args)
        with open(log) as f:
            self.assertIn(path("clean/a.txt") + ": OK\n", f.read())
        # Only bytes an engine read count: a.txt (15) scanned, b.html over the limit.
        rc, out, _ = run(["--json", "--set", "SCANLIMIT=20", path("clean/a.txt"),
                          path("clean/b.html")])
        self.assertEqual(15, json_lines(out)[1][0]["bytes"])


class UsageTest(unittest.TestCase):
    """The command line itself."""

    def test_usage_errors(self):
        for args, text in ((["--bogus", "x"], "unknown option --bogus"),
                           ([], "no path given"),
                           (["-j", "0", "x"], "-j needs a number"),
                           (["--trace-level", "4", "x"], "--trace-level needs"),
                           (["--set", "NOVALUE", "x"], "--set needs NAME=VALUE"),
                           (["--adapter", CLAMAV, "--profile", "P", "x"], "cannot be combined"),
                           (["--exclude", "(", "x"], "pattern ( is not valid"),
                           (["-d"], "-d needs a value")):
            rc, out, err = run(args)
            self.assertEqual((2, ""), (rc, out), args)
            lines = err.splitlines()
            self.assertEqual(2, len(lines), err)
            self.assertIn(text, lines[0])
            self.assertEqual("Try 'mavscan --help' for more information.", lines[1])

    def test_version_and_help(self):
        rc, out, _ = run(["-V"])
        self.assertEqual(0, rc)
        self.assertRegex(out, r"^mavscan \d+\.\d+\.\d+\nlibkormomav \d+\.\d+\.\d+\n"
                              r"engine clamav: ClamAV [\d.]+, 4 signatures of .*; kormo-test\.hdb")
        rc, out, _ = run(["--help"])
        self.assertEqual(0, rc)
        for opt in ("-j N", "--config", "--profile", "--adapter", "--set", "--clean", "--json",
                    "--quiet", "--trace FILE", "--trace-level", "--info", "--version", "--database",
                    "--exclude", "--exclude-dir", "--include", "--infected", "--no-summary", "--log",
                    "--file-list"):
            self.assertIn(opt, out)

    def test_trace_file(self):
        trace = path("trace/scan.trc")
        os.makedirs(os.path.dirname(trace), exist_ok=True)
        check(self, ["--trace", trace, "--trace-level", "2", path("clean/a.txt")], 0)
        with open(trace) as f:
            self.assertIn("MavScanFile", f.read())
        check(self, ["--trace", path("no/such/dir/x.trc"), path("clean/a.txt")], 2,
              err_has=("cannot write the trace file",))


if __name__ == "__main__":
    unittest.main()
