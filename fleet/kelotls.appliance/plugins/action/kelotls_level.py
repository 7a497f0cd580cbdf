# -*- coding: utf-8 -*-
"""The levels of services, on an appliance without Python."""

from __future__ import annotations

from ansible_collections.kelotls.appliance.plugins.module_utils.levels import (
    STORED_LEVELS, is_settled)
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    ApplianceAction, Document, application, differences, level_difference, level_words)


class ActionModule(ApplianceAction):
    """Looks first, and sets the levels of those services alone that are not at theirs."""

    ARGUMENTS = {
        "services": {"type": "list", "elements": "str", "required": True},
        "level": {"type": "str", "choices": list(STORED_LEVELS), "required": True},
        "apply": {"type": "bool", "default": False},
        "reason": {"type": "str"},
        "reload_timeout": {"type": "int"},
    }

    def work(self, arguments: Document) -> Document:
        if not arguments["services"]:
            return self.result({"services": [], "apply": None}, {"services": []})
        script = self.script(arguments)
        script.run(*words(arguments, arguments["services"], ["--dry-run"]))
        if arguments["apply"]:
            script.run("list")
        plan, *listed = self.documents(script)
        todo = services_to_change(plan, listed)
        if not todo:
            return self.result(plan, {"services": [], "apply": None})
        is_all = len(todo) == len(plan["services"])
        script = self.script(arguments)
        script.run(*words(arguments, arguments["services"] if is_all else todo, self.dry()))
        return self.concluded(script, lambda document: self.result(plan, document))

    def result(self, plan: Document, done: Document) -> Document:
        """plan: what a dry run of all services said. done: what the run of some of them has said."""
        by_name = {row["service"]: row for row in done["services"]}
        services = [row_of(by_name.get(row["service"], row), row["service"] in by_name)
                    for row in plan["services"]]
        moved = [row for row in services if row["before"] != row["after"]]
        diff = []
        if moved:
            diff.append(level_difference("levels", {row["service"]: row["before"] for row in moved},
                                         {row["service"]: row["after"] for row in moved}))
        if plan["apply"]:
            kept = {row["service"] for row in services if row["changed"]}
            diff += differences(plan["apply"]["rendered"], kept)
        return {
            "changed": any(row["changed"] for row in services),
            "services": services,
            "applied": application(done["apply"]) if done.get("apply") else None,
            "diff": diff,
        }


def words(arguments: Document, services: list[str], dry: list[str]) -> list[str]:
    return ["set", *dry, *level_words(arguments), "--", *services, arguments["level"]]


def services_to_change(plan: Document, listed: list[Document]) -> list[str]:
    """Those at another level, and those whose level is not in force where it shall be."""
    unsettled = {service["service"] for document in listed for service in document["services"]
                 if not is_settled(service)}
    return [row["service"] for row in plan["services"]
            if row["former-level"] != row["requested-level"] or row["service"] in unsettled]


def row_of(row: Document, is_changed: bool) -> Document:
    """What the result says of a service."""
    is_undone = row["undone"]
    return {
        "service": row["service"],
        "before": row["former-level"]["name"],
        "after": row["stored-level" if is_undone else "requested-level"]["name"],
        "effective": None if is_undone else row["effective-level"]["name"],
        "changed": is_changed and not is_undone,
        "undone": is_undone,
    }
