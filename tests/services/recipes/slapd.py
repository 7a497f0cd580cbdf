import os
import shutil
import subprocess

from recipe import Recipe

CONFIGURATION = "/usr/kelo/var/slapd/config"
# An anonymous search for the root entry, and the searchResDone that says success.
SEARCH = (b"\x30\x25\x02\x01\x01\x63\x20\x04\x00\x0a\x01\x00\x0a\x01\x00\x02\x01\x00\x02\x01\x00"
          b"\x01\x01\x00\x87\x0bobjectClass\x30\x00")
SUCCESS = b"\x65\x07\x0a\x01\x00"


def make_configuration() -> None:
    os.mkdir(CONFIGURATION, 0o750)
    for path in (CONFIGURATION, "/usr/kelo/run/slapd", "/usr/kelo/etc/ssl/slapd.key"):
        shutil.chown(path, "openldap", "openldap")
    subprocess.run(["setpriv", "--reuid=openldap", "--regid=openldap", "--clear-groups",
                    "/usr/sbin/slapadd", "-n", "0", "-F", CONFIGURATION,
                    "-l", "/usr/kelo/etc/slapd/config.ldif"], check=True)
    subprocess.run(["/usr/share/kelotls/services/slapd/reloader"], check=True)


RECIPE = Recipe(
    packages=("slapd", "ldap-utils"),
    command=("/usr/sbin/slapd", "-d", "0", "-u", "openldap", "-g", "openldap", "-F", CONFIGURATION,
             "-h", "ldap://localhost:3389 ldapi://%2Fusr%2Fkelo%2Frun%2Fslapd%2Fsocket"),
    files={"config.ldif": "/usr/kelo/etc/slapd/config.ldif"},
    talk=(SEARCH, SUCCESS),
    users={"openldap": 104},
    prepare=make_configuration)
