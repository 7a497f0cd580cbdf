"""What the page stands on in the tests: an appliance with nginx and the C service, and Cockpit's own web
server, session and bridge over it. Runs as root of a private tree, and makes of it what it needs."""

import ctypes
import fcntl
import json
import os
import pathlib
import shutil
import signal
import socket
import socketserver
import subprocess
import threading
import time

import privileged_bridge

HERE = pathlib.Path(__file__).parent
PROJECT = HERE.parent.parent
KELO = pathlib.Path("/usr/kelo")
PROFILE = KELO / "etc/security-profile/tls-profile"
STORE = PROFILE / "datastore.json"
SERVICES = pathlib.Path("/usr/share/kelotls/services")
LOCAL = pathlib.Path("/usr/local")
KELOTLSCTL = LOCAL / "sbin/kelotlsctl"
RELOADERS = [pathlib.Path(prefix) / "libexec/security-profile/tls-profile" for prefix in ("/usr", "/usr/local")]
FRAMEWORK = [KELO, *RELOADERS]
KEPT = pathlib.Path("/tmp/made-appliance")
COCKPIT_PORT, DOOR_PORT, NGINX_PORT, TLS_SERVICE_PORT = 9090, 9091, 8443, 8444
PASSWORD = "secret"
OTHER_COCKPIT = "KELOTLS_COCKPIT"  # names the directory of another version, unpacked, in the environment
HOMES = pathlib.Path("/run/home")
USERS = {"root": 0, "operator": 1000, "viewer": 1001}
PATIENCE = int(os.environ.get("KELOTLS_PATIENCE", "40"))  # seconds; a condition that takes longer has failed
PR_SET_CHILD_SUBREAPER = 36


def wait_until(condition, what, patience=PATIENCE):
    """What the condition gives once that is true."""
    end = time.monotonic() + patience
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > end:
            raise AssertionError(f"after {patience} s not yet: {what() if callable(what) else what}")
        time.sleep(0.03)


# The tree


def run(*command, **options):
    return subprocess.run(command, check=True, stdin=subprocess.DEVNULL, **options)


def link_anew(path, target):
    """An entry of a directory that the tree shows of the machine becomes one of the tree's own."""
    path.unlink(missing_ok=True)
    path.symlink_to(target)


def use_cockpit(root):
    """Another version's unpacked packages take the place of the machine's Cockpit."""
    for place in ("usr/lib/cockpit", "usr/bin/cockpit-bridge"):
        run("mount", "--bind", root / place, pathlib.Path("/", place))
    modules = next(LOCAL.glob("lib/python3.*/dist-packages"))
    run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", modules)
    (modules / "cockpit").symlink_to(root / "usr/lib/python3/dist-packages/cockpit")


def add_page(page, root):
    """Installs the page's directory where Cockpit looks for packages, beside those that frame it."""
    packages = pathlib.Path("/usr/share/cockpit")
    machines = root / "usr/share/cockpit" if root else packages.resolve()
    packages.unlink()
    packages.mkdir()
    for name in ("base1", "branding", "shell", "static"):
        (packages / name).symlink_to(machines / name)
    (packages / "kelotls").symlink_to(page)


def add_users(password):
    """Who may log in, with the password of all; the login is PAM's own."""
    HOMES.mkdir()
    hashed = subprocess.run(["openssl", "passwd", "-6", "-stdin"], input=password, stdout=subprocess.PIPE, text=True,
                            check=True).stdout.strip()
    for name, number in USERS.items():
        (HOMES / name).mkdir()
        os.chown(HOMES / name, number, number)
    for name, mode, text in (
            ("passwd", 0o644, "".join(f"{name}:x:{number}:{number}:{name}:{HOMES / name}:/bin/sh\n"
                                      for name, number in USERS.items())
             + "nobody:x:65534:65534:nobody:/:/bin/false\n"),
            ("shadow", 0o600, "".join(f"{name}:{hashed}:1::::::\n" for name in USERS)),
            ("shells", 0o644, "/bin/sh\n")):
        path = pathlib.Path("/etc", name)
        path.unlink(missing_ok=True)
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)
    link = pathlib.Path("/etc/pam.d")
    link.unlink()
    link.mkdir()
    (link / "cockpit").write_text("".join(
        f"{kind} required pam_{'permit' if kind == 'session' else 'unix'}.so\n"
        for kind in ("auth", "account", "password", "session")), encoding="utf-8")


def configure_cockpit():
    """Nobody becomes root by sudo in a private tree, where no program gains rights. In its place is what
    connects to a socket, behind which root's own bridge is started for those who may."""
    link = pathlib.Path("/etc/cockpit")
    link.unlink()
    link.mkdir()
    (link / "cockpit.conf").write_text("[WebService]\nAllowUnencrypted=true\n"
                                      "[basic]\nCommand=/usr/lib/cockpit/cockpit-session\n", encoding="utf-8")
    sudo = LOCAL / "bin/sudo"
    sudo.write_text(f"#!/bin/sh\nexec /usr/bin/python3 -B {HERE}/privileged_bridge.py\n", encoding="ascii")
    sudo.chmod(0o755)


def prepare_tree(kelotlsctl, page, password=PASSWORD):
    """Once for each tree."""
    assert os.environ.get("KELOTLS_PRIVATE_TREE") == "1", "this is for a private tree alone"
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
    os.umask(0o022)
    for place in ("/etc", "/usr/share"):
        run("mount", "-o", "remount,rw", place)
    for name in ("bin", "sbin"):  # the machine's own are shown read-only
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", LOCAL / name)
    root = os.environ.get(OTHER_COCKPIT)
    if root:
        use_cockpit(pathlib.Path(root))
    add_page(page, root and pathlib.Path(root))
    add_users(password)
    configure_cockpit()
    link_anew(SERVICES.parent / "known_clients.json", PROJECT / "tools/kelotlsctl/clients/known_clients.json")
    link_anew(KELOTLSCTL, kelotlsctl)


# Processes


def children():
    text = pathlib.Path(f"/proc/self/task/{os.getpid()}/children").read_text(encoding="utf-8")
    return {int(word) for word in text.split()}


def end_children(spared):
    """Those that have been orphaned become this process's own."""
    for _ in range(100):
        left = children() - spared
        if not left:
            return
        for process in left:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        for process in left:
            try:
                os.waitpid(process, 0)
            except ChildProcessError:
                pass


def is_listening(port):
    with socket.socket() as client:
        return client.connect_ex(("127.0.0.1", port)) == 0


# The appliance


def empty(directory):
    directory.mkdir(parents=True, exist_ok=True)
    for entry in directory.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry)
        else:
            entry.unlink()


def replace_content(directory, source):
    empty(directory)
    shutil.copytree(source, directory, symlinks=True, dirs_exist_ok=True)


class Appliance:
    """The framework's files and two running servers; made anew for each test."""

    def __init__(self, build):
        self.build = pathlib.Path(build)
        self.certificate = pathlib.Path("/tmp/rsa.pem")
        if not self.certificate.exists():
            run(PROJECT / "tests/bed/make_certificates", "/tmp")

    def make_empty(self):
        """As it comes from the factory: nothing has joined."""
        for directory in FRAMEWORK:
            empty(directory)
        for directory in (PROFILE / "services", PROFILE / "config", KELO / "run", KELO / "etc/ssl",
                          KELO / "etc/nginx", KELO / "share", *RELOADERS):
            directory.mkdir(parents=True, exist_ok=True)
        for name in ("dh1024.pem", "dh2048.pem"):
            shutil.copy(PROJECT / "tests/bed/data" / name, KELO / "etc/ssl")
        self.command("init", "--default", "intermediate")

    def make(self):
        """With two services, both served: one by its template, one by the library."""
        if KEPT.exists():
            for directory in FRAMEWORK:
                replace_content(directory, KEPT / str(directory).lstrip("/"))
            self.start_servers()
            return
        self.make_empty()
        self.install_servers()
        self.command("join", str(SERVICES / "nginx/registration.json"))
        self.command("join", str(KELO / "share/tls_service/registration.json"))
        self.command("address", "tls_service", f"localhost:{TLS_SERVICE_PORT}")
        self.command("render")
        self.start_servers()
        wait_until(lambda: self.run("apply").returncode == 0, "all is in force")
        for directory in FRAMEWORK:
            shutil.copytree(directory, KEPT / str(directory).lstrip("/"), symlinks=True)
        for path in (KEPT / str(KELO).lstrip("/") / "run").iterdir():
            path.unlink()

    def install_servers(self):
        shutil.copy(SERVICES / "nginx/nginx.conf", KELO / "etc/nginx")
        shutil.copy(self.certificate, KELO / "etc/ssl/nginx.pem")
        shutil.copytree(PROJECT / "examples/tls_service", KELO / "share/tls_service")

    def start_servers(self):
        self.start_nginx()
        subprocess.Popen([self.build / "examples/tls_service", "--pid-file", KELO / "run/tls_service.pid",
                          "tls_service", self.certificate, str(TLS_SERVICE_PORT)],
                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        wait_until(lambda: is_listening(TLS_SERVICE_PORT), "the C service listens")

    def start_nginx(self):
        subprocess.Popen(["/usr/sbin/nginx", "-c", KELO / "etc/nginx/nginx.conf", "-g", "user root; daemon off;"],
                         stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(lambda: is_listening(NGINX_PORT), "nginx listens")

    def command(self, *arguments, code=0, stdin=None):
        """What an administrator does beside the page; its output, and as a document with --json."""
        result = self.run(*arguments, stdin=stdin)
        if code is not None:
            assert result.returncode == code, \
                f"kelotlsctl {' '.join(arguments)}: {result.returncode}: {result.stderr}{result.stdout}"
        return json.loads(result.stdout) if "--json" in arguments else result.stdout

    @staticmethod
    def run(*arguments, stdin=None):
        return subprocess.run([KELOTLSCTL, *arguments], input=stdin, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, check=False)

    @staticmethod
    def begin(*arguments):
        """The same, without waiting for its end."""
        return subprocess.Popen([KELOTLSCTL, *arguments], stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def level(self, service):
        return self.command("get", service, "--json")["stored-level"]["name"]

    def join(self, *services):
        """Services from their members in a registration."""
        self.command("join", "-", stdin=json.dumps({"services": list(services)}))


def hold_lock():
    """The lock of all that write, until what is returned is closed."""
    file = open(PROFILE / "lock", "r+", encoding="utf-8")
    fcntl.flock(file, fcntl.LOCK_EX)
    return file


# The wire


VERSIONS = ("tls1", "tls1_1", "tls1_2", "tls1_3")


def accepts(port, version):
    """Whether the server takes a handshake of this version, as OpenSSL's client sees it."""
    result = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{port}", f"-{version}", "-brief",
                             "-cipher", "ALL:@SECLEVEL=0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False, timeout=PATIENCE)
    assert "onnection refused" not in result.stdout, f"nobody listens at {port}"
    return "CONNECTION ESTABLISHED" in result.stdout


# Cockpit


class Cockpit:
    """The web server; it starts a session, and that a bridge, for each who logs in."""

    def __init__(self):
        self._process = None

    def start(self):
        with open("/tmp/cockpit-ws.log", "ab") as log:
            self._process = subprocess.Popen(
                ["/usr/lib/cockpit/cockpit-ws", "--no-tls", "--address", "127.0.0.1", "--port",
                 str(COCKPIT_PORT)], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: is_listening(COCKPIT_PORT), "Cockpit listens")

    @property
    def number(self):
        return self._process.pid

    def stop(self):
        self._process.kill()
        self._process.wait()


class Door:
    """The way between the browser and Cockpit, which can be shut as when the network is lost."""

    def __init__(self):
        self._open = set()
        self._lock = threading.Lock()
        self.is_shut = False
        door = self

        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                door.pass_on(self.request)

        class Server(socketserver.ThreadingTCPServer):
            allow_reuse_address = True
            daemon_threads = True
            request_queue_size = 128

        self._server = Server(("127.0.0.1", DOOR_PORT), Handler)
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def pass_on(self, client):
        with socket.socket() as server:
            with self._lock:
                if self.is_shut:
                    return
                self._open |= {client, server}
            try:
                server.connect(("127.0.0.1", COCKPIT_PORT))
                back = threading.Thread(target=copy, args=(server, client), daemon=True)
                back.start()
                copy(client, server)
                back.join()
            except OSError:
                pass
            finally:
                with self._lock:
                    self._open -= {client, server}

    def shut(self):
        with self._lock:
            self.is_shut = True
            for each in self._open:
                try:
                    each.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def open(self):
        with self._lock:
            self.is_shut = False


def copy(source, target):
    try:
        while piece := source.recv(65536):
            target.sendall(piece)
    except OSError:
        pass
    for each, how in ((target, socket.SHUT_WR), (source, socket.SHUT_RD)):
        try:
            each.shutdown(how)
        except OSError:
            pass


class PrivilegedDoor:
    """Starts a bridge of root's own for each user who may have it and asks."""

    def __init__(self):
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(privileged_bridge.SOCKET)
        os.chown(privileged_bridge.SOCKET, USERS["operator"], 0)
        os.chmod(privileged_bridge.SOCKET, 0o600)
        self._listener.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            threading.Thread(target=self._run_bridge, args=(self._listener.accept()[0],), daemon=True).start()

    @staticmethod
    def _run_bridge(connection):
        with connection:
            _, streams, _, _ = socket.recv_fds(connection, 16, 3)
            bridge = subprocess.Popen(
                ["cockpit-bridge", "--privileged"], stdin=streams[0], stdout=streams[1], stderr=streams[2],
                env={"PATH": os.environ["PATH"], "HOME": str(HOMES / "root"), "LANG": "C.UTF-8"})
            for stream in streams:
                os.close(stream)
            bridge.wait()
