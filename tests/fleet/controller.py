"""Runs playbooks against the trees, and reads what came of each task on each host."""

import dataclasses
import json
import os
import pathlib
import subprocess

from trees import HERE

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
