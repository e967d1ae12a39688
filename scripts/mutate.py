#!/usr/bin/env python3
"""Plants single-line faults in the library, one at a time, and tells which of them the tests catch.

  mutate.py [--count N] [--seed N] [--tests REGEX] [--results FILE] [--jobs N]

Works in a copy of the committed tree, so that nothing here is touched. Faults are drawn from every layer in proportion
to its lines, the same for the same seed and the same sources. A fault that does not compile, or that compiles to the
same object, is none: another one takes its place. The last line is the score; FILE gets one line for each fault.
"""
import argparse
import hashlib
import pathlib
import random
import re
import shutil
import subprocess
import tempfile

LAYERS = ["log", "core", "net", "http", "ftp", "tftp", "cert", "ringtone"]

# What is planted: pattern, replacement. Applied once in a line, outside of comments and texts.
FAULTS = [
    (r"(?<![<\-=])<(?![<=])(?= \w)", "<="), (r" <= ", " < "), (r"(?<=\w) > (?=\w)", " >= "), (r" >= ", " > "),
    (r" == ", " != "), (r" != ", " == "), (r" && ", " || "), (r" \|\| ", " && "), (r"(?<=[( ])!(?=[\w(])", ""),
    (r" \+ 1\b", ""), (r" - 1\b", ""), (r" \+ (?=\w)", " - "), (r" - (?=\w)", " + "), (r"\btrue\b", "false"),
    (r"\bfalse\b", "true"), (r"\breturn 0;", "return -1;"), (r"\breturn -1;", "return 0;"), (r" \+= ", " -= "),
    (r"\bDL_ERR_(?!READ\b)\w+", "DL_ERR_READ"), (r"\bbreak;", ""), (r"\bcontinue;", ""), (r" \| (?=\w)", " & "),
    (r"^(\s+)[\w:.>\-]+\([^;]*\);$", r"\1;"),  # a call left out
    (r"^(\s+)if \(.*\) return [^;]*;$", r"\1;"),  # a check left out
    (r"^(\s+)[\w.>\-]+ = [^;]+;$", r"\1;"),  # an assignment left out
]


def candidates(root):
    """Every (layer, file, line number, changed line)."""
    for layer in LAYERS:
        for path in sorted((root / layer).glob("*.cpp")):
            for number, line in enumerate(path.read_text().splitlines()):
                if re.match(r"\s*(//|#|\*|static_assert|using |\})", line) or "log_line(" in line:
                    continue
                code = re.sub(r'"(\\.|[^"\\])*"', lambda text: '"' + "\x00" * (len(text[0]) - 2) + '"', line)
                code = re.sub(r"//.*", lambda text: "\x00" * len(text[0]), code)
                for pattern, replacement in FAULTS:
                    for match in re.finditer(pattern, code):
                        changed = line[:match.start()] + match.expand(replacement) + line[match.end():]
                        yield layer, path.relative_to(root), number, changed


def draw(root, count, seed):
    """An endless supply would repeat itself: the candidates in a drawn order, layers in proportion to their lines."""
    generator = random.Random(seed)
    by_layer = {layer: [] for layer in LAYERS}
    for candidate in candidates(root):
        by_layer[candidate[0]].append(candidate)
    total = sum(map(len, by_layer.values()))
    for layer, found in by_layer.items():
        generator.shuffle(found)
        yield layer, max(3, round(count * len(found) / total)), found


class Tree:
    """A copy of the committed sources with a build of its own."""

    def __init__(self, source, jobs):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="mutate."))
        self.jobs = jobs
        archive = subprocess.run(["git", "-C", source, "archive", "HEAD"], check=True, capture_output=True).stdout
        subprocess.run(["tar", "-x", "-C", self.root], input=archive, check=True)

    def build(self):
        return self.run("cmake", "--build", "build", "-j", self.jobs).returncode == 0

    def run(self, *command):
        return subprocess.run(command, cwd=self.root, capture_output=True, text=True)

    def test(self, tests):
        """The first test that fails, None when all pass."""
        done = self.run("ctest", "--test-dir", "build", "-j", self.jobs, "--stop-on-failure", "--timeout", "60", "-R",
                        tests)
        failed = re.findall(r"^\s*\d+/\d+ Test +#\d+: (\S+) .*\*\*\*", done.stdout, re.M)
        return failed[0] if failed else None if done.returncode == 0 else "ctest"

    def digest(self, file):
        return hashlib.sha256((self.root / f"build/CMakeFiles/fetchrig_objects.dir/{file}.o").read_bytes()).digest()


def try_fault(tree, file, number, changed, tests):
    """ "caught by ...", "SURVIVED", or None when it is no fault."""
    path = tree.root / file
    original = path.read_text()
    lines = original.splitlines(keepends=True)
    lines[number] = changed + "\n"
    before = tree.digest(file)
    path.write_text("".join(lines))
    try:
        if not tree.build() or tree.digest(file) == before:
            return None
        caught = tree.test(tests)
        return f"caught by {caught}" if caught else "SURVIVED"
    finally:
        path.write_text(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=150)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--tests", default="unit|wire|scenario|boundary", 
                        help="the tests that are run, as a regular expression")
    parser.add_argument("--results", default="mutations.txt")
    parser.add_argument("--jobs", default="2")
    options = parser.parse_args()

    tree = Tree(pathlib.Path(__file__).resolve().parent.parent, options.jobs)
    try:
        tree.run("cmake", "--preset", "default", "-DCMAKE_CXX_FLAGS=-w")
        if not tree.build() or tree.test(options.tests):
            raise SystemExit("the unchanged tree does not build and pass")
        caught = planted = 0
        with open(options.results, "w", buffering=1, encoding="utf-8") as results:
            for layer, share, found in draw(tree.root, options.count, options.seed):
                while share > 0 and found:
                    _, file, number, changed = found.pop()
                    outcome = try_fault(tree, file, number, changed, options.tests)
                    if outcome is None:
                        continue
                    share -= 1
                    planted += 1
                    caught += outcome != "SURVIVED"
                    results.write(f"{file}:{number + 1}: {changed.strip()}  -- {outcome}\n")
                print(f"{layer}: {caught} of {planted} caught so far", flush=True)
            score = f"{caught} of {planted} faults caught ({100 * caught / planted:.1f} %)"
            results.write(score + "\n")
        print(score)
    finally:
        shutil.rmtree(tree.root)


if __name__ == "__main__":
    main()
