#!/usr/bin/env python3
"""Writes one section-3 manual page per public function of kormomav.h, from
the comment above its declaration, plus kormomav(3), an index of them all.

    scripts/man3.py HEADER OUTDIR VERSION
"""
import datetime
import os
import re
import sys

DECL = re.compile(r"^MAV_API\s+(.+?)\b(Mav[A-Za-z0-9]+)\s*\(", re.M)


def roff(text):
    text = text.replace("\\", "\\e")
    return "\n".join(("\\&" + l if l.startswith((".", "'")) else l) for l in text.split("\n"))


def functions(source):
    """Yields (name, declaration, comment, section) in header order."""
    section = "Library"
    pos = 0
    for m in DECL.finditer(source):
        head = source[pos:m.start()]
        for s in re.finditer(r"/\* ---- (.+?) -+ \*/", head):
            section = s.group(1).strip()
        pos = m.start()
        end = source.index(";", m.start())
        decl = " ".join(source[m.start():end + 1].replace("MAV_API ", "", 1).split())
        before = source[:m.start()].rstrip()
        comment = ""
        if before.endswith("*/"):
            start = before.rindex("/*")
            body = before[start + 2:-2]
            if not body.lstrip().startswith("----"):
                lines = [re.sub(r"^\s*\*\s?", "", l) for l in body.split("\n")]
                comment = " ".join(" ".join(lines).split())
        yield m.group(2), decl, comment, section


def page(name, decl, comment, section, version, date):
    return "\n".join([
        f'.TH {name} 3 "{date}" "libkormomav {version}" "libkormomav"',
        ".SH NAME",
        f"{name} \\- {section.lower()}",
        ".SH SYNOPSIS",
        ".nf",
        ".B #include <kormomav/kormomav.h>",
        ".PP",
        roff(decl),
        ".fi",
        ".SH DESCRIPTION",
        roff(comment or "See kormomav(3)."),
        ".PP",
        "Every function returning MAV_RC gives 0 (MAV_OK) on success, 1 to 32 for a",
        "failure and \\-1 to \\-6 for a finding; MavErrorName(3) and",
        "MavErrorDescription(3) give a text for every code.",
        ".SH SEE ALSO",
        ".BR kormomav (3),",
        ".BR mavscan (1)",
        "",
    ])


def main():
    header, outdir, version = sys.argv[1:4]
    source = open(header, encoding="utf-8").read()
    date = datetime.datetime.utcfromtimestamp(
        int(os.environ.get("SOURCE_DATE_EPOCH", os.path.getmtime(header)))).strftime("%Y-%m-%d")
    os.makedirs(outdir, exist_ok=True)
    index = []
    for name, decl, comment, section in functions(source):
        with open(os.path.join(outdir, name + ".3"), "w", encoding="utf-8") as f:
            f.write(page(name, decl, comment, section, version, date))
        index.append((section, name))
    lines = [f'.TH kormomav 3 "{date}" "libkormomav {version}" "libkormomav"',
             ".SH NAME", "kormomav \\- one C interface in front of virus-scanning engines",
             ".SH DESCRIPTION",
             "The functions of libkormomav's C interface, declared in",
             ".IR <kormomav/kormomav.h> ;",
             "link with \\-lkormomav (pkg-config kormomav).",
             "Each has its own page."]
    current = None
    for section, name in index:
        if section != current:
            lines += [".SS " + section]
            current = section
        lines += [".BR " + name + " (3)"]
    lines += [".SH SEE ALSO", ".BR mavscan (1)", ""]
    with open(os.path.join(outdir, "kormomav.3"), "w", encoding="utf-8") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()
