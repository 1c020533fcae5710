#!/usr/bin/env python3
# examples/mav.properties scanned end to end with mavscan: ClamAV and YARA
# must both be clean. Environment (set by CMakeLists.txt): MAVSCAN, KORMO_LIB,
# KORMO_SOURCE_DIR. The example names its adapters by file name; sanitizer
# builds do not search beside the library for such names, so the library's
# folder is put on the loader's path.
import os
import subprocess
import tempfile
import unittest

SOURCE = os.environ["KORMO_SOURCE_DIR"]
EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}" + b"$EICAR-STANDARD-ANTIVIRUS" + b"-TEST-FILE!$H+H*"
FILES = {"rules/own.yar": b'import "hash"\nrule Own_Marker { strings: $a = "OWN-RULE-MARK"\n'
                          b"  condition: $a and hash.md5(0, filesize) == md5 }\n",
         "objs/clean.txt": b"hello\n", "objs/eicar.com": EICAR, "objs/own.txt": b"x OWN-RULE-MARK x\n"}


class ExampleTest(unittest.TestCase):
    def test_both_engines_must_be_clean(self):
        with tempfile.TemporaryDirectory() as w:
            subprocess.run([os.path.join(SOURCE, "scripts", "make-testdb.sh"), w + "/db"],
                           check=True, stdout=subprocess.DEVNULL)
            for rel, data in FILES.items():
                os.makedirs(os.path.dirname(os.path.join(w, rel)), exist_ok=True)
                with open(os.path.join(w, rel), "wb") as f:
                    f.write(data)
            env = dict(os.environ, KORMO_CLAMAV_DATABASE=w + "/db", KORMO_YARA_RULES=w + "/rules")
            p = subprocess.run([os.environ["MAVSCAN"], "--config", SOURCE + "/examples/mav.properties",
                                w + "/objs"], capture_output=True, env=env, timeout=120)
            self.assertEqual(1, p.returncode, p.stderr.decode())
            lines = sorted(l for l in p.stdout.decode().split("\n---")[0].splitlines() if l)
            self.assertEqual([w + "/objs/clean.txt: OK",
                              w + "/objs/eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND",
                              w + "/objs/own.txt: own:Own_Marker FOUND"], lines)


if __name__ == "__main__":
    unittest.main()
