# -*- coding: utf-8 -*-
"""Levels brought into force, on an appliance without Python."""

from __future__ import annotations

from ansible_collections.kelotls.appliance.plugins.module_utils.levels import is_settled, select
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    ApplianceAction, Document, application, differences, reason_words, timeout_words)


class ActionModule(ApplianceAction):
    """Looks first, and renders, reloads and surveys those services alone that need it."""

    ARGUMENTS = {
        "services": {"type": "list", "elements": "str", "default": []},
        "render_only": {"type": "bool", "default": False},
        "reason": {"type": "str"},
        "reload_timeout": {"type": "int"},
    }

    def work(self, arguments: Document) -> Document:
        return self.render(arguments) if arguments["render_only"] else self.apply(arguments)

    def render(self, arguments: Document) -> Document:
        script = self.script(arguments)
        script.run("render", "--check", "--", *arguments["services"])
        checked = self.documents(script)[0]
        todo = [element["service"] for element in checked["services"] if element["change"] != "none"]
        if not todo:
            return result_of(todo, None, [])
        script = self.script(arguments)
        script.run("render", *self.dry(), *reason_words(arguments), "--", *todo)
        return self.concluded(script, lambda document: result_of(
            todo, {"rendered": document["services"], "reloaders": []},
            differences(checked["services"])))

    def apply(self, arguments: Document) -> Document:
        script = self.script(arguments)
        script.run("apply", "--dry-run", "--", *arguments["services"])
        script.run("list")
        if self._task.diff:
            script.run("render", "--check", "--", *arguments["services"])
        _foreseen, listed, *checked = self.documents(script)
        states = {service["service"]: service for service in listed["services"]}
        selected = select(list(states), arguments["services"] or list(states))
        todo = [service for service in selected if not is_settled(states[service])]
        if not todo:
            return result_of(todo, None, [])
        script = self.script(arguments)
        script.run("apply", *self.dry(), *reason_words(arguments), *timeout_words(arguments), "--",
                   *todo)
        diff = differences(checked[0]["services"], set(todo)) if checked else []
        return self.concluded(script, lambda document: result_of(todo, document, diff))


def result_of(services: list[str], report: Document | None, diff: list[Document]) -> Document:
    return {
        "changed": bool(services),
        "services": services,
        "applied": application(report) if report else None,
        "diff": diff,
    }
