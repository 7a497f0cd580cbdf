"""The operations that are swept, each from several start states."""

import json
import pathlib

from private_tree import (CONFIG, DH_DIRECTORY, ELSEWHERE, PACKAGE_RELOADERS, SERVICES, STORE,
                       SYSTEM_RELOADERS)
from states import RELOADER, TEMPLATE, rendered

TEMPLATE_PATH = "/usr/kelo/data/template.mustache"
SAVED_PATH = "/usr/kelo/data/saved.json"
RELOADER_PATH = "/usr/kelo/data/reloader"
DH_PARAMETERS = (pathlib.Path(__file__).parent.parent / "bed/data/dh2048.pem").read_bytes()

DIRECT, MISSING, LINKED, DANGLING = "direct", "missing", "linked", "dangling link"


class Scenario:
    """One operation, the tree before it, and what fails whatever else happens."""

    def __init__(self, words, tree, title, failing=()):
        self.words, self.tree, self.failing = words, tree, failing
        self.name = f"{words[0]}: {title}"


def text(value):
    return (json.dumps(value) + "\n").encode()


def service(number):
    """A service with every member; every third service has the required ones only."""
    one = {"service": f"service-{number:02}", "display-name": f"Service {number}"}
    if number % 3 != 2:
        one["display-name-i18n"] = f"services:name_{number}"
        one["mustache-path"] = TEMPLATE_PATH
        one["reloader-path"] = RELOADER_PATH
    return one


def registration(numbers, **keys):
    return json.dumps({"services": [service(number) for number in numbers], **keys})


def store_value(count, default_level=2):
    services = {}
    for number in range(count):
        one = service(number)
        services[one["service"]] = {key: one[key] for key in ("display-name", "display-name-i18n")
                                    if key in one} | {"current-level": (number + 1) % 4}
    return {"default-level": default_level, "services": services}


def member_files(number, old_text=False):
    """The files of a service that has joined and been rendered, perhaps in an older version."""
    one = service(number)
    file = one["service"] + ".conf"
    older = {"display-name": "An older and rather longer display name"} if old_text else {}
    tree = {SERVICES + file: (0o644, text(one | older))}
    if "reloader-path" in one:
        tree[PACKAGE_RELOADERS + file] = RELOADER_PATH + (".old" if old_text else "")
        tree[CONFIG + file] = (0o600, rendered("mozilla_old").encode())
    return tree


def start(count, store=DIRECT, old_text=False):
    """A tree with so many services; store says where its data store is."""
    tree = {TEMPLATE_PATH: (0o644, TEMPLATE.encode()), RELOADER_PATH: (0o755, RELOADER),
            SAVED_PATH: (0o644, text(store_value(count + 1, 3) | {"default-level": 1}))}
    for number in range(count):
        tree |= member_files(number, old_text)
    content = text(store_value(count))
    if store == DIRECT:
        tree[STORE] = (0o640, content)
    elif store in (LINKED, DANGLING):
        tree[STORE] = "../../../data/store.json"
        if store == LINKED:
            tree[ELSEWHERE + "store.json"] = (0o600, content)
    return tree


def savers(count, store):
    """Every operation that saves the data store, in a tree with so many services."""
    title = f"{count} services, data store {store}"
    tree = start(count, store)
    last = service(count - 1)["service"]
    descriptors = {path: entry for path, entry in start(count + 1).items()
                   if path.startswith(SERVICES)}
    yield Scenario(["set-service", last, "1"], tree, title)
    yield Scenario(["set-default", "3"], tree, title)
    yield Scenario(["restore", SAVED_PATH], tree, title)
    yield Scenario(["regenerate"], tree | descriptors, title + ", a descriptor more")
    yield Scenario(["join", registration([count])], tree, title)
    yield Scenario(["leave", registration([0])], tree, title)


def join_with_failing_save(count, tree, title):
    return Scenario(["join", registration(range(count))], tree,
                    title + ", a data store that cannot be saved", ["renameat:error=EBUSY"])


def file_operations():
    """The operations on a service's files alone."""
    descriptor, name = json.dumps(service(0)), service(0)["service"]
    for title, tree in (("fresh", start(0)), ("over older files", start(1, old_text=True))):
        yield Scenario(["install-descriptor", descriptor], tree, title)
        yield Scenario(["install-reloader", name, RELOADER_PATH], tree, title)
        yield Scenario(["uninstall-descriptor", name], tree, title)
        yield Scenario(["uninstall-reloader", name], tree, title)
        yield Scenario(["cleanup", name], tree, title)


def for_kills():
    for count in (1, 5, 20):
        for store in (DIRECT, MISSING, LINKED, DANGLING):
            yield from savers(count, store)
    yield from file_operations()
    for count in (1, 5):
        yield Scenario(["render"], start(count), f"{count} services")
        yield Scenario(["join", registration(range(count))], start(0), f"{count} new services")
        yield Scenario(["join", registration(range(count))], start(count, old_text=True),
                       f"{count} services again, over older files")
        yield Scenario(["leave", registration(range(count))], start(count), f"all {count} services")
        yield join_with_failing_save(count, start(0), f"{count} new services")
        yield join_with_failing_save(count, start(count, old_text=True),
                                     f"{count} services again, over older files")
    yield Scenario(["join", registration(range(20))], start(0), "20 new services")
    yield Scenario(["leave", registration(range(20))], start(20), "all 20 services")


def for_faults():
    for store in (DIRECT, MISSING, LINKED):
        yield from savers(1, store)
    yield from file_operations()
    yield Scenario(["join", registration(range(2))], start(0), "2 new services")
    yield Scenario(["join", registration([0])], start(1, old_text=True), "again, over older files")
    yield join_with_failing_save(2, start(0), "2 new services")
    yield Scenario(["leave", registration(range(2))], start(2), "both services")
    yield Scenario(["render"], start(1), "1 service")
    dh_file = {DH_DIRECTORY + "dh2048.pem": (0o644, DH_PARAMETERS)}
    yield Scenario(["acquire", "service-00"], start(2) | dh_file, "level modern")
    yield Scenario(["acquire", "service-01"], start(2) | dh_file, "level intermediate")
    system = {SYSTEM_RELOADERS + "base": (0o755, RELOADER)}
    yield Scenario(["reload"], start(1) | system, "2 reloaders")


def for_power_loss():
    for store in (DIRECT, MISSING, LINKED, DANGLING):
        yield from savers(1, store)
    yield Scenario(["join", registration(range(2))], start(0), "2 new services")
    yield Scenario(["leave", registration(range(2))], start(2), "both services")
    yield Scenario(["render"], start(2), "2 services")
