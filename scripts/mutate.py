#!/usr/bin/python3
"""Mutation check: how many planted faults do a subsystem's tests catch?

    scripts/mutate.py SUBSYSTEM [--count 100] [--seed N] [--build DIR] [--jobs 2]
                      [--timeout S] [--report FILE] [--journal FILE] [--also TARGET ...]

SUBSYSTEM is platform, proximity, analytics, status, campaigns, simulator or sensing. Each mutant
is one single-line fault at a random site of the subsystem's sources (the same --seed picks the same
sites): a flipped comparison (< <=, > >=, == !=), a flipped boolean literal, an integer constant
off by one, a deleted call statement, or a string literal with a character appended. Comments,
preprocessor lines, static_assert lines and raw strings are left alone.

For each mutant the file is written, the subsystem's test targets are rebuilt in the build
directory (an incremental rebuild of one .cpp and a relink), the file is restored as soon as the
build ends, and the suites run with a timeout. A mutant is killed (a test failed, or the run timed
out), survived (every test passed) or stillborn (it did not compile; not counted). Tests that
already fail on the unmutated tree are left out of every run and named in the report.

Each suite covers its own subsystem only: the platform layer, for one, is exercised by every suite,
but running them all for each mutant multiplies the cost; add suites with --also.

--journal FILE records each result as a JSON line and reuses recorded results on a rerun with the
same arguments, so an interrupted run resumes. The original file is always put back (also on
Ctrl-C); a run killed outright leaves DIR/.mutate-inflight.json, and the next run restores from it.
Not part of `make test`: it takes about one rebuild and one suite run per mutant.
"""

import argparse
import glob
import json
import os
import random
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

SUBSYSTEMS = {
    "platform": (["src/platform/*.cpp"], ["platform_tests"]),
    "proximity": (["src/proximity/*.cpp"], ["proximity_tests"]),
    # The kit lookups the proximity layer ranges through (beacon index, beacon finder) live with
    # analytics but are tested with the proximity manager.
    "analytics": (["src/analytics/*.cpp"], ["analytics_tests", "proximity_tests"]),
    "status": (["src/status/*.cpp"], ["status_tests"]),
    "campaigns": (["src/campaigns/*.cpp"], ["campaigns_tests"]),
    "simulator": (["tools/sim/*.cpp", "tools/common/*.cpp"], ["tool_tests"]),
    # The Linux sources and the monitors they feed; linux_tests runs them against real daemons.
    "sensing": (["src/sensing/*.cpp"], ["sensing_tests", "linux_tests"]),
}

CALL_STATEMENT = re.compile(r"^\s*[A-Za-z_][\w:]*(\s*(\.|->)\s*[A-Za-z_]\w*)*\s*\(.*\);\s*$")
NOT_CALLS = {"return", "if", "while", "for", "switch", "delete", "throw", "co_return", "case",
             "sizeof", "decltype", "static_assert", "assert"}
COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
COMPARISON = re.compile(r"(?<= )(<=|>=|==|!=|<|>)(?= )")
BOOLEAN = re.compile(r"\b(true|false)\b")
INTEGER = re.compile(r"(?<![\w.'])(\d+)(?=[uUlLzZ]*(?![\w.']))")
RAW_START = re.compile(r'(?:u8|u|U|L)?R"([^(\s]{0,16})\(')


class Interrupted(Exception):
    pass


def scan(line, state):
    """Masks a line: returns (code, literals, state).

    code is the line with comments blanked and string/char contents replaced by spaces (the
    quotes kept), so patterns only ever match code; literals are (start, end) spans of ordinary
    string literals, end at the closing quote. state carries a block comment or raw string over
    to the next line: None, ("comment",) or ("raw", delimiter)."""
    code = list(line)
    literals = []
    i, n = 0, len(line)
    raw = False
    while i < n:
        if state:
            # Inside a block comment or a raw string: blank up to its closing mark.
            close = "*/" if state[0] == "comment" else ")" + state[1] + '"'
            end = line.find(close, i)
            stop = n if end < 0 else end + len(close)
            for k in range(i, stop):
                code[k] = " "
            i = stop
            if end >= 0:
                state = None
            continue
        c = line[i]
        if line.startswith("//", i):
            for k in range(i, n):
                code[k] = " "
            break
        if line.startswith("/*", i):
            state = ("comment",)
            code[i] = code[i + 1] = " "
            i += 2
            continue
        m = RAW_START.match(line, i)
        if m and (i == 0 or not (line[i - 1].isalnum() or line[i - 1] == "_")):
            state = ("raw", m.group(1))
            raw = True
            for k in range(i, m.end()):
                code[k] = " "
            i = m.end()
            continue
        if c == '"' or c == "'":
            if c == "'" and i > 0 and line[i - 1].isalnum() and i + 1 < n and line[i + 1].isalnum():
                i += 1  # a digit separator
                continue
            j = i + 1
            while j < n and line[j] != c:
                j += 2 if line[j] == "\\" else 1
            j = min(j, n - 1)
            for k in range(i + 1, j):
                code[k] = " "
            if c == '"':
                literals.append((i, j))
            i = j + 1
            continue
        i += 1
    return "".join(code), literals, state, raw


def sites(path, lines):
    """Every mutation this file offers: (line index, operator, new line)."""
    out = []
    state = None
    previous = ";"  # the last code line's final character: is a statement starting here?
    for idx, line in enumerate(lines):
        body = line.rstrip("\r\n")
        code, literals, state_after, raw = scan(body, state)
        straddles = state is not None or state_after is not None or raw
        state = state_after
        stripped = code.strip()
        if not stripped:
            continue
        if straddles or stripped.startswith("#") or "static_assert" in code or \
                'extern "C"' in body:
            previous = stripped[-1]
            continue
        end = body[len(body.rstrip()) :] + line[len(body) :]

        def put(a, b, text, op):
            out.append((idx, op, body[:a] + text + body[b:] + end))

        for m in COMPARISON.finditer(code):
            put(m.start(), m.end(), COMPARISONS[m.group(1)], "comparison " + m.group(1))
        for m in BOOLEAN.finditer(code):
            put(m.start(), m.end(), "false" if m.group(1) == "true" else "true", "boolean")
        for m in INTEGER.finditer(code):
            out.append((idx, "integer", (m.start(), m.end(), int(m.group(1)), body, end)))
        for a, b in literals:
            if b > a and body[b] == '"':
                put(b, b, "_", "string")
        first = re.match(r"\s*([A-Za-z_]\w*)", code)
        if (CALL_STATEMENT.match(code) and first and first.group(1) not in NOT_CALLS and
                code.count("(") == code.count(")") and previous in ";{}):"):
            indent = body[: len(body) - len(body.lstrip())]
            out.append((idx, "delete call", indent + "{}" + end))
        previous = stripped[-1]
    return out


def realize(site, rng):
    idx, op, after = site
    if op == "integer":
        a, b, value, body, end = after
        new = value + 1 if value == 0 or rng.random() < 0.5 else value - 1
        after = body[:a] + str(new) + body[b:] + end
    return idx, op, after


def run(cmd, timeout, quiet=True):
    """Runs cmd in its own process group; answers (exit status or None on timeout, output)."""
    p = subprocess.Popen(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         start_new_session=True)
    try:
        out, _ = p.communicate(timeout=timeout)
        return p.returncode, out.decode(errors="replace")
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.communicate()
        return None, ""
    except BaseException:
        os.killpg(p.pid, signal.SIGKILL)
        p.communicate()
        raise


class Check:
    def __init__(self, args):
        self.args = args
        self.build = os.path.abspath(args.build)
        patterns, self.targets = SUBSYSTEMS[args.subsystem]
        self.targets = self.targets + args.also
        self.files = sorted(f for p in patterns for f in glob.glob(os.path.join(ROOT, p)))
        self.inflight = os.path.join(self.build, ".mutate-inflight.json")
        self.excluded = {}  # binary -> tests failing before any mutation
        self.touched = set()

    def recover(self):
        if not os.path.exists(self.inflight):
            return
        with open(self.inflight) as f:
            saved = json.load(f)
        with open(saved["path"], "w", newline="") as f:
            f.write(saved["original"])
        os.remove(self.inflight)
        print(f"!!! RESTORED {saved['path']} from an interrupted earlier run !!!", file=sys.stderr)

    def compile(self):
        cmd = ["cmake", "--build", self.build, "-j", str(self.args.jobs), "--target"] + self.targets
        return run(cmd, self.args.build_timeout)

    def suites(self, timeout):
        """'pass', 'fail' or 'timeout'; stops at the first failing suite."""
        for t in self.targets:
            binary = os.path.join(self.build, "bin", t)
            cmd = [binary, "--gtest_fail_fast"]
            if self.excluded.get(t):
                cmd.append("--gtest_filter=-" + ":".join(self.excluded[t]))
            status, _ = run(cmd, timeout)
            if status is None:
                return "timeout"
            if status != 0:
                return "fail"
        return "pass"

    def baseline(self):
        status, out = self.compile()
        if status != 0:
            sys.exit("the unmutated tree does not build:\n" + out[-3000:])
        started = time.monotonic()
        for t in self.targets:
            status, out = run([os.path.join(self.build, "bin", t)], 1800)
            if status != 0:
                failing = sorted(set(re.findall(r"^\[  FAILED  \] (\S+\.\S+) \(", out, re.M)))
                if not failing:
                    sys.exit(f"{t} fails on the unmutated tree:\n" + out[-3000:])
                self.excluded[t] = failing
        elapsed = time.monotonic() - started
        return self.args.timeout or max(30.0, 5 * elapsed)

    def mutate(self, path, idx, before, after):
        """Builds the mutant and restores the file; answers the build status."""
        with open(path, newline="") as f:
            original = f.read()
        lines = original.splitlines(keepends=True)
        if idx >= len(lines) or lines[idx] != before:
            return "stale"  # someone changed the file since it was read
        lines[idx] = after
        mutant = "".join(lines)
        self.touched.add(path)
        with open(self.inflight, "w") as f:
            json.dump({"path": path, "original": original}, f)
        try:
            with open(path, "w", newline="") as f:
                f.write(mutant)
            status, _ = self.compile()
        finally:
            with open(path, newline="") as f:
                now = f.read()
            if now == mutant:
                with open(path, "w", newline="") as f:
                    f.write(original)
                with open(path, newline="") as f:
                    restored = f.read() == original
            else:
                restored = False
            if not restored:
                print(f"!!! {path} WAS NOT RESTORED: it changed while the mutant was built; "
                      f"its original is in {self.inflight} !!!", file=sys.stderr)
                sys.exit(2)
            os.remove(self.inflight)
        if status is None or status != 0:
            return "stillborn"
        return "built"


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("subsystem", choices=sorted(SUBSYSTEMS))
    ap.add_argument("--count", type=int, default=100)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--timeout", type=float, help="seconds per suite (default: 5x the clean run)")
    ap.add_argument("--build-timeout", type=float, default=900)
    ap.add_argument("--report", help="also write the Markdown report here")
    ap.add_argument("--journal", help="JSON lines of results, reused when the run is repeated")
    ap.add_argument("--also", action="append", default=[], help="a further test target")
    ap.add_argument("--dry-run", action="store_true", help="list the chosen mutants only")
    args = ap.parse_args()

    def interrupted(signum, frame):
        raise Interrupted()

    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)

    check = Check(args)
    check.recover()
    rng = random.Random(args.seed)
    candidates = []
    sources = {}
    for path in check.files:
        with open(path, newline="") as f:
            sources[path] = f.read().splitlines(keepends=True)
        candidates += [(path,) + s for s in sites(path, sources[path])]
    rng.shuffle(candidates)
    chosen = [(c[0],) + realize(c[1:], rng) for c in candidates[: args.count]]

    if args.dry_run:
        for path, idx, op, after in chosen:
            print(f"{os.path.relpath(path, ROOT)}:{idx + 1} {op}\n  - "
                  f"{sources[path][idx].strip()}\n  + {after.strip()}")
        return 0
    journal = {}
    if args.journal and os.path.exists(args.journal):
        with open(args.journal) as f:
            for l in f:
                r = json.loads(l)
                journal[(r["file"], r["line"], r["after"])] = r
    results = []
    interrupted_at = None
    timeout = None
    try:
        for n, (path, idx, op, after) in enumerate(chosen, 1):
            rel = os.path.relpath(path, ROOT)
            before = sources[path][idx]
            key = (rel, idx + 1, after)
            if key in journal:
                results.append(journal[key])
                continue
            if timeout is None:
                timeout = check.baseline()
            outcome = check.mutate(path, idx, before, after)
            if outcome == "built":
                outcome = {"fail": "killed", "timeout": "timeout", "pass": "survived"}[
                    check.suites(timeout)]
            r = {"file": rel, "line": idx + 1, "op": op, "before": before.rstrip("\r\n"),
                 "after": after, "outcome": outcome}
            print(f"[{n}/{len(chosen)}] {rel}:{idx + 1} {op}: {outcome}", file=sys.stderr)
            results.append(r)
            if args.journal:
                with open(args.journal, "a") as f:
                    f.write(json.dumps(r) + "\n")
    except Interrupted:
        interrupted_at = len(results)
    finally:
        # Another build of this tree may have compiled a mutant and finished after the restore;
        # a newer time on the file makes every build directory compile it again.
        for path in check.touched:
            os.utime(path)
        if timeout is not None:
            # The build directory holds objects of the last mutant until rebuilt from the originals.
            check.compile()

    count = {k: sum(1 for r in results if r["outcome"] == k)
             for k in ("killed", "timeout", "survived", "stillborn", "stale")}
    judged = count["killed"] + count["timeout"] + count["survived"]
    rate = 100.0 * (count["killed"] + count["timeout"]) / judged if judged else 0.0
    md = [f"# Mutation check: {args.subsystem}", "",
          f"Seed {args.seed}, {len(results)} of {args.count} mutants, suites: "
          f"{', '.join(check.targets)}.", ""]
    if interrupted_at is not None:
        md += [f"Interrupted after {interrupted_at} mutants.", ""]
    for t, failing in check.excluded.items():
        md += [f"Left out of {t} (failing before any mutation): {', '.join(failing)}.", ""]
    md += ["| outcome | mutants |", "|---|---|"]
    for k in ("killed", "timeout", "survived", "stillborn", "stale"):
        if count[k] or k != "stale":
            md.append(f"| {k} | {count[k]} |")
    shown = f"{rate:.1f}%" if judged else "n/a"
    md += ["", f"Kill rate (killed and timed out over compiled mutants): {shown} "
           f"({count['killed'] + count['timeout']}/{judged})", ""]
    survivors = [r for r in results if r["outcome"] == "survived"]
    if survivors:
        md += ["## Survivors", ""]
        for r in survivors:
            md += [f"- `{r['file']}:{r['line']}` ({r['op']})", "  ```cpp",
                   "  - " + r["before"].strip(), "  + " + r["after"].rstrip("\r\n").strip(),
                   "  ```"]
    text = "\n".join(md) + "\n"
    sys.stdout.write(text)
    if args.report:
        with open(args.report, "w") as f:
            f.write(text)
    return 130 if interrupted_at is not None else 0


if __name__ == "__main__":
    sys.exit(main())
