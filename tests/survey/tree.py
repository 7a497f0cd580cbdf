"""The private tree in which the servers and the command run, with a service for each level."""

import json
import os
import shutil
import subprocess
import sys
from typing import NoReturn

from keys import DH_FILES, PROJECT, run

LEVELS = ("modern", "intermediate", "old")
DH_DIRECTORY = "/usr/kelo/etc/ssl"
# The directories that the appliance brings; the others are the command's to make.
APPLIANCE_DIRECTORIES = ("/usr/kelo/etc", "/usr/libexec/security-profile/tls-profile",
                         "/usr/local/libexec/security-profile/tls-profile", DH_DIRECTORY)


def enter_private_tree() -> None:
    """Starts this program again where it is not in one."""
    if "KELOTLS_PRIVATE_TREE" not in os.environ:
        start_inside()


def start_inside() -> NoReturn:
    program = os.path.join(PROJECT, "tests/bed/in_private_tree")
    os.execv(program, [program, "/usr/bin/python3", "-B", os.path.abspath(sys.argv[0]),
                       *sys.argv[1:]])


def make_services(command: str) -> None:
    """A service of each level, by its name."""
    for directory in APPLIANCE_DIRECTORIES:
        os.makedirs(directory, exist_ok=True)
    for bits in (1024, 2048):
        shutil.copy(DH_FILES[bits], f"{DH_DIRECTORY}/dh{bits}.pem")
    run(command, "init")
    registration = {"services": [{"service": level, "display-name": level} for level in LEVELS]}
    subprocess.run([command, "join", "-"], input=json.dumps(registration), text=True, check=True,
                   stdout=subprocess.DEVNULL)
    for level in LEVELS:
        run(command, "set", level, level)
