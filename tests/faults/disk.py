"""A disk that keeps only what was brought to it, and what a power cut may make of its files.

It keeps a file's text for certain only once the file was brought to it with fsync, and a name's making,
renaming or removal only once its directory was. What was not may be there or not: of the names every
subset, of a text the old one, a beginning of the new one, or all of it.
"""

import codecs
import itertools
import os
import re

from private_tree import CONFIG, STORE

CHANGES = re.compile("(open|write|fsync|rename|unlink|symlink)(at)?")
OTHER_CHANGES = re.compile("creat|pwrite|writev|truncate|renameat2|^link|mkdir|fdatasync|sendfile")


class File:
    def __init__(self, text):
        self.kept = self.text = text  # what the disk has for certain, and what it was given

    def possible_texts(self):
        if self.kept == self.text:
            return [self.kept]
        size = len(self.text)
        return sorted({self.kept, self.text} | {self.text[:cut] for cut in (0, 1, size // 2,
                                                                            size - 1)})

    def may_be(self, text):
        return text == self.kept or self.kept != self.text and self.text.startswith(text)


class Disk:
    def __init__(self, tree):
        self.kept = {path: entry if isinstance(entry, str) else File(entry[1])
                     for path, entry in tree.items()}
        self.names = dict(self.kept)
        self.pending = []  # (path, what it names now or None), in order
        self.open = {}

    def set_name(self, path, what):
        if what is None:
            del self.names[path]
        else:
            self.names[path] = what
        self.pending.append((path, what))

    def is_certain(self, path):
        """Whether there is something at the path, whatever has reached the disk."""
        return path in self.kept and (path, None) not in self.pending

    def images(self):
        """Every {path: text or link target} that the disk may come up with."""
        for choice in itertools.product((False, True), repeat=len(self.pending)):
            names = dict(self.kept)
            names.update(change for change, there in zip(self.pending, choice) if there)
            names = {path: what for path, what in names.items() if what is not None}
            unsure = list({what for what in names.values()
                           if isinstance(what, File) and what.kept != what.text})
            for texts in itertools.product(*(file.possible_texts() for file in unsure)):
                chosen = dict(zip(unsure, texts))
                yield {path: chosen.get(what, getattr(what, "kept", what))
                       for path, what in names.items()}

    def refusal(self, image):
        """What the disk cannot have come up with, of {path: text or link target}; or None. It takes every
        image of images(), and every length of a text that was cut short."""
        for path in sorted({*image, *self.kept, *(path for path, _ in self.pending)}):
            choices = [self.kept.get(path)] + [what for at, what in self.pending if at == path]
            entry = image.get(path)
            if not any(what.may_be(entry) if isinstance(what, File) and entry is not None else what == entry
                       for what in choices):
                return f"{path} is {entry!r}, and can only be {[getattr(what, 'text', what) for what in choices]}"
        return None

    # The calls, each with its decoded strings and descriptor numbers

    def apply(self, call):
        if OTHER_CHANGES.search(call.name):
            raise SystemExit(f"the disk does not know what this does: {call}")
        if call.result.startswith("-1") or not CHANGES.fullmatch(call.name):
            return False
        getattr(self, call.name.removesuffix("at") + "_")(call, paths_of(call.arguments))
        return True

    def open_(self, call, paths):
        path, number = paths[0], number_of(call.result)
        self.open[number] = path if "O_DIRECTORY" in call.arguments else self.names.get(path)
        if "O_CREAT" in call.arguments and path not in self.names:
            self.set_name(path, File(b""))
            self.open[number] = self.names[path]
        elif "O_TRUNC" in call.arguments:
            self.names[path].text = b""

    def write_(self, call, _):
        text = re.search(r"\"(.*)\", \d+$", call.arguments, re.DOTALL)[1]
        written = self.open.get(number_of(call.arguments))
        if isinstance(written, File):
            written.text += decoded(text)[:int(call.result)]

    def fsync_(self, call, _):
        synced = self.open[number_of(call.arguments)]
        if isinstance(synced, File):
            synced.kept = synced.text
            return
        directory = os.path.normpath(synced)
        here = [change for change in self.pending if os.path.dirname(change[0]) == directory]
        self.kept.update(here)
        self.kept = {path: what for path, what in self.kept.items() if what is not None}
        self.pending = [change for change in self.pending if change not in here]

    def rename_(self, _, paths):
        file = self.names[paths[0]]
        self.set_name(paths[1], file)
        self.set_name(paths[0], None)

    def unlink_(self, _, paths):
        self.set_name(paths[0], None)

    def symlink_(self, call, paths):
        self.set_name(paths[1], decoded(re.match(r"\"(.*?)\"", call.arguments)[1]).decode())


def decoded(text):
    return codecs.decode(text, "unicode_escape").encode("latin-1")


def number_of(arguments):
    return re.match(r"\d+", arguments)[0]


def paths_of(arguments):
    """Every path among the arguments, joined to the path of its directory descriptor, if any."""
    found = re.findall(r"(?:(?:\d+|AT_FDCWD)<([^>]*)>, )?\"((?:[^\"\\]|\\.)*)\"", arguments)
    return [os.path.normpath(os.path.join(directory, decoded(name).decode("latin-1")))
            for directory, name in found]


def text_of_store(image):
    target = image.get(STORE)
    if isinstance(target, str):
        target = image.get(os.path.normpath(os.path.join(os.path.dirname(STORE), target)))
    return target


def complaint(image, before, after, operation, returned, earlier=(), is_certain=lambda path: True):
    """What a power cut may not have made of the files, or None. earlier: what has come before, of which
    nothing but the data store has to be on the disk. is_certain: whether what was there before, was on
    the disk."""
    old, new = text_of_store(before), text_of_store(after)
    now = text_of_store(image)
    if now not in ((new,) if returned and operation != "render" else (old, new)):
        return f"the data store is {now!r}" + (" after the return" if returned else "")
    for path in image:
        if path.startswith(CONFIG) and path.endswith(".conf") and image[path] not in [
                tree.get(path) for tree in (before, after, *earlier)]:
            return f"{path} is {image[path]!r}"
    lost = [path for path in before if path not in image and path not in after and is_certain(path)]
    if operation == "leave" and now == old != new and lost:
        return f"the entries are there, and without {lost}"
    return None


def texts(tree):
    return {path: entry if isinstance(entry, str) else entry[1] for path, entry in tree.items()}
