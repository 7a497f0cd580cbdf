import os

from recipe import PROGRAMS, Recipe

DIRECTORY = "/usr/kelo/etc/proftpd"
MODULES = os.path.join(PROGRAMS, "proftpd-mod-crypto/usr/lib/proftpd")


def edit(name: str, old: str, new: str) -> None:
    path = os.path.join(DIRECTORY, name)
    with open(path, encoding="ascii") as file:
        text = file.read()
    assert old in text
    with open(path, "w", encoding="ascii") as file:
        file.write(text.replace(old, new))


def find_unpacked_programs() -> None:
    edit("inetd.conf", "/usr/sbin/proftpd", f"{PROGRAMS}/proftpd-core/usr/sbin/proftpd")
    edit("proftpd.conf", "LoadModule", f"ModulePath {MODULES}\nLoadModule")


RECIPE = Recipe(
    packages=("proftpd-core", "proftpd-mod-crypto", "openbsd-inetd"),
    unpacked=("proftpd-core", "proftpd-mod-crypto", "openbsd-inetd"),
    # In the foreground, with its own environment for what it starts, and as often as asked.
    command=(f"{PROGRAMS}/openbsd-inetd/usr/sbin/inetd", "-i", "-E", "-R", "100000",
             f"{DIRECTORY}/inetd.conf"),
    files={name: f"{DIRECTORY}/{name}" for name in ("inetd.conf", "proftpd.conf")},
    talk=(b"NOOP\r\n", b"200 "),
    prepare=find_unpacked_programs)
