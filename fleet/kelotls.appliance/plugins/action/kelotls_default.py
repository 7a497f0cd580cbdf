# -*- coding: utf-8 -*-
"""The default level, on an appliance without Python."""

from __future__ import annotations

from ansible_collections.kelotls.appliance.plugins.module_utils.levels import LEVELS, is_settled
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    ApplianceAction, Document, application, differences, level_difference, level_words)

FOLLOWS = 0


class ActionModule(ApplianceAction):
    """Looks first, and sets the default level only where it is another one or not in force."""

    ARGUMENTS = {
        "level": {"type": "str", "choices": list(LEVELS), "required": True},
        "apply": {"type": "bool", "default": False},
        "reason": {"type": "str"},
        "reload_timeout": {"type": "int"},
    }

    def work(self, arguments: Document) -> Document:
        script = self.script(arguments)
        script.run("default", "--dry-run", *level_words(arguments), "--", arguments["level"])
        script.run("list")
        plan, listed = self.documents(script)
        followers = [service for service in listed["services"]
                     if service["stored-level"]["value"] == FOLLOWS]
        is_there = plan["former-level"] == plan["requested-level"]
        if is_there and not (arguments["apply"] and not all(map(is_settled, followers))):
            return self.result(plan, {}, followers)
        script = self.script(arguments)
        script.run("default", *self.dry(), *level_words(arguments), "--", arguments["level"])
        return self.concluded(script, lambda document: self.result(plan, document, followers))

    def result(self, plan: Document, done: Document, followers: list[Document]) -> Document:
        """plan: what a dry run said. done: what the run has said; empty where there was none."""
        report = done.get("apply")
        undone = [element["service"] for element in report["undone"]] if report else []
        is_back = bool(undone) and not done["written"]
        before = plan["former-level"]["name"]
        after = before if is_back else plan["requested-level"]["name"]
        is_changed = bool(done) and not (is_back or (before == after and undone))
        diff = []
        if before != after:
            diff.append(level_difference("default level", {"default level": before},
                                         {"default level": after}))
        if is_changed and plan["apply"]:
            diff += differences(plan["apply"]["rendered"])
        return {
            "changed": is_changed,
            "before": before,
            "after": after,
            "followers": [service["service"] for service in followers],
            "applied": application(report) if report else None,
            "undone": undone,
            "diff": diff,
        }
