# -*- coding: utf-8 -*-
"""What the command's words mean: levels, states, and the services that a request names."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import re

LEVELS = ("modern", "intermediate", "old")
STORED_LEVELS = LEVELS + ("default",)

# In force, as far as the command can tell: nothing is left to be done.
SETTLED_STATES = ("in-force", "as-expected", "next-context", "cannot-tell")

GOOD_VERDICTS = ("agrees", "as-expected")


def is_settled(service):
    """Whether the level of a service, as C(list) shows it, needs no rendering and no reloading."""
    return service["state"] in SETTLED_STATES


def _expression(pattern):
    """A pattern of fnmatch(3) as a regular expression."""
    text, index = "", 0
    while index < len(pattern):
        character = pattern[index]
        end = pattern.find("]", index + (3 if pattern[index + 1:index + 2] in ("!", "^") else 2))
        index += 1
        if character == "*":
            text += ".*"
        elif character == "?":
            text += "."
        elif character == "\\" and index < len(pattern):
            text += re.escape(pattern[index])
            index += 1
        elif character == "[" and end > 0:
            inner = pattern[index:end].replace("\\", "\\\\").replace("[", "\\[")
            text += "[" + ("^" + inner[1:] if inner[0] in "!^" else inner) + "]"
            index = end + 1
        else:
            text += re.escape(character)
    return "(?s)" + text + r"\Z"


def select(names, requested):
    """Those of the names that the requested names and patterns stand for, as the command selects."""
    chosen = set(name for name in requested if name in names)
    for request in requested:
        if request not in names:
            expression = re.compile(_expression(request))
            chosen.update(name for name in names if expression.match(name))
    return [name for name in names if name in chosen]
