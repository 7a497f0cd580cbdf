"""Serves the page on this machine, over an appliance of its own, until it is interrupted.

    serve.py [--port PORT] BUILD PAGE SERVICES

The appliance is a private tree with a network of its own; a socket in a directory of both leads into it. Whoever
has the password is root there, and may read what this user may: so it is a new one each time.
"""

import argparse
import os
import secrets
import signal
import socket
import subprocess
import sys
import tempfile
import threading

import bed

USER = "root"
PASSWORD_VARIABLE = "KELOTLS_DEMO_PASSWORD"
CLIENTS_SECONDS = 2  # between two of the clients that come by themselves


def forward(listener, connect):
    """What comes to one socket goes to another."""
    def pass_on(client):
        with client, connect() as server:
            back = threading.Thread(target=bed.copy, args=(server, client), daemon=True)
            back.start()
            bed.copy(client, server)
            back.join()

    def accept():
        while True:
            client, _ = listener.accept()
            threading.Thread(target=pass_on, args=(client,), daemon=True).start()

    listener.listen(128)
    threading.Thread(target=accept, daemon=True).start()


def connected(family, address):
    way = socket.socket(family)
    way.connect(address)
    return way


# Inside of the tree


def make_appliance(appliance):
    appliance.make()
    for name, display in (("portal", "Web portal"), ("files", "File sharing"), ("mail", "Mail"),
                          ("printer", "Printing")):
        appliance.join({"service": name, "display-name": display})
    appliance.command("set", "portal", "modern", "--apply", "--reason", "nothing old comes to it")
    appliance.begin("clients", "record", "nginx")


def serve_inside(build, page, directory):
    bed.prepare_tree(os.path.join(build, "tools/kelotlsctl"), page, os.environ.pop(PASSWORD_VARIABLE))
    appliance = bed.Appliance(build)
    make_appliance(appliance)
    bed.Cockpit().start()
    for name, port in (("nginx", bed.NGINX_PORT), ("cockpit", bed.COCKPIT_PORT)):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(os.path.join(directory, name))
        forward(listener, lambda port=port: connected(socket.AF_INET, ("127.0.0.1", port)))
    while True:
        for version in ("tls1_2", "tls1_3"):
            bed.accepts(bed.NGINX_PORT, version)
            threading.Event().wait(CLIENTS_SECONDS)


# Outside of it


def listen(port):
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    return listener


def serve(arguments):
    password = secrets.token_urlsafe(9)
    command = [*map(os.path.abspath, (arguments.build, arguments.page))]
    with tempfile.TemporaryDirectory() as directory:
        tree = subprocess.Popen(
            [bed.PROJECT / "tests/bed/in_private_tree", "--services", os.path.abspath(arguments.services),
             "--writable", directory, "/usr/bin/python3", "-B", __file__, "--inside", directory, *command],
            stdin=subprocess.DEVNULL, env={**os.environ, PASSWORD_VARIABLE: password})
        try:
            bed.wait_until(lambda: os.path.exists(os.path.join(directory, "cockpit")) or tree.poll() is not None,
                           "it is served")
            if tree.poll() is not None:
                return "The appliance could not be made."
            ports = {}
            for name, port in (("cockpit", arguments.port), ("nginx", 0)):
                listener = listen(port)
                forward(listener, lambda name=name: connected(socket.AF_UNIX, os.path.join(directory, name)))
                ports[name] = listener.getsockname()[1]
            print(f"""The page:  http://127.0.0.1:{ports['cockpit']}/kelotls
Log in as: {USER}
Password:  {password}

The web server whose level can be changed there, as a client sees it:
  openssl s_client -connect 127.0.0.1:{ports['nginx']} -tls1_2 < /dev/null

Ctrl-C ends it; nothing of it stays.""", flush=True)
            tree.wait()
            return "The appliance has ended."
        except KeyboardInterrupt:
            return None
        finally:
            tree.terminate()
            tree.wait()


def interrupt(*_):
    raise KeyboardInterrupt


def main():
    if sys.argv[1:2] == ["--inside"]:
        directory, build, page = sys.argv[2:]
        serve_inside(build, page, directory)
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("build")
    parser.add_argument("page")
    parser.add_argument("services")
    signal.signal(signal.SIGTERM, interrupt)
    return serve(parser.parse_args())


if __name__ == "__main__":
    sys.exit(main())
