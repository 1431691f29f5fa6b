#!/usr/bin/env python3
"""Mutation campaign: one-line mutants of the product sources against the test suite.

Run through scripts/mutation.sh. Mutants are spread over the sources by their size and drawn
from --seed, so the same seed and count give the same mutants again; --only re-checks some.
Each mutant is applied, built incrementally (ci preset), and the suite run, stopping at the
first failure; the file is restored whatever happens. A survivor then runs the asan preset's
suite, as CI does, which catches leaks and reads out of bounds. With --matrix FILE the
whole suite runs for each mutant and FILE gets the tests that failed, a mutant a line; the
summary then names the tests that kill no mutant alone. String and character
literals are never mutated: a changed log text is either caught by a plain comparison or not
looked at, and says nothing about the code's logic either way.
"""
import argparse, fnmatch, os, random, re, shutil, signal, subprocess, sys, time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutation"      # backups of mutated files and a log per mutant
SOURCE_DIRS = ["base", "dispatcher", "platform/linux", "tools"]
EQUIVALENTS = ROOT / "scripts" / "mutation-equivalent.txt"

RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
KEYWORDS = {"if", "for", "while", "switch", "return", "sizeof", "alignof", "decltype",
            "static_assert", "defined", "case", "default", "break", "continue", "else", "do",
            "goto", "using", "typedef", "friend", "namespace", "template"}
SYMMETRIC = {"min", "max", "swap"}  # swapping their arguments changes nothing
PARAMETER = re.compile(r"^[\w:<>*&\s]+\s[*&]?\w+\s*(=.*)?$")    # "const std::string& path"
DECLARATION = re.compile(r"^[\w:<>,*& ]*[\w>*&]\s+[*&]?\w+\s*[=({\[;]")
FAILED = re.compile(r"Test +#\d+: (\S+) .*\*\*\*", re.M)   # ctest's line of a test that failed


def mask(text):
    """The text with comments and the insides of string and character literals blanked."""
    out, i, n = list(text), 0, len(text)

    def blank(a, b):
        for k in range(a, min(b, n)):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
        elif text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            delim = text[i + 2:text.find("(", i)]
            j = text.find(")" + delim + '"', i)
            j = n if j < 0 else j
            blank(i + 2, j + len(delim) + 1)
            j += len(delim) + 2
        elif text[i] in "\"'" and not (text[i] == "'" and i > 0 and text[i - 1].isalnum()):
            j = i + 1
            while j < n and text[j] != text[i] and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, j)
            j += 1
        else:
            j = i + 1
        i = j
    return "".join(out)


def code_lines(text):
    """(line number, line, masked line) of every line with code, directives left out."""
    lines, masked, directive = text.split("\n"), mask(text).split("\n"), False
    for number, (line, code) in enumerate(zip(lines, masked), 1):
        in_directive = directive or code.lstrip().startswith("#")
        directive = in_directive and code.rstrip().endswith("\\")
        if code.strip() and not in_directive:
            yield number, line, code


def two_argument_calls(code):
    """Spans (open paren + 1, comma, close paren) of calls with two arguments on this line."""
    for m in re.finditer(r"\b([A-Za-z_]\w*)\s*\(", code):
        if m.group(1) in KEYWORDS | SYMMETRIC:
            continue
        depth, commas = 0, []
        for k in range(m.end(), len(code)):
            if code[k] in "([{":
                depth += 1
            elif code[k] in ")]}":
                if depth == 0:
                    if len(commas) == 1:
                        yield m.end(), commas[0], k
                    break
                depth -= 1
            elif code[k] == "," and depth == 0:
                commas.append(k)


def is_statement(code, previous):
    """A whole call or assignment statement on one line, which deleting leaves compilable."""
    s = code.strip()
    if not s.endswith(";") or previous and previous.strip()[-1] not in ";{}:":
        return False
    if s.count("(") != s.count(")") or "{" in s or "}" in s or re.search(r"= *(delete|default)\b", s):
        return False
    if s.startswith("delete ") or re.match(r"\w*", s).group() in KEYWORDS:
        return s.startswith("delete ")
    arguments = s[s.find("(") + 1:s.rfind(")")].split(",")
    if DECLARATION.match(s) or any(PARAMETER.match(a.strip()) for a in arguments):
        return False
    return bool(re.search(r"\(|(?<![=!<>])=(?!=)|\+\+|--", s))


def mutants_of(path, text):
    """Every mutant of one file: (path, line number, operator, description, old line, new line)."""
    found, seen, previous = [], set(), None
    for number, line, code in code_lines(text):
        edits = []   # (operator, start, end, replacement)
        for m in re.finditer(r"\breturn (true|false)\b", code):
            edits.append(("return", m.start(1), m.end(1), "false" if m.group(1) == "true" else "true"))
        for m in re.finditer(r"(?<= )(<=|>=|==|!=|<|>)(?= |$)", code):
            edits.append(("relational", m.start(), m.end(), RELATIONAL[m.group()]))
        for m in re.finditer(r"(?<= )(&&|\|\|)(?= |$)", code):
            edits.append(("boolean", m.start(), m.end(), "||" if m.group() == "&&" else "&&"))
        for m in re.finditer(r"\b(true|false)\b", code):
            edits.append(("boolean", m.start(), m.end(), "false" if m.group() == "true" else "true"))
        for m in re.finditer(r"!(?!=)", code):
            edits.append(("boolean", m.start(), m.end(), ""))
        if "virtual" not in code:
            for m in re.finditer(r"(?<![\w.'])\d+(?=[uUlLzZ]*(?![\w.']))", code):
                value = int(m.group())
                edits.append(("constant", m.start(), m.end(), str({0: 1, 1: 0}.get(value, value + 1))))
        for open_, comma, close in two_argument_calls(code):
            a, b = line[open_:comma].strip(), line[comma + 1:close].strip()
            if a and b and a != b and not PARAMETER.match(a) and not PARAMETER.match(b):
                edits.append(("swap", open_, close, f"{b}, {a}"))
        if is_statement(code, previous):
            edits.append(("delete", 0, len(line), ""))
        previous = code
        for operator, start, end, replacement in edits:
            new = line[:start] + replacement + line[end:]
            if (number, new) not in seen:
                seen.add((number, new))
                what = "deleted" if operator == "delete" else f"'{line[start:end]}' -> '{replacement}'"
                found.append((path, number, operator, what, line, new))
    return found


def product_sources(globs):
    for directory in SOURCE_DIRS:
        for p in sorted((ROOT / directory).rglob("*")):
            rel = str(p.relative_to(ROOT))
            if p.suffix in (".cc", ".h") and "_mac" not in p.name and \
                    (not globs or any(fnmatch.fnmatch(rel, g) for g in globs)):
                yield rel


def select(args):
    """Mutants spread over the files by lines of code (Sainte-Laguë), each file's drawn from the seed."""
    pools, weights = {}, {}
    for rel in product_sources(args.files):
        text = (ROOT / rel).read_text(encoding="utf-8")
        pools[rel] = mutants_of(rel, text)
        random.Random(f"{args.seed}:{rel}").shuffle(pools[rel])
        # Distinct lines first, so that a file's share spreads over it.
        first = {}
        for m in pools[rel]:
            first.setdefault(m[1], m)
        pools[rel].sort(key=lambda m: first[m[1]] is not m)
        weights[rel] = sum(1 for _ in code_lines(text))
    share = dict.fromkeys(pools, 0)
    for _ in range(args.count if args.count > 0 else sum(map(len, pools.values()))):
        open_ = [f for f in pools if share[f] < len(pools[f])]
        if not open_:
            break
        best = max(open_, key=lambda f: weights[f] / (2 * share[f] + 1))
        share[best] += 1
    chosen = sorted((m for f in pools for m in pools[f][:share[f]]), key=lambda m: (m[0], m[1]))
    return [m for m in chosen if not args.only or any(f"/{o} " in f"/{m[0]}:{m[1]} {m[2]} " for o in args.only)]


def run(command, log, timeout=None):
    """Runs a command in its own process group, output appended to log; True when it succeeded."""
    with open(log, "a") as out:
        out.write(f"$ {' '.join(command)}\n")
        out.flush()
        child = subprocess.Popen(command, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT,
                                 stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            return child.wait(timeout=timeout) == 0
        except subprocess.TimeoutExpired:
            out.write(f"timed out after {timeout} s\n")
            return False
        finally:   # also on Ctrl-C: nothing of the suite may outlive its run
            try:
                os.killpg(child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            child.wait()


def build(preset, log, jobs):
    return run(["cmake", "--build", "--preset", preset, "-j", str(jobs)], log)


def test(preset, log, jobs, timeout=None, whole=False):
    # Most tests wait on the dispatcher's two-second shutdown: run more than the cores.
    return run(["ctest", "--preset", preset, "-LE", "real-browsers", "-j", str(2 * jobs)] +
               ([] if whole else ["--stop-on-failure"]), log, timeout)


def build_and_test(preset, log, jobs, timeout, whole=False):
    if not build(preset, log, jobs):
        return "no-build"
    return "killed" if not test(preset, log, jobs, timeout, whole) else "survived"


def failed_tests(log):
    """The tests that the last suite run in the log failed, and "(timeout)" when it did not finish."""
    text = log.read_text(errors="replace")
    text = text[text.rfind("$ ctest"):]
    return FAILED.findall(text) + (["(timeout)"] if "timed out after" in text else [])


def summarize(matrix):
    """Per test, the mutants it kills and those no other test kills, from every row of the matrix file."""
    kills = {}
    for row in matrix.read_text().splitlines():
        mutant, _, tests = row.partition(" killed: ")
        for name in tests.split():
            kills.setdefault(name, set()).add(mutant)
    listed = subprocess.run(["ctest", "--preset", "ci", "-N", "-LE", "real-browsers"], cwd=ROOT,
                            capture_output=True, text=True).stdout
    print(f"\ntests by the mutants they kill alone / in all ({matrix}):")
    for name in sorted(set(re.findall(r"Test +#\d+: (\S+)", listed)) | set(kills),
                       key=lambda n: (len(kills.get(n, ())), n)):
        alone = [m for m in kills.get(name, ()) if all(m not in k for o, k in kills.items() if o != name)]
        print(f"{len(alone):3} / {len(kills.get(name, ())):3}  {name}" +
              "".join(f"\n          {m}" for m in sorted(alone)))


def restore_interrupted():
    """Puts back what a run that was killed outright left mutated."""
    for backup in sorted((WORK / "backup").rglob("*")) if (WORK / "backup").exists() else []:
        if backup.is_file():
            target = ROOT / backup.relative_to(WORK / "backup")
            shutil.copyfile(backup, target)
            backup.unlink()
            print(f"restored {target.relative_to(ROOT)}, left mutated by an interrupted run")


def evaluate(mutant, args, log):
    path, number, operator, _, _, new = mutant
    source, backup = ROOT / path, WORK / "backup" / path
    original = source.read_bytes()
    backup.parent.mkdir(parents=True, exist_ok=True)
    backup.write_bytes(original)
    try:
        lines = original.decode("utf-8").split("\n")
        lines[number - 1] = new
        source.write_text("\n".join(lines), encoding="utf-8")
        result = build_and_test("ci", log, args.jobs, args.timeout, bool(args.matrix))
        if result == "survived":
            result = build_and_test("asan", log, args.jobs, args.timeout * 3, bool(args.matrix))
            result = "killed (asan)" if result == "killed" else result
        if args.matrix and result.startswith("killed"):
            with open(args.matrix, "a") as out:
                out.write(f"{path}:{number} {operator} {mutant[3]} killed: {' '.join(failed_tests(log))}\n")
        return result
    finally:
        source.write_bytes(original)
        os.utime(source)   # newer than the mutant's objects, so that the next build rebuilds it
        backup.unlink()


def equivalence(equivalent, mutant):
    """Why the mutant is equivalent, from its own entry or its line's; None if it is not listed."""
    path, number, operator, _, old, new = mutant
    for where, kind, edit, reason in equivalent:
        if where == f"{path}:{number}" and kind == operator and \
                (not edit or edit[0] in old and old.replace(edit[0], edit[1], 1) == new):
            return reason
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--seed", default="1", help="draws the mutants (default 1)")
    parser.add_argument("--count", type=int, default=90, help="mutants to draw, 0 for all (default 90)")
    parser.add_argument("--files", action="append", help="glob of sources to mutate (repeatable)")
    parser.add_argument("--only", action="append", help="of the drawn mutants, run only those at "
                        "FILE:LINE [OPERATOR], e.g. url.cc:42 (repeatable)")
    parser.add_argument("--list", action="store_true", help="print the mutants without running them")
    parser.add_argument("--timeout", type=int, default=0,
                        help="seconds a mutant's suite may run, a hang being a kill (default: "
                        "three times the unmutated suite's time, at least 60)")
    parser.add_argument("--jobs", type=int, default=2, help="build jobs (default 2)")
    parser.add_argument("--matrix", type=Path, help="run the whole suite for each mutant and append "
                        "the tests that kill it to this file; summarize every row of it at the end")
    args = parser.parse_args()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # quietly, into a pager or head
    for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):  # also when started with SIGINT ignored
        signal.signal(sig, lambda *_: sys.exit(130))
    restore_interrupted()

    equivalent = []
    if EQUIVALENTS.exists():
        for entry in EQUIVALENTS.read_text().splitlines():
            if entry.strip() and not entry.startswith("#"):
                where, operator, reason = (entry.split(None, 2) + [""])[:3]
                # "'A' -> 'B': reason" names the mutant that makes the first A of the line B
                edit = re.match(r"'(.*?)' -> '(.*?)': ", reason)
                equivalent.append((where, operator, edit and edit.groups(), reason[edit.end() if edit else 0:]))
    mutants = select(args)
    if args.list:
        for path, number, operator, what, old, new in mutants:
            print(f"{path}:{number} {operator} {what}\n  - {old.strip()}\n  + {new.strip()}")
        print(f"{len(mutants)} mutants")
        return 0

    WORK.mkdir(parents=True, exist_ok=True)
    for old_log in WORK.glob("*.log"):
        old_log.unlink()
    for preset in ["ci", "asan"]:
        log = WORK / f"baseline-{preset}.log"
        print(f"unmutated {preset} build and suite ({log.relative_to(ROOT)}) ...", flush=True)
        built, started = run(["cmake", "--preset", preset], log) and build(preset, log, args.jobs), time.time()
        if not built or not test(preset, log, args.jobs):
            print(f"the unmutated {preset} build or suite fails: see {log}")
            return 1
        if preset == "ci" and not args.timeout:
            args.timeout = max(60, int(3 * (time.time() - started)))

    results = {"killed": [], "survived": [], "no-build": [], "equivalent": []}
    for index, mutant in enumerate(mutants, 1):
        path, number, operator, what = mutant[:4]
        started, log = time.time(), WORK / f"{index:03}.log"
        if equivalence(equivalent, mutant) is not None:
            result = "equivalent"
        else:
            result = evaluate(mutant, args, log)
        results[result.split()[0]].append(mutant)
        print(f"[{index}/{len(mutants)}] {path}:{number} {operator} {what}: {result} "
              f"({time.time() - started:.0f} s)", flush=True)

    for title, key in (("survivors", "survived"), ("known equivalent", "equivalent")):
        if results[key]:
            print(f"\n{title}:")
        for path, number, operator, what, old, new in results[key]:
            reason = equivalence(equivalent, (path, number, operator, what, old, new))
            print(f"{path}:{number} {operator} {what}" + (f" ({reason})" if reason else ""))
            print(f"  - {old.strip()}\n  + {new.strip()}")
    k, s, b, e = (len(results[key]) for key in ("killed", "survived", "no-build", "equivalent"))
    if args.matrix and args.matrix.exists():
        summarize(args.matrix)
    print(f"score: {k} killed / ({k}+{s}) = {100 * k / max(k + s, 1):.1f}% ({b} did not build, {e} equivalent)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
