import os
import shutil

from recipe import Recipe


def prepare() -> None:
    os.makedirs("/run/squid")
    for directory in ("/run/squid", "/usr/kelo/var/squid"):
        shutil.chown(directory, "daemon", "daemon")


RECIPE = Recipe(
    packages=("squid-openssl",),
    command=("/usr/sbin/squid", "--foreground", "-f", "/usr/kelo/etc/squid/squid.conf"),
    files={"squid.conf": "/usr/kelo/etc/squid/squid.conf"},
    talk=(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HTTP/1.1 403"),
    prepare=prepare)
