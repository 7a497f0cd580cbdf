import os

from recipe import PROJECT, Recipe

RECIPE = Recipe(
    packages=("nodejs",),
    # Node.js reads the machine's OpenSSL settings, and with them its security level, only if told.
    command=("/usr/bin/node", "--openssl-shared-config",
             os.path.join(PROJECT, "examples/tls_service.js"),
             "--pid-file", "/usr/kelo/run/nodejs.pid",
             "/usr/kelo/etc/security-profile/tls-profile/config/nodejs.conf",
             "/usr/kelo/etc/ssl/nodejs.pem", "8452"),
    files={},
    talk=(b"hello\n", b"TLSv1"))
