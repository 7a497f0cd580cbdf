"""A secure shell server of the tests' own, which enters an appliance's tree for each key."""

import os
import pathlib
import subprocess

from trees import HERE, wait_until

PORT = 2222
OPTIONS = """
ListenAddress 0.0.0.0
Port {port}
HostKey {directory}/host
AuthorizedKeysFile {directory}/authorized_keys
PidFile {directory}/sshd.pid
StrictModes no
UsePAM no
PermitRootLogin yes
PasswordAuthentication no
MaxStartups 100
MaxSessions 100
"""


class SecureShell:
    """Each appliance has a key of its own; whoever comes with it is in its tree."""

    def __init__(self, directory: pathlib.Path) -> None:
        self.directory = directory

    def start(self, trees: list[pathlib.Path]) -> None:
        self.directory.mkdir()
        os.makedirs("/run/sshd", mode=0o755, exist_ok=True)
        lines = []
        for index, tree in enumerate(trees):
            public = self.make_key(str(index))
            lines.append(f'command="{HERE}/enter_tree {tree}",no-pty {public}')
        self.make_key("host")
        (self.directory / "authorized_keys").write_text("".join(lines))
        settings = self.directory / "sshd_config"
        settings.write_text(OPTIONS.format(port=PORT, directory=self.directory))
        subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "/usr/sbin/sshd", "-D", "-f", settings,
                          "-E", self.directory / "log"], stdin=subprocess.DEVNULL)
        wait_until((self.directory / "sshd.pid").exists, "sshd listens")

    def make_key(self, name: str) -> str:
        path = self.directory / name
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", name, "-f", path],
                       check=True)
        return path.with_suffix(".pub").read_text()

    def variables(self, index: int) -> dict[str, object]:
        """Of the inventory. The address is one for each, so that no connection is shared."""
        return {"ansible_connection": "ssh", "ansible_host": f"127.0.0.{index + 1}",
                "ansible_port": PORT, "ansible_user": "root",
                "ansible_ssh_private_key_file": str(self.directory / str(index)),
                "ansible_ssh_common_args":
                    f"-F none -o UserKnownHostsFile={self.directory}/known_hosts "
                    "-o IdentitiesOnly=yes -o LogLevel=ERROR"}
