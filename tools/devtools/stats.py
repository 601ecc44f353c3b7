#!/usr/bin/env python3
"""Non-blank lines of the tracked C/C++ files, per top folder, and the share that is test code."""
import collections
import subprocess
import sys

SOURCE_SUFFIXES = ('.h', '.hpp', '.cpp', '.cc', '.c')
TEST_ROOTS = ('tests/', 'inet/tests/')


def tracked_sources():
    names = subprocess.run(['git', 'ls-files', '-z'], check=True, capture_output=True).stdout
    return [n for n in names.decode().split('\0') if n.endswith(SOURCE_SUFFIXES)]


def non_blank(path):
    with open(path, encoding='utf-8', errors='replace') as f:
        return sum(1 for line in f if line.strip())


def folder_of(path):
    parts = path.split('/')
    if parts[0] == 'inet' and len(parts) > 2:
        return 'inet/' + parts[1]
    return parts[0] if len(parts) > 1 else '.'


def main():
    per_folder = collections.Counter()
    tests = total = 0
    for path in tracked_sources():
        n = non_blank(path)
        per_folder[folder_of(path)] += n
        total += n
        if path.startswith(TEST_ROOTS):
            tests += n
    for folder in sorted(per_folder):
        print(f'{folder:<16} {per_folder[folder]:>7}')
    permille = 1000 * tests // total if total else 0  # rounded down, as the hook does
    print(f'test code: {tests} of {total} non-blank C/C++ lines ({permille // 10}.{permille % 10}%)')


if __name__ == '__main__':
    sys.exit(main())
