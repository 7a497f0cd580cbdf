# -*- coding: utf-8 -*-
"""Levels taken from a backup, on an appliance without Python."""

from __future__ import annotations

import json
from typing import Any

from ansible.errors import AnsibleActionFail, AnsibleError
from ansible_collections.kelotls.appliance.plugins.module_utils.levels import (
    LEVELS, STORED_LEVELS, is_settled)
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    NOT_KNOWN, ApplianceAction, Document, Script, level_difference, reason_words, timeout_words)

VALUES = {"default": 0, "modern": 1, "intermediate": 2, "old": 3}


class ActionModule(ApplianceAction):
    """Looks first, and restores only what differs from the backup."""

    ARGUMENTS = {
        "path": {"type": "path"},
        "src": {"type": "str"},
        "levels": {"type": "dict", "options": {
            "default": {"type": "str", "choices": list(LEVELS), "required": True},
            "services": {"type": "dict", "default": {}},
        }},
        "apply": {"type": "bool", "default": False},
        "reason": {"type": "str"},
        "reload_timeout": {"type": "int"},
    }
    RULES = {"mutually_exclusive": [["path", "src", "levels"]],
             "required_one_of": [["path", "src", "levels"]]}

    def work(self, arguments: Document) -> Document:
        text = self.backup_text(arguments)
        script = self.script(arguments)
        self.restore(script, ["restore", "--dry-run"], arguments, text)
        script.run("list")
        plan, listed = self.documents(script)
        affected = services_to_apply(plan, listed) if arguments["apply"] else []
        is_level_changed = bool(plan["changes"]) or is_default_changed(plan)
        result = result_of(plan, is_level_changed, affected)
        if self.is_check:
            return {**result, "not_known": list(NOT_KNOWN)} if affected else result
        if is_level_changed:
            script = self.script(arguments)
            self.restore(script, ["restore", *reason_words(arguments)], arguments, text)
            self.documents(script)
        if not affected:
            return result
        script = self.script(arguments)
        script.run("apply", *reason_words(arguments), *timeout_words(arguments), "--", *affected)
        return self.concluded(script, lambda _document: result)

    def restore(self, script: Script, words: list[str], arguments: Document, text: str | None) -> None:
        if text is None:
            script.run(*words, "--", arguments["path"])
        else:
            script.run_with_file(words, text)

    def backup_text(self, arguments: Document) -> str | None:
        """What the backup holds; None for one that is on the appliance."""
        if arguments["src"]:
            try:
                with open(self._find_needle("files", arguments["src"]), encoding="utf-8") as file:
                    return file.read()
            except (AnsibleError, OSError, ValueError) as error:
                raise AnsibleActionFail(f"src cannot be read: {error}") from error
        return backup_of(arguments["levels"]) if arguments["levels"] else None


def backup_of(levels: Document) -> str:
    """Levels by name as the command writes them into a backup."""
    services: dict[str, Any] = {}
    for service, level in levels["services"].items():
        if level not in STORED_LEVELS:
            raise AnsibleActionFail(f"levels: {service}: {level} is none of {', '.join(VALUES)}")
        services[service] = {"current-level": VALUES[level], "display-name": service}
    return json.dumps({"default-level": VALUES[levels["default"]], "services": services})


def is_default_changed(plan: Document) -> bool:
    return bool(plan["default-level"]["from"] != plan["default-level"]["to"])


def services_to_apply(plan: Document, listed: Document) -> list[str]:
    """Those that are served at another level then, and those that are not in force already."""
    to = {change["service"]: change["to"]["value"] for change in plan["changes"]}
    return [
        service["service"] for service in listed["services"]
        if not is_settled(service) or service["service"] in to
        or (is_default_changed(plan) and service["stored-level"]["value"] == VALUES["default"])]


def result_of(plan: Document, is_level_changed: bool, affected: list[str]) -> Document:
    default = {key: plan["default-level"][word]["name"]
               for key, word in (("before", "from"), ("after", "to"))}
    services = [{"service": change["service"], "before": change["from"]["name"],
                 "after": change["to"]["name"]} for change in plan["changes"]]
    before = {row["service"]: row["before"] for row in services}
    after = {row["service"]: row["after"] for row in services}
    if is_default_changed(plan):
        before["default level"], after["default level"] = default["before"], default["after"]
    return {
        "changed": is_level_changed or bool(affected),
        "default_level": default,
        "services": services,
        "unknown": plan["unknown"],
        "missing": plan["missing"],
        "to_apply": affected,
        "diff": [level_difference("levels", before, after)] if is_level_changed else [],
    }
