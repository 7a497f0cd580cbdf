# -*- coding: utf-8 -*-
"""Services that join and leave, on an appliance without Python."""

from __future__ import annotations

import json

from ansible.errors import AnsibleActionFail, AnsibleError
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    NO_SUCH_SERVICE, ApplianceAction, CommandFailed, Document, reason_words)


class ActionModule(ApplianceAction):
    """Looks first, and lets join only what is not there as the registration says, and leave only
    what is there."""

    ARGUMENTS = {
        "state": {"type": "str", "choices": ["present", "absent"], "default": "present"},
        "registration": {"type": "dict"},
        "src": {"type": "str"},
        "services": {"type": "list", "elements": "str"},
        "replace": {"type": "bool", "default": False},
        "reason": {"type": "str"},
    }
    RULES = {"mutually_exclusive": [["registration", "src", "services"]],
             "required_one_of": [["registration", "src", "services"]]}

    def work(self, arguments: Document) -> Document:
        registration = self.registration(arguments)
        if arguments["state"] == "absent":
            return self.leave(arguments, registration)
        if arguments["services"] is not None:
            raise AnsibleActionFail("state present needs a registration, in registration or src")
        return self.join(arguments, registration)

    def registration(self, arguments: Document) -> Document:
        if arguments["services"] is not None:
            return {"services": [{"service": name} for name in arguments["services"]]}
        if arguments["registration"] is not None:
            return dict(arguments["registration"])
        try:
            with open(self._find_needle("files", arguments["src"]), encoding="utf-8") as file:
                return dict(json.load(file))
        except (AnsibleError, OSError, ValueError, TypeError) as error:
            raise AnsibleActionFail(f"src cannot be read: {error}") from error

    def join(self, arguments: Document, registration: Document) -> Document:
        text = json.dumps(registration)
        words = [*(["--replace"] if arguments["replace"] else []), *reason_words(arguments), "-"]
        names = names_of(registration)
        script = self.script(arguments)
        script.run("join", "--dry-run", *words, text=text)
        for name in names:
            script.run("show", "--", name)
            script.run("address", "--", name)
        planned, *looked = self.send(script)
        if planned.rc != 0 or not isinstance(planned.document, dict):
            raise CommandFailed(planned)
        rows = []
        for row, element, shown, kept in zip(planned.document["services"], registration["services"],
                                             looked[::2], looked[1::2]):
            if NO_SUCH_SERVICE not in (shown.rc, kept.rc) and (shown.rc or kept.rc):
                raise CommandFailed(shown if shown.rc else kept)
            before = None if shown.rc else joined_as(shown.document, kept.document)
            rows.append({"service": row["service"], "before": before,
                         "after": requested_as(element, row, registration)})
        result = result_of(rows)
        if result["changed"] and not self.is_check:
            script = self.script(arguments)
            script.run("join", *words, text=text)
            self.documents(script)
        return result

    def leave(self, arguments: Document, registration: Document) -> Document:
        elements = registration.get("services") or []
        script = self.script(arguments)
        for element in elements:
            script.run("leave", "--dry-run", "-",
                       text=json.dumps({**registration, "services": [element]}))
        rows, there = [], []
        for element, answer in zip(elements, self.send(script) if elements else []):
            if answer.rc not in (0, NO_SUCH_SERVICE):
                raise CommandFailed(answer)
            before = {"joined": True} if answer.rc == 0 else None
            rows.append({"service": element["service"], "before": before, "after": None})
            there += [element] if before else []
        if there and not self.is_check:
            script = self.script(arguments)
            script.run("leave", *reason_words(arguments), "-",
                       text=json.dumps({**registration, "services": there}))
            self.documents(script)
        return result_of(rows)


def names_of(registration: Document) -> list[str]:
    """Of a registration that may be anything: what is wrong with it, the command says."""
    services = registration.get("services")
    return [element["service"] for element in services if isinstance(element, dict)
            and isinstance(element.get("service"), str)] if isinstance(services, list) else []


def joined_as(shown: Document, kept: Document) -> Document:
    """How a service has joined, as a registration would say it."""
    link = shown["reloader-link"] or {}
    return {
        "display-name": shown["display-name"],
        "display-name-i18n": shown["display-name-i18n"] or "",
        "mustache-path": (shown["template"] or {}).get("path", ""),
        "reloader-path": (shown["reloader"] or {}).get("path", ""),
        "reloader-link": link.get("target", "") if link.get("exists") else "",
        "probe": kept["address"],
    }


def requested_as(element: Document, row: Document, registration: Document) -> Document:
    """The same of what the registration asks for; the address is what it would be."""
    is_linked = not registration.get("system-service", False)
    reloader = element.get("reloader-path", "")
    return {
        "display-name": element.get("display-name", ""),
        "display-name-i18n": element.get("display-name-i18n", ""),
        "mustache-path": element.get("mustache-path", ""),
        "reloader-path": reloader,
        "reloader-link": reloader if is_linked else "",
        "probe": row["probe"],
    }


def result_of(rows: list[Document]) -> Document:
    for row in rows:
        # Joining without an address leaves the one that is kept.
        if row["before"] and row["after"] and row["after"]["probe"] is None:
            row["after"]["probe"] = row["before"]["probe"]
        row["changed"] = row["before"] != row["after"]
    changed = [row for row in rows if row["changed"]]

    def lines(key: str) -> str:
        return "".join(f"{row['service']}: {json.dumps(row[key], sort_keys=True)}\n"
                       for row in changed if row[key] is not None)

    diff = [{"before_header": "joined", "after_header": "joined", "before": lines("before"),
             "after": lines("after")}] if changed else []
    return {"changed": bool(changed), "services": rows, "diff": diff}
