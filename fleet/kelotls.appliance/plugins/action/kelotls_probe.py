# -*- coding: utf-8 -*-
"""What running servers offer, on an appliance without Python."""

from __future__ import annotations

from ansible_collections.kelotls.appliance.plugins.module_utils.levels import GOOD_VERDICTS, select
from ansible_collections.kelotls.appliance.plugins.plugin_utils.appliance import (
    CANNOT_TELL, DIFFERS, ApplianceAction, Answer, CommandFailed, Document)

VERDICTS = ("agrees", "as-expected", "differs", "cannot-tell", "no-answer")
OPTIONS = {"connect": "--connect", "starttls": "--starttls", "server_name": "--servername",
           "timeout": "--timeout", "deadline": "--deadline"}
FAILED = 1


class ActionModule(ApplianceAction):
    """Has each server surveyed, and fails where one does not do what its level asks for."""

    ARGUMENTS = {
        "services": {"type": "list", "elements": "str", "default": []},
        "connect": {"type": "str"},
        "starttls": {"type": "str", "choices": ["smtp", "imap", "pop3", "ftp", "ldap", "postgres",
                                                "mysql", "sieve", "xmpp", "nntp"]},
        "server_name": {"type": "str"},
        "timeout": {"type": "int"},
        "deadline": {"type": "int"},
        "accept": {"type": "list", "elements": "str", "choices": list(VERDICTS),
                   "default": list(GOOD_VERDICTS)},
    }
    RULES = {"required_by": {"connect": ["services"], "starttls": ["connect"],
                             "server_name": ["connect"]}}

    def work(self, arguments: Document) -> Document:
        names = arguments["services"] if arguments["connect"] else self.names(arguments)
        if not names:
            return {"changed": False, "services": [], "not_asked": []}
        options = [word for key, option in OPTIONS.items() if arguments[key] is not None
                   for word in (option, str(arguments[key]))]
        script = self.script(arguments)
        for name in names:
            script.run("address", "--", name)
            script.run("probe", *options, "--", name)
        answers = self.send(script)
        result: Document = {"changed": False, "services": [], "not_asked": []}
        refusal = None
        for name, address, probed in zip(names, answers[::2], answers[1::2]):
            if address.rc != 0:
                raise CommandFailed(address)
            if address.document["address"] is None and not arguments["connect"]:
                result["not_asked"].append(name)
                continue
            result["services"].append(survey_of(name, probed))
            if is_refused(result["services"][-1], arguments):
                refusal = refusal or probed
        if refusal:
            raise CommandFailed(refusal, **{**result, "msg": message_of(result, arguments)})
        return result

    def names(self, arguments: Document) -> list[str]:
        """The joined services that are asked for. One that has not joined the command refuses."""
        script = self.script(arguments)
        script.run("list", "--names")
        answer = self.send(script)[0]
        if answer.rc != 0:
            raise CommandFailed(answer)
        joined = str(answer.document or "").splitlines()
        requested = arguments["services"]
        unknown = [name for name in requested if not select(joined, [name])]
        return select(joined, requested or joined) + unknown


def survey_of(name: str, answer: Answer) -> Document:
    document = answer.document if isinstance(answer.document, dict) else {}
    if "verdict" in document and answer.rc in (0, DIFFERS, CANNOT_TELL):
        return {
            "service": name,
            "target": document["target"],
            "level": document["name"],
            "verdict": document["verdict"],
            # What this machine's OpenSSL explains does not count, for the command neither.
            "good": answer.rc == 0,
            "differences": document["differences"],
            "not_known": document["not-known"],
            "versions": [row["version"] for row in document["versions"]
                         if row["answer"] == "accepted"],
            "certificates": document["certificates"],
            "text": "; ".join(row["text"] for row in document["differences"]
                              if "expected" not in row),
        }
    if answer.rc == FAILED and "error" in document:
        return {"service": name, "target": None, "level": None, "verdict": "no-answer",
                "good": False, "differences": [], "not_known": [], "versions": [], "certificates": [],
                "text": document["error"]}
    raise CommandFailed(answer)


def is_refused(survey: Document, arguments: Document) -> bool:
    return not survey["good"] and survey["verdict"] not in arguments["accept"]


def message_of(result: Document, arguments: Document) -> str:
    return "\n".join(f"{row['service']}: {row['verdict']}: {row['text']}" for row in result["services"]
                     if is_refused(row, arguments))
