# -*- coding: utf-8 -*-
"""What an appliance without Python has: levels, states, findings, versions."""

from __future__ import annotations

from typing import Any

from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    DIFFERS, ApplianceAction, CommandFailed, Document)

SUBSETS = ("levels", "findings", "version", "history")
WORDS = {"levels": ["list"], "findings": ["check"], "version": ["--version"], "history": ["history"]}
# One start of the command tells all of these, and asks each running server once.
TOGETHER = ("levels", "findings", "version")


class ActionModule(ApplianceAction):
    """Asks for everything in one round trip, and changes nothing."""

    ARGUMENTS = {
        "gather_subset": {"type": "list", "elements": "str", "choices": list(SUBSETS),
                          "default": list(TOGETHER)},
    }

    def work(self, arguments: Document) -> Document:
        subsets = [subset for subset in SUBSETS if subset in arguments["gather_subset"]]
        if not subsets:
            return {"changed": False}
        script = self.script(arguments)
        questions = questions_for(subsets)
        for words, _told in questions:
            script.run(*words)
        result: Document = {"changed": False}
        for (_words, told), answer in zip(questions, self.send(script)):
            # A finding is no failure of the one who asks.
            if answer.rc not in (0, DIFFERS) or answer.document is None:
                raise CommandFailed(answer)
            for subset in told:
                result.update(FACTS[subset](answer.document))
        return result


def questions_for(subsets: list[str]) -> list[tuple[list[str], list[str]]]:
    """The words of each run of the command, and which subsets it tells."""
    if not {"levels", "findings"} <= set(subsets):
        return [(WORDS[subset], [subset]) for subset in subsets]
    return [(["list", "--findings"], [subset for subset in subsets if subset in TOGETHER]),
            *((WORDS[subset], [subset]) for subset in subsets if subset not in TOGETHER)]


def level_facts(document: Document) -> Document:
    services = {service["service"]: {
        "display_name": service["display-name"],
        "level": service["stored-level"]["name"],
        "effective": service["effective-level"]["name"],
        "state": service["state"],
        "fault": service.get("fault", ""),
        "asked": service["asked"],
        "server": service.get("server"),
    } for service in document["services"]}
    return {"default_level": document["default-level"]["name"], "services": services,
            "levels": {"default": document["default-level"]["name"],
                       "services": {name: service["level"] for name, service in services.items()}}}


def finding_facts(document: Document) -> Document:
    return {"healthy": document["healthy"], "findings": document["findings"]}


def version_facts(told: Any) -> Document:
    """told: a document, or what --version prints."""
    return {"version": told["version"] if isinstance(told, dict) else told.split()[-1]}


def history_facts(document: Document) -> Document:
    return {"history": document["changes"]}


FACTS = {"levels": level_facts, "findings": finding_facts, "version": version_facts,
         "history": history_facts}
