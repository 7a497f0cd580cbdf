import shutil

from recipe import Recipe

# STUN's Binding request, and the beginning of the response.
BINDING = b"\x00\x01\x00\x00\x21\x12\xa4\x42Transaction "


def give_to_turnserver() -> None:
    for path in ("/usr/kelo/etc/ssl/coturn.key", "/usr/kelo/run/coturn", "/usr/kelo/var/coturn"):
        shutil.chown(path, "turnserver", "turnserver")


RECIPE = Recipe(
    packages=("coturn",),
    command=("/usr/bin/turnserver", "-c", "/usr/kelo/etc/coturn/turnserver.conf"),
    files={"main.conf": "/usr/kelo/etc/coturn/main.conf"},
    talk=(BINDING, b"\x01\x01"),
    keeps_connections=False,
    restarts=True,
    users={"turnserver": 109},
    prepare=give_to_turnserver)
