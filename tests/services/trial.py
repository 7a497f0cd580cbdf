"""Drives each of the named services in a private tree of its own, at the machine's OpenSSL security
level and at level 0, and prints a table of what came of it.

    trial.py [--json FILE] [--cannot-install FILE] COMMAND SERVICES NAME...

COMMAND: kelotlsctl. SERVICES: the directory of the services as it is installed. --cannot-install: a
line for each service whose server this machine cannot install: its name, a tabulator, why.
--json: where the rows are written to. Exit status 1 unless all were tried and are as they should be.
"""

import argparse
import concurrent.futures
import json
import os
import subprocess
import sys
from collections.abc import Iterable, Sequence
from typing import Any

from recipe import HERE, PROJECT, recipe_of

SECURITY_LEVELS = ("host", "0")
LEVELS = ("intermediate", "modern", "old")
AT_A_TIME = 2
IN_PRIVATE_TREE = os.path.join(PROJECT, "tests/bed/in_private_tree")
HEADINGS = ("SERVICE", "SECURITY LEVEL", *map(str.upper, LEVELS), "CONNECTIONS", "REFUSED",
            "LONGEST CHANGE")
ROOT_ALONE = "there is no user beside root in a private tree on this machine"

Row = dict[str, Any]


def drive_in_tree(command: str, services: str, name: str, security_level: str,
                  levels: str | None = None) -> Row:
    """What drive.py says; levels as there."""
    users = [word for user, number in recipe_of(name).users.items()
             for word in ("--user", f"{user}:{number}")]
    result = subprocess.run(
        [IN_PRIVATE_TREE, "--services", services, *users, "/usr/bin/python3", "-B",
         os.path.join(HERE, "drive.py"), command, name, security_level,
         *(() if levels is None else (levels,))],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        check=False)
    try:
        return dict(json.loads(result.stdout))
    except ValueError:
        return {"service": name, "security-level": security_level, "levels": {}, "changes": [],
                "wrong": f"it was not driven to its end: {result.stderr}{result.stdout}"}


def has_many_users() -> bool:
    result = subprocess.run([IN_PRIVATE_TREE, "sh", "-c", "echo $KELOTLS_MANY_USERS"],
                            stdout=subprocess.PIPE, text=True, check=False)
    if result.returncode != 0:
        sys.exit("No service can be tried: there is no private tree on this machine.")
    return result.stdout.strip() == "1"


def reasons_not_to_try(names: list[str], many_users: bool, path: str | None) -> dict[str, str]:
    """By name. path: the file with those that cannot be installed."""
    reasons = {}
    if not many_users:
        reasons = {name: f"cannot be tried: {ROOT_ALONE}, and it needs some" for name in names
                   if recipe_of(name).users}
    if path is not None:
        with open(path, encoding="utf-8") as file:
            for entry in file:
                name, reason = entry.rstrip("\n").split("\t", 1)
                reasons[name] = f"cannot be installed: {reason}"
    return reasons


def not_tried(name: str, security_level: str, reason: str) -> Row:
    return {"service": name, "security-level": security_level, "not-tried": reason}


def try_one(arguments: argparse.Namespace, name: str, security_level: str,
            many_users: bool) -> Row:
    row = drive_in_tree(arguments.command, arguments.services, name, security_level)
    if "wrong" in row and not many_users:
        reason = f"cannot be tried: {ROOT_ALONE}, and it failed so:"
        return {**not_tried(name, security_level, reason), "wrong": row["wrong"]}
    return row


def try_all(arguments: argparse.Namespace) -> Iterable[Row]:
    """The rows, each once it and those before it are there."""
    many_users = has_many_users()
    reasons = reasons_not_to_try(arguments.names, many_users, arguments.cannot_install)
    with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
        def start(name: str, security_level: str) -> concurrent.futures.Future[Row]:
            if name in reasons:
                return pool.submit(not_tried, name, security_level, reasons[name])
            return pool.submit(try_one, arguments, name, security_level, many_users)

        for row in [start(name, security_level) for name in arguments.names
                    for security_level in SECURITY_LEVELS]:
            yield row.result()


def cells(row: Row) -> list[str]:
    changes = row["changes"]
    longest = max((change["seconds"] for change in changes), default=None)
    return [row["service"], row["security-level"],
            *(row["levels"].get(level, "not tried") for level in LEVELS),
            str(sum(change["came"] for change in changes)),
            str(sum(change["refused"] for change in changes)),
            "" if longest is None else f"{longest:.1f} s"]


def line(texts: Sequence[str], widths: Sequence[int]) -> str:
    return "  ".join(text.ljust(width) for text, width in zip(texts, widths)).rstrip()


def print_row(row: Row, widths: Sequence[int]) -> None:
    if "not-tried" in row:
        print(line([row["service"], row["security-level"], row["not-tried"]], widths))
    else:
        print(line(cells(row), widths))
    for text in row.get("wrong", "").splitlines():
        print(f"    {text}")
    sys.stdout.flush()


def parse(parser: argparse.ArgumentParser) -> argparse.Namespace:
    """What a parser with options of its own makes of the command line of this program and its like."""
    parser.add_argument("--cannot-install", metavar="FILE")
    parser.add_argument("command")
    parser.add_argument("services")
    parser.add_argument("names", nargs="+")
    arguments = parser.parse_args()
    arguments.command = os.path.abspath(arguments.command)
    arguments.services = os.path.abspath(arguments.services)
    return arguments


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", metavar="FILE")
    arguments = parse(parser)
    widths = [max(len(heading), len("as expected") if heading.lower() in LEVELS else 0)
              for heading in HEADINGS]
    widths[0] = max(widths[0], *map(len, arguments.names))
    print(line(HEADINGS, widths))
    rows = []
    for row in try_all(arguments):
        print_row(row, widths)
        rows.append(row)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(rows, file, indent=1)
            file.write("\n")
    return 1 if any("wrong" in row or "not-tried" in row for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
