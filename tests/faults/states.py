"""What each operation may leave behind, and which log lines and result go with it.

A Model walks an operation's steps over the set of trees that may be there. At each step that can
fail it looks whether the log's next line tells so, and goes on as the contract says for that case;
where no line tells of a failure the step has to have happened. What it ends with:

    now     the trees permitted at the end
    passed  the trees that may be met on the way, in order, for a process that ended in between

A tree here is a frozenset of (path, entry), entry being a link's target or (mode, meaning).
"""

import collections
import json
import os
import re

from private_tree import (CONFIG, DH_DIRECTORY, PACKAGE_RELOADERS, SERVICES, STORE, SYSTEM_RELOADERS)

CUT_SHORT = "(cut short)"
UNREADABLE = object()
TIERS = {1: "mozilla_modern", 3: "mozilla_old"}


class Contradiction(Exception):
    """Log, result and contract do not fit together."""


def document(value):
    return "json " + json.dumps(value, sort_keys=True)


def meaning(content):
    """A whole JSON document by its value, everything else by its bytes."""
    try:
        return document(json.loads(content.decode()))
    except ValueError:
        return content.decode("latin-1")


def real_path(tree, path):
    entry = tree.get(path)
    if not isinstance(entry, str):
        return path
    return os.path.normpath(os.path.join(os.path.dirname(path), entry))


def put(path, entry):
    return lambda tree: {**tree, path: entry}


def drop(path):
    return lambda tree: {at: entry for at, entry in tree.items() if at != path}


def write(path, text, new_mode=0o644):
    """Puts the text; the mode of a file that was there stays."""
    def edit(tree):
        at = real_path(tree, path)
        return {**tree, at: (tree.get(at, (new_mode,))[0], text)}
    return edit


def store_fault(value):
    """The validator's line about the value, or None."""
    if not isinstance(value, dict) or "default-level" not in value:
        return "validator.cpp:11 Invalid format: no default-level"
    if not isinstance(value.get("services"), dict):
        return "validator.cpp:15 Invalid format: no services field."
    for _, entry in sorted(value["services"].items()):
        if not isinstance(entry.get("display-name"), str):
            return "validator.cpp:23 Invalid format: no display-name."
        if entry.get("current-level", 0) is None:
            return "validator.cpp:35 Invalid format: no current-level."
    return None


class Model:
    def __init__(self, tree, log):
        self.now = {frozenset(tree.items())}
        self.passed = list(self.now)
        self.log = collections.deque(log)
        self.temporaries = collections.Counter()  # by the path that they were to replace
        self.descriptors_left_open = 0

    # The log

    def says(self, text, *arguments):
        """Whether the next line is this one; takes it. %E and %S are the places of errno."""
        if not self.log:
            return False
        pattern = re.escape(text.format(*arguments))
        pattern = pattern.replace("%E", r"\[\d+\]\[[^]]*\]").replace("%S", r"\[[^]]*\]")
        if not re.fullmatch(pattern.replace("%T", ".*"), self.log[0], re.DOTALL):
            return False
        self.log.popleft()
        return True

    def must_say(self, text, *arguments):
        if not self.says(text, *arguments):
            raise Contradiction(f"no line \"{text.format(*arguments)}\"; the log goes on with "
                                f"{list(self.log)[:2]}")

    # Steps on the trees

    def become(self, edit):
        self.now = {frozenset(edit(dict(tree)).items()) for tree in self.now}
        self.passed += self.now

    def may_become(self, edit):
        before = self.now
        self.become(edit)
        self.now |= before

    def entry(self, path):
        """What every permitted tree has at the path."""
        entries = {dict(tree).get(real_path(dict(tree), path)) for tree in self.now}
        assert len(entries) == 1, f"{path} may be one of {entries}"
        return entries.pop()

    def read(self, path):
        entry = self.entry(path)
        text = entry[1] if entry else CUT_SHORT
        return json.loads(text[5:]) if text.startswith("json ") else UNREADABLE

    def remove(self, path, *refusal):
        """unlink, where everything but success is logged."""
        if self.says(*refusal):
            return False
        if path not in dict(next(iter(self.now))):
            raise Contradiction(f"{path} was not there to be removed, and no line tells")
        self.become(drop(path))
        return True

    # The data store

    def load(self, path=STORE, number=16, invalid_number=23):
        unit = "framework_config.cpp:"
        if self.says(unit + "{} Load json data failed. %S {}", number, STORE):
            return None
        value = self.read(path)
        if value is UNREADABLE:
            raise Contradiction(f"{path} cannot have been read, and no line tells")
        fault = store_fault(value)
        if fault is not None:
            self.must_say(fault)
            self.must_say(unit + "{} Json format invalid. {}", invalid_number, STORE)
            return None
        return value

    def save(self, value):
        edit = write(STORE, document(value))
        if self.says("framework_config.cpp:55 Write json data failed. %S {}", STORE):
            # Both the old and the new one are permitted: the new name may be on the disk although
            # synchronising its directory failed.
            self.may_become(edit)
            return False
        self.become(edit)
        return True

    def level(self, root, name, number):
        entry = (root or {}).get("services", {}).get(name)
        if entry is None:
            self.must_say("framework_config.cpp:{} Service is not joined framework. {}", number,
                          name)
            return -1
        return entry.get("current-level") or root["default-level"]

    @staticmethod
    def merge(root, services):
        root = root if root is not None else {}
        for service in services:
            old = root.get("services", {}).get(service["service"])
            entry = {"display-name": service.get("display-name", "")}
            if service.get("display-name-i18n"):
                entry["display-name-i18n"] = service["display-name-i18n"]
            entry["current-level"] = 0 if old is None else old.get("current-level")
            root.setdefault("services", {})[service["service"]] = entry
        return root or None

    # Operations: each returns its result.

    def set_service(self, name, level):
        root = self.load()
        if self.known(root, name):
            root["services"][name]["current-level"] = int(level)
        else:
            self.must_say("framework_config.cpp:151 Service is not joined framework. {}", name)
        return 0 if self.save(root) else -1

    @staticmethod
    def known(root, name):
        return root is not None and name in root["services"]

    def set_default(self, level):
        root = self.load() or {}
        root["default-level"] = int(level)
        self.save(root)
        return 0

    def install_descriptor(self, text):
        service = json.loads(text)
        path = SERVICES + service["service"] + ".conf"
        edit = write(path, document(service))
        before = self.now
        self.become(write(path, CUT_SHORT))  # in place, so it is cut short until the last write
        if self.says("api_provider.cpp:271 Install service desc failed. %E: {}", path):
            cut = self.now
            self.become(edit)
            self.now |= cut | before
            return -1
        self.become(edit)
        return 0

    def uninstall_descriptor(self, name):
        path = SERVICES + name + ".conf"
        self.remove(path, "api_provider.cpp:286 Uninstall service desc failed. %E: {}", path)
        return 0

    def install_reloader(self, name, target):
        path = PACKAGE_RELOADERS + name + ".conf"
        if self.says("api_provider.cpp:299 Unlink service reloader failed. %E: {}", path):
            return -1
        self.become(drop(path))
        if self.says("api_provider.cpp:305 Install service reloader failed. %E: {} -> {}", target,
                     path):
            return -1
        self.become(put(path, target))
        return 0

    def uninstall_reloader(self, name):
        path = PACKAGE_RELOADERS + name + ".conf"
        self.remove(path, "api_provider.cpp:319 uninstall service reloader failed. %E: {}", path)
        return 0

    def cleanup(self, name):
        path = CONFIG + name + ".conf"
        removed = self.remove(path, "api_provider.cpp:241 cleanup render path failed. %E: {}", path)
        return 0 if removed else -1

    def regenerate(self):
        if self.says("api_provider.cpp:364 Fail to list dir {}", CONFIG):
            return -1
        root = self.load()
        paths = {path for tree in self.now for path, _ in tree if path.startswith(SERVICES)}
        services = []
        for path in sorted(paths):
            name = path[len(SERVICES):]
            if self.says("api_provider.cpp:376 Load json data failed. %E {}", name):
                continue
            service = self.read(path)
            if service is UNREADABLE:
                raise Contradiction(f"{path} cannot have been read, and no line tells")
            services.append(service)
        if not self.save(self.merge(root, services)):
            self.must_say("api_provider.cpp:390 Regen framework config failed.")
        return 0

    def restore(self, path):
        live = self.load()
        saved = self.load(path, 171, 176) or {"default-level": 0, "services": {}}
        live = {} if live is None else live
        live["default-level"] = saved["default-level"]
        for name, entry in sorted(saved["services"].items()):
            if name not in live.get("services", {}):
                self.must_say("service entry not found. {}", name)
                continue
            live["services"][name]["current-level"] = entry.get("current-level", 0)
        self.save(live)
        return 0

    def join(self, text):
        registration = json.loads(text)
        root = self.merge(self.load(), registration["services"])
        installed = []
        for service in registration["services"]:
            name = service["service"]
            if self.install_descriptor(json.dumps(service)) != 0:
                self.must_say("api_provider.cpp:80 Install service descriptor failed.")
                return self.roll_back(installed)
            installed.append(SERVICES + name + ".conf")
            if "reloader-path" not in service or registration.get("system-service"):
                continue
            if self.install_reloader(name, service["reloader-path"]) != 0:
                self.must_say("api_provider.cpp:88 Install service reloader failed.")
                return self.roll_back(installed)
            installed.append(PACKAGE_RELOADERS + name + ".conf")
        if not self.save(root):
            self.must_say("api_provider.cpp:97 Saving to framework config failed.")
            return self.roll_back(installed)
        return 0

    def roll_back(self, installed):
        for path in installed:
            self.remove(path, "api_provider.cpp:108 Fallback installed file failed.. %E: {}", path)
        return -1

    def leave(self, text):
        registration = json.loads(text)
        root = self.load()
        for service in registration["services"] if root is not None else ():
            root["services"].pop(service["service"], None)
        if not self.save(root):
            self.must_say("api_provider.cpp:139 Save service config failed.")
            return -1
        for service in registration["services"]:
            name = service["service"]
            if service.get("reloader-path") and not registration.get("system-service"):
                self.uninstall_reloader(name)
            self.uninstall_descriptor(name)
            if service.get("mustache-path") and self.cleanup(name) != 0:
                self.must_say("api_provider.cpp:161 Cleanup service template failed.")
        return 0

    def render(self):
        root = self.load()
        for name in sorted((root or {}).get("services", {})):
            self.render_service(root, name)
        return 0

    def render_service(self, root, name):
        descriptor_path, path = SERVICES + name + ".conf", CONFIG + name + ".conf"
        if self.says("api_provider.cpp:184 Read service descriptor failed. %E {}",
                     descriptor_path):
            return
        descriptor = self.read(descriptor_path)
        if descriptor is UNREADABLE:
            raise Contradiction(f"{descriptor_path} cannot have been read, and no line tells")
        if "mustache-path" not in descriptor:
            return
        tier = TIERS.get(self.level(root, name, 123), "mozilla_intermediate")
        if self.says("api_provider.cpp:213 Failed to mkstemp. %S"):
            return
        if self.says("api_provider.cpp:220 Failed to update {}", path) or self.says(
                "api_provider.cpp:226 Failed to rename  {}.%T %S", path):
            self.temporaries[path] += 1  # the contract leaves it there
            return
        self.become(put(path, (0o600, rendered(tier))))

    def acquire(self, name):
        root = self.load()
        level = self.level(root, name, 123)
        if level < 0:
            return -1
        path = DH_DIRECTORY + ("dh1024.pem" if level == 3 else "dh2048.pem")
        if level != 1 and not self.says("profile_config.cpp:83 Open dhparam file failed. %E: {}",
                                        path):
            if self.says("profile_config.cpp:95 New ssl ctx failed. [%T]"):
                self.descriptors_left_open += 1  # the contract leaves it open
        return 0

    def reload(self):
        if self.says("api_provider.cpp:332 Fail to list dir {}", CONFIG):
            return -1
        paths = {path for tree in self.now for path, _ in tree}
        for directory in (SYSTEM_RELOADERS, PACKAGE_RELOADERS):
            for path in sorted(path for path in paths if path.startswith(directory)):
                if self.says("api_provider.cpp:346 KLIBCExec failed. %E: {}", path):
                    continue
                log = self.entry(RELOADED)
                self.become(write(RELOADED, (log[1] if log else "") + path + "\n"))
        return 0

    def perform(self, words):
        """The result that the contract gives the operation, after this log."""
        return getattr(self, words[0].replace("-", "_"))(*words[1:])


# The start states' template and reloaders, whose results the model has to know.

RELOADED = "/usr/kelo/reloaded"
RELOADER = f"#!/bin/sh\necho \"$0\" >> {RELOADED}\n".encode()
FILLER = "# A line that stands in every tier's configuration.\n" * 40
TEMPLATE = "".join(f"{{{{#{tier}}}}}\ntier {tier}\n{{{{/{tier}}}}}\n" for tier in (
    "mozilla_modern", "mozilla_intermediate", "mozilla_old")) + FILLER


def rendered(tier):
    return f"tier {tier}\n{FILLER}"
