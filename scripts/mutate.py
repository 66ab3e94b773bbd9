#!/usr/bin/env python3
"""Mutation run over the hand-written layer and host-platform sources.

Every candidate mutation site is enumerated in a fixed order, a seeded sample
is drawn from them (so two runs over the same sources test the same mutants),
and each mutant is applied to a private copy of the tree, rebuilt
incrementally and tested. A mutant that fails to compile is not counted; one
that the tests fail (or that hangs past the time limit) is killed; the rest
survive and are listed with their diff line.
"""
import argparse
import collections
import os
import random
import re
import shutil
import subprocess
import sys
import time

SOURCE_DIRS = ("loader", "runtime", "transport", "recording", "shadow", "egl", "platform")
# Headers are left out: a mutant there rebuilds nearly everything (minutes
# each on two cores), while the code they inline is reached from the .cpp files.
SOURCE_EXT = (".cpp", ".c")

COMPARISONS = [("<=", ">"), (">=", "<"), ("==", "!="), ("!=", "=="), ("<", ">="), (">", "<=")]
# A comparison operator that is not part of a shift, a template bracket, an
# arrow or an include.
CMP_RE = re.compile(r"(?<![<>=!-])(<=|>=|==|!=|<|>)(?![<>=])")
INT_RE = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
SKIP_LINE_RE = re.compile(r"^\s*(#|//|\*|/\*)|\btemplate\b|\bstatic_assert\b|\bsp<|\bwp<|\bstd::|<<|>>|->\s*$")
STATEMENT_RE = re.compile(r"^\s+[^{}]*;\s*(//.*)?$")
DECL_RE = re.compile(r"^\s*(const\s+)?(auto|int|unsigned|size_t|bool|char|void|GL\w+|EGL\w+|uint\w+|int\w+|float|double|[A-Z]\w*\s*[*&]?)\s+[*&]?\w+\s*(=|;|\[|\{)")
RETURNISH_RE = re.compile(r"^\s*(return|break|continue|case|default|goto)\b")


def candidate_sites(root):
    """(file, line_no, kind, new_line) for every mutation of every source line."""
    sites = []
    for d in SOURCE_DIRS:
        base = os.path.join(root, d)
        for dirpath, _, files in os.walk(base):
            for name in sorted(files):
                if not name.endswith(SOURCE_EXT):
                    continue
                rel = os.path.relpath(os.path.join(dirpath, name), root)
                with open(os.path.join(root, rel)) as f:
                    lines = f.read().split("\n")
                in_function = False
                depth = 0
                for i, line in enumerate(lines):
                    body = line.split("//")[0]
                    if depth > 0 and not SKIP_LINE_RE.search(line):
                        sites.extend(line_mutants(rel, i, line, body, lines, in_function))
                    depth += body.count("{") - body.count("}")
                    in_function = depth > 0
    return sites


def line_mutants(rel, i, line, body, lines, _):
    out = []
    if '"' not in body and "'" not in body:
        for m in CMP_RE.finditer(body):
            op = m.group(1)
            # '<' and '>' next to identifiers without spaces are usually templates.
            if op in ("<", ">") and not (body[m.start() - 1:m.start()] == " " and body[m.end():m.end() + 1] == " "):
                continue
            new = dict(COMPARISONS)[op]
            out.append((rel, i, "flip " + op, line[:m.start()] + new + line[m.end():]))
        for m in INT_RE.finditer(body):
            if "[" in body[:m.start()] and "]" in body[m.end():] and DECL_RE.match(body):
                continue  # array sizes in declarations
            v = int(m.group(1))
            out.append((rel, i, "const %d+1" % v, line[:m.start()] + str(v + 1) + line[m.end():]))
    if STATEMENT_RE.match(line) and not DECL_RE.match(line) and not RETURNISH_RE.match(line):
        out.append((rel, i, "drop", re.sub(r"\S.*$", ";", line)))
        nxt = lines[i + 1] if i + 1 < len(lines) else ""
        if STATEMENT_RE.match(nxt) and not DECL_RE.match(nxt) and not RETURNISH_RE.match(nxt) and nxt.strip() != line.strip():
            out.append((rel, i, "swap", (nxt, line)))
    if re.match(r"^\s+if\s*\(.*\)\s*\{?\s*$", line) or re.match(r"^\s+(for|while)\s*\(", line):
        # Return early: leave the function before the branch; a value-returning
        # function does not compile and is not counted.
        indent = re.match(r"^\s*", line).group(0)
        out.append((rel, i, "return early", (indent + "return;", line)))
    return out


def apply(tree, site):
    rel, i, kind, new = site
    path = os.path.join(tree, rel)
    with open(path) as f:
        lines = f.read().split("\n")
    original = list(lines)
    if kind == "swap":
        lines[i], lines[i + 1] = new
    elif kind == "return early":
        lines[i:i + 1] = list(new)
    else:
        lines[i] = new
    with open(path, "w") as f:
        f.write("\n".join(lines))
    return path, "\n".join(original)


def run(cmd, timeout, cwd=None, env=None):
    try:
        p = subprocess.run(cmd, cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           timeout=timeout, shell=isinstance(cmd, str))
        return p.returncode, p.stdout.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return "timeout", ""


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--count", type=int, default=60, help="mutants to sample (default 60)")
    ap.add_argument("--seed", type=int, default=11, help="sampling seed (default 11)")
    ap.add_argument("--e2e", default="", help="also run the ctest e2e tests matching this regex per mutant")
    ap.add_argument("--work", default=None, help="work directory (default build-mutate/)")
    ap.add_argument("--files", default="", help="only sites in files matching this regex (all of them unless --count is smaller)")
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--timeout", type=int, default=180, help="seconds per test run (a hang counts as killed)")
    args = ap.parse_args()

    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    work = os.path.abspath(args.work or os.path.join(root, "build-mutate"))
    tree, build = os.path.join(work, "src"), os.path.join(work, "build")

    sites = [s for s in candidate_sites(root) if re.search(args.files, s[0])]
    rng = random.Random(args.seed)
    sample = sorted(rng.sample(sites, min(args.count, len(sites))), key=lambda s: (s[0], s[1]))
    print("mutate: %d candidate sites, %d sampled (seed %d)" % (len(sites), len(sample), args.seed), flush=True)
    if args.list:
        for rel, i, kind, _ in sample:
            print("  %s:%d %s" % (rel, i + 1, kind))
        return 0

    # A private copy of the tracked tree: the sources under edit are never
    # touched. Copies get a fresh time stamp: a file left mutated by a run
    # that was cut off is restored with a time older than its objects, and
    # the build would keep the mutant.
    files = subprocess.run(["git", "ls-files", "-z"], cwd=root, stdout=subprocess.PIPE, check=True).stdout
    os.makedirs(tree, exist_ok=True)
    for rel in files.decode().split("\0"):
        if rel:
            dst = os.path.join(tree, rel)
            os.makedirs(os.path.dirname(dst), exist_ok=True)
            src = os.path.join(root, rel)
            if os.path.isfile(src) and (not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read()):
                shutil.copy(src, dst)
    subprocess.run(["cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DKAM_BUILD_BENCH=OFF", "-DKAM_BUILD_DEMO=%s" % ("ON" if args.e2e else "OFF"),
                    "-DKAM_BUILD_E2E=%s" % ("ON" if args.e2e else "OFF")],
                   check=True, stdout=subprocess.DEVNULL)
    jobs = str(os.cpu_count() or 2)
    rc, out = run(["cmake", "--build", build, "-j", jobs], 1800)
    if rc != 0:
        sys.stderr.write(out[-4000:] + "\nmutate: the unmutated tree does not build\n")
        return 2
    tests = [os.path.join(build, "tests", "kam_unit_tests"), "--gtest_brief=1"]
    rc, out = run(tests, args.timeout)
    if rc != 0:
        sys.stderr.write(out[-4000:] + "\nmutate: the unmutated tree fails its tests\n")
        return 2

    per_file = collections.OrderedDict()
    survivors = []
    t0 = time.time()
    for n, site in enumerate(sample, 1):
        rel, i, kind, _ = site
        path, original = apply(tree, site)
        try:
            rc, _ = run(["cmake", "--build", build, "-j", jobs], 900)
            if rc != 0:
                verdict = "not viable"
            else:
                rc, out = run(tests, args.timeout)
                if rc == 0 and args.e2e:
                    rc, out = run(["ctest", "-L", "e2e", "-R", args.e2e, "--stop-on-failure"], args.timeout * 4, cwd=build)
                verdict = "survived" if rc == 0 else "killed"
                # Which tests killed it: the ones that catch nothing are the first to question.
                killers = sorted(set(re.findall(r"\[  FAILED  \] ([\w/]+\.[\w/]+)", out) +
                                     re.findall(r"\d+ - (\S+) \((?:Failed|Timeout)", out)))
        finally:
            with open(path, "w") as f:
                f.write(original)
        stats = per_file.setdefault(rel, collections.Counter())
        stats[verdict] += 1
        if verdict == "survived":
            with open(os.path.join(root, rel)) as f:
                survivors.append("%s:%d %s: %s" % (rel, i + 1, kind, f.read().split("\n")[i].strip()))
        print("[%d/%d %4.0fs] %-9s %s:%d %s%s" % (n, len(sample), time.time() - t0, verdict, rel, i + 1, kind,
                                                 " by " + " ".join(killers) if verdict == "killed" else ""), flush=True)
    # Leave the copy built as the sources are, for the next run's incremental build.
    run(["cmake", "--build", build, "-j", jobs], 900)

    killed = sum(c["killed"] for c in per_file.values())
    survived = sum(c["survived"] for c in per_file.values())
    print("\n%-34s %7s %8s %10s" % ("file", "killed", "survived", "not viable"))
    for rel, c in per_file.items():
        print("%-34s %7d %8d %10d" % (rel, c["killed"], c["survived"], c["not viable"]))
    print("\nsurvivors:")
    for s in survivors:
        print("  " + s)
    viable = killed + survived
    print("\nmutate: kill rate %d/%d = %.1f%% (seed %d, %d sampled)" %
          (killed, viable, 100.0 * killed / max(viable, 1), args.seed, len(sample)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
