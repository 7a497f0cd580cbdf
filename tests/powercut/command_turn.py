"""Commands in a machine whose power is cut, each made at the same time in a private tree here, which
tells what the machine's tree is to be like before it and after it."""

import json
import os
import shlex
import subprocess

from appliance import FRAMEWORK, observe, read

NAME = "command"
COMMAND = "/usr/bin/kelotlsctl"
BACKUP = "/usr/kelo/levels.json"
REGISTRATION = "/usr/kelo/ftp.json"
UNTIL = ["--until", "2037-01-01", "--reason", "printer"]
LEVELS = ("modern", "intermediate", "old", "default")
WAITS = "--confirm"
# What brings everything to the disk before it has succeeded.
KEPT = {WAITS, "--until", "undo", "redo"}
# What is taken back where it is interrupted; all else is left as far as it has come.
ALL_OR_NOTHING = ("undo", "redo", "revert")


def random_words(chance, is_waiting):
    services = chance.sample(("web", "mail"), chance.randint(1, 2))
    levels, default = ["set", *services, chance.choice(LEVELS)], ["default", chance.choice(LEVELS[:3])]
    join, leave, confirm = ["join", REGISTRATION], ["leave", REGISTRATION], [WAITS, "1h"]
    if is_waiting:
        return chance.choice((["confirm"], ["confirm"], ["revert"], levels + confirm))
    return chance.choice((
        levels, levels + ["--apply"], levels + confirm, levels + UNTIL, levels + ["--apply"] + UNTIL,
        default, default + ["--apply"], default + confirm, ["apply"], ["apply"] + confirm,
        ["restore", BACKUP], ["restore", BACKUP] + confirm, join, join + confirm, leave, leave + confirm,
        ["undo"], ["redo"], ["render"], ["regen"]))


def dates():
    path = f"{FRAMEWORK}/dated.json"
    services = json.loads(read(path))["services"] if os.path.exists(path) else {}
    return {name: (entry["level"], entry["until"]) for name, entry in services.items()}


def state():
    """Of each service what its level is, what is kept of it, and the date of its level."""
    until = dates()
    return {name: seen._asdict() | {"date": until.get(name)} for name, seen in observe().items()}


def history():
    """(the records of the history by their ids, how many lines are none). A power cut may leave of the line
    that was being written what it likes; the command goes on behind it."""
    found, faulty = {}, 0
    for line in read(f"{FRAMEWORK}/history.jsonl").splitlines():
        try:
            record = json.loads(line)
            found.setdefault(record["id"], {}).update(record)
        except (json.JSONDecodeError, TypeError, KeyError):
            faulty += 1
    return found, faulty


def commands():
    return [record["command"] for record in history()[0].values()]


def is_waiting():
    return os.path.exists(f"{FRAMEWORK}/pending.json")


def differences(one, other, members):
    """What tells the states apart in these members of their services."""
    return [f"{name}: {member} {one[name][member]}, not {other[name][member]}"
            for name in one for member in members if one[name][member] != other[name][member]]


class Turn:
    """What has been done since a start of the machine, at which nothing waits."""

    def __init__(self, command, machine):
        self.command, self.machine = command, machine
        self.words, self.is_over = None, True
        self.certain = self.old = self.new = state()  # certain: what a change that waits is taken back to
        self.history = self.longer_history = commands()
        self.faulty = history()[1]
        self.was_waiting = self.waits = False
        self.on_disk = [self.new]  # what rendered files may be of: rendering does not wait for the disk

    def begin(self, chance):
        """Runs a random command here, and announces it there."""
        if self.waits or self.was_waiting or self.words and self.status == 0 and KEPT & set(self.words):
            self.on_disk = [self.new]
        self.old, self.history, self.was_waiting = self.new, self.longer_history, self.waits
        if not self.was_waiting:
            self.certain = self.old
        self.words, self.is_over = random_words(chance, self.was_waiting), False
        self.status = subprocess.run([self.command, *self.words], capture_output=True, check=False).returncode
        self.new, self.longer_history, self.waits = state(), commands(), is_waiting()
        self.on_disk.append(self.new)
        self.machine.announce(shlex.join([COMMAND, *self.words]))

    def finish(self):
        """Takes the answer; what is wrong with it, or None."""
        status, output = self.machine.answer()
        self.is_over = True
        if status != self.status:
            return f"{self.words} gave {status}, not {self.status}: {output.decode()}"
        return None

    # After the power cut

    def settle(self):
        """As a start of the machine does it, before its servers and beside them."""
        for words in (f"{COMMAND} settle --before-services", "start_servers", f"{COMMAND} settle"):
            self.machine.require(words)

    def judge(self):
        """What a power cut may not have left, once that has been settled, or None."""
        now = state()
        if is_waiting():
            return "a change waits"
        wrong = [self.wrong_levels(now, goal) + self.wrong_files(now, goal) for goal in self.goals()]
        if all(wrong):
            return f"{self.words}: " + "; or ".join(map(str, wrong))
        return self.wrong_history() or self.wrong_findings()

    def is_whole(self):
        """Whether nothing but a whole state may be left."""
        return self.is_over or self.was_waiting or {WAITS, "--until"} & set(self.words) or (
            self.words[0] in ALL_OR_NOTHING)

    def goals(self):
        """The states that may be left."""
        if self.is_over:
            return [self.certain if self.waits else self.new]
        if self.was_waiting:
            return [self.certain, self.new] if self.words == ["confirm"] else [self.certain]
        return [self.old] if WAITS in self.words else [self.old, self.new]

    def wrong_levels(self, now, goal):
        """The data store is whole, in any case; the dates of a change that is not may be either."""
        wrong = differences(now, goal, ["stored"])
        dates_of = [goal] if self.is_whole() else [self.old, self.new]
        wrong += [f"{name}: date {seen['date']}, not {goal[name]['date']}" for name, seen in now.items()
                  if seen["date"] not in [each[name]["date"] for each in dates_of]]
        return wrong

    def wrong_files(self, now, goal):
        """A descriptor, a link or a rendered file is of a moment since everything was brought to the disk."""
        wrong = []
        is_exact = self.was_waiting or self.is_over and self.waits
        for name, seen in now.items():
            for member in ("descriptor", "link", "rendered"):
                permitted = [each[name][member] for each in ([goal] if is_exact else [goal, *self.on_disk])]
                if seen[member] not in permitted:
                    wrong.append(f"{name}: {member} {seen[member]}, not {permitted}")
            if seen["rendered"] is not None and seen["serving"] != seen["rendered"]:
                wrong.append(f"{name}: its server has {seen['serving']}, and its file is {seen['rendered']}")
        return wrong

    def wrong_history(self):
        left = commands()
        permitted = [self.longer_history] + ([] if self.is_over else [self.history])
        if left not in permitted:
            return f"the history has {left[-4:]}, not {[each[-4:] for each in permitted]}"
        found, faulty = history()
        if faulty > self.faulty + (0 if self.is_over else 1):
            return f"the history has {faulty} lines that are no records, and had {self.faulty}"
        still_open = [record for record in found.values() if "ended" not in record]
        if still_open:
            return f"the history leaves open: {still_open}"
        result = list(found.values())[-1]["result"] if left != self.history else None
        if result in ("done", "confirmed") and self.words and state_levels(state()) != state_levels(self.new):
            return f"the history says {result} of {self.words}, which it is not"
        return None

    def wrong_findings(self):
        """What is left of a join or leave that was interrupted is told; else there is no error."""
        if not self.is_whole():
            return None
        _, output = self.machine.run(f"{COMMAND} check --json")
        errors = [finding for finding in json.loads(output)["findings"] if finding["severity"] == "error"]
        return f"check finds {errors}" if errors else None


def state_levels(seen):
    return {name: each["stored"] for name, each in seen.items()}
