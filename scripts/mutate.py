#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Plants single-line faults in the library, one at a time, and tells which of them the tests catch.

  mutate.py [--count N] [--seed N] [--again FILE] [--tests REGEX] [--tests-of COMMIT] [--results FILE] [--jobs N]
  mutate.py --layers cli --tests command ...    in the command instead

Works in a copy of the committed tree, so that nothing here is touched. Faults are drawn from every layer in proportion
to its lines, the same for the same seed and the same sources. A fault that does not compile, or that compiles to the
same object, is none: another one takes its place. The last line printed is the score.
"""
import argparse
import hashlib
import json
import pathlib
import random
import re
import shutil
import subprocess
import tempfile

# A fault may make a test hang; that counts as caught.
HUNG_SECONDS = 60
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


def candidates(root, layers):
    """Every (layer, file, line number, changed line)."""
    for layer in layers:
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


def draw(root, layers, count, seed):
    """An endless supply would repeat itself: the candidates in a drawn order, layers in proportion to their lines."""
    generator = random.Random(seed)
    by_layer = {layer: [] for layer in layers}
    for candidate in candidates(root, layers):
        by_layer[candidate[0]].append(candidate)
    total = sum(map(len, by_layer.values()))
    for layer, found in by_layer.items():
        generator.shuffle(found)
        yield layer, max(3, round(count * len(found) / total)), found


def recorded(root, results):
    """The faults of an earlier run whose lines still stand, by layer."""
    by_layer = {}
    for fault in map(json.loads, results.read_text().splitlines()):
        lines = (root / fault["file"]).read_text().splitlines() if (root / fault["file"]).exists() else []
        same = [number for number, line in enumerate(lines) if line == fault["was"]]
        if not same:
            print(f"gone: {fault['file']}: {fault['was'].strip()}")
            continue
        number = min(same, key=lambda at, wanted=fault["line"]: abs(at - wanted))
        layer = fault["file"].split("/")[0]
        by_layer.setdefault(layer, []).append((layer, pathlib.Path(fault["file"]), number, fault["is"]))
    for layer, found in by_layer.items():
        yield layer, len(found), found[::-1]


class Tree:
    """A copy of the committed sources with a build of its own."""

    def __init__(self, source, jobs, tests_of, targets):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="mutate."))
        self.jobs = jobs
        self.targets = targets
        self.take(source, "HEAD")
        if tests_of:
            shutil.rmtree(self.root / "tests")
            self.take(source, tests_of, "tests")

    def take(self, source, commit, *folders):
        archive = subprocess.run(["git", "-C", source, "archive", commit, *folders], check=True, capture_output=True)
        subprocess.run(["tar", "-x", "-C", self.root], input=archive.stdout, check=True)

    def build(self, *targets):
        targets = targets or self.targets
        return self.run("cmake", "--build", "build", "-j", self.jobs, "--target", *targets).returncode == 0

    def run(self, *command, **how):
        return subprocess.run(command, cwd=self.root, capture_output=True, text=True, errors="replace", **how)

    def stories_fail(self):
        """Whether a story fails as it is written: told in seconds, where what goes wrong meanwhile takes minutes."""
        stories = sorted(self.root.glob("tests/scenarios/*.txt"))
        if not stories or not self.build("scenario"):
            return False
        try:
            return self.run("build/tests/scenario", "--mode", "as-sent", *stories, timeout=HUNG_SECONDS).returncode != 0
        except subprocess.TimeoutExpired:
            return True

    def test(self, *choice):
        """The first test that fails, None when all pass."""
        done = self.run("ctest", "--test-dir", "build", "-j", self.jobs, "--stop-on-failure", *choice)
        failed = re.findall(r"^\s*\d+/\d+ Test +#\d+: (\S+) .*\*\*\*", done.stdout, re.M)
        return failed[0] if failed else None if done.returncode == 0 else "ctest"

    def digest(self, file):
        folder = "CMakeFiles/fetchrig_objects.dir"
        if file.parts[0] == "cli":
            folder, file = "cli/CMakeFiles/fetchrig_command.dir", file.name
        return hashlib.sha256((self.root / "build" / folder / f"{file}.o").read_bytes()).digest()


def try_fault(tree, layer, file, number, changed, tests):
    """ "caught by ...", "SURVIVED", or None when it is no fault."""
    path = tree.root / file
    original = path.read_text()
    lines = original.splitlines(keepends=True)
    lines[number] = changed + "\n"
    before = tree.digest(file)
    path.write_text("".join(lines))
    try:
        if re.search(tests, "scenario") and tree.stories_fail():
            return "caught by the stories as they are written"
        if not tree.build() or tree.digest(file) == before:
            return None
        # The tests named after the layer are the likeliest to tell; the rest is run when they do not.
        caught = tree.test("-R", f"({tests}).*{layer}") or tree.test("-R", tests)
        return f"caught by {caught}" if caught else "SURVIVED"
    finally:
        path.write_text(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=150)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--again", type=pathlib.Path, help="plant the faults of an earlier FILE instead of drawn ones")
    parser.add_argument("--layers", default=",".join(LAYERS), help="folders, separated by commas")
    parser.add_argument("--tests", default="unit|scenario|boundary",
                        help="the tests that are run, as a regular expression")
    parser.add_argument("--tests-of", metavar="COMMIT", help="take the tests from another commit")
    parser.add_argument("--results", default="mutations.json", help="a JSON object in a line for each fault")
    parser.add_argument("--jobs", default="2")
    options = parser.parse_args()

    layers = options.layers.split(",")
    targets = ["fetchrig_command"] if "cli" in layers else ["tests/all"]
    tree = Tree(pathlib.Path(__file__).resolve().parent.parent, options.jobs, options.tests_of, targets)
    try:
        tree.run("cmake", "--preset", "default", "-DCMAKE_CXX_FLAGS=-w", f"-DFETCHRIG_TOOLS={'cli' in layers}",
                 "-DFETCHRIG_BENCH=OFF", f"-DFETCHRIG_TEST_TIMEOUT={HUNG_SECONDS}")
        if not tree.build():
            raise SystemExit("the unchanged tree does not build")
        if failed := tree.test("-R", options.tests):
            raise SystemExit(f"the unchanged tree does not pass {failed}")
        caught = planted = 0
        drawn = draw(tree.root, layers, options.count, options.seed)
        supply = recorded(tree.root, options.again) if options.again else drawn
        with open(options.results, "w", buffering=1, encoding="utf-8") as results:
            for layer, share, found in supply:
                while share > 0 and found:
                    _, file, number, changed = found.pop()
                    outcome = try_fault(tree, layer, file, number, changed, options.tests)
                    if outcome is None:
                        continue
                    share -= 1
                    planted += 1
                    caught += outcome != "SURVIVED"
                    was = (tree.root / file).read_text().splitlines()[number]
                    results.write(json.dumps({"file": str(file), "line": number, "was": was, "is": changed,
                                              "outcome": outcome}) + "\n")
                print(f"{layer}: {caught} of {planted} caught so far", flush=True)
        print(f"{caught} of {planted} faults caught ({100 * caught / planted:.1f} %)")
    finally:
        shutil.rmtree(tree.root)


if __name__ == "__main__":
    main()
