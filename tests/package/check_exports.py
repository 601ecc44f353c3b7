#!/usr/bin/python3
"""Compares the library's exported symbols with the list kept in the tree.

usage: check_exports.py LIBRARY LIST [--update]

LIBRARY is libqorxmlu.so (read with nm) or libqorxmlu.dll (read with the mingw objdump). Only the
library's own symbols count (namespace QOR: functions, data, vtables and type information);
weak instantiations of templates are left out, since they come and go with inlining. The lists
hold demangled names, one a line, sorted.
"""
import re
import subprocess
import sys


def exported(library):
    if library.endswith(".dll"):
        out = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", library], capture_output=True, text=True, check=True)
        names = re.findall(r"^\s*\[\s*\d+\]\s+(\S+)\s*$", out.stdout, re.M)
        demangle = "x86_64-w64-mingw32-c++filt"
    else:
        out = subprocess.run(["nm", "-D", "--defined-only", library], capture_output=True, text=True, check=True)
        names = [f[2] for f in (line.split() for line in out.stdout.splitlines()) if len(f) == 3 and f[1] in "TVDBR"]
        demangle = "c++filt"
    text = subprocess.run([demangle], input="\n".join(names), capture_output=True, text=True, check=True).stdout
    # Functions of the namespace, and the vtables and type information of its classes (not of
    # function types, which sanitizer builds add).
    own = re.compile(r"^(QOR::|(vtable|typeinfo|typeinfo name) for QOR::[\w:]+$)")
    return sorted({line for line in text.splitlines() if own.match(line)})


def main(argv):
    library, listed = argv[0], argv[1]
    have = exported(library)
    if "--update" in argv:
        open(listed, "w").write("".join(s + "\n" for s in have))
        print(f"{len(have)} exported symbols written to {listed}")
        return 0
    want = [line.rstrip("\n") for line in open(listed) if line.strip()]
    missing = sorted(set(want) - set(have))
    unexpected = sorted(set(have) - set(want))
    for s in missing:
        print(f"missing export: {s}")
    for s in unexpected:
        print(f"unexpected export: {s}")
    if missing or unexpected:
        print(f"{library} differs from {listed}: a host would fail to link (missing) or the ABI grew "
              f"unnoticed (unexpected). If the change is meant, rerun with --update and commit the list.")
        return 1
    print(f"{len(have)} exported symbols, as listed in {listed}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
