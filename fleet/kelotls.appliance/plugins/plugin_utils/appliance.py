# -*- coding: utf-8 -*-
"""Runs the management command on an appliance, and reads what it says.

An appliance needs a POSIX shell and the command, and no Python. What is to be run there goes as one
script through the standard input of that shell. So a task costs one round trip, a registration may be
as long as it likes, nothing of it shows in a list of processes, and no terminal mixes what the command
prints with its warnings.
"""

from __future__ import annotations

import json
import shlex
import uuid
from collections.abc import Callable
from typing import Any, NamedTuple

from ansible.errors import AnsibleActionFail
from ansible.module_utils.common.text.converters import to_text
from ansible.plugins.action import ActionBase

Document = dict[str, Any]

NOT_FOUND = 127
CANNOT_TELL = 6
DIFFERS = 3
NO_SUCH_SERVICE = 10

# What check mode cannot know of a change that is brought into force: what the servers will show.
NOT_KNOWN = ("surveyed", "warnings")


class Answer(NamedTuple):
    """What one run of the command said. document is None where it printed none."""

    command: str
    rc: int
    document: Any
    stderr: str


class CommandFailed(Exception):
    """The command failed; says so with its own words."""

    def __init__(self, answer: Answer, **more: Any) -> None:
        super().__init__(answer.command)
        self.answer = answer
        self.more = more

    def result(self) -> Document:
        """What the task returns."""
        document = self.answer.document if isinstance(self.answer.document, dict) else {}
        faults = faults_of(document)
        message = document.get("error") or "; ".join(
            f"{fault['place']}: {fault['text']}" for fault in faults) or self.answer.stderr
        advice = document.get("advice", "")
        return {
            "failed": True,
            "msg": "\n".join(filter(None, (message, advice))) or "the command said nothing",
            "kelotlsctl_command": self.answer.command,
            "kelotlsctl_message": message,
            "kelotlsctl_advice": advice,
            "kelotlsctl_rc": self.answer.rc,
            "kelotlsctl_faults": faults,
            "kelotlsctl_stderr": self.answer.stderr.splitlines(),
            **self.more,
        }


def faults_of(document: Document) -> list[dict[str, str]]:
    """Each fault of a report, and where it lies: a place in a file, a path or a service."""
    faults = []
    for line in document.get("error", "").split("\n")[1:]:
        place, colon, text = line.strip().partition(": ")
        if colon:
            faults.append({"place": place, "text": text})
    report = document.get("apply") or document
    if "reload-fault" in report:
        faults.append({"place": "reloaders", "text": report["reload-fault"]})
    for part in ("services", "rendered", "reloaders", "probed"):
        for element in report.get(part) or []:
            text = element.get("fault") or element.get("not-run")
            if text:
                faults.append({"place": element.get("service") or element["path"], "text": text})
    return faults


class Script:
    """What is to be run on the appliance, one command after the other."""

    def __init__(self, executable: str) -> None:
        self.executable = executable
        self.mark = f"kelotls-{uuid.uuid4().hex}"
        self.commands: list[str] = []
        self.lines = [
            "run() {",
            '  "$@"',
            "  status=$?",
            f"  printf '\\n%s %s\\n' {self.mark} \"$status\"",
            f"  printf '\\n%s\\n' {self.mark} >&2",
            "}",
        ]

    def run(self, *words: str, text: str | None = None) -> None:
        """Runs the command with the words, and with the text as its standard input."""
        line = shlex.join([self.executable, "--json", *words])
        self.commands.append(line)
        self.lines.append(f"run {line} {self._input(text)}")

    def run_with_file(self, words: list[str], text: str) -> None:
        """Runs the command with the words, and last the name of a file that holds the text and that
        only this user can read. It is gone when the script ends."""
        line = shlex.join([self.executable, "--json", *words])
        self.commands.append(f"{line} FILE")
        self.lines += [
            'directory=$(mktemp -d) || { echo "no private directory can be made" >&2; exit 1; }',
            "trap 'rm -rf \"$directory\"' EXIT",
            f'cat > "$directory/file" {self._input(text)}',
            f'run {line} "$directory/file" < /dev/null',
        ]

    def text(self) -> str:
        return "\n".join(self.lines) + "\n"

    def _input(self, text: str | None) -> str:
        if text is None:
            return "< /dev/null"
        return f"<< '{self.mark}'\n{text}\n{self.mark}"

    def answers(self, rc: int, stdout: str, stderr: str) -> list[Answer]:
        """What each command has said. One that did not come to its end is told as a failure."""
        outputs = stdout.replace("\r\n", "\n").split(f"\n{self.mark} ")
        errors = stderr.replace("\r\n", "\n").split(f"\n{self.mark}\n")
        answers = []
        for index, command in enumerate(self.commands):
            if index + 1 >= len(outputs):
                said = "".join(errors[index:]).strip() or "it ended before it was done"
                raise CommandFailed(Answer(command, rc or 1, None, said))
            status, _unused, outputs[index + 1] = outputs[index + 1].partition("\n")
            said = errors[index].strip() if index < len(errors) else ""
            answers.append(Answer(command, int(status), _document(outputs[index]), said))
        return answers


def _document(text: str) -> Any:
    try:
        return json.loads(text)
    except ValueError:
        return text.strip() or None


class ApplianceAction(ActionBase):
    """A task that runs the command on an appliance."""

    TRANSFERS_FILES = False
    _supports_check_mode = True
    _supports_async = False

    ARGUMENTS: Document = {}
    RULES: Document = {}  # mutually_exclusive, required_one_of and the like

    def run(self, tmp: Any = None, task_vars: Any = None) -> Document:
        result = super().run(tmp, task_vars)
        specification = {"executable": {"type": "str", "default": "kelotlsctl"}, **self.ARGUMENTS}
        _validation, arguments = self.validate_argument_spec(specification, **self.RULES)
        try:
            result.update(self.work(arguments))
        except CommandFailed as failure:
            result.update({"changed": False, **failure.result()})
        return result

    def work(self, arguments: Document) -> Document:
        """Does what the task is for. What it returns is the task's result."""
        raise NotImplementedError

    @property
    def is_check(self) -> bool:
        return bool(self._task.check_mode)

    def dry(self) -> list[str]:
        """What keeps a command that writes from writing, in check mode."""
        return ["--dry-run"] if self.is_check else []

    def script(self, arguments: Document) -> Script:
        return Script(arguments["executable"])

    def send(self, script: Script) -> list[Answer]:
        """Runs the script on the appliance."""
        if not getattr(self._connection, "has_pipelining", False):
            raise AnsibleActionFail(
                f"The connection plugin {self._connection.transport} cannot pass a standard input to "
                "a command: has_pipelining is missing.")
        output = self._low_level_execute_command(
            "/bin/sh", in_data=script.text().encode(), executable="")
        return script.answers(output["rc"], to_text(output["stdout"]), to_text(output["stderr"]))

    def documents(self, script: Script) -> list[Document]:
        """Runs the script. The documents; a command that refuses ends the task. One that has foreseen
        a fault has a document all the same: what comes of it shows where it is done."""
        answers = self.send(script)
        for answer in answers:
            if not isinstance(answer.document, dict) or "error" in answer.document:
                raise CommandFailed(answer)
        return [answer.document for answer in answers]

    def concluded(self, script: Script, result_of: Callable[[Document], Document]) -> Document:
        """Runs the one command that changes something, or would in check mode. The task's result: what
        result_of makes of its document, with what the servers showed in a real run."""
        answer = self.send(script)[0]
        if not isinstance(answer.document, dict) or "error" in answer.document:
            raise CommandFailed(answer)
        result = result_of(answer.document)
        report = answer.document.get("apply") or answer.document
        if self.is_check and "probed" in report:
            result["not_known"] = list(NOT_KNOWN)
        elif "probed" in report:
            result["surveyed"] = surveyed(report)
            result["warnings"] = [element["not-seen"] for element in report["probed"]
                                  if element.get("not-seen")]
        if answer.rc not in (0, CANNOT_TELL):
            raise CommandFailed(answer, **result)
        return result


def reason_words(arguments: Document) -> list[str]:
    return ["--reason", arguments["reason"]] if arguments.get("reason") else []


def timeout_words(arguments: Document) -> list[str]:
    seconds = arguments.get("reload_timeout")
    return ["--reload-timeout", str(seconds)] if seconds else []


def level_words(arguments: Document) -> list[str]:
    """The options of a change of levels."""
    return [*(["--apply"] if arguments["apply"] else []), *reason_words(arguments),
            *timeout_words(arguments)]


def application(report: Document) -> Document:
    """What a way into force does, or would do: the same in check mode as otherwise."""
    return {
        "rendered": [{key: element[key] for key in ("service", "path", "change")}
                     for element in report["rendered"]],
        "reloaders": [element["path"] for element in report["reloaders"]],
    }


def surveyed(report: Document) -> list[Document]:
    """What the servers, or the library's contexts, showed after a real run."""
    return [{
        "service": element["service"],
        "asked": element["asked"],
        "result": element["result"],
        "verdict": element.get("verdict"),
        "text": element.get("fault") or element.get("not-seen") or "",
    } for element in report["probed"]]


def differences(rendered: list[Document], services: set[str] | None = None) -> list[Document]:
    """For --diff: what changes in the rendered files."""
    return [{"prepared": element["diff"]} for element in rendered
            if element.get("diff") and (services is None or element["service"] in services)]


def level_difference(header: str, before: dict[str, str], after: dict[str, str]) -> Document:
    """For --diff: levels by service, before and after."""
    def lines(levels: dict[str, str]) -> str:
        return "".join(f"{service}: {level}\n" for service, level in sorted(levels.items()))

    return {"before_header": header, "after_header": header, "before": lines(before),
            "after": lines(after)}
