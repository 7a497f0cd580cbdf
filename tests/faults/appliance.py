"""An appliance in a private tree whose management command is interrupted, and what is left of it."""

import collections
import ctypes
import json
import os
import re
import shutil
import subprocess
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FRAMEWORK = "/usr/kelo/etc/security-profile/tls-profile"
LINKS = "/usr/local/libexec/security-profile/tls-profile"
SERVICES = ("ftp", "mail", "web")
TEMPLATE = "".join(f"{{{{#mozilla_{level}}}}}{level}{{{{/mozilla_{level}}}}}"
                   for level in ("modern", "intermediate", "old"))
LEVELS = {0: "intermediate", 1: "modern", 2: "intermediate", 3: "old"}

# The calls by which a change takes effect, or waits. Each of their occurrences is a point.
CALLS = ("rename,renameat,renameat2,fsync,write,unlink,unlinkat,ftruncate,flock,clone,clone3,vfork,"
         "wait4,rt_sigtimedwait,rt_sigtimedwait_time64,mkdir,symlink,link,linkat,openat")


def write(path, text, mode=0o644):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(path, mode)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def registration(names):
    return json.dumps({"services": [
        {"service": name, "display-name": "", "mustache-path": "/usr/kelo/template.mustache",
         "reloader-path": f"/usr/kelo/reload-{name}"} for name in names]})


class Appliance:
    """Two services in force at the default level, intermediate, and one that is yet to join."""

    def __init__(self, command, calls=CALLS):
        self.command, self.calls = command, calls
        for directory in (f"{FRAMEWORK}/services", f"{FRAMEWORK}/config", LINKS,
                          "/usr/libexec/security-profile/tls-profile", "/usr/kelo/etc/ssl",
                          "/usr/kelo/serving"):
            os.makedirs(directory, exist_ok=True)
        for bits in (1024, 2048):
            shutil.copy(f"{PROJECT}/tests/bed/data/dh{bits}.pem", "/usr/kelo/etc/ssl/")
        write("/usr/kelo/template.mustache", TEMPLATE)
        for name in SERVICES:
            # Whole or not at all: it ends with the command that started it, and may be at any point then.
            served = f"/usr/kelo/serving/{name}"
            write(f"/usr/kelo/reload-{name}", "#!/bin/sh\n"
                  f"cp {FRAMEWORK}/config/{name}.conf {served}.new && exec mv {served}.new {served}\n", 0o755)
        write("/usr/kelo/registration.json", registration(("mail", "web")))
        write("/usr/kelo/ftp.json", registration(("ftp",)))
        for words in (["init"], ["join", "/usr/kelo/registration.json"], ["apply"]):
            self.require(words)
        self.keep("/tmp/joined")

    @staticmethod
    def keep(place):
        shutil.rmtree(place, ignore_errors=True)
        for directory in ("/usr/kelo", LINKS):
            shutil.copytree(directory, place + directory, symlinks=True)

    @staticmethod
    def reset(place):
        for directory in ("/usr/kelo", LINKS):
            for name in os.listdir(directory):
                path = f"{directory}/{name}"
                shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) else os.unlink(path)
            shutil.copytree(place + directory, directory, symlinks=True, dirs_exist_ok=True)

    def prepare(self, title, commands):
        """Where the state before the change is kept."""
        place = "/tmp/before " + title
        self.reset("/tmp/joined")
        for words in commands:
            self.require(words)
        self.keep(place)
        return place

    def require(self, words):
        """Runs a program, by its path, or else the command with these words. It has to succeed."""
        is_program = words[0].startswith("/")
        ended = subprocess.run(words if is_program else [self.command, *words], check=False,
                               capture_output=True, text=True)
        if ended.returncode:
            raise SystemExit(f"{words}: status {ended.returncode}: {ended.stderr}")

    def run(self, words, *tracing):
        return subprocess.run(["strace", "--output=/tmp/trace", *tracing, self.command, *words],
                              capture_output=True, text=True, check=False)

    def points(self, words):
        """(call, ordinal) of every call from the lock on."""
        self.run(words, f"--trace={self.calls}")
        seen, is_locked = collections.Counter(), False
        for line in read("/tmp/trace").splitlines():
            call = re.match(r"(\w+)\(", line)
            if call:
                seen[call[1]] += 1
                is_locked = is_locked or call[1] == "flock"
                if is_locked:
                    yield call[1], seen[call[1]]


# Of a service: its level in the store, whether it has a descriptor and a link, the level that its file is
# rendered for, and the one that its server has.
Seen = collections.namedtuple("Seen", "stored descriptor link rendered serving")


def stored_levels():
    try:
        store = json.loads(read(f"{FRAMEWORK}/datastore.json"))
    except (FileNotFoundError, json.JSONDecodeError):
        return {}
    return {name: LEVELS[entry["current-level"] or store["default-level"]]
            for name, entry in store["services"].items()}


def observe():
    def text(path):
        return read(path) if os.path.exists(path) else None

    stored = stored_levels()
    return {name: Seen(stored.get(name), os.path.exists(f"{FRAMEWORK}/services/{name}.conf"),
                       os.path.lexists(f"{LINKS}/{name}.conf"), text(f"{FRAMEWORK}/config/{name}.conf"),
                       text(f"/usr/kelo/serving/{name}")) for name in SERVICES}


def records():
    """The records of the history by their ids, oldest first."""
    found = {}
    for line in read(f"{FRAMEWORK}/history.jsonl").splitlines():
        record = json.loads(line)
        found.setdefault(record["id"], {}).update(record)
    return found


# The machine around it

BOOT_ID = "/run/boot_id"


def mount(source, target, kind, flags):
    if ctypes.CDLL(None, use_errno=True).mount(source.encode(), target.encode(), kind, flags, None):
        raise SystemExit(f"mount {target}: {os.strerror(ctypes.get_errno())}")


def take_over_machine():
    """Nothing goes on behind a command's back: systemd seems to run, but what it is told is only noted,
    in /run/systemd/asked. start_machine names each start of the machine; what a process that was killed
    has left running is this one's to wait for."""
    bind, set_child_subreaper = 4096, 36
    os.makedirs("/run/systemd/system")
    os.mkdir("/usr/host-bin")
    mount("/usr/bin", "/usr/host-bin", None, bind)
    mount("none", "/usr/bin", b"tmpfs", 0)
    for name in os.listdir("/usr/host-bin"):
        if not name.startswith("systemd-run") and name != "systemctl":
            os.symlink(f"/usr/host-bin/{name}", f"/usr/bin/{name}")
    for name in ("systemd-run", "systemctl"):
        write(f"/usr/bin/{name}", f"#!/bin/sh\necho {name} \"$@\" >> /run/systemd/asked\n", 0o755)
    start_machine()
    mount(BOOT_ID, "/proc/sys/kernel/random/boot_id", None, bind)
    ctypes.CDLL(None).prctl(set_child_subreaper, 1)


def start_machine():
    start_machine.count = getattr(start_machine, "count", 0) + 1
    write(BOOT_ID, f"start-{start_machine.count}\n")


def wait_for_orphans():
    try:
        while True:
            os.waitpid(-1, 0)
    except ChildProcessError:
        pass


def in_parts(title, script, fewest_points, work):
    """work(command, part, parts) yields, in a private tree of each part, (what was left, what is wrong
    with it or None) for each point. Prints NAME, POINTS, STATES and VIOLATIONS between tabs, and gives
    the exit status."""
    build = os.path.abspath(sys.argv[sys.argv.index("--build") + 1])
    if "--part" in sys.argv:
        part, parts = sys.argv[sys.argv.index("--part") + 1].split("/")
        for found in work(f"{build}/tools/kelotlsctl", int(part), int(parts)):
            print(json.dumps(found), flush=True)
        return 0
    parts = os.cpu_count()
    workers = [subprocess.Popen(
        [f"{PROJECT}/tests/bed/in_private_tree", "/usr/bin/python3", "-B", os.path.abspath(script),
         *sys.argv[1:], "--part", f"{part}/{parts}"], stdout=subprocess.PIPE, text=True)
        for part in range(parts)]
    found = [json.loads(line) for worker in workers for line in worker.communicate()[0].splitlines()]
    violations = [what for _, what in found if what]
    for violation in violations[:20]:
        print(violation, file=sys.stderr)
    print(title, len(found), len({state for state, _ in found}), len(violations), sep="\t")
    is_all = not {"--only", "--every", "--schedules"} & set(sys.argv)
    if len(found) < fewest_points and is_all:
        return f"only {len(found)} points: the sweep does not reach what it is about"
    return 1 if violations or any(worker.returncode for worker in workers) else 0
