"""What a test has to know of a server beside what services/NAME holds."""

import dataclasses
import importlib
import os
from collections.abc import Callable, Mapping

HERE = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.dirname(os.path.dirname(HERE))


def nothing() -> None:
    pass


@dataclasses.dataclass(frozen=True)
class Recipe:
    """How a server is started, spoken with and restarted.

    packages: Debian's, which hold the server.
    unpacked: those of them that cannot be installed beside others. They are found unpacked at
        PROGRAMS/PACKAGE.
    command: the server, which stays in the foreground.
    files: of services/NAME, by name, where each goes to.
    opening: what is sent over a connection first, once.
    talk: what is sent over a connection, and what the answer holds; asked again of a connection
        that is open during each change.
    keeps_connections: whether that connection lives on after a reload.
    restarts: the reloader starts a new server, as this one cannot reload; connections may be
        refused meanwhile.
    users: those that the server changes to, by name.
    prepare: what else is done before it starts, once its configuration was rendered.
    """
    packages: tuple[str, ...]
    command: tuple[str, ...]
    files: Mapping[str, str]
    talk: tuple[bytes, bytes]
    opening: bytes = b""
    unpacked: tuple[str, ...] = ()
    keeps_connections: bool = True
    restarts: bool = False
    users: Mapping[str, int] = dataclasses.field(default_factory=dict)
    prepare: Callable[[], None] = nothing


PROGRAMS = os.path.join(PROJECT, "build/services/programs")


def recipe_of(name: str) -> Recipe:
    return importlib.import_module(f"recipes.{name.replace('-', '_')}").RECIPE
