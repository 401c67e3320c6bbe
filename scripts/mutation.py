#!/usr/bin/env python3
"""Mutation check of the test suite; run it through scripts/mutation.sh.

Each fault of scripts/mutation_faults.txt is a one-line change to the library;
with --generate, the faults are systematic one-token mutants of the library
instead (a sample of them with --sample), less the reviewed equivalents of
scripts/mutation_equivalent.txt. For each, a private copy of the sources
(build/mutation/src, synced from the tree at start) is patched, rebuilt
incrementally in its own build directory (configured like the fault's
preset), the suite runs without the slow cases until a case fails, and the
file is put back. A fault is killed when any case fails or hangs, survives
when all pass; a first failure of an end-to-end kivhal-info case is run
again alone, and a case that then passes was a flake: survived. The source tree itself is only ever read.
"""

import argparse
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
FAULTS = os.path.join(ROOT, "scripts", "mutation_faults.txt")
WORK = os.path.join(ROOT, "build", "mutation")
COPY = os.path.join(WORK, "src")
RESULTS = os.path.join(WORK, "results.tsv")
KEYS = ("id", "file", "class", "from", "to", "preset", "equivalent")
REQUIRED = ("id", "file", "class", "from", "to")
PRESETS = ("default", "tsan")
# A hung case is cut short by the per-test time-out; the whole run gets this.
RUN_LIMIT_S = 600


class Fault:
    def __init__(self, fields, line):
        self.id = fields["id"]
        self.file = fields["file"]
        self.kind = fields["class"]
        self.original = fields["from"]
        self.replacement = fields["to"]
        self.preset = fields.get("preset", "default")
        self.equivalent = fields.get("equivalent")
        self.line = line


def read_entries(path, keys, required):
    """(first line number, fields) of each blank-line separated entry of `path`."""
    entries, fields, start = [], {}, 0
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for number, text in enumerate(lines + [""], 1):
        if text.startswith("#"):
            continue
        if not text.strip():
            if fields:
                missing = [k for k in required if k not in fields]
                if missing:
                    sys.exit(f"{path}:{start}: entry lacks {', '.join(missing)}")
                entries.append((start, fields))
            fields = {}
            continue
        key, sep, value = text.partition(":")
        if not sep or key not in keys:
            sys.exit(f"{path}:{number}: expected one of {', '.join(keys)} followed by ':'")
        if not fields:
            start = number
        fields[key] = value[1:] if value.startswith(" ") else value
    return entries


def read_faults(path):
    faults = []
    for start, fields in read_entries(path, KEYS, REQUIRED):
        if fields.get("preset", "default") not in PRESETS:
            sys.exit(f"{path}:{start}: preset must be one of {', '.join(PRESETS)}")
        faults.append(Fault(fields, start))
    ids = [f.id for f in faults]
    duplicates = sorted({i for i in ids if ids.count(i) > 1})
    if duplicates:
        sys.exit(f"{path}: duplicate ids {', '.join(duplicates)}")
    return faults


def git(*args, text=True):
    return subprocess.run(["git", "-C", ROOT, *args], check=True, capture_output=True, text=text).stdout


def source_files(rev):
    """Path -> (reader of its bytes, executable) for every file the build sees,
    from the tree or from a revision."""
    files = {}
    if rev:
        for entry in git("ls-tree", "-r", "-z", rev).split("\0"):
            if not entry:
                continue
            meta, name = entry.split("\t", 1)
            mode, kind, _ = meta.split()
            if kind == "blob" and mode != "120000":
                files[name] = (lambda n=name: git("show", f"{rev}:{n}", text=False), mode == "100755")
        return files
    for name in git("ls-files", "-z", "--cached", "--others", "--exclude-standard").split("\0"):
        path = os.path.join(ROOT, name)
        if name and os.path.isfile(path) and not os.path.islink(path):
            files[name] = (lambda p=path: open(p, "rb").read(), os.access(path, os.X_OK))
    return files


def sync_copy(rev):
    """Brings the copy in line with the sources, touching only files that
    differ, so the copy's builds stay incremental."""
    files = source_files(rev)
    for name, (read, executable) in files.items():
        target = os.path.join(COPY, name)
        content = read()
        try:
            with open(target, "rb") as f:
                same = f.read() == content
        except OSError:
            same = False
            os.makedirs(os.path.dirname(target), exist_ok=True)
        if not same:
            with open(target, "wb") as f:
                f.write(content)
        os.chmod(target, 0o755 if executable else 0o644)
    for directory, subdirs, names in os.walk(COPY):
        subdirs[:] = [d for d in subdirs if os.path.relpath(os.path.join(directory, d), COPY) != "build"]
        for name in names:
            if os.path.relpath(os.path.join(directory, name), COPY) not in files:
                os.unlink(os.path.join(directory, name))


class Runner:
    def __init__(self, args):
        self.args = args
        self.child = None
        self.patched = None  # (path, original bytes) while a mutant is in place

    def run(self, cmd, limit=None, env=None):
        """Runs `cmd` in the copy in its own process group; (rc, output, hung)."""
        self.child = subprocess.Popen(cmd, cwd=COPY, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      text=True, errors="replace", start_new_session=True, env=env)
        try:
            out, _ = self.child.communicate(timeout=limit)
            return self.child.returncode, out, False
        except subprocess.TimeoutExpired:
            os.killpg(self.child.pid, signal.SIGKILL)
            out, _ = self.child.communicate()
            return -1, out, True
        finally:
            self.child = None

    def restore(self):
        if self.patched:
            path, original = self.patched
            with open(path, "wb") as f:
                f.write(original)
            self.patched = None

    def stop(self, signum, _frame):
        if self.child is not None:
            try:
                os.killpg(self.child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.restore()
        print(f"\ninterrupted: {os.path.relpath(COPY, ROOT)} restored, source tree untouched", flush=True)
        sys.exit(128 + signum)

    def build_dir(self, preset):
        return os.path.join(COPY, "build", preset)

    def configure(self, preset):
        rc, out, _ = self.run(["cmake", "--preset", preset, "-DKIVHAL_BUILD_BENCHMARKS=OFF",
                               # Tests load the library at run time: no relinking per mutant.
                               "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                               f"-DKIVHAL_TEST_TIMEOUT={self.args.test_timeout}"])
        if rc != 0:
            sys.exit(f"configuring the copy ({preset}) failed:\n{out}")

    def build(self, preset):
        rc, out, _ = self.run(["cmake", "--build", self.build_dir(preset), "-j", str(self.args.build_jobs)])
        return rc == 0, out

    def test(self, preset):
        """(failed case names, hung) of one run of the suite without slow cases."""
        # A mutant is killed by its first failing case: the rest need not run.
        cmd = ["ctest", "--preset", preset, "-LE", "slow", "--stop-on-failure", "-j", str(self.args.test_jobs),
               "--timeout", str(self.args.test_timeout)]
        rc, out, hung = self.run(cmd, limit=RUN_LIMIT_S)
        failed = re.findall(r"^\s*\d+ - (\S+) \(([^)]*)\)\s*$", out.split("The following tests FAILED:")[-1],
                            re.M) if "The following tests FAILED:" in out else []
        if rc != 0 and not failed and not hung:
            failed = [("ctest", f"exit status {rc}")]
        return failed, hung or any(reason == "Timeout" for _, reason in failed), out


    def fails_alone(self, preset, name):
        """True when the case `name` fails again when run by itself."""
        rc, _, hung = self.run(["ctest", "--preset", preset, "-R", "^" + re.escape(name) + "$",
                                "--timeout", str(self.args.test_timeout)], limit=RUN_LIMIT_S)
        return rc != 0 or hung


# End-to-end cases that run the tools in real time; under load one can fail
# on its own, so a kill they make is confirmed by running that case alone.
CONFIRMED_KILLERS = ("InfoTest.",)


def locate(fault, root):
    """The file's text and the offset of the fault's original text, or a reason."""
    path = os.path.join(root, fault.file)
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except OSError:
        return None, None, "file not found"
    count = text.count(fault.original)
    if count == 0:
        return None, None, "original text not found"
    if count > 1:
        return None, None, f"original text found {count} times"
    return text, text.index(fault.original), None


# --- generated mutants --------------------------------------------------------

LIBRARY_DIRS = ("common", "connection", "discovery", "catalogue", "power")
EQUIVALENTS = os.path.join(ROOT, "scripts", "mutation_equivalent.txt")
EQUIVALENT_KEYS = ("file", "line", "occurrence", "mutation", "reason")


def code_view(text):
    """`text` with comments, string and character literals blanked out (same
    length, newlines kept), so mutations only see code."""
    out, i, n = list(text), 0, len(text)

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if text.startswith("//", i):
            end = text.find("\n", i)
            end = n if end < 0 else end
            blank(i, end)
            i = end
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            blank(i, end)
            i = end
        elif c == 'R' and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            delim_end = text.find("(", i + 2)
            closing = ")" + text[i + 2:delim_end] + '"'
            end = text.find(closing, delim_end)
            end = n if end < 0 else end + len(closing)
            blank(i, end)
            i = end
        elif c in "\"'":
            if c == "'" and i > 0 and text[i - 1].isalnum():  # digit separator
                i += 1
                continue
            k = i + 1
            while k < n and text[k] != c and text[k] != "\n":
                k += 2 if text[k] == "\\" else 1
            blank(i, min(k + 1, n))
            i = k + 1
        else:
            i += 1
    return "".join(out)


class Mutant:
    """One generated one-token change. Identified by file, the original line's
    text, which occurrence of that text in the file, and the mutation (with its
    occurrence in the line), so the identity survives unrelated edits."""

    def __init__(self, file, number, line, line_occurrence, kind, start, end, replacement, token_occurrence):
        self.file = file
        self.number = number            # line number, 1-based (display only)
        self.line = line                # the original line, stripped
        self.line_occurrence = line_occurrence
        self.kind = kind
        self.start, self.end = start, end  # offsets in the line (unstripped)
        self.replacement = replacement
        self.token_occurrence = token_occurrence
        self.preset = "default"
        self.equivalent = None
        self.raw = None                 # the unstripped line

    @property
    def mutation(self):
        original = self.raw[self.start:self.end]
        text = f"{original} -> {self.replacement}" if self.replacement else f"{original} -> (removed)"
        return text + (f" #{self.token_occurrence}" if self.token_occurrence > 1 else "")

    @property
    def key(self):
        return (self.file, self.line, self.line_occurrence, self.mutation)

    @property
    def id(self):
        digest = hashlib.sha1("\0".join(map(str, self.key)).encode()).hexdigest()[:8]
        return f"g-{digest}"

    def mutated_line(self):
        return self.raw[:self.start] + self.replacement + self.raw[self.end:]

    def diff(self):
        return f"{self.file}:{self.number}: '{self.line}' -> '{self.mutated_line().strip()}'"


# Binary operators are written with a space on each side; templates, pointers
# and references are not, which is how they are told apart.
SWAPS = [
    ("relational flip", re.compile(r"(?<= )(<=|>=|==|!=|<|>)(?= )"),
     {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}),
    ("logical swap", re.compile(r"(?<= )(&&|\|\|)(?= )"), {"&&": "||", "||": "&&"}),
    ("arithmetic swap", re.compile(r"(?<= )([+-])(?= )"), {"+": "-", "-": "+"}),
    ("boolean swap", re.compile(r"\b(true|false)\b"), {"true": "false", "false": "true"}),
]
INTEGER = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.])")
CONSTANT = re.compile(r"(?<![\w.>:])(?:\w+::)*(k[A-Z]\w*|[A-Z][A-Z0-9]*_[A-Z0-9_]+|[A-Z]{3,}[0-9]*)\b")
LOG_CALL = re.compile(r"^\s*(KIV_LOG\w*|ALOG\w*|LOG\w*)\(")
NOT = re.compile(r"!(?!=)")
DEFINITION = re.compile(r"^(\[[^\]]*\]\s*)*(=(?!=)|\{)")
RETURN = re.compile(r"^(\s*return )(.+);\s*$")
ASSIGNMENT = re.compile(r"^\s*[\w.\[\]>*()-]+\s*([-+*/|&^]|<<|>>)?=\s")
CALL = re.compile(r"^\s*[\w:.\->\[\]*()&]*\w\s*\(.*\)\s*;\s*$")
JUMP = re.compile(r"^\s*(break|continue)\s*;\s*$")
NOT_STATEMENTS = ("return", "if", "for", "while", "switch", "case", "else", "do", "delete", "throw", "goto")


def balanced(code):
    return code.count("(") == code.count(")") and code.count("[") == code.count("]")


def line_mutants(code, raw, in_body=True):
    """(kind, start, end, replacement) of every mutant of one line; statements
    are only removed inside a function body."""
    found = []
    stripped = code.strip()
    if not stripped or stripped.startswith("#"):
        return found
    for kind, pattern, table in SWAPS:
        for m in pattern.finditer(code):
            found.append((kind, m.start(1), m.end(1), table[m.group(1)]))
    for m in INTEGER.finditer(code):
        digits = m.group(1)
        base = 16 if digits.lower().startswith("0x") else 8 if len(digits) > 1 and digits[0] == "0" else 10
        value = int(digits, base)
        for delta in (1, -1):
            if value + delta < 0 and m.group(2):
                continue
            token = {16: hex, 8: lambda v: "0" + format(v, "o"), 10: str}[base](value + delta) + m.group(2)
            found.append(("integer \u00b11", m.start(), m.end(), token))
    for m in CONSTANT.finditer(code):
        after = code[m.end():].lstrip()
        if after.startswith("(") or DEFINITION.match(after):
            continue  # a macro call, or the constant's own definition
        if re.search(r"\b(constexpr|enum|define|const\s+\w+)\s*$", code[:m.start()]):
            continue
        for sign in ("+", "-"):
            found.append(("constant \u00b11", m.start(), m.end(), f"({m.group(0)} {sign} 1)"))
    for m in NOT.finditer(code):
        found.append(("dropped !", m.start(), m.end(), ""))
    words = re.findall(r"\w+", stripped)
    first = words[0] if words else ""
    if in_body and stripped.endswith(";") and balanced(stripped) and first not in NOT_STATEMENTS \
            and raw.strip() == code.strip():
        begin = len(code) - len(code.lstrip())
        end = len(code.rstrip())
        if JUMP.match(code):
            found.append(("removed statement", begin, end, "(void)0;"))
        elif ASSIGNMENT.match(code) or (CALL.match(code) and " " not in code[begin:code.index("(")].strip()):
            found.append(("removed statement", begin, end, "(void)0;"))
    m = RETURN.match(code)
    if m and balanced(m.group(2)):
        value = m.group(2).strip()
        for replacement in ("0", "-1"):
            if value != replacement:
                found.append(("return value", m.end(1), m.end(2), replacement))
    return found


SCOPE = re.compile(r"\b(class|struct|namespace|enum|union)\b")


def body_lines(code_lines):
    """Per line: whether it starts inside a function body (or a block in
    one), as against namespace, class or enum scope."""
    inside, stack, head = [], [], ""
    for code in code_lines:
        inside.append(any(stack))
        for c in code:
            if c == "{":
                stack.append(not SCOPE.search(head) or any(stack))
                head = ""
            elif c == "}":
                if stack:
                    stack.pop()
                head = ""
            elif c == ";":
                head = ""
            else:
                head += c
        head += " "
    return inside


def library_files(root):
    names = []
    for directory in LIBRARY_DIRS:
        for current, _, files in os.walk(os.path.join(root, directory)):
            for name in files:
                if name.endswith((".cpp", ".h")):
                    names.append(os.path.relpath(os.path.join(current, name), root))
    return sorted(names)


def generate(root):
    """file -> (code lines, [Mutant]) for every library file under `root`."""
    result = {}
    for name in library_files(root):
        with open(os.path.join(root, name), encoding="utf-8") as f:
            text = f.read()
        raw_lines = text.split("\n")
        code_lines = code_view(text).split("\n")
        seen, mutants, in_log = {}, [], False
        bodies = body_lines(code_lines)
        for number, (raw, code) in enumerate(zip(raw_lines, code_lines), 1):
            stripped = raw.strip()
            seen[stripped] = seen.get(stripped, 0) + 1
            # A log call's arguments only shape its text: the listed faults
            # cover log texts and priorities, mutants cover the code.
            in_log = in_log or bool(LOG_CALL.match(code))
            if in_log:
                in_log = not code.rstrip().endswith(";")
                continue
            tokens = {}
            for kind, start, end, replacement in line_mutants(code, raw, bodies[number - 1]):
                token = (raw[start:end], replacement)
                tokens[token] = tokens.get(token, 0) + 1
                mutant = Mutant(name, number, stripped, seen[stripped], kind, start, end, replacement, tokens[token])
                mutant.raw = raw
                mutants.append(mutant)
        lines = sum(1 for c in code_lines if c.strip())
        result[name] = (lines, mutants)
    return result


def sample(generated, count, seed):
    """`count` mutants drawn per file in proportion to its code lines (largest
    remainder), at least one from every file that has any. Each file draws
    from its own seeded stream, so an edit in one file leaves the others'
    draws alone."""
    files = [name for name, (_, mutants) in generated.items() if mutants]
    total = sum(generated[name][0] for name in files)
    share = {name: count * generated[name][0] / total for name in files}
    size = {name: len(generated[name][1]) for name in files}
    quota = {name: min(size[name], max(1, int(share[name]))) for name in files}
    # What a file cannot take goes, by largest remainder, to files that can.
    spare = count - sum(quota.values())
    while spare > 0 and any(quota[n] < size[n] for n in files):
        for name in sorted(files, key=lambda n: (share[n] - quota[n], n), reverse=True):
            if spare > 0 and quota[name] < size[name]:
                quota[name] += 1
                spare -= 1
    chosen = []
    for name in files:
        mutants = generated[name][1]
        rng = random.Random(f"{seed}:{name}")
        chosen += sorted(rng.sample(mutants, min(quota[name], len(mutants))), key=lambda m: (m.number, m.start))
    return chosen


def read_equivalents(path):
    if not os.path.exists(path):
        return {}
    required = [k for k in EQUIVALENT_KEYS if k != "occurrence"]
    return {
        (f["file"], f["line"], int(f.get("occurrence", "1")), f["mutation"]): f["reason"]
        for _, f in read_entries(path, EQUIVALENT_KEYS, required)
    }


def apply_fault(fault, root):
    """(path, mutated text, one-line diff) or (None, reason, diff)."""
    text, at, problem = locate(fault, root)
    diff = f"{fault.file}: '{fault.original}' -> '{fault.replacement}'"
    if problem:
        return None, problem, diff
    return os.path.join(root, fault.file), text[:at] + fault.replacement + text[at + len(fault.original):], diff


def apply_mutant(mutant, root):
    path = os.path.join(root, mutant.file)
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    index = mutant.number - 1
    if index >= len(lines) or lines[index] != mutant.raw:
        return None, "line not found", mutant.diff()
    lines[index] = mutant.mutated_line()
    return path, "\n".join(lines), mutant.diff()


def main():
    global WORK, COPY, RESULTS
    parser = argparse.ArgumentParser(
        prog="scripts/mutation.sh",
        description="Patches each listed fault (or generated mutant) into a private copy of the "
                    "library, rebuilds it and runs the suite (all but the slow cases); reports "
                    "killed, survived and did not compile, then the score.")
    parser.add_argument("ids", nargs="*", metavar="ID", help="run only these faults or mutants")
    parser.add_argument("--list", action="store_true", help="list the faults (or mutants) and whether each applies")
    parser.add_argument("--generate", action="store_true",
                        help="systematic one-token mutants of the library instead of the hand-written list")
    parser.add_argument("--sample", type=int, metavar="N",
                        help="with --generate: N mutants, drawn per file in proportion to its lines")
    parser.add_argument("--seed", default="1", metavar="S", help="seed of --sample (default 1)")
    parser.add_argument("--ids-from", metavar="JSON",
                        help="run only the mutants a previous run's JSON reports as survived "
                             "(instead of a sample)")
    parser.add_argument("--rev", help="take the sources from this git revision instead of the tree "
                                      "(the fault list still comes from the tree)")
    parser.add_argument("--json", help="where the per-mutant results go (default results.json beside "
                                       "the copy)")
    parser.add_argument("--work", default=WORK,
                        help="directory of the copy and the results (default build/mutation); two "
                             "runs at once need two")
    parser.add_argument("--build-jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--test-jobs", type=int, default=4 * (os.cpu_count() or 2))
    parser.add_argument("--test-timeout", type=int, default=60, help="seconds per case (default 60)")
    args = parser.parse_args()
    WORK = os.path.abspath(args.work)
    COPY = os.path.join(WORK, "src")
    RESULTS = os.path.join(WORK, "results.tsv")
    args.json = args.json or os.path.join(WORK, "results.json")
    if (args.sample is not None or args.ids_from) and not args.generate:
        parser.error("--sample and --ids-from go with --generate")

    runner = Runner(args)
    if args.generate and not args.list:
        # Mutants are generated from the copy, so --rev sees that revision's lines.
        signal.signal(signal.SIGINT, runner.stop)
        signal.signal(signal.SIGTERM, runner.stop)
        os.makedirs(COPY, exist_ok=True)
        print(f"=== syncing {os.path.relpath(COPY, ROOT)} from {args.rev or 'the working tree'}", flush=True)
        sync_copy(args.rev)
        source_root = COPY
    else:
        source_root = ROOT

    if args.generate:
        generated = generate(source_root)
        every = [m for _, mutants in generated.values() for m in mutants]
        candidates = sample(generated, args.sample, args.seed) if args.sample else every
        equivalents = read_equivalents(EQUIVALENTS)
        for m in every:
            m.equivalent = equivalents.get(m.key)
        stale = set(equivalents) - {m.key for m in every}
        for key in sorted(stale):
            print(f"note: {os.path.relpath(EQUIVALENTS, ROOT)}: no such mutant: {key[0]}: '{key[1]}' {key[3]}")
        if args.ids_from:
            with open(args.ids_from, encoding="utf-8") as f:
                wanted = {r["id"] for r in json.load(f)["results"] if r["result"] == "survived"}
            candidates = [m for m in every if m.id in wanted]
        known = {m.id for m in every} | {m.id for m in candidates}
        apply = apply_mutant
    else:
        candidates = read_faults(FAULTS)
        known = {f.id for f in candidates}
        apply = apply_fault
    unknown = [i for i in args.ids if i not in known]
    if unknown:
        sys.exit(f"unknown ids: {', '.join(unknown)} (see --list)")
    if args.ids:
        pool = every if args.generate else candidates
        selected = [f for f in pool if f.id in args.ids]
    else:
        selected = candidates

    if args.list:
        for f in selected:
            path, problem, diff = apply(f, ROOT)
            notes = [f"preset {f.preset}"] if f.preset != "default" else []
            notes += ["not applicable: " + problem] if path is None else []
            notes += ["equivalent: " + f.equivalent] if f.equivalent else []
            shown = diff if args.generate else f.file
            print(f"{f.id:28} {f.kind:24} {shown}" + ("  (" + "; ".join(notes) + ")" if notes else ""))
        print(f"{len(selected)} {'mutants' if args.generate else 'faults'}")
        return 0

    if not args.generate:
        signal.signal(signal.SIGINT, runner.stop)
        signal.signal(signal.SIGTERM, runner.stop)
        os.makedirs(COPY, exist_ok=True)
        print(f"=== syncing {os.path.relpath(COPY, ROOT)} from {args.rev or 'the working tree'}", flush=True)
        sync_copy(args.rev)

    presets = [p for p in PRESETS if any(f.preset == p for f in selected)]
    for preset in presets:
        print(f"=== {preset}: configure, build and run the unchanged suite", flush=True)
        runner.configure(preset)
        built, out = runner.build(preset)
        if not built:
            sys.exit(f"the unchanged copy does not build ({preset}):\n{out[-4000:]}")
        failed, _, out = runner.test(preset)
        if failed:
            sys.exit(f"the unchanged suite fails ({preset}); fix that first:\n" +
                     "\n".join(f"  {n} ({r})" for n, r in failed))

    results = []
    started_run = time.monotonic()
    with open(RESULTS, "w", encoding="utf-8") as log:
        log.write("id\tclass\tfile\tresult\tseconds\tfailed cases\n")
        for number, fault in enumerate(selected, 1):
            started = time.monotonic()
            path, mutated, diff = apply(fault, COPY)
            killers = []
            if path is None:
                result = "not applicable"
                detail = mutated
            else:
                with open(path, "rb") as f:
                    runner.patched = (path, f.read())
                with open(path, "w", encoding="utf-8") as f:
                    f.write(mutated)
                built, out = runner.build(fault.preset)
                if not built:
                    result = "did not compile"
                    errors = [l for l in out.splitlines() if "error" in l]
                    detail = errors[0].strip() if errors else "build failed"
                else:
                    failed, hung, _ = runner.test(fault.preset)
                    killers = [n for n, _ in failed]
                    flaky = (not hung and killers and killers[0].startswith(CONFIRMED_KILLERS)
                             and not runner.fails_alone(fault.preset, killers[0]))
                    if flaky:
                        result = "survived"
                        detail = f"flaky: {killers[0]} failed in the suite but passed alone"
                        killers = []
                    elif failed or hung:
                        result = "killed"
                        detail = ("hung, " if hung else "") + f"first failing case: {killers[0]}" \
                            if killers else "hung"
                    else:
                        result = "survived"
                        detail = "equivalent: " + fault.equivalent if fault.equivalent else "every case passed"
                runner.restore()
            seconds = time.monotonic() - started
            results.append((fault, result, diff, seconds, killers))
            print(f"[{number:3}/{len(selected)}] {fault.id:28} {result:15} {seconds:4.0f} s  {detail}", flush=True)
            if result == "survived":
                print(f"      {diff}", flush=True)
            log.write(f"{fault.id}\t{fault.kind}\t{fault.file}\t{result}\t{seconds:.0f}\t{' '.join(killers)}\n")
            log.flush()

    count = {r: sum(1 for x in results if x[1] == r)
             for r in ("killed", "survived", "did not compile", "not applicable")}
    survivors = [f for f, r, *_ in results if r == "survived"]
    equivalent = [f for f in survivors if f.equivalent]
    unexplained = [f for f in survivors if not f.equivalent]
    scored = count["killed"] + len(unexplained)
    print(f"\n{'result':18} {'count':>5}")
    for r in ("killed", "survived", "did not compile", "not applicable"):
        print(f"{r:18} {count[r]:5}")
    print(f"{'  of survived: equivalent':18} {len(equivalent):5}")
    if args.generate:
        print(f"\n{'kind':20} {'killed':>6} {'survived':>8} {'no build':>8}")
        for kind in sorted({f.kind for f, *_ in results}):
            rows = [r for f, r, *_ in results if f.kind == kind]
            print(f"{kind:20} {rows.count('killed'):6} {rows.count('survived'):8} "
                  f"{rows.count('did not compile'):8}")
    score = 100.0 * count["killed"] / scored if scored else 100.0
    if scored:
        print(f"\nscore: {count['killed']}/{scored} compiled, non-equivalent killed = {score:.1f}%"
              f" ({len(equivalent)} equivalent survivors left out)")
    for f, r, diff, *_ in results:
        if r == "survived":
            print(f"  survived: {f.id} {diff}" + (f"  (equivalent: {f.equivalent})" if f.equivalent
                                                   else "  NOT EXPLAINED"))
    for f, r, *_ in results:
        if f.equivalent and r == "killed":
            print(f"  note: {f.id} is marked equivalent but was killed")
    report = {
        "mode": "generated" if args.generate else "listed",
        "sample": args.sample, "seed": args.seed if args.generate else None,
        "rev": args.rev, "seconds": round(time.monotonic() - started_run),
        "counts": count, "equivalent": len(equivalent), "score": round(score, 1),
        "results": [{"id": f.id, "kind": f.kind, "file": f.file,
                     "line": getattr(f, "number", None), "diff": diff, "result": r,
                     "equivalent": f.equivalent, "seconds": round(sec), "failed": killers}
                    for f, r, diff, sec, killers in results],
    }
    with open(args.json, "w", encoding="utf-8") as f:
        json.dump(report, f, indent=1)
    print(f"per-fault results: {os.path.relpath(RESULTS, ROOT)}, {os.path.relpath(args.json, ROOT)}")
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())
