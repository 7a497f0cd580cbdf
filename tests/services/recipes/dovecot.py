from recipe import Recipe

RECIPE = Recipe(
    packages=("dovecot-core", "dovecot-imapd"),
    command=("/usr/sbin/dovecot", "-F", "-c", "/usr/kelo/etc/dovecot/dovecot.conf"),
    files={"dovecot.conf": "/usr/kelo/etc/dovecot/dovecot.conf"},
    talk=(b"a NOOP\r\n", b"a OK"),
    users={"dovecot": 113, "dovenull": 114})
