from recipe import Recipe

RECIPE = Recipe(
    packages=("apache2",),
    command=("/usr/sbin/apache2", "-f", "/usr/kelo/etc/apache2/apache2.conf", "-DFOREGROUND"),
    files={"apache2.conf": "/usr/kelo/etc/apache2/apache2.conf"},
    talk=(b"OPTIONS * HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HTTP/1.1 200"),
    keeps_connections=False)  # of those that are open, it ends the idle ones
