import shutil

from recipe import Recipe

# MQTT's CONNECT of a client without a name, PINGREQ and PINGRESP.
CONNECT = b"\x10\x0c\x00\x04MQTT\x04\x02\x00\x3c\x00\x00"


def give_to_mosquitto() -> None:
    for path in ("/usr/kelo/etc/ssl/mosquitto.key", "/usr/kelo/run/mosquitto"):
        shutil.chown(path, "mosquitto", "mosquitto")


RECIPE = Recipe(
    packages=("mosquitto",),
    command=("/usr/sbin/mosquitto", "-c", "/usr/kelo/etc/mosquitto/mosquitto.conf"),
    files={"mosquitto.conf": "/usr/kelo/etc/mosquitto/mosquitto.conf",
           "listener.conf": "/usr/kelo/etc/mosquitto/listener.conf"},
    opening=CONNECT,
    talk=(b"\xc0\x00", b"\xd0\x00"),
    keeps_connections=False,
    restarts=True,
    users={"mosquitto": 112},
    prepare=give_to_mosquitto)
