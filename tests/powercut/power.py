"""What is left of a disk when its power is cut.

  power.py IMAGE LOG SEED    makes it of the image from before, by the log of the disk and the seed, and
                             prints how many sectors were lost
"""

import random
import struct
import sys

RECORD = struct.Struct("<cQI")
SECTOR = 4096  # what the disk says that it writes whole or not at all
SHARES = (0, 0.1, 0.5, 0.9, 1)  # of what was in the cache, how much has come to the disk


def records(path):
    """(kind, offset, data) of each request that the disk has taken, in order."""
    with open(path, "rb") as file:
        log = file.read()
    at = 0
    while at < len(log):
        kind, offset, length = RECORD.unpack_from(log, at)
        at += RECORD.size
        yield kind, offset, log[at:at + length]
        at += length


def sectors(offset, data):
    """The write in parts of which each is in one sector."""
    done = 0
    while done < len(data):
        length = min(SECTOR - (offset + done) % SECTOR, len(data) - done)
        yield offset + done, data[done:done + length]
        done += length


def cut(image, log, seed, keeps_all=False, lies=False):
    """Puts on the image what has come to the disk; how many sectors were lost. Of what was not flushed,
    each sector is kept or lost by the seed. keeps_all: the machine alone has lost its power. lies: the
    disk has flushed nothing, whatever it has said."""
    requests = list(records(log))
    flushes = [number for number, request in enumerate(requests) if request[0] == b"f"]
    durable = flushes[-1] if flushes and not lies else 0
    chance = random.Random(seed)
    share, lost = chance.choice(SHARES), 0
    with open(image, "r+b") as disk:
        for number, (kind, offset, data) in enumerate(requests):
            is_kept = keeps_all or number < durable or kind == b"u" and not lies
            for at, part in sectors(offset, data):
                if is_kept or chance.random() < share:
                    disk.seek(at)
                    disk.write(part)
                else:
                    lost += 1
    return lost


if __name__ == "__main__":
    print(cut(*sys.argv[1:4]))
