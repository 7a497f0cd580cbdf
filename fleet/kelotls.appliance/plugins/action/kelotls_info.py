# -*- coding: utf-8 -*-
"""What an appliance without Python has: levels, states, findings, versions."""

from __future__ import annotations

from typing import Any

from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    DIFFERS, ApplianceAction, CommandFailed, Document)

SUBSETS = ("levels", "findings", "version", "history")
WORDS = {"levels": ["list"], "findings": ["check"], "version": ["--version"], "history": ["history"]}


class ActionModule(ApplianceAction):
    """Asks for everything in one round trip, and changes nothing."""

    ARGUMENTS = {
        "gather_subset": {"type": "list", "elements": "str", "choices": list(SUBSETS),
                          "default": ["levels", "version"]},
    }

    def work(self, arguments: Document) -> Document:
        subsets = [subset for subset in SUBSETS if subset in arguments["gather_subset"]]
        if not subsets:
            return {"changed": False}
        script = self.script(arguments)
        for subset in subsets:
            script.run(*WORDS[subset])
        result: Document = {"changed": False}
        for subset, answer in zip(subsets, self.send(script)):
            # A finding is no failure of the one who asks.
            if answer.rc not in (0, DIFFERS) or answer.document is None:
                raise CommandFailed(answer)
            result.update(FACTS[subset](answer.document))
        return result


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


def version_facts(text: Any) -> Document:
    return {"version": text.split()[-1]}


def history_facts(document: Document) -> Document:
    return {"history": document["changes"]}


FACTS = {"levels": level_facts, "findings": finding_facts, "version": version_facts,
         "history": history_facts}
