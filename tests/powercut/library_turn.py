"""Operations of the library in a machine whose power is cut, each made at the same time in a private tree
here, where the calls to the file system are seen: the model of the disk that scripts/faults cuts the power
on says from them what a real disk may come up with."""

import json
import shlex

import scenarios
import states
import sweep
from disk import Disk, complaint, texts
from private_tree import STORE, read_tree

NAME = "library"
SUBJECT = "/usr/bin/fault_subject"
COUNT = 5  # services that there may be


def start_tree(chance):
    """Three services; their data store where it belongs, or behind a link."""
    return scenarios.start(3, chance.choice((scenarios.DIRECT, scenarios.LINKED)))


def settled(tree):
    """Without what a save that was interrupted leaves beside the files."""
    return {path: entry for path, entry in tree.items() if not sweep.TEMPORARY.fullmatch(path)}


def random_words(chance, tree):
    """An operation with its arguments."""
    number = chance.randrange(COUNT)
    name = scenarios.service(number)["service"]
    several = sorted(chance.sample(range(COUNT), chance.randint(1, 3)))
    members = json.loads(store_text(tree))["services"]
    member = chance.choice(sorted(members) or [name])
    return chance.choice((
        ["set-service", member, str(chance.randrange(4))],
        ["set-service", member, str(chance.randrange(4))],
        ["set-default", str(chance.randint(1, 3))],
        ["restore", scenarios.SAVED_PATH],
        ["regenerate"],
        ["render"],
        ["render"],
        ["join", scenarios.registration(several)],
        ["join", scenarios.registration(several)],
        ["leave", scenarios.registration(several)],
        ["install-descriptor", json.dumps(scenarios.service(number))],
        ["install-reloader", name, scenarios.RELOADER_PATH],
        ["uninstall-reloader", name],
        ["cleanup", name]))


def store_text(tree):
    return tree[states.real_path(tree, STORE)][1]


def meanings(tree):
    return {path: entry if isinstance(entry, str) else (entry[0], states.meaning(entry[1]))
            for path, entry in tree.items()}


class Turn:
    """What has been done since a start of the machine."""

    def __init__(self, private_tree, machine):
        self.private_tree, self.machine = private_tree, machine
        self.disk = Disk(settled(read_tree()))  # a machine that has just started has nothing in memory alone
        self.trees = [texts(settled(read_tree()))]  # after each operation
        self.words, self.calls, self.is_over = None, [], True

    def begin(self, chance):
        """Does a random operation here, and announces it there."""
        for call in self.calls:
            self.disk.apply(call)
        self.words = random_words(chance, read_tree())
        run = self.private_tree.run(self.words, trace="all")
        self.calls, self.results, self.is_over = run.calls(), run.results, False
        self.trees.append(texts(settled(read_tree())))
        self.machine.announce(shlex.join([SUBJECT, *self.words]))

    def finish(self):
        """Takes the answer; what is wrong with it, or None."""
        status, output = self.machine.answer()
        self.is_over = True
        expected = "".join(f"{result} {descriptors}\n" for result, descriptors in self.results)
        if (status, output.decode()) != (0, expected):
            return f"{self.words} gave {status}, {output}, not {expected!r}"
        return None

    def judge(self, tree):
        """What a power cut may not have made of the files, or None."""
        image, refusals = texts(settled(tree)), set()
        if self.words is None:
            return None if image == self.trees[0] else f"nothing was begun, and {set(image.items()) ^ set(self.trees[0].items())}"
        wrong = complaint(image, self.trees[-2], self.trees[-1], self.words[0], self.is_over, self.trees[:-2],
                          self.disk.is_certain)
        if wrong:
            return wrong
        for position in range(len(self.calls) + 1):
            if position == len(self.calls) or not self.is_over:
                refusals.add(self.disk.refusal(image))
            if position < len(self.calls):
                self.disk.apply(self.calls[position])
        return None if None in refusals else "; or ".join(sorted(refusals))

    def repair(self):
        """What the library does not mend of what is there now, or None."""
        self.private_tree.log.take()
        for words in (["regenerate"], ["render"]):
            before = meanings(settled(read_tree()))
            run = self.private_tree.run(words)
            after = meanings(settled(read_tree()))
            wrong, _ = sweep.contradiction(scenarios.Scenario(words, {}, ""), before, run, after)
            status, output = self.machine.run(shlex.join([SUBJECT, *words]))
            if wrong or (status, output.decode().split()[:1]) != (0, [str(run.results[0][0])]):
                return f"{words} in a machine that has started again: {wrong or output}"
        return None
