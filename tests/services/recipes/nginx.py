from recipe import Recipe

RECIPE = Recipe(
    packages=("nginx-light",),
    command=("/usr/sbin/nginx", "-c", "/usr/kelo/etc/nginx/nginx.conf", "-g", "daemon off;"),
    files={"nginx.conf": "/usr/kelo/etc/nginx/nginx.conf"},
    talk=(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HTTP/1.1 200"),
    keeps_connections=False)  # of those that are open, it ends the idle ones
