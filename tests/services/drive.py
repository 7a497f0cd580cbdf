"""Drives one service in a private tree: joins it, starts its server, changes its level while a
client holds a connection and others come and go, and looks at what the server then serves. Prints
what came of it as JSON.

    drive.py KELOTLSCTL NAME SECURITY_LEVEL [LEVELS]

SECURITY_LEVEL: host for OpenSSL as the machine has it, or 0.
LEVELS: where it goes from level intermediate, in this order, with commas; else through all and back.
"""

import ctypes
import dataclasses
import json
import os
import selectors
import shutil
import signal
import subprocess
import sys
import threading
import time
from typing import Any

from recipe import HERE, PROJECT, Recipe, recipe_of

sys.path.insert(0, os.path.join(PROJECT, "tests/survey"))
from keys import DH_FILES, Keys  # pylint: disable=wrong-import-position
from running import LENIENT_OPENSSL
from tree import APPLIANCE_DIRECTORIES, DH_DIRECTORY

SERVICES = "/usr/share/kelotls/services"
CHANGES = ("modern", "old", "intermediate")
START_SECONDS = 20
MOST_SECONDS = 240
ANSWER_SECONDS = 10
PR_SET_CHILD_SUBREAPER = 36
CHECK_SAYS_NO = 3  # kelotlsctl's exit status


class Wrong(Exception):
    """Something did not come out as it should; the text says what."""


class Differs(Wrong):
    """The server is not as its level and its expected differences say."""


@dataclasses.dataclass
class Progress:
    """How far it came, and what came of it."""
    at: str = "intermediate"
    levels: dict[str, str] = dataclasses.field(default_factory=dict)
    changes: list[dict[str, Any]] = dataclasses.field(default_factory=list)


class Command:
    """kelotlsctl."""

    def __init__(self, path: str) -> None:
        self._path = path

    def run(self, *arguments: str, stdin: str | None = None) -> subprocess.CompletedProcess[str]:
        return subprocess.run([self._path, *arguments], input=stdin, text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def require(self, *arguments: str) -> None:
        result = self.run(*arguments)
        if result.returncode != 0:
            kind = Differs if result.returncode == CHECK_SAYS_NO and "set" in arguments else Wrong
            raise kind(f"kelotlsctl {' '.join(arguments)} ended with {result.returncode}:\n"
                       f"{result.stdout}")

    def document(self, *arguments: str) -> Any:
        result = subprocess.run([self._path, *arguments, "--json"], text=True, check=False,
                                stdout=subprocess.PIPE)
        return json.loads(result.stdout)


class Client:
    """openssl s_client(1), whose opinion of a connection is not the command's own."""

    def __init__(self, probe: str | dict[str, str]) -> None:
        address = probe if isinstance(probe, str) else probe["address"]
        starttls = "" if isinstance(probe, str) else probe.get("starttls", "")
        self._command = ["openssl", "s_client", "-quiet", "-connect", address]
        self._command += ["-starttls", starttls] if starttls else []

    def connect_once(self) -> str:
        """Why it does not come to a handshake, or nothing."""
        result = subprocess.run(
            [arguments for arguments in self._command if arguments != "-quiet"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            check=False, timeout=ANSWER_SECONDS)
        return "" if result.returncode == 0 else result.stdout.decode(errors="replace")

    def hold(self, opening: bytes) -> subprocess.Popen[bytes]:
        held = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL)
        assert held.stdin is not None
        held.stdin.write(opening)
        return held


def answers(held: subprocess.Popen[bytes], talk: tuple[bytes, bytes]) -> bool:
    """Whether the request is answered on the connection."""
    assert held.stdin is not None and held.stdout is not None
    request, wanted = talk
    try:
        held.stdin.write(request)
        held.stdin.flush()
    except BrokenPipeError:
        return False
    received = b""
    deadline = time.monotonic() + ANSWER_SECONDS
    with selectors.DefaultSelector() as selector:
        selector.register(held.stdout, selectors.EVENT_READ)
        while wanted not in received and selector.select(deadline - time.monotonic()):
            piece = os.read(held.stdout.fileno(), 65536)
            if not piece:
                return False
            received += piece
    return wanted in received


class Visitors(threading.Thread):
    """New connections, one after the other, until they are told to stop."""

    def __init__(self, client: Client) -> None:
        super().__init__(daemon=True)
        self._client = client
        self._is_over = threading.Event()
        self.came = 0
        self.refused: list[str] = []

    def run(self) -> None:
        while not self._is_over.wait(0.05):
            reason = self._client.connect_once()
            self.came += 1
            if reason:
                self.refused.append(reason)

    def stop(self) -> None:
        self._is_over.set()
        self.join()


def set_up(name: str, recipe: Recipe, security_level: str) -> None:
    for directory in (*APPLIANCE_DIRECTORIES, f"/usr/kelo/etc/{name}", "/usr/kelo/run",
                      f"/usr/kelo/run/{name}", f"/usr/kelo/var/{name}"):
        os.makedirs(directory, exist_ok=True)
    for bits in (1024, 2048):
        shutil.copy(DH_FILES[bits], f"{DH_DIRECTORY}/dh{bits}.pem")
    keys = Keys("/tmp/keys")
    shutil.copy(keys.certificate("rsa"), f"{DH_DIRECTORY}/{name}.crt")
    shutil.copy(keys.key("rsa"), f"{DH_DIRECTORY}/{name}.key")
    with open(f"{DH_DIRECTORY}/{name}.pem", "wb") as both:
        for part in (keys.certificate("rsa"), keys.key("rsa")):
            with open(part, "rb") as file:
                both.write(file.read())
    for file_name, path in recipe.files.items():
        os.makedirs(os.path.dirname(path), exist_ok=True)
        shutil.copy(f"{SERVICES}/{name}/{file_name}", path)
    if security_level == "0":
        os.environ["OPENSSL_CONF"] = "/tmp/openssl.cnf"
        with open(os.environ["OPENSSL_CONF"], "w", encoding="ascii") as settings:
            settings.write(LENIENT_OPENSSL)


def start(recipe: Recipe, client: Client) -> subprocess.Popen[bytes]:
    with open("/tmp/server.log", "wb") as log:
        server = subprocess.Popen(recipe.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    deadline = time.monotonic() + START_SECONDS
    while reason := client.connect_once():
        ended = server.poll() is not None and not recipe.restarts
        if ended or time.monotonic() > deadline:
            with open("/tmp/server.log", encoding="utf-8", errors="replace") as log:
                raise Wrong(f"{' '.join(recipe.command)} did not start: {log.read()}\n{reason}")
        time.sleep(0.05)
    return server


def end_all() -> None:
    """Servers that went into the background are this process's children too."""
    while True:
        try:
            with open(f"/proc/thread-self/children", encoding="ascii") as file:
                children = [int(child) for child in file.read().split()]
        except OSError:
            children = []
        for child in children:
            os.kill(child, signal.SIGKILL)
        try:
            os.wait()
        except ChildProcessError:
            return


def differences_of(report: Any, expected: Any) -> tuple[list[str], list[str]]:
    """What the server does that neither the level nor its expected differences say, and what of
    these it does not. What the machine's OpenSSL keeps back from any server is not the server's."""
    wanted = {(entry["kind"], what) for entry in expected.get("differences", ())
              for what in entry["what"]}
    seen = {(entry["kind"], entry["what"]) for entry in report["differences"]
            if entry["kind"] == "extra" or entry["cause"] == "other"}
    seen |= {("not-known", entry["what"]) for entry in report["not-known"]}
    told = {(entry["kind"], entry["what"]) for entry in report["differences"]} | seen
    return ([f"{kind} {what}" for kind, what in sorted(seen - wanted)],
            [f"{kind} {what}" for kind, what in sorted(wanted - told)])


def survey(command: Command, name: str, level: str, expected: Any) -> str:
    """exact or as expected."""
    report = command.document("probe", name)
    if "verdict" not in report or report["name"] != level:
        raise Wrong(f"at level {level} the probe says {json.dumps(report)}")
    new, lacking = differences_of(report, expected)
    if new or lacking:
        raise Differs(f"at level {level}: not expected: {', '.join(new) or 'nothing'}; "
                    f"expected, but not so: {', '.join(lacking) or 'nothing'}")
    return "as expected" if expected.get("differences") else "exact"


def change(command: Command, client: Client, name: str, level: str,
           recipe: Recipe) -> dict[str, Any]:
    held = client.hold(recipe.opening)
    if not answers(held, recipe.talk):
        raise Wrong("a new connection gives no answer")
    visitors = Visitors(client)
    visitors.start()
    try:
        start_time = time.monotonic()
        command.require("set", name, level, "--apply")
        seconds = time.monotonic() - start_time
    finally:
        visitors.stop()
    if visitors.refused and not recipe.restarts:
        raise Wrong(f"during the change to {level} {len(visitors.refused)} of {visitors.came} new "
                    f"connections failed; the first: {visitors.refused[0]}")
    kept = answers(held, recipe.talk)
    held.kill()
    held.wait()
    if kept != recipe.keeps_connections:
        raise Wrong(f"the change to {level} {'kept' if kept else 'ended'} an open connection")
    return {"seconds": seconds, "came": visitors.came, "refused": len(visitors.refused)}


def require_refusal(command: Command, name: str, level: str, reason: str) -> None:
    result = command.run("set", name, level, "--apply")
    if result.returncode == 0 or reason not in result.stdout:
        raise Wrong(f"the level {level} was not refused for \"{reason}\": {result.stdout}")


def drive(command: Command, name: str, security_level: str, changes: list[str],
          progress: Progress) -> None:
    recipe = recipe_of(name)
    registration = f"{SERVICES}/{name}/registration.json"
    with open(registration, encoding="utf-8") as file:
        client = Client(json.load(file)["services"][0]["probe"])
    with open(f"{SERVICES}/{name}/expected.json", encoding="utf-8") as file:
        expected = json.load(file)
    set_up(name, recipe, security_level)
    command.require("init")
    command.require("validate", registration)
    command.require("join", registration)
    command.require("set", name, "intermediate")
    command.require("render", name)
    command.require("reload", name)
    recipe.prepare()
    start(recipe, client)
    progress.levels["intermediate"] = survey(command, name, "intermediate",
                                             expected.get("intermediate", {}))
    for level in changes:
        progress.at = level
        of_level = expected.get(level, {})
        if "refused" in of_level:
            require_refusal(command, name, level, of_level["refused"])
            progress.levels[level] = "refused"
        else:
            progress.changes.append(change(command, client, name, level, recipe))
            progress.levels[level] = survey(command, name, level, of_level)


def give_up(_number: int, _frame: Any) -> None:
    raise Wrong(f"it took longer than {MOST_SECONDS} s")


def main(path: str, name: str, security_level: str, levels: str = ",".join(CHANGES)) -> None:
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    signal.signal(signal.SIGALRM, give_up)
    signal.alarm(MOST_SECONDS)
    begin = time.monotonic()
    result: dict[str, Any] = {"service": name, "security-level": security_level}
    progress = Progress()
    try:
        drive(Command(path), name, security_level, levels.split(",") if levels else [], progress)
    except Wrong as wrong:
        result["wrong"] = str(wrong)
        progress.levels[progress.at] = "differs" if isinstance(wrong, Differs) else "failed"
    finally:
        signal.alarm(0)
        end_all()
    result.update(levels=progress.levels, changes=progress.changes)
    result["seconds"] = time.monotonic() - begin
    print(json.dumps(result))


if __name__ == "__main__":
    main(*sys.argv[1:])
