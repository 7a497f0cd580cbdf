import os
import shutil

from recipe import Recipe

DATA = "/usr/kelo/var/postfix"


def make_directories() -> None:
    """The server makes what is in them, but not these."""
    os.mkdir(f"{DATA}/queue")
    os.mkdir(f"{DATA}/data")
    shutil.chown(f"{DATA}/data", "postfix", "postfix")


RECIPE = Recipe(
    packages=("postfix",),
    command=("/usr/sbin/postfix", "-c", "/usr/kelo/etc/postfix", "start-fg"),
    files={"main.cf": "/usr/kelo/etc/postfix/main.cf",
           "master.cf": "/usr/kelo/etc/postfix/master.cf"},
    talk=(b"NOOP\r\n", b"250 "),
    users={"postfix": 103, "postdrop": 107},
    prepare=make_directories)
