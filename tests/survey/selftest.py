"""Whether the matrix notices what it is there to notice."""

from expected import (AGREES, CANNOT_TELL, DIFFERS, ECDSA, REFUSED, RSA, Comparison, Expected)
from judging import judge
from probing import Bench, Outcome, probe
from running import openssl_server
from servers import SERVERS, Server
from suites import INTERMEDIATE_RSA, LEVEL_GROUPS, P256, TLS13, TLS_1_1, TLS_1_2, TLS_1_3, X25519


def planted(right: Expected) -> dict[str, Expected]:
    """The survey of an intermediate server with an RSA certificate, with one error each."""
    less, more = INTERMEDIATE_RSA[1:], (*INTERMEDIATE_RSA, "AES128-SHA")
    return {
        "verdict differs": right.but(verdict=DIFFERS),
        "verdict cannot tell": right.but(verdict=CANNOT_TELL),
        "a suite too few": right.but(suites={TLS_1_2: less, TLS_1_3: TLS13}),
        "a suite too many": right.but(suites={TLS_1_2: more, TLS_1_3: TLS13}),
        "a version too few": right.but(suites={TLS_1_3: TLS13}),
        "a version too many": right.but(suites={**right.suites, TLS_1_1: ("AES128-SHA",)}),
        "a group too few": right.but(groups12=(P256,)),
        "a group too many": right.but(groups13=LEVEL_GROUPS + (X25519,)),
        "other DH parameters": right.but(dh_bits=1024),
        "no DH parameters": right.but(dh_bits=None),
        "another certificate": right.but(certificates=(ECDSA,)),
        "another certificate too": right.but(certificates=(RSA, ECDSA)),
        "a feature": right.but(features={"secure-renegotiation": REFUSED}),
        "a suite not known": right.but(unknown_suites={TLS_1_2: ("AES128-SHA",)}),
        "a note": right.but(note="no such note"),
    }


def run(command: str, bench: Bench) -> int:
    server = next(server for server in SERVERS if server.name == "intermediate-rsa")
    assert server.expected.verdict == AGREES
    failures = []
    outcome = probed(command, bench, server)
    document = outcome.document
    if document is None:
        print(f"no report of {server.name}: {outcome.errors}")
        return 1
    if faults := Comparison(server.level, server.expected, document).run():
        failures.append(f"{server.name} is not as expected: {faults}")
    for name, wrong in planted(server.expected).items():
        if not Comparison(server.level, wrong, document).run():
            failures.append(f"not noticed: {name}")
    broken = Server("broken", "intermediate", openssl_server("-no-such-option"), server.expected)
    if judge(command, bench, broken).is_started:
        failures.append("not noticed: a server that does not start")
    print("\n".join(failures) or f"{len(planted(server.expected)) + 1} planted errors, all found")
    return 1 if failures else 0


def probed(command: str, bench: Bench, server: Server) -> Outcome:
    site = bench.site(server.name)
    running = server.start(site)
    try:
        return probe(command, server, site)
    finally:
        running.stop()
