from recipe import Recipe

RECIPE = Recipe(
    packages=("haproxy",),
    command=("/usr/sbin/haproxy", "-W", "-p", "/usr/kelo/run/haproxy.pid",
             "-f", "/usr/kelo/etc/security-profile/tls-profile/config/haproxy.conf",
             "-f", "/usr/kelo/etc/haproxy/haproxy.cfg"),
    files={"haproxy.cfg": "/usr/kelo/etc/haproxy/haproxy.cfg"},
    talk=(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"Served by haproxy."),
    keeps_connections=False)  # of those that are open, it ends the idle ones
