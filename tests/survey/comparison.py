"""Versions, suites, groups and DH sizes that the probe sees are those that nmap and sslscan see
together; what departs from that stands in exceptions.json, with who is right and why.

  compare [--only PATTERN] [--command PROGRAM] [--by-hand]

--by-hand: compares with the surveys that the matrix expects, instead of the probe.
An exception that occurs no more is an error. Exit status 1 for differences. At the end, the medians
of the times of the three, over the same servers, one after the other.
"""

import argparse
import dataclasses
import json
import os
import re
import statistics
import sys
import tempfile

import tree
from keys import PROJECT
from probing import Bench, probe
from registry import seen_by_hand
from running import Site
from scanners import Seen, Timed, nmap, probed, sslscan
from servers import SERVERS, Server

EXCEPTIONS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "exceptions.json")
FEWEST_SERVERS = 60
# The probe takes at most this share of the others' median times.
SHARE_OF_NMAP, SHARE_OF_SSLSCAN = 1 / 5, 1 / 3


@dataclasses.dataclass(frozen=True)
class Row:
    """One server. The differences are statements, with who makes them alone."""
    server: Server
    differences: set[str]
    seconds: tuple[float, ...]  # of the probe, nmap and sslscan


def main() -> int:
    arguments = parse()
    tree.enter_private_tree()
    tree.make_services(arguments.command)
    chosen = [server for server in SERVERS
              if server.compared and re.search(arguments.only, server.name)]
    if not arguments.only and len(chosen) < FEWEST_SERVERS:
        sys.exit(f"there are only {len(chosen)} servers to compare")
    with open(EXCEPTIONS, encoding="utf-8") as file:
        exceptions = read_exceptions(json.load(file))
    rows = []
    with tempfile.TemporaryDirectory() as directory:
        bench = Bench(directory)
        for server in chosen:
            rows.append(look(arguments, bench, server))
            show(rows[-1], exceptions)
    return conclude(rows, exceptions)


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("--only", metavar="PATTERN", default="")
    parser.add_argument("--command", metavar="PROGRAM",
                        default=f"{PROJECT}/build/release/tools/kelotlsctl")
    parser.add_argument("--by-hand", action="store_true")
    arguments = parser.parse_args()
    arguments.command = os.path.abspath(arguments.command)
    return arguments


def read_exceptions(listed: list[dict[str, object]]) -> dict[str, set[str]]:
    """The statements by server. An entry may name several of each, and has to give a reason."""
    exceptions: dict[str, set[str]] = {}
    for entry in listed:
        if set(entry) != {"servers", "what", "right", "reason"}:
            sys.exit(f"exceptions.json: {entry} needs servers, what, right and reason, only these")
        assert isinstance(entry["servers"], list) and isinstance(entry["what"], list)
        for server in entry["servers"]:
            exceptions.setdefault(server, set()).update(entry["what"])
    return exceptions


def look(arguments: argparse.Namespace, bench: Bench, server: Server) -> Row:
    site = bench.site(server.name)
    running = server.start(site)
    try:
        ours = ours_of(arguments, server, site)
        theirs = nmap(site.port), sslscan(site.port)
    finally:
        running.stop()
    together = (theirs[0].seen | theirs[1].seen).statements()
    said = ours.seen.statements()
    differences = {f"probe alone: {line}" for line in said - together}
    differences |= {f"others alone: {line}" for line in together - said}
    return Row(server, differences, (ours.seconds, theirs[0].seconds, theirs[1].seconds))


def ours_of(arguments: argparse.Namespace, server: Server, site: Site) -> Timed:
    if arguments.by_hand:
        return Timed(seen_by_hand(server.expected), 0)
    outcome = probe(arguments.command, server, site)
    if outcome.document is None:
        print(f"{server.name}: no report: {outcome.errors}")
        return Timed(Seen(), outcome.seconds)
    return probed(outcome.document, outcome.seconds)


def show(row: Row, exceptions: dict[str, set[str]]) -> None:
    excepted = exceptions.get(row.server.name, set())
    unexplained, gone = row.differences - excepted, excepted - row.differences
    word = "DIFFERS" if unexplained or gone else "excepted" if excepted else "equal"
    times = "".join(f"{seconds:8.2f}" for seconds in row.seconds)
    print(f"{row.server.name:40} {word:9}{times}")
    for line in sorted(unexplained):
        print(f"    {line}")
    for line in sorted(gone):
        print(f"    an exception that occurs no more: {line}")
    sys.stdout.flush()


def conclude(rows: list[Row], exceptions: dict[str, set[str]]) -> int:
    bad = [row for row in rows
           if row.differences != exceptions.get(row.server.name, set())]
    ours, of_nmap, of_sslscan = (statistics.median(row.seconds[index] for row in rows)
                                 for index in range(3))
    print(f"{len(rows)} servers, {len(bad)} with differences that are not excepted")
    print(f"Medians: probe {ours:.2f} s, nmap {of_nmap:.2f} s, sslscan {of_sslscan:.2f} s")
    known = {server.name for server in SERVERS if server.compared}
    strangers = exceptions.keys() - known
    if strangers:
        print(f"exceptions for servers that are not compared: {', '.join(sorted(strangers))}")
    is_slow = ours > of_nmap * SHARE_OF_NMAP or ours > of_sslscan * SHARE_OF_SSLSCAN
    if is_slow:
        print("The probe takes more than a fifth of nmap's time or a third of sslscan's.")
    return 1 if bad or strangers or is_slow else 0


if __name__ == "__main__":
    sys.exit(main())
