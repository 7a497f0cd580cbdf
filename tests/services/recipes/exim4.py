import shutil

from recipe import PROGRAMS, Recipe


def give_away_files() -> None:
    for path in ("/usr/kelo/var/exim4", "/usr/kelo/etc/ssl/exim4.key"):
        shutil.chown(path, "Debian-exim", "Debian-exim")


RECIPE = Recipe(
    packages=("exim4-daemon-light",),
    unpacked=("exim4-daemon-light",),
    command=(f"{PROGRAMS}/exim4-daemon-light/usr/sbin/exim4", "-bdf",
             "-C", "/usr/kelo/etc/exim4/exim.conf"),
    files={"exim.conf": "/usr/kelo/etc/exim4/exim.conf"},
    talk=(b"NOOP\r\n", b"250 "),
    users={"Debian-exim": 110},
    prepare=give_away_files)
