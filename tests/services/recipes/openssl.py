import os

from recipe import Recipe

MAIN = "/usr/kelo/etc/openssl/openssl.cnf"


def allow_what_the_machine_allows(path: str) -> None:
    """Where the machine's OpenSSL is at security level 0, a configuration of a server's own has to
    say so too, as it takes the place of the machine's."""
    if "OPENSSL_CONF" in os.environ:
        with open(path, encoding="ascii") as file:
            text = file.read()
        allowed = text.replace("#allowed.", "allowed.")
        assert allowed != text
        with open(path, "w", encoding="ascii") as file:
            file.write(allowed)


RECIPE = Recipe(
    packages=("openssl",),
    command=("/usr/kelo/etc/openssl/server",),
    files={"openssl.cnf": MAIN, "server": "/usr/kelo/etc/openssl/server"},
    talk=(b"hello\n", b"olleh"),
    keeps_connections=False,
    restarts=True,
    prepare=lambda: allow_what_the_machine_allows(MAIN))
