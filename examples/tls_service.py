#!/usr/bin/python3
"""A small TLS server that takes rendered settings: how a service in Python follows its level.

    tls_service.py [--pid-file PATH] SETTINGS.conf CERTIFICATE.pem [PORT]

SETTINGS.conf is what is rendered from the template in services/python. Serves on the loopback
interface, on a port of the kernel's choice without PORT. Answers each line with what was negotiated.
SIGHUP makes new connections take the settings as they are then; those that are open stay as they are.
SIGTERM ends it.
"""

import argparse
import configparser
import contextlib
import os
import signal
import socketserver
import ssl
import sys
from collections.abc import Iterator
from typing import Any

SILENCE_SECONDS = 60
LONGEST_LINE = 1024


def version_named(name: str) -> ssl.TLSVersion:
    """By OpenSSL's name, such as TLSv1.2."""
    return ssl.TLSVersion[name.replace(".", "_")]


def make_context(settings_path: str, certificate: str) -> ssl.SSLContext:
    """Each context has sessions of its own, so that none made at a weaker level is resumed at a
    stronger one."""
    settings = configparser.ConfigParser(interpolation=None)
    with open(settings_path, encoding="utf-8") as file:
        settings.read_file(file)
    tls = settings["tls"]
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate)
    context.minimum_version = version_named(tls["minimum_version"])
    context.maximum_version = version_named(tls["maximum_version"])
    if "ciphers" in tls:  # none where TLS 1.3 alone is served
        context.set_ciphers(tls["ciphers"])
    if "dh_file" in tls:
        context.load_dh_params(tls["dh_file"])
    context.set_ecdh_curve(tls["curve"])
    context.options |= ssl.OP_NO_TICKET
    context.num_tickets = 0  # OP_NO_TICKET leaves those of TLS 1.3 that refer to the server's cache
    if not tls.getboolean("server_order"):  # which a new context has
        context.options &= ~ssl.OP_CIPHER_SERVER_PREFERENCE
    return context


class Connection(socketserver.StreamRequestHandler):
    """Runs in a thread of its own, from the handshake on: a slow peer delays nobody."""

    server: "Service"
    timeout = SILENCE_SECONDS

    def setup(self) -> None:
        self.request = self.server.context.wrap_socket(
            self.request, server_side=True, do_handshake_on_connect=False)
        super().setup()

    def handle(self) -> None:
        self.request.do_handshake()
        negotiated = f"{self.request.version()} {self.request.cipher()[0]}\n".encode()
        while self.rfile.readline(LONGEST_LINE):
            self.wfile.write(negotiated)

    def finish(self) -> None:
        super().finish()
        self.request.close()  # the server closes only the socket that it accepted, now empty


class Service(socketserver.ThreadingTCPServer):
    """Serves a connection with the context that is current when it comes."""

    allow_reuse_address = True
    daemon_threads = True  # the end does not wait for open connections
    request_queue_size = 128

    def __init__(self, settings_path: str, certificate: str, port: int) -> None:
        self._files = (settings_path, certificate)
        self.context = make_context(*self._files)
        super().__init__(("127.0.0.1", port), Connection)

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A handshake that fails and a peer that goes away are nothing to report."""
        if not isinstance(sys.exc_info()[1], OSError):  # the errors of ssl are such, too
            super().handle_error(request, client_address)

    def reload(self) -> None:
        """A service that cannot have its new settings goes on with the old."""
        try:
            self.context = make_context(*self._files)
        except (OSError, configparser.Error, LookupError, ValueError) as error:
            print(f"tls_service.py: keeping the former settings: {error!r}", file=sys.stderr,
                  flush=True)


@contextlib.contextmanager
def process_file(path: str | None) -> Iterator[None]:
    if path is None:
        yield
        return
    with open(path, "w", encoding="ascii") as file:
        file.write(f"{os.getpid()}\n")
    try:
        yield
    finally:
        os.unlink(path)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--pid-file")
    parser.add_argument("settings")
    parser.add_argument("certificate")
    parser.add_argument("port", type=int, nargs="?", default=0)
    arguments = parser.parse_args()
    with Service(arguments.settings, arguments.certificate, arguments.port) as service:
        signal.signal(signal.SIGHUP, lambda *_: service.reload())
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        # The signals come by it, so their handlers are there first.
        with process_file(arguments.pid_file):
            print(f"listening on 127.0.0.1:{service.server_address[1]}", flush=True)
            service.serve_forever()


if __name__ == "__main__":
    main()
