"""Plants a wrong line in the template of each of the named services, one at a time, and sees that
driving the service notices it.

    selftest.py [--one-each] [--cannot-install FILE] COMMAND SERVICES NAME...

COMMAND, SERVICES, --cannot-install: as of trial.py. --one-each: one plant for each service, of
another kind from service to service. Exit status 1 where one was not noticed, or not tried.
"""

import argparse
import concurrent.futures
import dataclasses
import json
import os
import re
import shutil
import sys
import tempfile
from collections.abc import Callable, Mapping, Sequence

from recipe import PROJECT
from trial import (AT_A_TIME, Row, drive_in_tree, has_many_users, parse,
                   reasons_not_to_try)

# With it a level is served whole, so that what is wrong shows.
SECURITY_LEVEL = "0"
# What the servers here show a certificate for.
CERTIFICATE = "RSA"
VERSION = re.compile(r"TLS[-_ ]?v?1[._]?[0-3]|=1\.[0-3]\b", re.IGNORECASE)
SETTING = re.compile(r"\s*[^\s=:]+")


class DoesNotApply(Exception):
    """There is nothing in the template that the plant could change; the text says what."""


@dataclasses.dataclass(frozen=True)
class Service:
    name: str
    template: str
    suites: Mapping[str, Sequence[str]]
    refused: frozenset[str]

    def section(self, level: str) -> re.Match[str]:
        tag = f"mozilla_{level}"
        found = list(re.finditer(rf"(\{{\{{#{tag}}}}}\n)(.*?)(\{{\{{/{tag}}}}})", self.template,
                                 re.DOTALL))
        if len(found) != 1:
            raise DoesNotApply(f"its template has {len(found)} sections of level {level}")
        return found[0]

    def body(self, level: str) -> str:
        return self.section(level)[2]

    def with_body(self, level: str, body: str) -> str:
        if body == self.body(level):
            raise DoesNotApply("it makes no difference to the template")
        section = self.section(level)
        return self.template[:section.start(2)] + body + self.template[section.end(2):]


@dataclasses.dataclass(frozen=True)
class Plant:
    """level: where it shows. change: makes the wrong template."""
    name: str
    level: str
    change: Callable[[Service], str]


def section_of(other: str, level: str) -> Plant:
    return Plant(f"the section of level {other} at level {level}", level,
                 lambda service: service.with_body(level, service.body(other)))


def without_first_suite(level: str) -> Plant:
    """Of the suites that the server's certificate allows it."""
    def change(service: Service) -> str:
        body = service.body(level)
        for suite in service.suites[level]:
            if f"-{CERTIFICATE}-" not in suite:
                continue
            changed, count = re.subn(rf"(?<![\w-]){suite}(?![\w-])[:, ]?", "", body, count=1)
            if count:
                return service.with_body(level, changed)
        changed, count = re.subn(r":\+AES-256-GCM\b", "", body, count=1)  # as GnuTLS spells them
        if not count:
            raise DoesNotApply("its template names no suite of TLS 1.2")
        return service.with_body(level, changed)

    return Plant(f"a suite missing at level {level}", level, change)


def lines_of_versions(body: str) -> dict[str, str]:
    """The lines that tell versions, by the setting that they begin with."""
    found = {}
    for line in body.splitlines(keepends=True):
        setting = SETTING.match(line)
        if setting and VERSION.search(line, setting.end()):
            found[setting[0]] = line
    return found


def has_one_list(service: Service, level: str) -> bool:
    """Whether suites of TLS 1.3 and of older versions stand in one line."""
    return any("TLS_" in line and any(suite in line for suite in service.suites[level])
               for line in service.body(level).splitlines())


def version_too_many(level: str, newer_and_older: str) -> Plant:
    """The other level's line, in the server's own spelling, is the one with a version more."""
    def change(service: Service) -> str:
        lines, others = (lines_of_versions(service.body(of)) for of in (level, newer_and_older))
        body = service.body(level)
        for setting, line in lines.items():
            if others.get(setting, line) != line:
                body = body.replace(line, others[setting], 1)
        if body == service.body(level):
            raise DoesNotApply("no line of its template tells versions")
        if has_one_list(service, newer_and_older):
            raise DoesNotApply("it has one list for the suites of all versions, none of this one's")
        return service.with_body(level, body)

    return Plant(f"a version too many at level {level}", level, change)


PLANTS = (
    version_too_many("modern", "intermediate"),
    without_first_suite("intermediate"),
    section_of("old", "intermediate"),
    section_of("intermediate", "modern"),
    section_of("modern", "intermediate"),
    without_first_suite("old"),
    section_of("intermediate", "old"),
)


def read_service(services: str, name: str) -> Service:
    with open(os.path.join(services, name, "template.mustache"), encoding="utf-8") as file:
        template = file.read()
    with open(os.path.join(services, name, "expected.json"), encoding="utf-8") as file:
        refused = {level for level, of_level in json.load(file).items() if "refused" in of_level}
    return Service(name, template, suites_of_levels(), frozenset(refused))


def suites_of_levels() -> dict[str, list[str]]:
    with open(os.path.join(PROJECT, "build/release/services/levels.json"),
              encoding="utf-8") as file:
        return {level["name"]: level["cipher-suites"] for level in json.load(file)["levels"]}


def drive_planted(arguments: argparse.Namespace, service: Service, plant: Plant,
                  template: str) -> Row:
    with tempfile.TemporaryDirectory(dir=os.path.dirname(arguments.services)) as directory:
        os.chmod(directory, 0o755)
        planted = os.path.join(directory, "services")
        shutil.copytree(arguments.services, planted)
        with open(os.path.join(planted, service.name, "template.mustache"), "w",
                  encoding="utf-8") as file:
            file.write(template)
        levels = "" if plant.level == "intermediate" else plant.level
        return drive_in_tree(arguments.command, planted, service.name, SECURITY_LEVEL, levels)


@dataclasses.dataclass(frozen=True)
class Planted:
    service: Service
    plant: Plant
    template: str


def plant_all(service: Service) -> tuple[list[Planted], list[str]]:
    """The wrong templates, and why there is none of the other plants."""
    planted, reasons = [], []
    for plant in PLANTS:
        try:
            if plant.level in service.refused:
                raise DoesNotApply(f"level {plant.level} is refused")
            planted.append(Planted(service, plant, plant.change(service)))
        except DoesNotApply as reason:
            reasons.append(f"{service.name}: does not apply: {plant.name}: {reason}")
    return planted, reasons


def drive(arguments: argparse.Namespace, planted: Planted) -> Row:
    name, level = planted.service.name, planted.plant.level
    with tempfile.TemporaryDirectory(dir=os.path.dirname(arguments.services)) as directory:
        os.chmod(directory, 0o755)
        services = os.path.join(directory, "services")
        shutil.copytree(arguments.services, services)
        with open(os.path.join(services, name, "template.mustache"), "w",
                  encoding="utf-8") as file:
            file.write(planted.template)
        return drive_in_tree(arguments.command, services, name, SECURITY_LEVEL,
                             "" if level == "intermediate" else level)


def judge(planted: Planted, row: Row) -> tuple[bool, str]:
    """A server that does not start with it, or gives no answer, shows nothing about the survey."""
    name, plant = planted.service.name, planted.plant
    came_of_it = row["levels"].get(plant.level)
    if came_of_it == "differs":
        return True, f"{name}: found: {plant.name}"
    return False, f"{name}: NOT FOUND: {plant.name}: {came_of_it}: {row.get('wrong', '')}"


def chosen(arguments: argparse.Namespace, names: list[str]) -> tuple[list[Planted], list[str]]:
    """What is driven, and what is to be said before."""
    to_drive, said = [], []
    for number, name in enumerate(names):
        planted, reasons = plant_all(read_service(arguments.services, name))
        if arguments.one_each:
            planted = planted and [planted[number % len(planted)]]
        else:
            said += reasons
        to_drive += planted
    return to_drive, said


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--one-each", action="store_true")
    arguments = parse(parser)
    reasons = reasons_not_to_try(arguments.names, has_many_users(), arguments.cannot_install)
    for name, reason in reasons.items():
        print(f"{name}: {reason}")
    to_drive, said = chosen(arguments, [name for name in arguments.names if name not in reasons])
    print("\n".join(said), end="\n" if said else "")
    failures = len(reasons)
    with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
        rows = pool.map(lambda planted: drive(arguments, planted), to_drive)
        for planted, row in zip(to_drive, rows):
            is_found, text = judge(planted, row)
            failures += not is_found
            print(text, flush=True)
    unplanted = {*arguments.names} - {*reasons} - {planted.service.name for planted in to_drive}
    for name in sorted(unplanted):
        print(f"{name}: NO WRONG LINE could be planted")
    print(f"{len(to_drive)} wrong lines planted, {failures + len(unplanted)} failures")
    return 1 if failures or unplanted else 0


if __name__ == "__main__":
    sys.exit(main())
