from recipe import Recipe

RECIPE = Recipe(
    packages=("cups-daemon",),
    command=("/usr/sbin/cupsd", "-f", "-c", "/usr/kelo/etc/cups/cupsd.conf",
             "-s", "/usr/kelo/etc/cups/cups-files.conf"),
    files={"cupsd.conf.in": "/usr/kelo/etc/cups/cupsd.conf.in",
           "cups-files.conf": "/usr/kelo/etc/cups/cups-files.conf"},
    talk=(b"OPTIONS / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HTTP/1.1 200"),
    keeps_connections=False,
    users={"lp": 7})
