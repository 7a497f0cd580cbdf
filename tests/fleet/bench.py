"""Compares what the collection's modules cost with Ansible's own raw command, on the same appliances, in
turn. Prints a table; exit status 1 where a module costs more than its goal.

    bench.py [--count N] [--rounds N] COLLECTIONS BUILD SERVICES

Each appliance has a data store with ten services and nothing else. The cost is processor time, of the
controller and the appliances together: it is less at the mercy of what else the machine does than the
time of the clock, which is shown beside it.
"""

import argparse
import json
import os
import pathlib
import resource
import shutil
import statistics
import subprocess
import sys
import time

from controller import Controller
from trees import HERE, make_trees

FLEET = pathlib.Path("/tmp/fleet")
GOAL = 1.2
SERVICES = [f"service-{number:02}" for number in range(10)]
RAW = "raw: kelotlsctl get"
INFO = "kelotls_info: levels, states, findings, version"
LEVEL = "kelotls_level, no change"
# Of each: what has to be among what is returned, so that nothing is cheap that says nothing.
RETURNED = {RAW: {"stdout"}, INFO: {"services", "findings", "version"}, LEVEL: {"services"}}
TASKS = {
    RAW: {"ansible.builtin.raw": f"kelotlsctl get {SERVICES[0]}", "changed_when": False},
    INFO: {"kelotls.appliance.kelotls_info": {}},
    LEVEL: {"kelotls.appliance.kelotls_level": {
        "services": ["service-*"], "level": "modern"}},
}


def processor_seconds() -> float:
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def make_fleet(arguments: argparse.Namespace) -> Controller:
    shutil.rmtree(FLEET, ignore_errors=True)
    image = FLEET / "image"
    subprocess.run([os.path.join(HERE, "make_image"), image, os.path.abspath(arguments.build),
                    os.path.abspath(arguments.services)], check=True)
    trees = make_trees(image, FLEET / "trees", arguments.count)
    store = {"default-level": 2, "services": {
        name: {"current-level": 1, "display-name": name} for name in SERVICES}}
    for tree in trees:
        tree.profile.mkdir(parents=True)
        (tree.profile / "services").mkdir()
        (tree.profile / "config").mkdir()
        (tree.profile / "datastore.json").write_text(json.dumps(store))
        tree.start()
    for tree in trees:
        tree.wait()
    directory = FLEET / "controller"
    directory.mkdir()
    inventory = directory / "inventory.json"
    inventory.write_text(json.dumps({"all": {
        "hosts": {tree.name: {"tree_directory": str(tree.directory)} for tree in trees},
        "vars": {"ansible_connection": "appliance_tree"}}}))
    return Controller(pathlib.Path(os.path.abspath(arguments.collections)), directory, inventory)


def measure(controller: Controller, name: str, count: int) -> tuple[float, float]:
    """Processor time and time of the clock of one run over all appliances, in seconds."""
    playbook = controller.directory / "bench.json"
    playbook.write_text(json.dumps([{
        "name": name, "hosts": "all", "gather_facts": False, "tasks": [{"name": name, **TASKS[name]}]}]))
    processor, clock = processor_seconds(), time.monotonic()
    run = controller.play(str(playbook)).must_pass()
    used = processor_seconds() - processor, time.monotonic() - clock
    assert len(run.hosts("ok")) == count and run.changed() == set(), run.output[-3000:]
    assert all(RETURNED[name] <= set(row["result"]) for row in run.rows), run.rows[0]
    return used


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("collections")
    parser.add_argument("build")
    parser.add_argument("services")
    arguments = parser.parse_args()
    controller = make_fleet(arguments)
    used: dict[str, list[tuple[float, float]]] = {name: [] for name in TASKS}
    for _round in range(arguments.rounds):
        for name in TASKS:
            used[name].append(measure(controller, name, arguments.count))
    medians = {name: [statistics.median(column) for column in zip(*rows)]
               for name, rows in used.items()}
    print(f"| {arguments.count} appliances | processor | clock | beside raw | goal | verdict |")
    print("| --- | --: | --: | --: | --: | --- |")
    status = 0
    for name, (processor, clock) in medians.items():
        ratio = processor / medians[RAW][0]
        verdict = "- | -" if name == RAW else \
            f"{GOAL:.2f} | {'ok' if ratio <= GOAL else 'MISSED'}"
        status = 1 if "MISSED" in verdict else status
        print(f"| {name} | {processor:.1f} s | {clock:.1f} s | {ratio:.2f} | {verdict} |")
    return status


if __name__ == "__main__":
    sys.exit(main())
