#!/usr/bin/env python3
"""examples/mav.properties scanned end to end with mavscan: ClamAV and YARA
must both be clean. Environment (set by CMakeLists.txt): MAVSCAN, KORMO_LIB,
KORMO_SOURCE_DIR. The adapters are named by file name in the example; sanitizer
builds do not search beside the library for such names, so the library's
folder is put on the loader's path."""
import os
import shutil
import subprocess
import tempfile
import unittest

MAVSCAN = os.environ["MAVSCAN"]
SOURCE = os.environ["KORMO_SOURCE_DIR"]
EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}" + b"$EICAR-STANDARD-ANTIVIRUS" + b"-TEST-FILE!$H+H*"
RULE = b"""import "hash"
rule Own_Marker { meta: description = "our marker"
  strings: $a = "OWN-RULE-MARK" condition: $a and hash.md5(0, filesize) == md5 }
"""


class ExampleTest(unittest.TestCase):
    def setUp(self):
        self.w = tempfile.mkdtemp(prefix="multi-engine.")
        self.addCleanup(shutil.rmtree, self.w, ignore_errors=True)
        subprocess.run([os.path.join(SOURCE, "scripts", "make-testdb.sh"), self.put("db")],
                       check=True, stdout=subprocess.DEVNULL)
        self.put("rules/own.yar", RULE)
        for name, data in (("clean.txt", b"hello\n"), ("eicar.com", EICAR),
                           ("own.txt", b"xx OWN-RULE-MARK xx\n")):
            self.put("objs/" + name, data)

    def put(self, rel, data=None):
        p = os.path.join(self.w, rel)
        if data is None:
            return p
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "wb") as f:
            f.write(data)
        return p

    def test_both_engines_must_be_clean(self):
        env = dict(os.environ, KORMO_CLAMAV_DATABASE=self.put("db"),
                   KORMO_YARA_RULES=self.put("rules"),
                   LD_LIBRARY_PATH=os.path.dirname(os.environ["KORMO_LIB"]))
        env.pop("PEL_LIB", None)
        p = subprocess.run([MAVSCAN, "--config", os.path.join(SOURCE, "examples", "mav.properties"),
                            self.put("objs")], capture_output=True, env=env, timeout=120)
        out = p.stdout.decode()
        self.assertEqual(1, p.returncode, p.stderr.decode())
        lines = sorted(l for l in out.split("\n-----------")[0].splitlines() if l)
        self.assertEqual([self.put("objs/clean.txt") + ": OK",
                          self.put("objs/eicar.com") + ": Eicar-Test-Signature.UNOFFICIAL FOUND",
                          self.put("objs/own.txt") + ": own:Own_Marker FOUND"], lines)


if __name__ == "__main__":
    unittest.main()
