"""The private tree as data, its system log, and the traced subject."""

import collections
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import threading

FRAMEWORK = "/usr/kelo/etc/security-profile/tls-profile/"
STORE = FRAMEWORK + "datastore.json"
SERVICES = FRAMEWORK + "services/"
CONFIG = FRAMEWORK + "config/"
SYSTEM_RELOADERS = "/usr/libexec/security-profile/tls-profile/"
PACKAGE_RELOADERS = "/usr/local/libexec/security-profile/tls-profile/"
DH_DIRECTORY = "/usr/kelo/etc/ssl/"
ELSEWHERE = "/usr/kelo/data/"  # where a linked data store lies

DIRECTORIES = (SERVICES, CONFIG, SYSTEM_RELOADERS, PACKAGE_RELOADERS, DH_DIRECTORY, ELSEWHERE)
ROOTS = ("/usr/kelo", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile")
SUBJECT = os.environ.get("FAULT_SUBJECT", "")


# A tree maps the path of each file to (mode, bytes) and the path of each link to its target.

def make_tree(tree):
    for root in ROOTS:
        for entry in os.scandir(root) if os.path.isdir(root) else ():
            if entry.is_dir(follow_symlinks=False):
                shutil.rmtree(entry.path)
            else:
                os.unlink(entry.path)
    for directory in DIRECTORIES:
        os.makedirs(directory)
    for path, entry in tree.items():
        if isinstance(entry, str):
            os.symlink(entry, path)
            continue
        with open(path, "wb") as file:
            file.write(entry[1])
        os.chmod(path, entry[0])


def read_tree():
    tree = {}
    for root in ROOTS:
        for directory, directories, files in os.walk(root):
            for name in files + directories:
                path = os.path.join(directory, name)
                if os.path.islink(path):
                    tree[path] = os.readlink(path)
                elif name in files:
                    with open(path, "rb") as file:
                        tree[path] = (stat.S_IMODE(os.stat(path).st_mode), file.read())
    return tree


class SystemLog:
    """A datagram socket at /dev/log, read by a thread: syslog waits while its queue is full."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sender.connect("/dev/log")
        self.lines, self.marked = [], threading.Event()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while True:
            datagram = self.socket.recv(65536)
            if datagram == b"mark":
                self.marked.set()
            else:  # "<11>Nov 21 03:00:00 program: message"
                self.lines.append(datagram.decode().split(": ", 1)[1])

    def take(self):
        self.sender.send(b"mark")  # datagrams keep their order
        self.marked.wait()
        self.marked.clear()
        lines, self.lines = self.lines, []
        return lines


class Call:
    """One system call of a trace; ordinal counts the calls of its name from the program's start."""

    def __init__(self, name, ordinal, arguments, result):
        self.name, self.ordinal, self.arguments, self.result = name, ordinal, arguments, result

    def __str__(self):
        return f"{self.name}({self.arguments[:150]}) = {self.result}"


class Run:
    """What one run of the subject gave: status, a (result, new descriptors) per operation, log."""

    def __init__(self, status, output, log, trace):
        self.status, self.log, self.trace = status, log, trace
        self.results = [tuple(map(int, line.split())) for line in output.splitlines()]
        self.injected = collections.Counter(
            re.findall(r"^(\w+)\(.*\(INJECTED\)", trace, re.MULTILINE))

    def calls(self):
        """The calls of the first operation, in order."""
        counts, calls, inside = {}, [], False
        for line in self.trace.splitlines():
            match = re.match(r"(\w+)\((.*)\)\s+= (.*)", line)
            if not match:
                continue
            name, arguments, result = match.groups()
            counts[name] = counts.get(name, 0) + 1
            if "/operation-ends" in arguments:
                return calls
            if inside:
                calls.append(Call(name, counts[name], arguments, result))
            inside = inside or "/operation-begins" in arguments
        raise SystemExit("the trace has no end of the operation:\n" + self.trace[-2000:])


class PrivateTree:
    def __init__(self):
        os.umask(0o022)
        self.log = SystemLog()

    def run(self, words, inject=(), trace=None, file_bytes=None, survive=False):
        """Runs the subject; trace names the calls to trace, "all" for all of them."""
        command, environment, output = [], dict(os.environ), "/tmp/trace"
        if trace:
            command = ["strace", "-qq", "-y", "-s", "100000", "-o", output, "-e", "trace=" + trace]
            command += ["--signal=none"]
            for injection in inject:
                command += ["-e", "inject=" + injection]
        if file_bytes is not None:
            environment["FAULT_FILE_BYTES"] = str(file_bytes)
        if survive:
            environment["FAULT_IGNORE_SIZE_SIGNAL"] = "1"
        ended = subprocess.run(command + [SUBJECT] + list(words), env=environment, text=True,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, timeout=60)
        if ended.stderr:
            raise SystemExit(f"{words}: {ended.stderr}")
        text = ""
        if trace:
            with open(output, encoding="utf-8") as file:
                text = file.read()
        return Run(ended.returncode, ended.stdout, self.log.take(), text)


KILLED = -signal.SIGKILL
KILLED_BY_SIZE = -signal.SIGXFSZ
