from recipe import Recipe
from recipes.openssl import allow_what_the_machine_allows

DIRECTORY = "/usr/kelo/etc/vsftpd"

RECIPE = Recipe(
    packages=("vsftpd",),
    command=(f"{DIRECTORY}/server",),
    files={name: f"{DIRECTORY}/{name}" for name in ("openssl.cnf", "vsftpd.conf", "server")},
    talk=(b"NOOP\r\n", b"530 "),
    keeps_connections=False,
    restarts=True,
    prepare=lambda: allow_what_the_machine_allows(f"{DIRECTORY}/openssl.cnf"))
