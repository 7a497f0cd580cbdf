import os

from recipe import Recipe


def prepare() -> None:
    os.mkdir("/usr/kelo/etc/stunnel4/settings")
    os.symlink("/usr/kelo/etc/security-profile/tls-profile/config/stunnel4.conf",
               "/usr/kelo/etc/stunnel4/settings/tls.conf")


RECIPE = Recipe(
    packages=("stunnel4", "systemd"),
    # The listener is opened before it starts, and stays open while it reloads.
    command=("/usr/bin/systemd-socket-activate", "--listen=127.0.0.1:8447",
             "/usr/bin/stunnel4", "/usr/kelo/etc/stunnel4/stunnel.conf"),
    files={"stunnel.conf": "/usr/kelo/etc/stunnel4/stunnel.conf"},
    talk=(b"hello\n", b"hello"),
    prepare=prepare)
