"""A machine under qemu, with a disk whose cache does not survive, and what runs in it."""

import contextlib
import os
import re
import shutil
import select
import socket
import subprocess
import time

import power

HERE = os.path.dirname(os.path.abspath(__file__))
PATIENCE = 300  # seconds for one answer, on a machine that has much else to do
DISK_BYTES = 64 << 20

# What a file system is made with on the host, mounted with in the machine, and needs of the kernel. ext4 is
# taken as most have it, and without any care of its own for a file that replaces another; f2fs with files
# apart from their inodes, as a larger data store is, because an inode goes to the disk with its directory.
EXT4 = ["mkfs.ext4", "-q", "-b", "4096", "-E", "lazy_itable_init=0,lazy_journal_init=0"]
EXT4_MODULES = "crc16 mbcache jbd2 crc32c_generic ext4"
FILE_SYSTEMS = {
    "ext4": (EXT4, "-t ext4 -o data=ordered", EXT4_MODULES),
    "ext4, data=writeback": (EXT4, "-t ext4 -o data=writeback,noauto_da_alloc", EXT4_MODULES),
    "f2fs": (["mkfs.f2fs", "-q", "-f"], "-t f2fs -o noinline_data",
             "crc32_generic lz4_compress lz4hc_compress zstd_compress f2fs"),
}
ODD = re.compile(r"EXT4-fs.*([Ee]rror|[Ww]arning)|JBD2.*([Ee]rror|[Ff]ail)|F2FS-fs.*([Ee]rror|[Cc]orrupt|[Ii]nconsist)"
                 r"|I/O error|\bBUG: |\bWARNING: |Oops:")


class Gone(Exception):
    """The machine has no power any more."""


class Broken(Exception):
    """The machine, its disk or its file system does not do what this test stands on."""


class Machine:
    """One appliance: a disk, and one start of the machine after the other."""

    def __init__(self, parts, file_system, directory):
        """parts: a directory with the kernel, vmlinux, and what it starts from, start.cpio."""
        self.parts, self.file_system, self.directory = parts, file_system, directory
        os.makedirs(self.directory)
        self.image, self.log = f"{self.directory}/image", f"{self.directory}/log"
        make, self.mount, self.modules = FILE_SYSTEMS[file_system]
        with open(self.image, "wb") as image:
            image.truncate(DISK_BYTES)
        self.program([*make, self.image])
        self.qemu = self.disk = self.channel = self.socket = None

    def program(self, words):
        ended = subprocess.run(words, capture_output=True, text=True, check=False)
        if ended.returncode:
            raise Broken(f"{words}: status {ended.returncode}: {ended.stdout}{ended.stderr}")

    # Its starts

    def start(self):
        """Starts it and lets its file system recover."""
        disk_socket, control = f"{self.directory}/disk.socket", f"{self.directory}/control.socket"
        for path in (disk_socket, control):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(control)
        listener.listen()
        listener.settimeout(PATIENCE)
        self.disk = subprocess.Popen(
            ["nbdkit", "--foreground", "--exit-with-parent", "--unix", disk_socket, "--filter=exitlast",
             "python", f"{HERE}/volatile_disk.py", f"image={self.image}", f"log={self.log}"],
            stderr=subprocess.DEVNULL)  # it tells of each connection that ends with the machine
        self.await_path(disk_socket)
        self.qemu = subprocess.Popen(self.command(disk_socket, control), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL)
        self.socket = listener.accept()[0]
        self.socket.settimeout(PATIENCE)
        self.channel = self.socket.makefile("rwb")
        listener.close()
        line = self.line()
        if line != b"ready\n":
            raise Broken(f"the machine says {line} as it starts: {self.console()}")
        self.require(f"mkdir /disk && mount {self.mount} /dev/vda /disk")

    def await_path(self, path):
        end = time.monotonic() + PATIENCE
        while not os.path.exists(path):
            if time.monotonic() > end or self.disk.poll() is not None:
                raise Broken("nbdkit does not serve the disk")
            time.sleep(0.01)

    def command(self, disk_socket, control):
        return ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64",
                "-machine", "q35", "-accel", "tcg", "-m", "256", "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot", "-cpu", "qemu64,+rdrand",
                "-kernel", f"{self.parts}/vmlinux", "-initrd", f"{self.parts}/start.cpio",
                "-append", "console=ttyS0 quiet panic=-1 random.trust_cpu=on no_timer_check "
                           f"powercut.modules={self.modules.replace(' ', ',')}",
                "-serial", f"file:{self.directory}/console",
                "-blockdev", f"driver=nbd,node-name=disk,server.type=unix,server.path={disk_socket}",
                "-device", f"virtio-blk-pci,drive=disk,write-cache=on,physical_block_size={power.SECTOR}",
                "-device", "virtio-serial-pci",
                "-chardev", f"socket,id=control,path={control}",
                "-device", "virtserialport,chardev=control,name=control"]

    def console(self):
        with open(f"{self.directory}/console", encoding="utf-8", errors="replace") as file:
            return file.read()[-2000:]

    # What runs in it

    def line(self):
        try:
            line = self.channel.readline()
        except ConnectionError:
            line = b""
        except TimeoutError:
            raise Broken(f"the machine does not answer: {self.console()}") from None
        if not line.endswith(b"\n"):
            raise Gone
        return line

    def announce(self, words):
        """Has it begin with this line of its shell."""
        try:
            self.channel.write(words.encode() + b"\n")
            self.channel.flush()
        except (BrokenPipeError, ConnectionError):
            raise Gone from None

    def answer(self):
        """(status, output) of what was announced."""
        status, count = map(int, self.line().split())
        try:
            output = self.channel.read(count)
        except ConnectionError:
            output = b""
        if len(output) < count:
            raise Gone
        return status, output

    def await_answer(self, seconds):
        """Until an answer begins, or so long."""
        select.select([self.socket], [], [], seconds)

    def run(self, words):
        self.announce(words)
        return self.answer()

    def require(self, words):
        status, output = self.run(words)
        if status:
            raise Broken(f"{words}: status {status}: {output.decode(errors='replace')} {self.console()}")
        return output

    def oddities(self):
        """What its kernel has complained of."""
        return [line for line in self.require("dmesg").decode().splitlines() if ODD.search(line)]

    def requests(self):
        """How long the log of its disk is."""
        return os.path.getsize(self.log)

    def ends_of_requests(self):
        at = [0]
        for _, _, data in power.records(self.log):
            at.append(at[-1] + power.RECORD.size + len(data))
        return at

    def forget_requests_after(self, at):
        os.truncate(self.log, at)

    # Its ends

    def kill(self):
        if self.qemu is not None:
            self.qemu.kill()

    def end(self):
        """Waits until it has no power and its disk has taken all that it was asked for."""
        if self.qemu is None:
            return
        self.qemu.wait()
        self.disk.wait()
        with contextlib.suppress(OSError):
            self.channel.close()
        self.socket.close()
        self.qemu = None

    def lose(self, seed, keeps_all, lies):
        """Makes of the disk what the power cut leaves of it; how many sectors were lost. The image and the
        log before it stay beside it."""
        shutil.copyfile(self.image, f"{self.directory}/image.before")
        shutil.copyfile(self.log, f"{self.directory}/log.before")
        return power.cut(self.image, self.log, seed, keeps_all, lies)

    def fsck(self):
        """What the file system's own checker finds odd once the journal was replayed, or None."""
        if not self.file_system.startswith("ext4"):
            return None
        copy = f"{self.directory}/image.checked"
        shutil.copyfile(self.image, copy)
        self.program(["e2fsck", "-y", "-E", "journal_only", copy])
        ended = subprocess.run(["e2fsck", "-fn", copy], capture_output=True, text=True, check=False)
        return None if ended.returncode == 0 else f"e2fsck: {ended.stdout}"

