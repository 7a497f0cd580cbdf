"""What a survey of a server has to say, and the comparison of a survey with that."""

import dataclasses
from typing import Any

from keys import NOT_AFTER, NOT_BEFORE
from suites import LEVELS, LEVEL_GROUPS, SSL_2, TLS_1_2, TLS_1_3, VERSIONS, Suites

AGREES, DIFFERS, CANNOT_TELL, NOTHING_THERE = "agrees", "differs", "cannot-tell", "nothing-there"
EXIT_STATUS = {AGREES: 0, DIFFERS: 3, CANNOT_TELL: 6, NOTHING_THERE: 1}

ACCEPTED, REFUSED, NOT_KNOWN = "accepted", "refused", "not-known"
ANSWERS = (ACCEPTED, REFUSED, NOT_KNOWN)

# Whose suites are of no interest: SSL 2 has numbers of its own.
ANY_SUITES: Suites = ("any",)


@dataclasses.dataclass(frozen=True)
class Certificate:
    """As the server shows it. The name is that of the key in keys.py; the certificate bears it."""
    kind: str
    bits: int
    name: str


RSA = Certificate("RSA", 2048, "rsa")
RSA_1024 = Certificate("RSA", 1024, "rsa1024")
RSA_3072 = Certificate("RSA", 3072, "rsa3072")
RSA_PSS = Certificate("RSA-PSS", 2048, "rsa-pss")
ECDSA = Certificate("ECDSA", 256, "ecdsa")
ECDSA_384 = Certificate("ECDSA", 384, "ecdsa384")
ED25519 = Certificate("Ed25519", 256, "ed25519")
ED448 = Certificate("Ed448", 456, "ed448")
DSA = Certificate("DSA", 2048, "dsa")


@dataclasses.dataclass(frozen=True)
class Expected:
    """Written by hand from the server's configuration. The versions that the server accepts are
    those that have suites; everything else is refused, unless it is named as not known.

    verdict_only: the server shows nothing that could be compared.
    unknown_suites: by version, what remains not known beside the accepted.
    also_unknown: versions that may be told as not known rather than refused.
    hides_groups: up to TLS 1.2 no client can get another group than the accepted ones, so that what
    the server would do with others nobody can know.
    differences: "missing WHAT" and "extra WHAT", where it matters which they are.
    is_explained: this machine's OpenSSL lacks the same, which is not held against the server.
    features: those that the configuration decides, and their answers.
    note: words that one of the notes has to hold."""
    verdict: str
    suites: dict[str, Suites] = dataclasses.field(default_factory=dict)
    groups12: Suites = ()
    groups13: Suites = ()
    dh_bits: int | None = None
    certificates: tuple[Certificate, ...] = ()
    features: dict[str, str] = dataclasses.field(default_factory=dict)
    note: str = ""
    verdict_only: bool = False
    unknown_suites: dict[str, Suites] = dataclasses.field(default_factory=dict)
    also_unknown: Suites = ()
    hides_groups: bool = False
    differences: Suites | None = None
    is_explained: bool = False

    @property
    def exit_status(self) -> int:
        return 0 if self.is_explained else EXIT_STATUS[self.verdict]

    def but(self, **changes: Any) -> "Expected":
        return dataclasses.replace(self, **changes)


class Comparison:
    """The faults of one document, a line each."""

    def __init__(self, level: str, expected: Expected, document: dict[str, Any]) -> None:
        self.level = level
        self.expected = expected
        self.document = document
        self.faults: list[str] = []

    def run(self) -> list[str]:
        self._verdict()
        if not self.expected.verdict_only:
            self._versions()
            for version in VERSIONS:
                self._suites(version)
            self._groups(TLS_1_2, self.expected.groups12)
            self._groups(TLS_1_3, self.expected.groups13)
            self._equal("dh-bits", self.document["dh-bits"], self.expected.dh_bits)
            self._certificates()
            self._features()
        return self.faults

    def _fault(self, what: str, got: object, want: object) -> None:
        self.faults.append(f"{what}: got {got}, want {want}")

    def _equal(self, what: str, got: object, want: object) -> None:
        if got != want:
            self._fault(what, got, want)

    def _names(self, what: str, got: set[str], want: set[str]) -> None:
        if got - want:
            self.faults.append(f"{what}: not expected: {', '.join(sorted(got - want))}")
        if want - got:
            self.faults.append(f"{what}: lacking: {', '.join(sorted(want - got))}")

    def _verdict(self) -> None:
        verdict, differences = self.document["verdict"], self.document["differences"]
        self._equal("level", self.document["name"], self.level)
        self._equal("verdict", verdict, self.expected.verdict)
        self._equal("agrees", self.document["agrees"], verdict == AGREES)
        if verdict == DIFFERS and not differences:
            self._fault("differences", "none", "what the verdict is about")
        if self.expected.differences is not None:
            self._names("differences", {f"{row['kind']} {row['what']}" for row in differences},
                        set(self.expected.differences))
        if verdict == AGREES and differences:
            self._fault("differences", differences, "none")
        if verdict == CANNOT_TELL and not self.document["not-known"]:
            self._fault("not-known", "nothing", "what the verdict is about")
        if not any(self.expected.note in note for note in [*self.document["notes"], ""]
                   if note or not self.expected.note):
            self._fault("notes", self.document["notes"], f"one with {self.expected.note!r}")

    def _versions(self) -> None:
        rows = {row["version"]: row for row in self.document["versions"]}
        self._equal("versions", sorted(rows), sorted(VERSIONS))
        for version in VERSIONS:
            row = rows.get(version, {"answer": None, "requested": None})
            want = {ACCEPTED} if version in self.expected.suites else {REFUSED}
            if version in self.expected.also_unknown:
                want.add(NOT_KNOWN)
            if row["answer"] not in want:
                self._fault(version, row["answer"], " or ".join(sorted(want)))
            self._requested(version, row, version in LEVELS[self.level])

    def _requested(self, what: str, row: dict[str, str], is_requested: bool) -> None:
        if (row["requested"] == "yes") != is_requested:
            self._fault(f"{what}, requested", row["requested"], "yes" if is_requested else "no")

    def _suites(self, version: str) -> None:
        want = self.expected.suites.get(version, ())
        if want == ANY_SUITES:
            return
        rows = [row for row in self.document["suites"] if row["version"] == version]
        got = {answer: {row["suite"] for row in rows if row["answer"] == answer}
               for answer in ANSWERS}
        self._names(f"{version}, suites accepted", got[ACCEPTED], set(want))
        if version in self.expected.suites or version not in self.expected.also_unknown:
            self._names(f"{version}, suites not known", got[NOT_KNOWN],
                        set(self.expected.unknown_suites.get(version, ())))
        for row in rows:
            if row["answer"] == ACCEPTED:
                self._requested(f"{version} {row['suite']}", row,
                                row["suite"] in LEVELS[self.level].get(version, ()))

    def _groups(self, version: str, want: Suites) -> None:
        rows = [row for row in self.document["groups"] if row["version"] == version]
        accepted = {row["group"] for row in rows if row["answer"] == ACCEPTED}
        unknown = {row["group"] for row in rows if row["answer"] == NOT_KNOWN}
        may_be_unknown = version == TLS_1_2 and self.expected.hides_groups
        self._names(f"{version}, groups accepted", accepted, set(want))
        if version in self.expected.suites and not may_be_unknown:
            self._names(f"{version}, groups not known", unknown, set())
        for row in rows:
            if row["answer"] == ACCEPTED:
                self._requested(f"{version} {row['group']}", row, row["group"] in LEVEL_GROUPS and
                                version in LEVELS[self.level])

    def _certificates(self) -> None:
        got = {(row["kind"], row["bits"]): row for row in self.document["certificates"]}
        want = {(row.kind, row.bits): row for row in self.expected.certificates}
        self._names("certificates", {f"{kind} {bits}" for kind, bits in got},
                    {f"{kind} {bits}" for kind, bits in want})
        for kind in got.keys() & want.keys():
            self._certificate(got[kind], want[kind])

    def _certificate(self, got: dict[str, Any], want: Certificate) -> None:
        if "localhost" not in got["subject"]:
            self._fault("subject", got["subject"], "localhost")
        self._names(f"names of the {want.kind} certificate", set(got["names"]),
                    {"DNS:localhost", f"DNS:{want.name}.localhost"})
        self._equal("not-before", got["not-before"], readable(NOT_BEFORE))
        self._equal("not-after", got["not-after"], readable(NOT_AFTER))

    def _features(self) -> None:
        answers = {row["feature"]: row["answer"] for row in self.document["features"]}
        for feature, want in self.expected.features.items():
            self._equal(feature, answers.get(feature), want)


def readable(time: str) -> str:
    """"20260101000000Z" as ISO 8601 writes it."""
    return (f"{time[0:4]}-{time[4:6]}-{time[6:8]}T{time[8:10]}:{time[10:12]}:{time[12:14]}Z")


def own_faults(level: str, expected: Expected) -> list[str]:
    """What in an expectation contradicts itself or the level: a verdict "agrees" beside something
    that the level does not ask for."""
    faults = []
    extras = [f"{version} {suite}" for version, suites in expected.suites.items()
              for suite in suites if suite not in LEVELS[level].get(version, ())]
    extras += [group for group in expected.groups12 + expected.groups13
               if group not in LEVEL_GROUPS]
    if expected.exit_status == 0 and extras:
        faults.append(f"agrees, though the level does not ask for {', '.join(extras)}")
    if expected.verdict == AGREES and SSL_2 in expected.suites:
        faults.append("agrees with SSL 2")
    for version, suites in expected.suites.items():
        if len(set(suites)) != len(suites):
            faults.append(f"{version} names a suite twice")
    return faults
