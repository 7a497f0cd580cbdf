"""A disk with a volatile write-back cache, as a plugin of nbdkit: what is written is in memory alone, and
everything that the machine has asked for is in a log, in order. What a power cut leaves of the disk is made
of the former image and that log, by power.py.

  nbdkit python volatile_disk.py image=FILE log=FILE
"""

import io
import os
import struct

import nbdkit

API_VERSION = 2
RECORD = struct.Struct("<cQI")  # w or u (a write with force unit access) or f (a flush); offset; length
settings = {}
disk = {}


def config(key, value):
    settings[key] = value


def get_ready():
    with io.open(settings["image"], "rb") as file:
        disk["content"] = bytearray(file.read())
    disk["log"] = os.open(settings["log"], os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)


def open(_readonly):  # nbdkit calls it so
    return disk


def get_size(_handle):
    return len(disk["content"])


def can_flush(_handle):
    return True


def can_fua(_handle):
    return nbdkit.FUA_NATIVE


def note(kind, offset, data):
    os.writev(disk["log"], [RECORD.pack(kind, offset, len(data)), data])


def pread(_handle, buffer, offset, _flags):
    buffer[:] = disk["content"][offset:offset + len(buffer)]


def pwrite(_handle, buffer, offset, flags):
    disk["content"][offset:offset + len(buffer)] = buffer
    note(b"u" if flags & nbdkit.FLAG_FUA else b"w", offset, buffer)


def flush(_handle, _flags):
    note(b"f", 0, b"")
