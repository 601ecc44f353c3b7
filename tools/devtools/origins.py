#!/usr/bin/python3
"""Checks that every program and library a build found comes from a package that ./dev installs.

The :FILEPATH= entries of each build folder's CMakeCache.txt (compilers, linkers, wine, openssl,
libraries) are looked up with dpkg. A file is fine when its package is one of those that ./dev
installs, one that they pull in (Depends and Pre-Depends, followed through Provides), or part of
every Debian system (Essential or Priority required). Anything else would be missing on a new
machine: it is named with its package, and the check fails.

usage: origins.py --packages P... -- BUILD_DIR...
"""
import os
import re
import subprocess
import sys


def cache_paths(build_dir, source_root):
    cache = os.path.join(build_dir, "CMakeCache.txt")
    if not os.path.isfile(cache):
        return []
    found = []
    for line in open(cache, encoding="utf-8", errors="replace"):
        m = re.match(r"^([^#/][^:]*):FILEPATH=(.+)$", line.rstrip("\n"))
        if not m or m.group(2).endswith("-NOTFOUND") or not os.path.isabs(m.group(2)):
            continue
        path = m.group(2)
        if not os.path.exists(path) or os.path.realpath(path).startswith(source_root + os.sep):
            continue
        found.append((m.group(1), path))
    return found


def owner(path):
    """The package that holds path (trying the link's target and the /usr-merged twin), or None."""
    candidates = [path, os.path.realpath(path)]
    for p in list(candidates):
        if p.startswith("/usr/"):
            candidates.append(p[4:])
        else:
            candidates.append("/usr" + p)
    for p in candidates:
        out = subprocess.run(["dpkg", "-S", p], capture_output=True, text=True)
        for line in out.stdout.splitlines():
            name, _, where = line.partition(": ")
            if where.strip() == p and not name.startswith("diversion by"):
                return name.split(",")[0].split(":")[0].strip()
    return None


def installed():
    """Name -> (depends, essential or required) of every installed package; virtual -> providers."""
    fmt = "${Package}\t${Status}\t${Essential}\t${Priority}\t${Pre-Depends}, ${Depends}\t${Provides}\n"
    out = subprocess.run(["dpkg-query", "-W", "-f", fmt], capture_output=True, text=True, check=True)
    packages, providers = {}, {}
    for line in out.stdout.splitlines():
        name, status, essential, priority, depends, provides = line.split("\t")
        if not status.endswith(" installed"):
            continue
        names = [alt.strip().split(" ")[0].split(":")[0] for dep in depends.split(",") for alt in dep.split("|")]
        packages[name] = ([n for n in names if n], essential == "yes" or priority == "required")
        for virtual in provides.split(","):
            virtual = virtual.strip().split(" ")[0]
            if virtual:
                providers.setdefault(virtual, []).append(name)
    return packages, providers


def closure(roots, packages, providers):
    seen, todo = set(), list(roots)
    while todo:
        name = todo.pop()
        if name in seen:
            continue
        seen.add(name)
        todo.extend(providers.get(name, []))
        if name in packages:
            todo.extend(packages[name][0])
    return seen


def main(argv):
    split = argv.index("--")
    wanted, build_dirs = argv[argv.index("--packages") + 1 : split], argv[split + 1 :]
    source_root = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
    packages, providers = installed()
    allowed = closure(wanted, packages, providers)
    allowed |= {name for name, (_, base) in packages.items() if base}
    problems, checked = [], 0
    for build_dir in build_dirs:
        for entry, path in cache_paths(build_dir, source_root):
            checked += 1
            package = owner(path)
            if package is None:
                problems.append(f"{path} ({entry} in {build_dir}) comes from no Debian package")
            elif package not in allowed:
                problems.append(f"{path} ({entry} in {build_dir}) comes from package '{package}', "
                                "which ./dev does not install: add it to the packages list in ./dev")
    for problem in problems:
        print("dev: " + problem, file=sys.stderr)
    if problems:
        return 1
    print(f"dev: all {checked} programs and libraries of the builds come from packages that ./dev installs")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
