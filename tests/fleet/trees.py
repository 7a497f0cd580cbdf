"""Appliances: each a tree of its own, with its own files, processes and network, without Python."""

import dataclasses
import os
import pathlib
import shutil
import signal
import subprocess
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PATIENCE = 60  # seconds; a condition that takes longer has failed


def wait_until(condition, what: str) -> None:
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"after {PATIENCE} s not yet: {what}")
        time.sleep(0.02)


@dataclasses.dataclass
class Tree:
    """One appliance. It is switched on by start() and keeps its files when it is switched off."""

    name: str
    directory: pathlib.Path
    image: pathlib.Path
    process: subprocess.Popen | None = None

    @property
    def kelo(self) -> pathlib.Path:
        return self.directory / "data/kelo"

    @property
    def profile(self) -> pathlib.Path:
        return self.kelo / "etc/security-profile/tls-profile"

    def make(self) -> None:
        """Empty, as it comes from the factory."""
        for path in ("root", "data/kelo/etc/ssl", "data/kelo/run", "data/reloaders"):
            (self.directory / path).mkdir(parents=True, mode=0o755)

    def start(self) -> None:
        self.process = subprocess.Popen(
            # They go where the one who started them is gone.
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--net", "--pid", "--fork", "--kill-child",
             os.path.join(HERE, "boot_tree"), self.image, self.directory / "root",
             self.directory / "data"], stdin=subprocess.DEVNULL)

    def wait(self) -> None:
        """Until it has booted."""
        assert self.process is not None
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        wait_until(children.read_text, f"{self.name} has a first process")
        pid = children.read_text().strip()
        wait_until(lambda: os.path.exists(f"/proc/{pid}/root/run/booted"), f"{self.name} has booted")
        (self.directory / "pid").write_text(pid)

    def is_running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def stop(self) -> None:
        """As when the power goes."""
        if self.process is not None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()
            self.process = None
        (self.directory / "pid").unlink(missing_ok=True)

    def run(self, line: str) -> subprocess.CompletedProcess:
        return subprocess.run([os.path.join(HERE, "enter_tree"), self.directory, line],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)

    def must(self, line: str) -> str:
        result = self.run(line)
        assert result.returncode == 0, f"{self.name}: {line}: {result.stdout}"
        return result.stdout

    def accepts(self, port: int, version: str) -> bool:
        """Whether the server at the port takes a handshake of this version, as OpenSSL's client of the
        controller sees it."""
        pid = (self.directory / "pid").read_text()
        result = subprocess.run(
            ["nsenter", "--target", pid, "--net", "openssl", "s_client", "-connect",
             f"127.0.0.1:{port}", f"-{version}", "-brief"], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        assert "refused" not in result.stdout.lower() or "alert" in result.stdout.lower(), result.stdout
        return "CONNECTION ESTABLISHED" in result.stdout


def make_trees(image: pathlib.Path, directory: pathlib.Path, count: int) -> list[Tree]:
    shutil.rmtree(directory, ignore_errors=True)
    trees = [Tree(f"appliance-{number:02}", directory / f"{number:02}", image)
             for number in range(1, count + 1)]
    for tree in trees:
        tree.make()
    return trees
