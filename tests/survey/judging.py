"""Whether the probe's report of one server is as it should be."""

import dataclasses

from expected import NOTHING_THERE, Comparison
from probing import Bench, Outcome, probe
from running import NotStarted
from servers import Server

MOST_MEMORY = 32 << 20
# What a process may take beyond its deadline, to start, to print and to end.
GRACE_SECONDS = 2.0


@dataclasses.dataclass(frozen=True)
class Judgement:
    server: Server
    faults: list[str]
    seconds: float = 0
    is_started: bool = True

    @property
    def word(self) -> str:
        return "not started" if not self.is_started else "FAULTY" if self.faults else "ok"


def judge(command: str, bench: Bench, server: Server) -> Judgement:
    site = bench.site(server.name)
    try:
        running = server.start(site)
    except (NotStarted, OSError) as reason:
        return Judgement(server, [str(reason)], is_started=False)
    try:
        outcome = probe(command, server, site)
    finally:
        running.stop()
    return Judgement(server, faults_of(server, outcome), outcome.seconds)


def faults_of(server: Server, outcome: Outcome) -> list[str]:
    faults = []
    status = server.expected.exit_status
    if outcome.status != status:
        faults.append(f"exit status: got {outcome.status}, want {status} {outcome.errors.strip()}")
    if outcome.memory > MOST_MEMORY:
        faults.append(f"memory: {outcome.memory >> 20} MiB")
    if "--deadline" in server.options:
        deadline = float(server.options[server.options.index("--deadline") + 1])
        if outcome.seconds > deadline + GRACE_SECONDS:
            faults.append(f"took {outcome.seconds:.1f} s with a deadline of {deadline:.0f} s")
    if outcome.document is not None:
        faults += Comparison(server.level, server.expected, outcome.document).run()
    elif server.expected.verdict != NOTHING_THERE:
        faults.append("it printed no report")
    return faults
