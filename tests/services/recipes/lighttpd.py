from recipe import Recipe

RECIPE = Recipe(
    packages=("lighttpd", "lighttpd-mod-openssl"),
    # It starts itself anew by this path, and cannot write a pid file then.
    command=("/bin/sh", "-c", "echo $$ > /usr/kelo/run/lighttpd.pid; "
             "exec /usr/sbin/lighttpd -D -f /usr/kelo/etc/lighttpd/lighttpd.conf"),
    files={"lighttpd.conf": "/usr/kelo/etc/lighttpd/lighttpd.conf"},
    talk=(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HTTP/1.1 403"),
    keeps_connections=False)  # of those that are open, it ends the idle ones
