import os

from recipe import PROJECT, Recipe

RECIPE = Recipe(
    packages=("python3",),
    command=("/usr/bin/python3", "-B", os.path.join(PROJECT, "examples/tls_service.py"),
             "--pid-file", "/usr/kelo/run/python.pid",
             "/usr/kelo/etc/security-profile/tls-profile/config/python.conf",
             "/usr/kelo/etc/ssl/python.pem", "8451"),
    files={},
    talk=(b"hello\n", b"TLSv1"))
