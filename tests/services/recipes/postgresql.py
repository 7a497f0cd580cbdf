import glob
import os
import shutil
import subprocess

from recipe import Recipe

PROGRAMS = max(glob.glob("/usr/lib/postgresql/*/bin"), default="/usr/lib/postgresql")
AS_POSTGRES = ("setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups")
DATA = "/usr/kelo/var/postgresql"
# PostgreSQL's StartupMessage, Query, and what CommandComplete says.
STARTUP = b"\x00\x00\x00\x17\x00\x03\x00\x00user\x00postgres\x00\x00"
QUERY = b"Q\x00\x00\x00\x0dSELECT 1\x00"


def make_cluster() -> None:
    for path in (DATA, "/usr/kelo/run/postgresql", "/usr/kelo/etc/ssl/postgresql.key"):
        shutil.chown(path, "postgres", "postgres")
    os.chmod(DATA, 0o700)
    os.chmod("/usr/kelo/etc/ssl/postgresql.key", 0o600)
    subprocess.run([*AS_POSTGRES, f"{PROGRAMS}/initdb", "--no-sync", "--auth=trust", DATA],
                   check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


RECIPE = Recipe(
    packages=("postgresql",),
    command=(*AS_POSTGRES, f"{PROGRAMS}/postgres", "-D", DATA,
             "--config-file=/usr/kelo/etc/postgresql/postgresql.conf"),
    files={"postgresql.conf": "/usr/kelo/etc/postgresql/postgresql.conf"},
    opening=STARTUP,
    talk=(QUERY, b"SELECT 1"),
    users={"postgres": 101},
    prepare=make_cluster)
