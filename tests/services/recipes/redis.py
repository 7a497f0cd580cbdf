import shutil

from recipe import Recipe


def give_to_redis() -> None:
    for path in ("/usr/kelo/etc/ssl/redis.key", "/usr/kelo/run/redis", "/usr/kelo/var/redis"):
        shutil.chown(path, "redis", "redis")


RECIPE = Recipe(
    packages=("redis-server",),
    command=("setpriv", "--reuid=redis", "--regid=redis", "--clear-groups",
             "/usr/bin/redis-server", "/usr/kelo/etc/redis/redis.conf"),
    files={"redis.conf": "/usr/kelo/etc/redis/redis.conf"},
    talk=(b"PING\r\n", b"+PONG\r\n"),
    users={"redis": 110},
    prepare=give_to_redis)
