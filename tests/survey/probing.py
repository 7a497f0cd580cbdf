"""Running the probe against a server that is up, and what that took."""

import dataclasses
import json
import os
import subprocess
import tempfile
import time
from typing import Any

from keys import Keys
from running import PortCounter, Site
from servers import Server

# A probe that takes longer is faulty, whatever it would say.
LONGEST_SECONDS = 170
POLL_SECONDS = 0.02


@dataclasses.dataclass(frozen=True)
class Outcome:
    status: int
    document: dict[str, Any] | None  # null where it printed none
    errors: str
    seconds: float
    memory: int  # the most that was resident, in bytes


class Bench:
    """Where servers are put up: a directory for each, and ports."""

    def __init__(self, directory: str) -> None:
        self._directory = directory
        self._next_port = PortCounter()
        self.keys = Keys(os.path.join(directory, "keys"))
        self.keys.make_all()

    def site(self, name: str) -> Site:
        directory = tempfile.mkdtemp(prefix=f"{name}.", dir=self._directory)
        return Site(directory, self._next_port(), self.keys, self._next_port)


def probe(command: str, server: Server, site: Site) -> Outcome:
    words = [command, "probe", server.level, "--connect", server.target(site), *server.options,
             "--json"]
    with open(site.path("document"), "w+b") as output, open(site.path("errors"), "w+b") as errors:
        started = time.monotonic()
        process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=output, stderr=errors)
        memory = wait(process, started + LONGEST_SECONDS)
        seconds = time.monotonic() - started
        output.seek(0)
        errors.seek(0)
        return Outcome(process.returncode, document_of(output.read()),
                       errors.read().decode("utf-8", "replace"), seconds, memory)


def wait(process: "subprocess.Popen[bytes]", deadline: float) -> int:
    """Until it ends, or is ended at the deadline. What wait4 tells of its memory would hold that of
    this process as well, from which it was forked."""
    memory = 0
    while process.poll() is None:
        memory = resident_bytes(process.pid) or memory
        if time.monotonic() > deadline:
            process.kill()
        time.sleep(POLL_SECONDS)
    return memory


def resident_bytes(process: int) -> int:
    try:
        with open(f"/proc/{process}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1]) * 1024
    except OSError:
        pass  # it has just ended
    return 0


def document_of(output: bytes) -> dict[str, Any] | None:
    try:
        document = json.loads(output)
    except ValueError:
        return None
    return document if isinstance(document, dict) and "verdict" in document else None
