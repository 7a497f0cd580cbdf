"""What nmap's script ssl-enum-ciphers, sslscan and the probe see of a server, by the numbers of the
registry, so that it does not matter how each spells a name."""

import dataclasses
import functools
import re
import subprocess
import time
import xml.etree.ElementTree as ElementTree
from typing import Any

from suites import SSL_2, SSL_3, TLS_1_0, TLS_1_1, TLS_1_2, TLS_1_3

LONGEST_SECONDS = 170
NMAP_NUMBERS = "/usr/share/nmap/nselib/tls.lua"
NMAP_VERSIONS = {"SSLv3": SSL_3, "TLSv1.0": TLS_1_0, "TLSv1.1": TLS_1_1, "TLSv1.2": TLS_1_2,
                 "TLSv1.3": TLS_1_3}
SSLSCAN_VERSIONS = {**NMAP_VERSIONS, "SSLv2": SSL_2}
ANONYMOUS = re.compile("_anon_|DH_ANON")


@dataclasses.dataclass
class Seen:
    """Suites and groups as (version, number). The sizes are those of DHE with a certificate."""
    versions: set[str] = dataclasses.field(default_factory=set)
    suites: set[tuple[str, int]] = dataclasses.field(default_factory=set)
    groups: set[tuple[str, int]] = dataclasses.field(default_factory=set)
    dh_sizes: set[int] = dataclasses.field(default_factory=set)

    def __or__(self, other: "Seen") -> "Seen":
        return Seen(self.versions | other.versions, self.suites | other.suites,
                    self.groups | other.groups, self.dh_sizes | other.dh_sizes)

    def statements(self) -> set[str]:
        """A line for each, as the list of exceptions has them."""
        lines = {f"version {version}" for version in self.versions}
        lines |= {f"{version} suite 0x{number:04x}" for version, number in self.suites}
        lines |= {f"{version} group 0x{number:04x}" for version, number in self.groups}
        if self.dh_sizes:  # what counts is the weakest
            lines.add(f"DH of {min(self.dh_sizes)} bits")
        return lines


@dataclasses.dataclass(frozen=True)
class Timed:
    seen: Seen
    seconds: float


def output_of(*command: str) -> tuple[str, float]:
    """With SIGPIPE ignored, as it is here: sslscan dies of it where a server has gone already."""
    started = time.monotonic()
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=LONGEST_SECONDS, check=True, restore_signals=False)
    return result.stdout, time.monotonic() - started


@functools.cache
def nmap_numbers() -> dict[str, int]:
    with open(NMAP_NUMBERS, encoding="utf-8") as file:
        found = re.findall(r'^\s*(?:\["([^"]+)"\]|([A-Z0-9a-z_]+))\s*=\s*0x([0-9A-Fa-f]{4})\b',
                           file.read(), re.MULTILINE)
    return {quoted or plain: int(number, 16) for quoted, plain, number in found}


def nmap(port: int) -> Timed:
    text, seconds = output_of("nmap", "-n", "-Pn", "-sT", "--unprivileged", "-p", str(port),
                              "--script", "ssl-enum-ciphers", "-oX", "-", "127.0.0.1")
    seen = Seen()
    for table in ElementTree.fromstring(text).iterfind(".//script[@id='ssl-enum-ciphers']/table"):
        version = NMAP_VERSIONS[table.attrib["key"]]
        for row in table.iterfind("table[@key='ciphers']/table"):
            fields = {element.attrib["key"]: element.text or "" for element in row}
            seen.versions.add(version)
            seen.suites.add((version, nmap_numbers()[fields["name"]]))
            size = re.fullmatch(r"dh (\d+)", fields.get("kex_info", ""))
            if size and version != TLS_1_3 and not ANONYMOUS.search(fields["name"]):
                seen.dh_sizes.add(int(size[1]))
    return Timed(seen, seconds)


def sslscan(port: int) -> Timed:
    text, seconds = output_of("sslscan", "--xml=-", "--no-check-certificate", "--no-heartbleed",
                              "--no-fallback", f"127.0.0.1:{port}")
    seen = Seen()
    for row in ElementTree.fromstring(text).iterfind("ssltest/*"):
        version = SSLSCAN_VERSIONS.get(row.attrib.get("sslversion", ""), "")
        if row.tag == "protocol" and row.attrib["enabled"] == "1":
            name = row.attrib["type"].upper() + " " + row.attrib["version"]
            seen.versions.add(name)
        elif row.tag == "cipher":
            seen.suites.add((version, int(row.attrib["id"], 16)))
            if ("dhebits" in row.attrib and version != TLS_1_3 and
                    not is_anonymous(row.attrib["cipher"])):
                seen.dh_sizes.add(int(row.attrib["dhebits"]))
        elif row.tag == "group":
            seen.groups.add((version, int(row.attrib["id"], 16)))
    return Timed(seen, seconds)


def is_anonymous(suite: str) -> bool:
    return suite.startswith(("ADH-", "AECDH-")) or ANONYMOUS.search(suite) is not None


def probed(document: dict[str, Any], seconds: float) -> Timed:
    """The report of a probe."""
    accepted = {what: [row for row in document[what] if row["answer"] == "accepted"]
                for what in ("versions", "suites", "groups")}
    return Timed(Seen({row["version"] for row in accepted["versions"]},
                      {(row["version"], int(row["number"], 16)) for row in accepted["suites"]},
                      {(row["version"], int(row["number"], 16)) for row in accepted["groups"]},
                      {document["dh-bits"]} - {None}), seconds)
