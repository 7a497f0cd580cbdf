"""Starting servers that are programs of their own, and ending them."""

import dataclasses
import os
import socket
import subprocess
import threading
import time
from collections.abc import Callable
from typing import Protocol

from keys import DH_FILES, Keys

START_SECONDS = 20
POLL_SECONDS = 0.02


class NotStarted(Exception):
    """A server did not come up; the text says why."""


class Running(Protocol):
    """A server that is up."""

    def stop(self) -> None: ...


@dataclasses.dataclass
class Site:
    """What a server has for itself. The network is the tree's own, so that ports are given out in
    order and nobody else takes one; they stay below those that the kernel gives to clients."""
    directory: str
    port: int
    keys: Keys
    next_port: Callable[[], int]

    @property
    def socket_path(self) -> str:
        return os.path.join(self.directory, "socket")

    def path(self, name: str) -> str:
        return os.path.join(self.directory, name)

    def behind(self) -> "Site":
        """For the server that stands behind another one here."""
        directory = self.path("behind")
        os.makedirs(directory)
        return Site(directory, self.next_port(), self.keys, self.next_port)


Starter = Callable[[Site], Running]


class PortCounter:
    def __init__(self, first: int = 20000) -> None:
        self._next = first
        self._lock = threading.Lock()

    def __call__(self) -> int:
        with self._lock:
            self._next += 1
            return self._next


def connect(port: int, host: str = "127.0.0.1") -> socket.socket:
    return socket.create_connection((host, port), timeout=5)


class Program:
    """A server program. It is up when a connection succeeds."""

    def __init__(self, site: Site, command: list[str], try_connection: Callable[[], socket.socket],
                 environment: dict[str, str] | None = None) -> None:
        self._log = site.path("log")
        with open(self._log, "wb") as log:
            # What is written to the input is sent to clients, so it stays open and empty. A server
            # ends with the thread that started it, even where that is killed.
            self._process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *command], stdin=subprocess.PIPE, stdout=log,
                stderr=subprocess.STDOUT, cwd=site.directory,
                env={**os.environ, **(environment or {})})
        try:
            self._wait(command, try_connection)
        except BaseException:
            self.stop()
            raise

    def _wait(self, command: list[str], try_connection: Callable[[], socket.socket]) -> None:
        deadline = time.monotonic() + START_SECONDS
        while True:
            try:
                try_connection().close()
                return
            except OSError as error:
                reason = str(error)
            if self._process.poll() is not None:
                reason = f"ended with status {self._process.returncode}"
            elif time.monotonic() < deadline:
                time.sleep(POLL_SECONDS)
                continue
            with open(self._log, encoding="utf-8", errors="replace") as log:
                raise NotStarted(f"{' '.join(command)}: {reason}\n{log.read()}")

    def stop(self) -> None:
        self._process.kill()
        self._process.wait()
        assert self._process.stdin is not None
        self._process.stdin.close()


LENIENT_OPENSSL = """openssl_conf = all
[all]
ssl_conf = ssl
[ssl]
system_default = lenient
[lenient]
MinProtocol = TLSv1
CipherString = DEFAULT@SECLEVEL=0
"""


def openssl_environment(site: Site, lenient: bool) -> dict[str, str]:
    """Debian's own settings refuse what is weak; the lenient ones refuse nothing."""
    path = site.path("openssl.cnf")
    with open(path, "w", encoding="ascii") as file:
        file.write(LENIENT_OPENSSL if lenient else "")
    return {"OPENSSL_CONF": path}


def openssl_server(*options: str, certificates: tuple[str, ...] = ("rsa",), suites: str = "",
                   groups: tuple[str, ...] = (), lenient: bool = False, dh: int = 0,
                   tickets: bool = False, address: str = "IPv4") -> Starter:
    """openssl s_server(1). Without tickets unless asked for, as the levels want it. The option -www
    answers requests, so that a connection does not wait for input."""

    def start(site: Site) -> Running:
        way, connection = openssl_address(site, address)
        command = ["openssl", "s_server", "-www", "-quiet", *way, *options]
        for letter, name in zip(("", "d"), certificates):
            command += [f"-{letter}cert", site.keys.certificate(name),
                        f"-{letter}key", site.keys.key(name)]
        command += [] if tickets else ["-no_ticket"]
        if suites or lenient:
            command += ["-cipher", (suites or "DEFAULT") + (":@SECLEVEL=0" if lenient else "")]
        command += ["-groups", ":".join(groups)] if groups else []
        command += ["-dhparam", DH_FILES[dh]] if dh else []
        return Program(site, command, connection, openssl_environment(site, lenient))

    return start


def openssl_address(site: Site, address: str) -> tuple[list[str], Callable[[], socket.socket]]:
    """Where s_server listens, and how to connect to it."""
    if address == "IPv6":
        return ["-6", "-accept", f"[::1]:{site.port}"], lambda: connect(site.port, "::1")
    return ["-accept", f"127.0.0.1:{site.port}"], lambda: connect(site.port)


def gnutls_server(priority: str, *options: str, certificates: tuple[str, ...] = ("rsa",),
                  asks_for_certificate: bool = False) -> Starter:
    """gnutls-serv(1)."""

    def start(site: Site) -> Running:
        command = ["gnutls-serv", "--quiet", "--http", "--port", str(site.port), "--priority",
                   priority, *options]
        command += ["--require-client-cert" if asks_for_certificate else "--disable-client-cert"]
        for name in certificates:
            command += ["--x509certfile", site.keys.certificate(name),
                        "--x509keyfile", site.keys.key(name)]
        return Program(site, command, lambda: connect(site.port))

    return start


NGINX = """
daemon off;
master_process off;
pid {directory}/pid;
error_log {directory}/errors;
events {{ worker_connections 512; }}
http {{
  access_log off;
  client_body_temp_path {directory}/a;
  proxy_temp_path {directory}/b;
  fastcgi_temp_path {directory}/c;
  uwsgi_temp_path {directory}/d;
  scgi_temp_path {directory}/e;
  {certificates}
  {settings}
  {before}
  server {{
    listen 127.0.0.1:{port} ssl;
    server_name localhost;
  }}
}}
"""


def nginx_server(settings: str, certificates: tuple[str, ...] = ("rsa",), lenient: bool = False,
                 before: str = "", asks_for_certificate: bool = False) -> Starter:
    """nginx with these settings of its module ssl. What stands before its server block is another
    one; {port} and {socket} in it are the site's."""

    def start(site: Site) -> Running:
        lines = "\n".join(f"ssl_certificate {site.keys.certificate(name)};"
                          f" ssl_certificate_key {site.keys.key(name)};" for name in certificates)
        if asks_for_certificate:
            lines += f"ssl_verify_client on; ssl_client_certificate {site.keys.certificate('rsa')};"
        with open(site.path("nginx.conf"), "w", encoding="ascii") as file:
            file.write(NGINX.format(
                directory=site.directory, port=site.port, certificates=lines, settings=settings,
                before=before.replace("{port}", str(site.port)).replace(
                    "{socket}", site.socket_path)))
        command = ["/usr/sbin/nginx", "-p", site.directory, "-e", site.path("errors"), "-c",
                   site.path("nginx.conf")]
        return Program(site, command, lambda: connect(site.port),
                       openssl_environment(site, lenient))

    return start
