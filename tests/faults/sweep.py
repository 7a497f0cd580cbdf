"""Runs a sweep over its scenarios in two private trees at once, and reports what both found."""

import argparse
import collections
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

from private_tree import (CONFIG, SERVICES, PrivateTree, make_tree, read_tree)
from states import CUT_SHORT, Contradiction, Model, meaning

WORKERS = 2
TESTS = pathlib.Path(__file__).resolve().parent.parent
TEMPORARY = re.compile(rf"(?:(/usr/kelo/.*/(?:data)?store\.json)\.\d+-\d+"
                       rf"|({CONFIG}[^/]*\.conf)\.\w{{6}})")


class Texts:
    """The whole texts that may be at each path, and the meaning of a tree of them."""

    def __init__(self, *trees):
        self.whole = collections.defaultdict(set)
        for tree in trees:
            for path, entry in tree.items():
                if not isinstance(entry, str):
                    self.whole[path].add(entry[1])

    def observe(self, tree, exact):
        """(the tree as a model has it, the temporaries by what they were to replace). Where exact
        is asked for, a text that was not written whole shows as such."""
        seen, temporaries = {}, collections.Counter()
        for path, entry in tree.items():
            match = TEMPORARY.fullmatch(path)
            if match:
                temporaries[match[1] or match[2]] += 1
            else:
                seen[path] = entry if isinstance(entry, str) else (
                    entry[0], self._meaning(path, entry[1], exact))
        return seen, temporaries

    def _meaning(self, path, content, exact):
        whole = self.whole[path]
        if content not in whole and path.startswith(SERVICES):
            if content + b"\n" in whole:  # all of the document is there
                return meaning(content)
            if any(text.startswith(content) for text in whole):
                return CUT_SHORT
        if exact and content not in whole:
            return f"neither the old nor the new text: {content!r}"
        return meaning(content)


class Report:
    """What one worker has found."""

    def __init__(self, part):
        self.part, self.points, self.states, self.violations = part, 0, set(), 0
        self.scenario, self.turns = None, []

    def begin(self, scenario):
        self.scenario = scenario
        self.turns.append(0)

    def mine(self):
        """Whether the next point of the scenario is this worker's."""
        self.turns[-1] += 1
        return (len(self.turns) + self.turns[-1]) % WORKERS == self.part

    def point(self, state):
        self.points += 1
        self.states.add(f"{self.scenario.name} {hash(frozenset(state.items()))}")

    def violation(self, where, what):
        self.violations += 1
        again = f"{sys.argv[0]} --only {shlex.quote(self.scenario.name)}"
        print(f"VIOLATION: {self.scenario.name}\n  at       {where}\n  found    {what}\n"
              f"  again    {again}", file=sys.stderr, flush=True)


def differences(seen, permitted):
    """How a tree differs from the nearest permitted one, for a reader."""
    def distance(tree):
        return len(set(tree) ^ set(seen.items()))
    nearest = dict(min(permitted, key=distance))
    return [f"{path}: {seen.get(path, 'missing')}, not {nearest.get(path, 'missing')}"
            for path in sorted(seen | nearest) if seen.get(path) != nearest.get(path)]


def contradiction(scenario, before, run, seen):
    """What is wrong with a run that came to its end, or None; and the model that judged it."""
    model = Model(before, run.log)
    try:
        expected = model.perform(scenario.words)
    except Contradiction as what:
        return f"{what}; log {run.log}", model
    if run.status != 0 or len(run.results) != 1:
        return f"the process ended with {run.status}", model
    if run.results[0][0] != expected:
        return f"result {run.results[0][0]}, not {expected}, with log {run.log}", model
    if model.log:
        return f"lines that nothing explains: {list(model.log)}", model
    if frozenset(seen.items()) not in model.now:
        return f"{differences(seen, model.now)} with log {run.log}", model
    return None, model


class Undisturbed:
    """A scenario's run to its end, traced: its calls, its log, and the states on its way."""

    def __init__(self, private_tree, scenario):
        make_tree(scenario.tree)
        private_tree.run(scenario.words)
        self.texts = Texts(scenario.tree, read_tree())
        self.start, _ = self.texts.observe(scenario.tree, True)
        make_tree(scenario.tree)
        self.run = private_tree.run(scenario.words, scenario.failing, "all")
        self.tree, _ = self.texts.observe(read_tree(), True)
        wrong, self.model = contradiction(scenario, self.start, self.run, self.tree)
        if wrong:
            raise Contradiction(wrong)
        self.calls = self.run.calls()


def names(injections):
    """The calls that are tampered with, as the tracer lists them."""
    return ",".join(injection.split(":")[0] for injection in injections)


def parse_arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, default=TESTS.parent / "build/release")
    parser.add_argument("--library", type=pathlib.Path, help="directory of another libkelotls.so.7")
    parser.add_argument("--only", default="", help="scenarios whose name has this text in it")
    parser.add_argument("--part", type=int, help=argparse.SUPPRESS)
    return parser.parse_args()


def start_worker(part, arguments):
    environment = os.environ | {
        "FAULT_SUBJECT": str(arguments.build / "tests/faults/fault_subject"),
        "LC_ALL": "C.UTF-8", "PYTHONDONTWRITEBYTECODE": "1", "PYTHONHASHSEED": "0"}
    if arguments.library:
        environment["LD_LIBRARY_PATH"] = str(arguments.library)
    command = [TESTS / "bed/in_private_tree", "python3", *sys.argv, "--part", str(part)]
    return subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, text=True)


def main(name, scenarios, sweep, minimum):
    """sweep(private_tree, scenario, report) tries the points that are report.mine()."""
    arguments = parse_arguments()
    if arguments.part is not None:
        private_tree, report = PrivateTree(), Report(arguments.part)
        for scenario in scenarios:
            if arguments.only in scenario.name:
                report.begin(scenario)
                try:
                    sweep(private_tree, scenario, report)
                except Contradiction as what:
                    report.violation("nothing: it was left alone", what)
        json.dump([report.points, sorted(report.states), report.violations, report.turns],
                  sys.stdout)
        return
    workers = [start_worker(part, arguments) for part in range(WORKERS)]
    outputs = [worker.communicate()[0] for worker in workers]
    if any(worker.returncode for worker in workers):
        sys.exit(f"{name}: a worker failed")
    found = [json.loads(output) for output in outputs]
    if any(part[3] != found[0][3] for part in found):
        sys.exit(f"{name}: the workers have not divided the same points")
    points = sum(part[0] for part in found)
    violations = sum(part[2] for part in found)
    print(name, points, len(set().union(*(part[1] for part in found))), violations, sep="\t")
    if not arguments.only and points < minimum:
        sys.exit(f"{name}: {points} points are fewer than {minimum}")
    sys.exit(1 if violations or not points else 0)
