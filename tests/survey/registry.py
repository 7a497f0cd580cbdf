"""The registry's numbers for the names that the matrix uses."""

import functools
import re
import subprocess

from expected import Expected
from handmade import NUMBERS
from scanners import Seen
from suites import TLS_1_2, TLS_1_3

# Those that Debian's OpenSSL does not have.
SUITES = {**NUMBERS, "ECDHE-RSA-RC4-SHA": 0xC011, "ECDHE-RSA-DES-CBC3-SHA": 0xC012}
GROUPS = {
    "sect163k1": 1, "sect233r1": 7, "prime192v1": 19, "secp224r1": 21, "prime256v1": 23,
    "secp384r1": 24, "secp521r1": 25, "brainpoolP256r1": 26, "brainpoolP384r1": 27,
    "brainpoolP512r1": 28, "X25519": 29, "X448": 30, "ffdhe2048": 0x100, "ffdhe3072": 0x101,
    "ffdhe4096": 0x102, "ffdhe6144": 0x103, "ffdhe8192": 0x104,
}


@functools.cache
def suite_numbers() -> dict[str, int]:
    listed = subprocess.run(["openssl", "ciphers", "-V", "ALL:COMPLEMENTOFALL:@SECLEVEL=0"],
                            capture_output=True, text=True, check=True).stdout
    known = {name: int(high + low, 16) for high, low, name in
             re.findall(r"0x(\w\w),0x(\w\w) - (\S+)", listed)}
    return {"TLS_AES_128_CCM_SHA256": 0x1304, "TLS_AES_128_CCM_8_SHA256": 0x1305, **SUITES, **known}


def seen_by_hand(expected: Expected) -> Seen:
    """What somebody who sees everything would see."""
    suites = {(version, suite_numbers()[suite]) for version, suites in expected.suites.items()
              for suite in suites}
    groups = {(version, GROUPS[group]) for version, groups in
              ((TLS_1_2, expected.groups12), (TLS_1_3, expected.groups13)) for group in groups}
    sizes = {expected.dh_bits} if expected.dh_bits is not None else set()
    return Seen(set(expected.suites), suites, groups, sizes)
