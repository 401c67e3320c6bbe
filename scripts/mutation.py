#!/usr/bin/env python3
"""Mutation check of the test suite; run it through scripts/mutation.sh.

Each fault of scripts/mutation_faults.txt is a one-line change to the library.
For each, a private copy of the sources (build/mutation/src, synced from the
tree at start) is patched, rebuilt incrementally in its own build directory
(configured like the fault's preset), the suite runs without the slow cases,
and the file is put back. A fault is killed when any case fails or hangs,
survives when all pass. The source tree itself is only ever read.
"""

import argparse
import os
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


def read_faults(path):
    faults, fields, start = [], {}, 0
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for number, text in enumerate(lines + [""], 1):
        if text.startswith("#"):
            continue
        if not text.strip():
            if fields:
                missing = [k for k in REQUIRED if k not in fields]
                if missing:
                    sys.exit(f"{path}:{start}: entry lacks {', '.join(missing)}")
                if fields.get("preset", "default") not in PRESETS:
                    sys.exit(f"{path}:{start}: preset must be one of {', '.join(PRESETS)}")
                faults.append(Fault(fields, start))
            fields = {}
            continue
        key, sep, value = text.partition(":")
        if not sep or key not in KEYS:
            sys.exit(f"{path}:{number}: expected one of {', '.join(KEYS)} followed by ':'")
        if not fields:
            start = number
        fields[key] = value[1:] if value.startswith(" ") else value
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
        cmd = ["ctest", "--preset", preset, "-LE", "slow", "-j", str(self.args.test_jobs),
               "--timeout", str(self.args.test_timeout)]
        rc, out, hung = self.run(cmd, limit=RUN_LIMIT_S)
        failed = re.findall(r"^\s*\d+ - (\S+) \(([^)]*)\)\s*$", out.split("The following tests FAILED:")[-1],
                            re.M) if "The following tests FAILED:" in out else []
        if rc != 0 and not failed and not hung:
            failed = [("ctest", f"exit status {rc}")]
        return failed, hung or any(reason == "Timeout" for _, reason in failed), out


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


def main():
    parser = argparse.ArgumentParser(
        prog="scripts/mutation.sh",
        description="Patches each listed fault into a private copy of the library, rebuilds it and "
                    "runs the suite (all but the slow cases); reports killed, survived and did not "
                    "compile, then the score.")
    parser.add_argument("ids", nargs="*", metavar="FAULT_ID", help="run only these faults")
    parser.add_argument("--list", action="store_true", help="list the faults and whether each applies")
    parser.add_argument("--rev", help="take the sources from this git revision instead of the tree "
                                      "(the fault list still comes from the tree)")
    parser.add_argument("--build-jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--test-jobs", type=int, default=4 * (os.cpu_count() or 2))
    parser.add_argument("--test-timeout", type=int, default=60, help="seconds per case (default 60)")
    args = parser.parse_args()

    faults = read_faults(FAULTS)
    unknown = [i for i in args.ids if i not in {f.id for f in faults}]
    if unknown:
        sys.exit(f"unknown fault ids: {', '.join(unknown)} (see --list)")
    selected = [f for f in faults if not args.ids or f.id in args.ids]

    if args.list:
        for f in selected:
            _, _, problem = locate(f, ROOT)
            notes = [f"preset {f.preset}"] if f.preset != "default" else []
            notes += ["not applicable: " + problem] if problem else []
            notes += ["equivalent: " + f.equivalent] if f.equivalent else []
            print(f"{f.id:28} {f.kind:24} {f.file}" + ("  (" + "; ".join(notes) + ")" if notes else ""))
        print(f"{len(selected)} faults")
        return 0

    runner = Runner(args)
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
    with open(RESULTS, "w", encoding="utf-8") as log:
        log.write("id\tclass\tfile\tresult\tseconds\tfailed cases\n")
        for number, fault in enumerate(selected, 1):
            started = time.monotonic()
            text, at, problem = locate(fault, COPY)
            killers = []
            if problem:
                result = "not applicable"
                detail = problem
            else:
                path = os.path.join(COPY, fault.file)
                with open(path, "rb") as f:
                    runner.patched = (path, f.read())
                mutated = text[:at] + fault.replacement + text[at + len(fault.original):]
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
                    if failed or hung:
                        result = "killed"
                        detail = ("hung, " if hung else "") + f"{len(failed)} cases failed"
                    else:
                        result = "survived"
                        detail = "equivalent: " + fault.equivalent if fault.equivalent else "every case passed"
                runner.restore()
            seconds = time.monotonic() - started
            results.append((fault, result))
            shown = ", ".join(killers[:3]) + (", ..." if len(killers) > 3 else "")
            print(f"[{number:2}/{len(selected)}] {fault.id:28} {result:15} {seconds:4.0f} s  {detail}"
                  + (f": {shown}" if shown else ""), flush=True)
            log.write(f"{fault.id}\t{fault.kind}\t{fault.file}\t{result}\t{seconds:.0f}\t{' '.join(killers)}\n")
            log.flush()

    count = {r: sum(1 for _, x in results if x == r)
             for r in ("killed", "survived", "did not compile", "not applicable")}
    compiled = count["killed"] + count["survived"]
    survivors = [f for f, r in results if r == "survived"]
    unexplained = [f for f in survivors if not f.equivalent]
    print(f"\nkilled {count['killed']}, survived {count['survived']}, did not compile "
          f"{count['did not compile']}, not applicable {count['not applicable']}")
    if compiled:
        print(f"score: {count['killed']}/{compiled} compiled faults killed = "
              f"{100.0 * count['killed'] / compiled:.1f}%"
              f" ({len(survivors) - len(unexplained)} survivors marked equivalent)")
    for f in survivors:
        print(f"  survived: {f.id} ({f.file}): " + (f"equivalent: {f.equivalent}" if f.equivalent
                                                       else "NOT EXPLAINED"))
    for f, r in results:
        if f.equivalent and r == "killed":
            print(f"  note: {f.id} is marked equivalent but was killed")
    print(f"per-fault results: {os.path.relpath(RESULTS, ROOT)}")
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())
