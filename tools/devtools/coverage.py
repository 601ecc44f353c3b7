#!/usr/bin/env python3
"""Line and branch coverage of the native test suite, per folder, from a gcov build in build/coverage."""
import json
import os
import subprocess
import sys
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / 'build' / 'coverage'
FOLDERS = ['src/foundation', 'src/xml', 'src/http', 'src/query', 'src/trace', 'src/platform', 'inet/src', 'tools']
JOBS = str(os.cpu_count() or 2)


def run(*command):
    subprocess.run([str(c) for c in command], cwd=BUILD, check=True)  # gcov leaves its files in cwd


def main():
    BUILD.mkdir(parents=True, exist_ok=True)
    flags = '--coverage -fprofile-update=atomic'  # threads would race plain counters below zero
    run('cmake', '-S', ROOT, '-B', BUILD, '-G', 'Ninja', '-DCMAKE_BUILD_TYPE=Debug', '-DQORXMLU_BUILD_TESTS=ON',
        f'-DCMAKE_CXX_FLAGS={flags}', f'-DCMAKE_C_FLAGS={flags}', f'-DCMAKE_EXE_LINKER_FLAGS={flags}',
        f'-DCMAKE_SHARED_LINKER_FLAGS={flags}')
    run('cmake', '--build', BUILD, '-j', JOBS)
    for stale in BUILD.rglob('*.gcda'):  # counts of an earlier run would add up
        stale.unlink()
    # A failing test still leaves its counts; the figures are printed either way.
    tests = subprocess.run(['ctest', '--test-dir', str(BUILD), '-j', JOBS, '--timeout', '600',
                            '--output-on-failure'], cwd=BUILD)
    summary = BUILD / 'coverage.json'
    run('gcovr', '--root', ROOT, '--object-directory', BUILD, '-j', JOBS,
        *[a for f in FOLDERS for a in ('--filter', f'{ROOT}/{f}/')],  # absolute: gcovr takes relative ones from cwd
        '--exclude-directories', '.*/CompilerId.*', '--exclude-throw-branches', '--exclude-unreachable-branches',
        '--json-summary', summary, '--html-details', BUILD / 'coverage.html')
    totals = {f: Counter() for f in FOLDERS}
    for entry in json.loads(summary.read_text())['files']:
        folder = next((f for f in FOLDERS if entry['filename'].startswith(f + '/')), None)
        if folder:
            totals[folder].update({k: entry[k] for k in
                                   ('line_covered', 'line_total', 'branch_covered', 'branch_total')})
    print(f'{"folder":<16} {"lines":>17} {"branches":>17}')
    for folder, t in totals.items():
        print(f'{folder:<16} {share(t, "line"):>17} {share(t, "branch"):>17}')
    print(f'{"all":<16} {share(sum(totals.values(), Counter()), "line"):>17} '
          f'{share(sum(totals.values(), Counter()), "branch"):>17}')
    print(f'(per file: {(BUILD / "coverage.html").relative_to(ROOT)})')
    return tests.returncode


def share(t, kind):
    covered, total = t[kind + '_covered'], t[kind + '_total']
    return f'{100 * covered / total:5.1f}% {covered:>4}/{total:<4}' if total else '-'


if __name__ == '__main__':
    sys.exit(main())
