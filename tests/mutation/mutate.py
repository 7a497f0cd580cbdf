"""Mutation testing of src/: would the tests notice if the library were wrong in one small place?

Tries each mutant (mutants.py) on the test cases that reach its lines (trial.py), the most specific
case first. Fails when a mutant survives that survivors.txt does not explain, when it explains one
that no longer survives, or when fewer than 95 % of all mutants that compile are killed.
"""
import argparse
import collections
import glob
import hashlib
import itertools
import json
import os
import random
import re
import subprocess
import sys
import threading

import mutants
import trial

PROJECT, WORK = trial.PROJECT, trial.WORK
SURVIVORS = f"{PROJECT}/tests/mutation/survivors.txt"
RESULTS = f"{WORK}/results.jsonl"
REQUIRED_PERCENT = 95
CONSTANT = re.compile(r"^constexpr [\w:]+ (\w+)(?:\[\])?\s*=", re.MULTILINE)
MOST_CASES = 500  # a mutant that so many of the closest cases let live has no test of its own


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def all_mutants():
    header = read(f"{PROJECT}/src/log_messages.h")
    found = []
    for name in trial.units() + ["paths.h"]:
        found += mutants.mutants_of(f"src/{name}", read(f"{PROJECT}/src/{name}"), header)
    return found


def explained_survivors():
    """Key → reason. A reason is indented below the keys that it is for."""
    reasons, keys = {}, []
    for line in read(SURVIVORS).splitlines():
        if line.startswith("src/"):
            keys.append(line)
        elif line.startswith(" ") and keys:
            reasons.update(dict.fromkeys(keys, line.strip()))
            keys = []
    if keys:
        sys.exit(f"{SURVIVORS}: no reason below: {keys[0]}")
    return reasons


# What is made once

def must(succeeded, what):
    if not succeeded:
        sys.exit(f"mutate: {what} failed on the library as it is")


def prepare():
    """The headers of others compiled ahead, the library as it is, and one that counts its lines;
    the unit tests linked to a library that can be exchanged."""
    done = f"{WORK}/prepared-{state_of()}"
    if not os.path.exists(done):
        compile_prelude()
        compile_library("objects")
        compile_library("coverage", "--coverage")
        with open(done, "w", encoding="utf-8"):
            pass
    subprocess.run(["g++", "-o", f"{WORK}/unit_tests",
                    *glob.glob(f"{trial.BUILD}/tests/CMakeFiles/unit_tests.dir/**/*.o",
                               recursive=True),
                    f"{trial.BUILD}/tests/libtest_bed.a", "-lgtest_main", "-lgtest",
                    f"{WORK}/objects/{trial.OPEN}", f"-Wl,-rpath-link,{trial.BUILD}/platform",
                    f"-L{trial.BUILD}/platform", "-lkelocore", "-lkelomustache",
                    "-ljsoncpp", "-lcrypto", "-lpthread"], check=True)


def compile_prelude():
    os.makedirs(WORK, exist_ok=True)
    sources = "".join(read(path) for path in glob.glob(f"{PROJECT}/src/*"))
    foreign = sorted(set(re.findall(r"^#include <.*", sources, re.MULTILINE)))
    with open(f"{WORK}/prelude.h", "w", encoding="utf-8") as file:
        file.write("\n".join(foreign) + "\n")
    subprocess.run(["g++", *trial.compile_options(), "-x", "c++-header", f"{WORK}/prelude.h"],
                   check=True)


def compile_library(directory, *options):
    os.makedirs(f"{WORK}/{directory}", exist_ok=True)
    units = trial.units()
    for unit in units:
        must(trial.compile_unit(unit, f"{PROJECT}/src", f"{WORK}/{directory}", *options), unit)
    objects = [f"{WORK}/{directory}/{unit}.o" for unit in units]
    for library in (trial.SHIPPED, trial.OPEN):
        must(trial.link(library, objects, f"{WORK}/{directory}", *options), library)


def all_cases():
    cases = []
    for program in trial.PROGRAMS:
        listing = subprocess.run(
            [trial.program_path(program), "--gtest_list_tests"], check=True,
            env={**os.environ, "LD_LIBRARY_PATH": f"{WORK}/objects:{trial.BUILD}/platform"},
            stdout=subprocess.PIPE).stdout.decode()
        for line in listing.splitlines():
            name = line.split("#")[0].strip()
            if not line.startswith(" "):
                suite = name
            elif not name.startswith("DISABLED_"):
                cases.append((program, suite + name))
        must(cases and cases[-1][0] == program, f"listing the cases of {program}")
    return cases


# Trials, on all processors

def each(requests, processors):
    """Yields (place of the request, answer) as the answers come."""
    waiting, answers = collections.deque(enumerate(requests)), collections.deque()
    ready = threading.Semaphore(0)

    def work(number):
        directory = f"{WORK}/{number}"
        os.makedirs(directory, exist_ok=True)
        for name in glob.glob(f"{WORK}/coverage/*.gcno"):
            link = f"{directory}/{os.path.basename(name)}"
            if not os.path.lexists(link):
                os.symlink(name, link)
        with subprocess.Popen(
                [f"{PROJECT}/tests/bed/in_private_tree", "--writable", directory, "python3", "-B",
                 f"{PROJECT}/tests/mutation/trial.py", directory],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as worker:
            while True:
                try:
                    place, request = waiting.popleft()
                except IndexError:
                    break
                worker.stdin.write(json.dumps(request) + "\n")
                worker.stdin.flush()
                answers.append((place, worker.stdout.readline()))
                ready.release()
            worker.stdin.close()

    for number in range(processors):
        threading.Thread(target=work, args=(number,), daemon=True).start()
    for _ in range(len(requests)):
        ready.acquire()
        place, answer = answers.popleft()
        if not answer:
            sys.exit("mutate: a worker has ended before its work was done")
        yield place, json.loads(answer)


def require_all_pass(cases, processors):
    """Ends the program if a case fails without a mutant: such a case tells nothing about mutants."""
    as_it_is = {"file": "", "start": 0, "end": 0, "new": ""}
    parts = [cases[start::processors] for start in range(processors)]
    for _, answer in each([{"mutant": as_it_is, "cases": part} for part in parts], processors):
        if answer["result"] != "survived":
            sys.exit(f"mutate: without a mutant: {answer}")


def state_of(*paths):
    state = hashlib.sha256()
    for path in sorted(glob.glob(f"{PROJECT}/src/*")) + list(paths):
        with open(path, "rb") as file:
            state.update(file.read())
    return state.hexdigest()[:16]


def find_reached_lines(cases, processors):
    """For each case its time and the lines that it reaches; found once for each state of the
    library and of the case's program."""
    reached = {}
    for program in trial.PROGRAMS:
        cache = f"{WORK}/reached-{program}-{state_of(trial.program_path(program))}.json"
        if not os.path.exists(cache):
            own = [case for case in cases if case[0] == program]
            found = {}
            for place, answer in each([{"coverage": case} for case in own], processors):
                must(answer["how"] == "", own[place][1])
                found[own[place][1]] = [answer["seconds"], answer["lines"]]
            with open(cache, "w", encoding="utf-8") as file:
                json.dump(found, file)
        for name, (seconds, lines) in json.loads(read(cache)).items():
            reached[program, name] = (seconds, {tuple(line) for line in lines})
    return reached


def lines_that_use(constant, sources):
    """Where a constant is named, and the constants that are made of it."""
    found, names = set(), [constant]
    for name in names:
        for file, text in sources.items():
            for number, line in enumerate(text.splitlines(), start=1):
                if re.search(rf"\b{name}\b", line):
                    found.add((file, number))
                    names += [other for other in CONSTANT.findall(line) if other not in names]
    return found


def declaration_of(mutant, sources):
    """The mutant's lines and, where it is a row of a table, those from the table's first line on."""
    lines = sources[mutant.file].splitlines()
    first = mutant.lines[0] - 1
    while first > 0 and lines[first].startswith(" "):
        first -= 1
    if not CONSTANT.match(lines[first]):
        first = mutant.lines[0] - 1
    return "\n".join(lines[first:mutant.lines[-1]])


def cases_for(mutant, reached, popularity, sources):
    """The cases that reach the mutant's lines or, as a constant has no code of its own, the lines
    that use it. First come those that reach a line nearby which few cases reach, then those that
    reach few lines and are quick. The programs take turns."""
    lines = {(mutant.file, line) for line in mutant.lines}
    for constant in CONSTANT.findall(declaration_of(mutant, sources)):
        lines |= lines_that_use(constant, sources)
    chosen, line = [], mutant.lines[0]
    while not chosen and line > 0:  # a declaration has no code: the line before it
        chosen = [case for case, (_, its_lines) in reached.items() if its_lines & lines]
        line -= 1
        lines.add((mutant.file, line))
    close_by = {(file, line + step) for file, line in lines for step in range(-2, 4)}

    def order(case):
        seconds, its_lines = reached[case]
        return min(popularity[line] for line in its_lines & close_by), seconds * len(its_lines)

    by_program = {}
    for case in sorted(chosen, key=order):
        by_program.setdefault(case[0], []).append(case)
    in_turn = itertools.chain.from_iterable(itertools.zip_longest(*by_program.values()))
    return [case for case in in_turn if case is not None][:MOST_CASES]


# The report

def table(title, tried, group):
    print(f"\n{title:<30}{'killed':>8}{'survived':>10}{'does not compile':>18}")
    counts = collections.defaultdict(collections.Counter)
    for mutant, answer in tried:
        counts[group(mutant)][answer["result"]] += 1
    for name, count in sorted(counts.items()):
        print(f"{name:<30}{count['killed']:>8}{count['survived']:>10}"
              f"{count['does not compile']:>18}")


def report(tried, whole):
    """Whether the tests are as good as they have to be."""
    explained = explained_survivors()
    compiled = [(mutant, answer) for mutant, answer in tried
                if answer["result"] != "does not compile"]
    survivors = {mutant.key for mutant, answer in compiled if answer["result"] == "survived"}
    killed = len(compiled) - len(survivors)
    percent = 100 * killed / max(1, len(compiled))
    table("unit", tried, lambda mutant: mutant.file)
    table("operator", tried, lambda mutant: mutant.operator)
    endings = collections.Counter(answer["how"] for _, answer in compiled if "how" in answer)
    print("\nThe case that told " + ", ".join(f"{how}: {count}"
                                             for how, count in endings.most_common()))
    print(f"{killed} of {len(compiled)} mutants killed ({percent:.1f} %), {len(survivors)} survived, "
          f"{len(survivors & explained.keys())} of them explained")

    faults = [f"survived: {key}" for key in sorted(survivors - explained.keys())]
    tried_keys = {mutant.key for mutant, _ in tried}
    faults += [f"explained as a survivor, but killed or gone: {key}"
               for key in sorted(explained.keys() - survivors)
               if whole or key in tried_keys]
    if whole and percent < REQUIRED_PERCENT:
        faults.append(f"fewer than {REQUIRED_PERCENT} % killed")
    print("\n".join(faults))
    return not faults


def main():
    parser = argparse.ArgumentParser(prog="mutate", description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--sample", nargs=2, metavar=("COUNT", "SEED"),
                        help="try only this many, always the same ones for the same seed")
    parser.add_argument("--match", help="try only mutants whose name this expression finds")
    parser.add_argument("--resume", action="store_true",
                        help="take the kills of the run before and try only the rest")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    options = parser.parse_args()

    chosen = all_mutants()
    if options.match:
        chosen = [mutant for mutant in chosen if re.search(options.match, mutant.key)]
    if options.sample:
        count, seed = options.sample
        chosen = random.Random(seed).sample(chosen, min(int(count), len(chosen)))
    before = {}
    if options.resume:
        before = {answer["key"]: answer for answer in map(json.loads, read(RESULTS).splitlines())
                  if answer["result"] != "survived"}

    prepare()
    cases = all_cases()
    reached = find_reached_lines(cases, options.jobs)
    fresh = [mutant for mutant in chosen if mutant.key not in before]
    sources = {file: read(f"{PROJECT}/{file}") for file in {mutant.file for mutant in chosen}}
    popularity = collections.Counter(line for _, lines in reached.values() for line in lines)
    requests = [{"mutant": vars(mutant), "cases": cases_for(mutant, reached, popularity, sources)}
                for mutant in fresh]
    needed = sorted(set().union(*(request["cases"] for request in requests)))
    print(f"{len(fresh)} mutants, {len(needed)} test cases", flush=True)
    require_all_pass(needed, options.jobs)
    tried = [(mutant, before[mutant.key]) for mutant in chosen if mutant.key in before]
    with open(RESULTS, "w", encoding="utf-8") as file:
        for answer in before.values():
            file.write(json.dumps(answer) + "\n")
        for place, answer in each(requests, options.jobs):
            answer["key"] = fresh[place].key
            tried.append((fresh[place], answer))
            file.write(json.dumps(answer) + "\n")
            file.flush()
            if len(tried) % 100 == 0:
                print(f"{len(tried)} of {len(chosen)}", flush=True)
    return 0 if report(tried, not options.sample and not options.match) else 1


if __name__ == "__main__":
    sys.exit(main())
