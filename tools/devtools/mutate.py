#!/usr/bin/env python3
"""A small deterministic mutation run: does the test suite notice single-edit faults in the library?

From a seed, a fixed sample of mutants is drawn from src/ and inet/src/. Each one is applied to its
file, the test programs of that folder are rebuilt incrementally in build/mutate and run; a failing,
crashing or hanging run kills the mutant. The file is restored after every mutant.
"""
import argparse
import fnmatch
import json
import os
import random
import re
import signal
import subprocess
import sys
import time
from collections import Counter, defaultdict, namedtuple
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / 'build' / 'mutate'
# The file under a mutant and its own text, so that a run killed outright is mended by the next one.
PENDING = BUILD / 'pending-restore.json'
TEST_TIMEOUT = 60  # the most seconds a test program may take on a mutant

# Which test programs exercise each folder: the program, then after a space a gtest filter, then
# after another the environment it runs in. The net tests run the engine and libqorinet together.
FOLDERS = {
    'src/foundation': ['public_tests -XMLDeepTest.AMillion*'],
    'src/xml': ['public_tests', 'public_tests XMLReaderTest.*:XMLFileTest.* QORXMLU_NO_AVX2=1'],
    'src/http': ['http_tests', 'http_net_tests', 'public_tests -XMLDeepTest.AMillion*'],
    'src/query': ['public_tests -XMLDeepTest.AMillion*'],
    'src/trace': ['public_tests -XMLDeepTest.AMillion*'],
    'src/platform': ['public_tests -XMLDeepTest.AMillion*', 'http_tests'],
    'inet/src': ['inet_tests', 'http_net_tests'],
}
PROGRAMS = {
    'public_tests': 'tests/public/public_tests',
    'http_tests': 'tests/http/http_tests',
    'http_net_tests': 'tests/http/http_net_tests',
    'inet_tests': 'inet/tests/inet_tests',
}
# A mutant build of libqorinet needs only the module itself: the test programs load it at run time.
BUILD_TARGETS = {'inet/src': ['qorinet']}

# Survivors shown to be equivalent (the library behaves the same) are left out of the rate, each
# with its reason: the mutant as the report describes it but without its line number (which moves
# with every edit above it), a tab, the reason.
EQUIVALENT_FILE = Path(__file__).with_name('equivalent-mutants.txt')
EQUIVALENT = dict(line.split('\t', 1) for line in EQUIVALENT_FILE.read_text(encoding='utf-8').splitlines()
                  if '\t' in line and not line.startswith('#')) if EQUIVALENT_FILE.exists() else {}


def equivalence_key(description):
    return re.sub(r'^([^:]+):\d+: ', r'\1: ', description)

Mutant = namedtuple('Mutant', 'path line col old new kind source')

# --- finding the candidates -------------------------------------------------------------------

def mask_code(text):
    """The text with comments blanked and literal contents replaced by '_', same length; and the
    spans (start, end) of the string literals' contents."""
    out, literals = list(text), []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith('//', i):
            j = text.find('\n', i)
            j = n if j < 0 else j
            out[i:j] = ' ' * (j - i)
            i = j
        elif text.startswith('/*', i):
            j = text.find('*/', i + 2)
            j = n if j < 0 else j + 2
            out[i:j] = [ch if ch == '\n' else ' ' for ch in text[i:j]]
            i = j
        elif c in '"\'' and not (c == "'" and i > 0 and text[i - 1].isalnum() and text[i + 1:i + 2].isdigit()):
            j = i + 1
            while j < n and text[j] != c and text[j] != '\n':
                j += 2 if text[j] == '\\' else 1
            if c == '"':
                literals.append((i + 1, j))
            out[i + 1:j] = '_' * (j - i - 1)
            i = j + 1
        else:
            i += 1
    return ''.join(out), literals


SCOPE = re.compile(r'^\s*(namespace|class|struct|union|extern)\b')
INITIALISER = re.compile(r'^\s*enum\b|(=|return|[(,{])\s*$')
NOT_STATEMENT = re.compile(r'^(return|delete|throw|break|continue|goto|case|default|using|typedef|'
                           r'static_assert|if|for|while|switch|do|else|const|static|auto|new)\b')
ASSIGNMENT = re.compile(r'^[\w.\[\]*:>()-]+\s*(=|\+=|-=|\*=|/=|\|=|&=|\^=|<<=|>>=)\s*[^=].*;$')
CALL = re.compile(r'^[\w.:>\[\]()*-]*[\w>]\s*\(.*\)\s*;$')
INCREMENT = re.compile(r'^(\+\+|--)?[\w.\[\]>-]+(\+\+|--)?;$')
MESSAGE = re.compile(r"^[A-Z][A-Za-z']*( [A-Za-z][\w'-]*)+")
COMPARISON = re.compile(r'(?<![<>=!-])(==|!=|<=|>=)(?![=>])|(?<=\s)(<|>)(?=\s)')
FLIP = {'<': '<=', '<=': '<', '>': '>=', '>=': '>', '==': '!=', '!=': '=='}
NUMBER = re.compile(r'(?<![\w.])(0x[0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.])')
BOOLEAN = re.compile(r'\b(true|false)\b|(&&|\|\|)')
SWAP = {'true': 'false', 'false': 'true', '&&': '||', '||': '&&'}


def candidates(path):
    text = (ROOT / path).read_text(encoding='utf-8')
    masked, literals = mask_code(text)
    found = []
    line_start = [0]
    for m in re.finditer('\n', text):
        line_start.append(m.end())
    lines, code_lines = text.split('\n'), masked.split('\n')
    scopes = []  # one entry per open brace: 'code', 'scope' or 'init'
    previous_end = ';'
    for number, (line, code) in enumerate(zip(lines, code_lines), 1):
        stripped = code.strip()
        in_table = bool(scopes) and scopes[-1] == 'init'  # the rows of a table are data, not code
        # Operator declarations would only give mutants that don't build.
        if stripped and not stripped.startswith('#') and 'operator' not in code and not in_table:
            statement_place = 'code' in scopes and previous_end in ';{}:)'
            found += line_mutants(path, number, line, code, stripped, statement_place)
            base = line_start[number - 1]
            for start, end in literals:
                if base <= start < base + len(line) and MESSAGE.match(text[start:end]):
                    col = start - base
                    first = line[col]
                    found.append(Mutant(path, number, col, first, first.swapcase(), 'message', line))
        if stripped and not stripped.startswith('#'):
            previous_end = ')' if stripped == 'else' else stripped[-1]
        for p, ch in enumerate(code):
            if ch == '{':
                scopes.append('init' if in_table else brace_kind(code, p))
            elif ch == '}' and scopes:
                scopes.pop()
    return found


def brace_kind(code, at):
    """What a brace opens: a namespace or class body, a brace initialiser, or a block of code."""
    if SCOPE.match(code):
        return 'scope'
    return 'init' if INITIALISER.search(code[:at]) else 'code'


def line_mutants(path, number, line, code, stripped, statement_place):
    found = []
    for m in COMPARISON.finditer(code):
        op = m.group(0)
        found.append(Mutant(path, number, m.start(), op, FLIP[op], 'comparison', line))
    for m in BOOLEAN.finditer(code):
        found.append(Mutant(path, number, m.start(), m.group(0), SWAP[m.group(0)], 'boolean', line))
    for m in NUMBER.finditer(code):
        digits, suffix = m.group(1), m.group(2)
        base = 16 if digits.startswith('0x') else 8 if digits.startswith('0') and len(digits) > 1 else 10
        value = int(digits, base)
        spell = {16: lambda v: '0x' + format(v, f'0{len(digits) - 2}{"X" if digits[2:].isupper() else "x"}'),
                 8: lambda v: '0' + format(v, 'o'), 10: str}[base]
        changed = [(value - 1 if value else 1, 'off-by-one')]
        if value > 1:
            changed.append((0, 'constant'))
        for new, kind in changed:
            found.append(Mutant(path, number, m.start(), m.group(0), spell(new) + suffix, kind, line))
    if statement_place and not NOT_STATEMENT.match(stripped) and stripped.count('(') == stripped.count(')'):
        if ASSIGNMENT.match(stripped) or CALL.match(stripped) or INCREMENT.match(stripped):
            col = len(line) - len(line.lstrip())
            statement = line[col:col + len(stripped)]
            found.append(Mutant(path, number, col, statement, ';', 'statement', line))
    return found


def source_files(pattern):
    names = subprocess.run(['git', 'ls-files', 'src', 'inet/src'], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split()
    return [n for n in names if n.endswith(('.cpp', '.h')) and '/win32/' not in n
            and folder_of(n) and (not pattern or fnmatch.fnmatch(n, pattern))]


def folder_of(path):
    return next((f for f in FOLDERS if path.startswith(f + '/')), None)


def sample(pattern, count, seed):
    """Draws the mutants folder by folder: each folder gets its share of the candidates, but at least
    a twentieth of the sample where it has that many, so that small folders get a rate too."""
    pool = defaultdict(list)
    for path in source_files(pattern):
        for m in candidates(path):
            pool[folder_of(m.path)].append(m)
    total = sum(len(ms) for ms in pool.values())
    count = min(count, total)
    quota = {f: min(len(ms), count // 20) for f, ms in pool.items()}
    spare = count - sum(quota.values())
    room = {f: len(ms) - quota[f] for f, ms in pool.items()}
    for f in pool:
        quota[f] += spare * room[f] // max(1, sum(room.values()))
    for f in sorted(pool, key=lambda f: -room[f]):  # what rounding left over goes to the largest
        if sum(quota.values()) < count and quota[f] < len(pool[f]):
            quota[f] += 1
    draw = random.Random(seed)
    chosen = [m for f in sorted(pool) for m in draw.sample(pool[f], quota[f])]
    return sorted(chosen, key=lambda m: (m.path, m.line, m.col, m.new)), total


def apply(text, mutant):
    lines = text.split('\n')
    line = lines[mutant.line - 1]
    assert line[mutant.col:mutant.col + len(mutant.old)] == mutant.old, mutant
    lines[mutant.line - 1] = line[:mutant.col] + mutant.new + line[mutant.col + len(mutant.old):]
    return '\n'.join(lines)

# --- running them -----------------------------------------------------------------------------

def configure():
    # With the leak checker, as in ./dev check: a fault that only leaks is a fault the suite sees.
    flags = ['-G', 'Ninja', '-DCMAKE_BUILD_TYPE=Debug', '-DCMAKE_CXX_FLAGS_DEBUG=-O0 -fsanitize=leak',
             '-DCMAKE_C_FLAGS_DEBUG=-O0 -fsanitize=leak', '-DQORXMLU_BUILD_TESTS=ON', '-DQORXMLU_INSTALL=OFF',
             '-DCMAKE_LINK_DEPENDS_NO_SHARED=ON', '-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold -fsanitize=leak',
             '-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=gold -fsanitize=leak']
    subprocess.run(['cmake', '-S', str(ROOT), '-B', str(BUILD)] + flags, check=True,
                   stdout=subprocess.DEVNULL)


def build(targets):
    result = subprocess.run(['ninja', '-C', str(BUILD), '-j2'] + targets,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return result.returncode == 0, result.stdout


def output_file(entry):
    return BUILD / (re.sub(r'[^\w]+', '_', entry) + '.out')


def start(entry, whole):
    name, cases, environment = (entry.split(' ') + ['', ''])[:3]
    command = [str(BUILD / PROGRAMS[name])] + ([] if whole else ['--gtest_fail_fast'])
    if cases:
        command.append('--gtest_filter=' + cases)
    output = open(output_file(entry), 'w+') if whole else subprocess.DEVNULL
    env = dict(os.environ, **dict([environment.split('=', 1)])) if environment else None
    return subprocess.Popen(command, cwd=BUILD, stdout=output, stderr=subprocess.DEVNULL, env=env,
                            start_new_session=True)


def failed_cases(entry, code):
    """The cases that failed in a whole run, and the program itself when it crashed or overran."""
    name = entry.partition(' ')[0]
    text = output_file(entry).read_text(encoding='utf-8', errors='replace')
    cases = set(re.findall(r'^\[  FAILED  \] (\w+[./]\w+(?:/\w+)*)', text, re.M))
    if code is None or code not in (0, 1):
        cases.add(f'{name} (crash or time-out, last case {last_case(text)})')
    return cases


def last_case(text):
    started = re.findall(r'^\[ RUN      \] (\S+)', text, re.M)
    return started[-1] if started else 'none'


def tests_pass(entries, limits, whole=False):
    """Runs the programs side by side. Fail-fast: False as soon as one fails, crashes or overruns its
    limit. Whole (the kill matrix): every case runs, and the result is the set of cases that failed."""
    began = time.monotonic()
    running = {entry: start(entry, whole) for entry in entries}
    failed = set()
    try:
        while running:
            time.sleep(0.02)
            for entry, process in list(running.items()):
                code = process.poll()
                if code is None and time.monotonic() - began < limits.get(entry, TEST_TIMEOUT):
                    continue
                if whole:
                    if code is None:
                        os.killpg(process.pid, signal.SIGKILL)
                        process.wait()
                    if code != 0:
                        failed |= failed_cases(entry, code)
                elif code != 0:
                    return False
                del running[entry]
        return failed if whole else True
    finally:
        for process in running.values():
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def time_limits(entries):
    """Runs each program once on the unchanged tree; a mutant may take four times as long."""
    limits = {}
    for entry in sorted(entries):
        began = time.monotonic()
        if tests_pass([entry], {}) is not True:
            sys.exit(f'mutate: {entry} fails on the unchanged tree')
        limits[entry] = min(TEST_TIMEOUT, max(10, 4 * (time.monotonic() - began)))
    return limits


def programs(folder):
    return [entry.partition(' ')[0] for entry in FOLDERS[folder]]


def targets_of(folder):
    return BUILD_TARGETS.get(folder, programs(folder))


def run(mutants, report_path, whole):
    configure()
    folders = sorted({folder_of(m.path) for m in mutants})
    everything = sorted({t for f in folders for t in targets_of(f) + programs(f)})
    ok, log = build(everything)
    if not ok:
        sys.exit('mutate: the unchanged tree does not build:\n' + log[-3000:])
    limits = time_limits({entry for f in folders for entry in FOLDERS[f]})

    outcomes = []
    killers = {}  # the kill matrix: for each built mutant, the cases that failed on it
    originals = {}  # the text of each file before its first mutant
    committed = {m.path for m in mutants if not git_differs(m.path)}
    started = time.monotonic()
    try:
        for i, m in enumerate(mutants, 1):
            file = ROOT / m.path
            original = originals.setdefault(m.path, file.read_text(encoding='utf-8'))
            folder = folder_of(m.path)
            try:
                PENDING.write_text(json.dumps({'path': m.path, 'text': original}), encoding='utf-8')
                file.write_text(apply(original, m), encoding='utf-8')
                built, _ = build(targets_of(folder))
                if not built:
                    outcome = 'not-built'
                elif whole:
                    killers[describe(m)] = sorted(tests_pass(FOLDERS[folder], limits, whole=True))
                    outcome = 'killed' if killers[describe(m)] else 'survived'
                else:
                    outcome = 'survived' if tests_pass(FOLDERS[folder], limits) else 'killed'
                if outcome == 'survived' and equivalence_key(describe(m)) in EQUIVALENT:
                    outcome = 'equivalent'
            finally:
                file.write_text(original, encoding='utf-8')
                PENDING.unlink(missing_ok=True)
            outcomes.append((m, outcome))
            print(f'[{i}/{len(mutants)} {time.monotonic() - started:5.0f}s] {outcome:9} {describe(m)}',
                  flush=True)
    finally:
        for path, text in originals.items():
            if (ROOT / path).read_text(encoding='utf-8') != text:
                (ROOT / path).write_text(text, encoding='utf-8')
        dirty = [p for p in originals if p in committed and git_differs(p)]
        if dirty:
            sys.exit('mutate: these files were not restored: ' + ' '.join(dirty))
    # Leave the build as the tree is, so the next run starts from unchanged objects.
    build(everything)
    report = summary(outcomes, time.monotonic() - started)
    if whole:
        (BUILD / 'matrix.json').write_text(json.dumps(killers, indent=1), encoding='utf-8')
        report += matrix_summary(killers)
    report_path.write_text(report, encoding='utf-8')
    print(report, end='')
    print(f'(written to {report_path.relative_to(ROOT)})')


def killed_in(report):
    """The mutants a report's progress lines show killed: their key (as the equivalents list has it)
    and the lines the report gave them."""
    found = re.findall(r'^\[\d+/\d+ +\d+s\] killed +(.+)$', report.read_text(encoding='utf-8'), re.M)
    lines = defaultdict(list)
    for d in found:
        lines[equivalence_key(d)].append(int(re.match(r'[^:]+:(\d+):', d).group(1)))
    return lines


def found_again(killed, everything):
    """Each mutant of the report among the candidates: the one of its text nearest its old line."""
    by_key = defaultdict(list)
    for m in everything:
        by_key[equivalence_key(describe(m))].append(m)
    chosen = []
    for key, lines in killed.items():
        for line in lines:
            if by_key[key]:
                chosen.append(min(by_key[key], key=lambda m: abs(m.line - line)))
    return sorted(set(chosen), key=lambda m: (m.path, m.line, m.col, m.new))


def restore_pending():
    if PENDING.exists():
        saved = json.loads(PENDING.read_text(encoding='utf-8'))
        (ROOT / saved['path']).write_text(saved['text'], encoding='utf-8')
        PENDING.unlink()
        print(f'mutate: restored {saved["path"]}, left under a mutant by a run that was killed', file=sys.stderr)


def git_differs(path):
    return subprocess.run(['git', 'diff', '--quiet', '--', path], cwd=ROOT).returncode != 0


def describe(m):
    line = m.source.strip()
    if m.kind == 'statement':
        return f'{m.path}:{m.line}: {line} -> (dropped)'
    mutated = apply(m.source, m._replace(line=1)).strip()
    return f'{m.path}:{m.line}: {line} -> {mutated}'


def matrix_summary(killers):
    """Per test case: the mutants it kills and those that no other case kills. A case that kills
    nothing alone only repeats others, on this sample."""
    kills, alone = Counter(), Counter()
    for cases in killers.values():
        for case in cases:
            kills[case] += 1
            if len(cases) == 1:
                alone[case] += 1
    lines = [f'kill matrix ({len(killers)} built mutants): case, kills, kills no other case makes']
    lines += [f'  {case}  {kills[case]}  {alone[case]}' for case in sorted(kills, key=lambda c: (-alone[c], -kills[c], c))]
    return '\n'.join(lines) + '\n'


def summary(outcomes, seconds):
    counts = defaultdict(Counter)
    for m, outcome in outcomes:
        counts[folder_of(m.path)][outcome] += 1
    lines = [f'{"folder":<16} {"killed":>6} {"built":>6} {"rate":>6} {"not built":>9} {"equivalent":>10}']
    total = Counter()
    for folder in FOLDERS:
        c = counts.get(folder)
        if not c:
            continue
        total.update(c)
        lines.append(row(folder, c))
    lines.append(row('all', total))
    lines.append(f'{len(outcomes)} mutants in {seconds / 60:.1f} min')
    survivors = [describe(m) for m, outcome in outcomes if outcome == 'survived']
    lines.append(f'survivors ({len(survivors)}):')
    lines += survivors
    equivalent = [describe(m) for m, outcome in outcomes if outcome == 'equivalent']
    lines.append(f'equivalent, left out of the rate ({len(equivalent)}):')
    lines += [f'{d}  -- {EQUIVALENT[equivalence_key(d)]}' for d in equivalent]
    return '\n'.join(lines) + '\n'


def row(name, c):
    built = c['killed'] + c['survived']
    rate = f'{100 * c["killed"] / built:.0f}%' if built else '-'
    return f'{name:<16} {c["killed"]:>6} {built:>6} {rate:>6} {c["not-built"]:>9} {c["equivalent"]:>10}'


def main():
    parser = argparse.ArgumentParser(prog='./dev mutate', description=__doc__.split('\n')[0])
    parser.add_argument('--sample', type=int, default=200, help='how many mutants (default 200)')
    parser.add_argument('--files', help="only sources matching this glob, e.g. 'src/xml/*'")
    parser.add_argument('--seed', type=int, default=1, help='picks the sample (default 1)')
    parser.add_argument('--list', action='store_true', help='print the sampled mutants and stop')
    parser.add_argument('--matrix', action='store_true',
                        help='run every case on every mutant and report which cases kill what')
    parser.add_argument('--recheck', metavar='REPORT',
                        help='run only the mutants that REPORT (an earlier run\'s output) shows killed, '
                             'found by their text: a survivor now is a fault the suite no longer sees')
    args = parser.parse_args()
    # Ended from outside, the run still restores its file on the way out (Ctrl-C does so anyway).
    for ending in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda number, frame: sys.exit(128 + number))
    restore_pending()
    if args.recheck:
        # The report's mutants, found among all candidates (by their text, not their line), so that
        # edits elsewhere in the sources do not lose them.
        killed = killed_in(Path(args.recheck))
        everything = [m for path in source_files(args.files) for m in candidates(path)]
        mutants = found_again(killed, everything)
        pool = len(everything)
    else:
        mutants, pool = sample(args.files, args.sample, args.seed)
    if args.list:
        for m in mutants:
            print(f'{describe(m)}  [{m.kind}]')
        print(f'{len(mutants)} of {pool} candidates (seed {args.seed})')
        return
    if not mutants:
        sys.exit('mutate: no candidates')
    BUILD.mkdir(parents=True, exist_ok=True)
    run(mutants, BUILD / 'report.txt', args.matrix)


if __name__ == '__main__':
    main()
