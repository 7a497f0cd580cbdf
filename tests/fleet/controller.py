"""Runs playbooks against the trees, and reads what came of each task on each host."""

import dataclasses
import json
import os
import pathlib
import subprocess

from trees import HERE

# What a run tells of itself, and nobody can know beforehand.
UNFORESEEABLE = ("surveyed", "warnings", "_ansible_no_log", "_ansible_verbose_always",
                 "_ansible_delegated_vars")


@dataclasses.dataclass
class Run:
    """One run of a playbook."""

    status: int
    output: str
    rows: list[dict]

    def of(self, host: str) -> list[dict]:
        return [row for row in self.rows if row["host"] == host]

    def hosts(self, kind: str) -> set[str]:
        return {row["host"] for row in self.rows if row["kind"] == kind}

    def changed(self) -> set[str]:
        return {row["host"] for row in self.rows if row["result"].get("changed")}

    def must_pass(self) -> "Run":
        assert self.status == 0, f"status {self.status}:\n{self.output[-6000:]}"
        return self

    def predictions(self) -> dict:
        """What each of our tasks returned, by host and task, without what nobody can foresee."""
        return {(row["host"], row["task"]): {
            "kind": row["kind"], **without_unforeseeable(row["result"])}
            for row in self.rows if row["action"].startswith("kelotls.appliance.")}


def without_unforeseeable(value):
    if isinstance(value, dict):
        return {key: without_unforeseeable(element) for key, element in value.items()
                if key not in UNFORESEEABLE}
    if isinstance(value, list):
        return [without_unforeseeable(element) for element in value]
    return value


@dataclasses.dataclass
class Controller:
    """Where the playbooks are, and where what they say goes."""

    collections: pathlib.Path
    directory: pathlib.Path
    inventory: pathlib.Path

    @property
    def collection(self) -> pathlib.Path:
        return self.collections / "ansible_collections/kelotls/appliance"

    def play(self, playbook: str, *options: str, **variables) -> Run:
        """A playbook of the collection: a file of its cookbook, or a name that begins with its name."""
        path = playbook if "." in playbook[:-4] else str(self.collection / playbook)
        results = self.directory / "results"
        results.unlink(missing_ok=True)
        environment = {
            **os.environ, "HOME": str(self.directory), "LC_ALL": "C.UTF-8",
            "ANSIBLE_CONFIG": os.path.join(HERE, "ansible.cfg"), "FLEET_RESULTS": str(results),
            "ANSIBLE_COLLECTIONS_PATH": str(self.collections), "PYTHONDONTWRITEBYTECODE": "1"}
        done = subprocess.run(
            ["/usr/bin/ansible-playbook", "-i", self.inventory, "--diff", "-e",
             json.dumps(variables), path, *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env=environment, check=False)
        rows = [json.loads(line) for line in results.read_text().splitlines()] \
            if results.exists() else []
        with open(self.directory / "log", "a", encoding="utf-8") as log:
            log.write(f"== {playbook} {' '.join(options)}\n{done.stdout}\n")
        return Run(done.returncode, done.stdout, rows)

    def predict_and_play(self, playbook: str, *options: str, **variables) -> Run:
        """In check mode first, whose every result has to be the real one's, host by host."""
        predicted = self.play(playbook, "--check", *options, **variables).predictions()
        run = self.play(playbook, *options, **variables)
        real = run.predictions()
        assert real, f"no task has run:\n{run.output[-3000:]}"
        assert_same(predicted, real)
        return run


def assert_same(predicted: dict, real: dict) -> None:
    wrong = [key for key in sorted({*predicted, *real}) if predicted.get(key) != real.get(key)]
    if wrong:
        raise AssertionError(
            f"the prediction was wrong {len(wrong)} times, first of {' on '.join(reversed(wrong[0]))}:\n"
            f"  predicted {json.dumps(predicted.get(wrong[0]))}\n"
            f"  came      {json.dumps(real.get(wrong[0]))}")
