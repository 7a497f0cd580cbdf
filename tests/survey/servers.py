"""The servers of the matrix. Each survey is written from the server's configuration and from what
its documentation says of that, never from what a tool saw."""

import dataclasses
import ssl
from typing import Any

import expected
import proxies
from expected import (ACCEPTED, AGREES, ANY_SUITES, CANNOT_TELL, DIFFERS, NOTHING_THERE, REFUSED,
                      Expected)
from handmade import SSL3, TLS1_0, TLS1_1, TLS1_2, Answers, handmade_server
from keys import DH_FILES
from listeners import listening, python_server
from plain_parts import PLAIN_PARTS, after, slow_smtp, smtp_without_tls
from proxies import bytewise, delaying, picky, small_records, spoiling
from running import Running, Site, Starter, gnutls_server, nginx_server, openssl_server
from strangers import STRANGERS
from suites import *


@dataclasses.dataclass(frozen=True)
class Server:
    """One row of the matrix. The options are the probe's. {port} and {socket} in the address are
    the server's. compared: nmap and sslscan look at it too."""
    name: str
    level: str
    start: Starter
    expected: Expected
    options: tuple[str, ...] = ()
    address: str = "127.0.0.1:{port}"
    compared: bool = True

    def target(self, site: Site) -> str:
        return self.address.format(port=site.port, socket=site.socket_path)


SERVERS: list[Server] = []


def add(name: str, level: str, start: Starter, survey: Expected, *options: str,
        address: str = "127.0.0.1:{port}", compared: bool = True) -> None:
    assert all(server.name != name for server in SERVERS), name
    SERVERS.append(Server(name, level, start, survey, options, address, compared))


CLIENT_ORDER = {"server-order": REFUSED}
SERVER_ORDER = {"server-order": ACCEPTED}
# s_server keeps sessions, and knows both extensions; OpenSSL is built without compression.
OPENSSL_FEATURES = {**CLIENT_ORDER, "compression": REFUSED, "session-ids": ACCEPTED,
                    "session-tickets": REFUSED, "secure-renegotiation": ACCEPTED,
                    "extended-master-secret": ACCEPTED}

# The surveys of servers that are set up exactly as a level asks.
MODERN = Expected(AGREES, {TLS_1_3: TLS13}, groups13=LEVEL_GROUPS, certificates=(expected.RSA,),
                  features=CLIENT_ORDER)
INTERMEDIATE = Expected(
    AGREES, {TLS_1_2: INTERMEDIATE_RSA, TLS_1_3: TLS13}, groups12=LEVEL_GROUPS,
    groups13=LEVEL_GROUPS, dh_bits=2048, certificates=(expected.RSA,), features=OPENSSL_FEATURES)
INTERMEDIATE_OF_ECDSA = INTERMEDIATE.but(
    suites={TLS_1_2: ECDHE_ECDSA_AEAD, TLS_1_3: TLS13}, dh_bits=None,
    certificates=(expected.ECDSA,))
INTERMEDIATE_OF_BOTH = INTERMEDIATE.but(suites={TLS_1_2: INTERMEDIATE_BOTH, TLS_1_3: TLS13},
                                        certificates=(expected.RSA, expected.ECDSA))
# Debian's OpenSSL is built without DES-CBC3-SHA. It needs an RSA certificate.
OLD = Expected(
    DIFFERS, {TLS_1_0: OLD_RSA_TLS10, TLS_1_1: OLD_RSA_TLS10, TLS_1_2: OLD_RSA_TLS12,
             TLS_1_3: TLS13}, groups12=LEVEL_GROUPS, groups13=LEVEL_GROUPS, dh_bits=1024,
    certificates=(expected.RSA,), features=OPENSSL_FEATURES,
    differences=("missing DES-CBC3-SHA",), is_explained=True)
OLD_OF_ECDSA = OLD.but(
    verdict=AGREES, differences=(), is_explained=False,
    suites={TLS_1_0: ECDHE_ECDSA_SHA, TLS_1_1: ECDHE_ECDSA_SHA, TLS_1_2: OLD_ECDSA_TLS12,
            TLS_1_3: TLS13}, dh_bits=None, certificates=(expected.ECDSA,))
OLD_OF_BOTH = OLD.but(
    suites={TLS_1_0: OLD_BOTH_TLS10, TLS_1_1: OLD_BOTH_TLS10, TLS_1_2: OLD_BOTH_TLS12,
            TLS_1_3: TLS13}, certificates=(expected.RSA, expected.ECDSA))

OLD_AND_DIFFERS = OLD.but(differences=None, is_explained=False)
BOTH = ("rsa", "ecdsa")


def openssl_modern(*options: str, certificates: tuple[str, ...] = ("rsa",),
                   groups: Suites = LEVEL_GROUPS, tickets: bool = False) -> Starter:
    return openssl_server("-tls1_3", *options, certificates=certificates, groups=groups,
                          tickets=tickets)


def openssl_intermediate(*options: str, certificates: tuple[str, ...] = ("rsa",),
                         suites: Suites = INTERMEDIATE_BOTH, more: Suites = (),
                         groups: Suites = LEVEL_GROUPS, lenient: bool = False, dh: int = 2048,
                         tickets: bool = False, address: str = "IPv4") -> Starter:
    """TLS 1.2 and 1.3; without any, OpenSSL would choose DH parameters itself."""
    limits = () if {"-tls1_2", "-tls1_3"} & set(options) else ("-no_tls1", "-no_tls1_1")
    return openssl_server(*limits, *options, certificates=certificates,
                          suites=openssl_list(*suites, *more), groups=groups, lenient=lenient,
                          dh=dh, tickets=tickets, address=address)


def openssl_old(*options: str, certificates: tuple[str, ...] = ("rsa",),
                suites: Suites = OLD_BOTH_TLS12, more: Suites = (), dh: int = 1024) -> Starter:
    return openssl_server(*options, certificates=certificates,
                          suites=openssl_list(*suites, *more), groups=LEVEL_GROUPS, lenient=True,
                          dh=dh)


def extra(*names: str) -> Suites:
    return tuple(f"extra {name}" for name in names)


def with_suites(survey: Expected, *more: str, version: str = TLS_1_2) -> dict[str, Suites]:
    """The survey's suites and these."""
    return {**survey.suites, version: survey.suites.get(version, ()) + more}


def add_levels() -> None:
    """Each level as it is to be, with each kind of certificate."""
    for certificates, survey in (
            (("rsa",), MODERN),
            (("ecdsa",), MODERN.but(certificates=(expected.ECDSA,))),
            (BOTH, MODERN.but(certificates=(expected.RSA, expected.ECDSA)))):
        add(f"modern-{'-'.join(certificates)}", "modern",
            openssl_modern(certificates=certificates), survey)
    for certificates, survey in ((("rsa",), INTERMEDIATE), (("ecdsa",), INTERMEDIATE_OF_ECDSA),
                                 (BOTH, INTERMEDIATE_OF_BOTH)):
        add(f"intermediate-{'-'.join(certificates)}", "intermediate",
            openssl_intermediate(certificates=certificates), survey)
    for certificates, survey in ((("rsa",), OLD), (("ecdsa",), OLD_OF_ECDSA),
                                 (BOTH, OLD_OF_BOTH)):
        add(f"old-{'-'.join(certificates)}", "old", openssl_old(certificates=certificates), survey)
    add("intermediate-server-held-against-old", "old", openssl_intermediate(),
        INTERMEDIATE.but(verdict=DIFFERS), compared=False)
    add("intermediate-server-held-against-modern", "modern", openssl_intermediate(),
        INTERMEDIATE.but(verdict=DIFFERS), compared=False)
    add("old-server-held-against-intermediate", "intermediate", openssl_old(),
        OLD_AND_DIFFERS, compared=False)
    add("modern-server-held-against-intermediate", "intermediate", openssl_modern(),
        MODERN.but(verdict=DIFFERS), compared=False)


NGINX_COMMON = ("ssl_conf_command Ciphersuites " + ":".join(TLS13) + "; ssl_ecdh_curve " +
                ":".join(LEVEL_GROUPS) + "; ssl_session_tickets off; ")
NGINX_MODERN = ("ssl_protocols TLSv1.3; ssl_prefer_server_ciphers off; "
                "ssl_session_cache shared:modern:1m; " + NGINX_COMMON)
NGINX_INTERMEDIATE = ("ssl_protocols TLSv1.2 TLSv1.3; ssl_prefer_server_ciphers off; ssl_ciphers " +
                      ":".join(INTERMEDIATE_BOTH) + f"; ssl_dhparam {DH_FILES[2048]}; "
                      "ssl_session_cache shared:intermediate:1m; " + NGINX_COMMON)
NGINX_OLD = ("ssl_protocols TLSv1 TLSv1.1 TLSv1.2 TLSv1.3; ssl_prefer_server_ciphers on; "
             "ssl_ciphers " + ":".join(OLD_BOTH_TLS12 + TRIPLE_DES) + ":@SECLEVEL=0; "
             f"ssl_dhparam {DH_FILES[2048]}; ssl_session_cache shared:old:1m; " + NGINX_COMMON)
STRONGER_DH = "2048"


def add_nginx() -> None:
    add("nginx-modern", "modern", nginx_server(NGINX_MODERN), MODERN)
    add("nginx-intermediate", "intermediate", nginx_server(NGINX_INTERMEDIATE), INTERMEDIATE)
    add("nginx-intermediate-both", "intermediate", nginx_server(NGINX_INTERMEDIATE, BOTH),
        INTERMEDIATE_OF_BOTH)
    old = OLD.but(dh_bits=2048, features={**OPENSSL_FEATURES, **SERVER_ORDER}, note=STRONGER_DH)
    add("nginx-old-2048-bit-dh", "old", nginx_server(NGINX_OLD, lenient=True), old)
    add("nginx-client-certificate", "intermediate",
        nginx_server(NGINX_INTERMEDIATE, asks_for_certificate=True), INTERMEDIATE)
    add("nginx-tickets", "intermediate",
        nginx_server(NGINX_INTERMEDIATE.replace("tickets off", "tickets on")),
        INTERMEDIATE.but(verdict=DIFFERS,
                         features={**OPENSSL_FEATURES, "session-tickets": ACCEPTED}))
    reject = "server { listen 127.0.0.1:{port} ssl default_server; ssl_reject_handshake on; }"
    named = nginx_server(NGINX_INTERMEDIATE, before=reject)
    add("nginx-name-given", "intermediate", named, INTERMEDIATE, "--servername", "localhost",
        compared=False)
    add("nginx-name-missing", "intermediate", named,
        Expected(CANNOT_TELL, verdict_only=True), compared=False)


def add_lacking() -> None:
    """Less than the level asks for."""
    add("intermediate-without-dh", "intermediate",
        openssl_intermediate(suites=ECDHE_RSA_AEAD, dh=0),
        INTERMEDIATE.but(verdict=DIFFERS, suites={TLS_1_2: ECDHE_RSA_AEAD, TLS_1_3: TLS13},
                         dh_bits=None, differences=("missing 2048-bit DH",)))
    without_chacha = tuple(suite for suite in INTERMEDIATE_RSA if "CHACHA" not in suite)
    add("intermediate-without-chacha", "intermediate", openssl_intermediate(suites=without_chacha),
        INTERMEDIATE.but(verdict=DIFFERS, suites={TLS_1_2: without_chacha, TLS_1_3: TLS13},
                         differences=("missing ECDHE-RSA-CHACHA20-POLY1305",)))
    add("intermediate-without-tls-1.3", "intermediate", openssl_intermediate("-tls1_2"),
        INTERMEDIATE.but(verdict=DIFFERS, suites={TLS_1_2: INTERMEDIATE_RSA}, groups13=(),
                         differences=("missing TLS 1.3",)))
    add("intermediate-without-p521", "intermediate", openssl_intermediate(groups=(P256, P384)),
        INTERMEDIATE.but(verdict=DIFFERS, groups12=(P256, P384), groups13=(P256, P384),
                         differences=(f"missing {P521}",)))
    add("modern-one-suite", "modern", openssl_modern("-ciphersuites", TLS13[0]),
        MODERN.but(verdict=DIFFERS, suites={TLS_1_3: TLS13[:1]}, features={}))
    add("modern-p521-only", "modern", openssl_modern(groups=(P521,)),
        MODERN.but(verdict=DIFFERS, groups13=(P521,)))
    add("modern-ffdhe-only", "modern", openssl_modern(groups=FFDHE_SMALL),
        MODERN.but(verdict=DIFFERS, groups13=FFDHE_SMALL))


def add_beside() -> None:
    """More than the level asks for."""
    three = RSA_GCM + ("AES128-SHA",)
    plus_three = openssl_intermediate(more=three)
    with_three = INTERMEDIATE.but(verdict=DIFFERS, suites=with_suites(INTERMEDIATE, *three),
                                  differences=extra(*three))
    add("plus-three-rsa", "intermediate", plus_three, with_three)
    add("plus-three-rsa-closing-11", "intermediate",
        spoiling(plus_three, proxies.close, lambda count: count == 11), with_three, compared=False)
    add("plus-three-rsa-tarpitting-11", "intermediate",
        spoiling(plus_three, proxies.tarpit, lambda count: count == 11), with_three,
        compared=False)
    psk = openssl_intermediate("-psk", "0102030405060708", more=PSK_SUITES)
    add("plus-psk", "intermediate", psk,
        INTERMEDIATE.but(verdict=DIFFERS, suites=with_suites(INTERMEDIATE, *PSK_SUITES),
                         differences=extra(*PSK_SUITES)))
    for name, more, lenient in (("ccm", CCM_RSA, False), ("ccm8", CCM8_RSA, True),
                                ("camellia", CAMELLIA_SHA + CAMELLIA_SHA2, False),
                                ("aria", ARIA_RSA, False), ("null", NULL_TLS12, True),
                                ("anonymous-ecdh", ANONYMOUS_ECDH, True),
                                ("dhe-chacha", ("DHE-RSA-CHACHA20-POLY1305",), False)):
        add(f"plus-{name}", "intermediate", openssl_intermediate(more=more, lenient=lenient),
            INTERMEDIATE.but(verdict=DIFFERS, suites=with_suites(INTERMEDIATE, *more),
                             differences=extra(*more)))
    # The parameters are those of an exchange that nobody signs: there is no DHE.
    add("anonymous-dh", "intermediate",
        openssl_intermediate(suites=ECDHE_RSA_AEAD, more=ANONYMOUS_DH, lenient=True, dh=1024),
        INTERMEDIATE.but(verdict=DIFFERS, dh_bits=None,
                         suites={TLS_1_2: ECDHE_RSA_AEAD + ANONYMOUS_DH, TLS_1_3: TLS13},
                         differences=("missing 2048-bit DH", *extra(*ANONYMOUS_DH))))
    add("modern-plus-ccm", "modern",
        openssl_modern("-ciphersuites", openssl_list(*TLS13, *TLS13_CCM)),
        MODERN.but(verdict=DIFFERS, suites={TLS_1_3: TLS13 + TLS13_CCM},
                   differences=extra(*TLS13_CCM)))
    add("modern-and-tls-1.2", "modern", openssl_intermediate(suites=ECDHE_RSA_AEAD, dh=0),
        MODERN_AND_TLS12)
    for name, fate in (("losing", proxies.close), ("resetting", proxies.reset)):
        add(f"modern-and-tls-1.2-{name}-4-to-6", "modern",
            spoiling(openssl_intermediate(suites=ECDHE_RSA_AEAD, dh=0), fate,
                     lambda count: 4 <= count <= 6), MODERN_AND_TLS12, compared=False)
    everything = {TLS_1_0: EVERYTHING_TLS10, TLS_1_1: EVERYTHING_TLS10,
                  TLS_1_2: EVERYTHING_TLS12, TLS_1_3: TLS13}
    add("everything", "old",
        openssl_server(suites="ALL:COMPLEMENTOFALL", lenient=True, dh=2048),
        OLD_AND_DIFFERS.but(suites=everything, dh_bits=2048, groups12=OPENSSL_GROUPS_TLS12,
                groups13=OPENSSL_GROUPS_TLS13))


MODERN_AND_TLS12 = MODERN.but(verdict=DIFFERS, groups12=LEVEL_GROUPS,
                              differences=extra(TLS_1_2),
                              suites={TLS_1_2: ECDHE_RSA_AEAD, TLS_1_3: TLS13})


def add_groups() -> None:
    for name, more, of_tls12, of_tls13 in (
            ("x25519", (X25519,), (X25519,), (X25519,)),
            ("x448", (X448,), (X448,), (X448,)),
            # OpenSSL 3.0 has brainpool's curves for TLS 1.2 alone, and FFDHE for TLS 1.3.
            ("brainpool", BRAINPOOL, BRAINPOOL, ()),
            ("ffdhe2048", ("ffdhe2048",), (), ("ffdhe2048",))):
        add(f"plus-{name}", "intermediate", openssl_intermediate(groups=LEVEL_GROUPS + more),
            INTERMEDIATE.but(verdict=DIFFERS, groups12=LEVEL_GROUPS + of_tls12,
                             groups13=LEVEL_GROUPS + of_tls13, differences=extra(*more)))
    weak = ("secp224r1", "prime192v1", "sect163k1", "sect233r1")
    add("plus-weak-curves", "intermediate",
        openssl_intermediate(groups=LEVEL_GROUPS + weak, lenient=True),
        INTERMEDIATE.but(verdict=DIFFERS, groups12=LEVEL_GROUPS + weak,
                         differences=extra(*weak)))
    add("openssl-default-groups", "intermediate", openssl_intermediate(groups=()),
        INTERMEDIATE.but(verdict=DIFFERS, groups12=OPENSSL_GROUPS_TLS12,
                         groups13=OPENSSL_GROUPS_TLS13))


# Strings of gnutls_priority_init(3): only what is named.
def priority(versions: str, ciphers: str, exchanges: str, groups: str,
             macs: str = "AEAD") -> str:
    words = [f"VERS-TLS{version}" for version in versions.split()]
    words += ciphers.split() + macs.split() + exchanges.split()
    words += [f"GROUP-{group}" for group in groups.split()]
    return ":".join(["NONE"] + [f"+{word}" for word in words + ["SIGN-ALL", "CTYPE-X509",
                                                                 "COMP-NULL"]])


AEAD_CIPHERS = "AES-128-GCM AES-256-GCM CHACHA20-POLY1305"
NIST_GROUPS = "SECP256R1 SECP384R1 SECP521R1"
GNUTLS = Expected(DIFFERS, {TLS_1_2: ECDHE_RSA_AEAD, TLS_1_3: TLS13}, groups12=LEVEL_GROUPS,
                  groups13=LEVEL_GROUPS, certificates=(expected.RSA,),
                  features={**OPENSSL_FEATURES})


def add_dh() -> None:
    add("dh-1024", "intermediate", openssl_intermediate(lenient=True, dh=1024),
        INTERMEDIATE.but(verdict=DIFFERS, dh_bits=1024,
                         differences=("missing 2048-bit DH",)))
    add("dh-3072", "intermediate", openssl_intermediate(dh=3072),
        INTERMEDIATE.but(dh_bits=3072, note="3072"))
    # OpenSSL serves less than 1024 bits at no security level. GnuTLS cannot have DHE with AES-GCM
    # and without ChaCha20 where that is for ECDHE.
    dhe = priority("1.3 1.2", AEAD_CIPHERS, "ECDHE-RSA DHE-RSA", NIST_GROUPS)
    add("gnutls-dh-768", "intermediate",
        gnutls_server(dhe, "--noticket", "--dhparams", DH_FILES[768]),
        GNUTLS.but(suites={TLS_1_2: INTERMEDIATE_RSA + ("DHE-RSA-CHACHA20-POLY1305",),
                           TLS_1_3: TLS13}, dh_bits=768))
    # Without a file, OpenSSL takes parameters as strong as the certificate's key.
    add("dh-automatic", "intermediate", openssl_intermediate(dh=0), INTERMEDIATE)


def add_certificates() -> None:
    add("rsa-pss", "intermediate", openssl_intermediate(certificates=("rsa-pss",)),
        INTERMEDIATE.but(certificates=(expected.RSA_PSS,)))
    for name, certificate in (("ed25519", expected.ED25519), ("ed448", expected.ED448)):
        add(name, "intermediate", openssl_intermediate(certificates=(name,)),
            INTERMEDIATE_OF_ECDSA.but(certificates=(certificate,)))
    add("modern-ed25519", "modern", openssl_modern(certificates=("ed25519",)),
        MODERN.but(certificates=(expected.ED25519,)))
    add("modern-rsa-pss", "modern", openssl_modern(certificates=("rsa-pss",)),
        MODERN.but(certificates=(expected.RSA_PSS,)))
    add("ecdsa-p384", "intermediate", openssl_intermediate(certificates=("ecdsa384",)),
        INTERMEDIATE_OF_ECDSA.but(certificates=(expected.ECDSA_384,)))
    add("rsa-1024", "intermediate", openssl_intermediate(certificates=("rsa1024",), lenient=True),
        INTERMEDIATE.but(certificates=(expected.RSA_1024,)))
    add("rsa-3072", "intermediate", openssl_intermediate(certificates=("rsa3072",)),
        INTERMEDIATE.but(certificates=(expected.RSA_3072,)))
    dss = each("DHE-DSS-", "AES128-GCM-SHA256 AES256-GCM-SHA384")
    add("dsa", "intermediate", openssl_intermediate("-tls1_2", certificates=("dsa",), suites=dss),
        INTERMEDIATE.but(verdict=DIFFERS, suites={TLS_1_2: dss}, groups12=(), groups13=(),
                         certificates=(expected.DSA,)))
    three = python_server(lambda site: python_context(site, ("rsa", "ecdsa", "ed25519")))
    add("python-three-certificates", "intermediate", three,
        PYTHON.but(suites={TLS_1_2: ECDHE_RSA_AEAD + ECDHE_ECDSA_AEAD, TLS_1_3: TLS13},
                   certificates=(expected.RSA, expected.ECDSA, expected.ED25519)))


def python_context(site: Site, certificates: tuple[str, ...] = ("rsa",)) -> ssl.SSLContext:
    """TLS 1.2 and 1.3, ECDHE with AEAD suites, one group. Suites of TLS 1.3 cannot be chosen."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers(openssl_list(*ECDHE_RSA_AEAD, *ECDHE_ECDSA_AEAD))
    context.set_ecdh_curve(P256)
    context.options |= ssl.OP_NO_TICKET
    for name in certificates:
        context.load_cert_chain(site.keys.certificate_with_key(name))
    return context


PYTHON = Expected(DIFFERS, {TLS_1_2: ECDHE_RSA_AEAD, TLS_1_3: TLS13}, groups12=(P256,),
                  groups13=(P256,), certificates=(expected.RSA,),
                  features={"compression": REFUSED, "session-tickets": REFUSED})
NO_EXTENDED_MASTER_SECRET = 1  # SSL_OP_NO_EXTENDED_MASTER_SECRET, which the module has no name for


def python_server_order(site: Site) -> ssl.SSLContext:
    context = python_context(site)
    context.options |= ssl.OP_CIPHER_SERVER_PREFERENCE
    return context


def python_client_order(site: Site) -> ssl.SSLContext:
    """The module's own choice since 3.10 is the server's order."""
    context = python_context(site)
    context.options &= ~ssl.OP_CIPHER_SERVER_PREFERENCE
    return context


def python_without_ems(site: Site) -> ssl.SSLContext:
    context = python_context(site)
    context.options |= NO_EXTENDED_MASTER_SECRET
    return context


def python_old(site: Site) -> ssl.SSLContext:
    context = python_context(site)
    context.minimum_version = ssl.TLSVersion.TLSv1
    context.set_ciphers(openssl_list(*OLD_BOTH_TLS12) + ":@SECLEVEL=0")
    context.load_dh_params(DH_FILES[1024])
    return context


def python_asking_for_certificate(site: Site) -> ssl.SSLContext:
    context = python_context(site)
    context.minimum_version = ssl.TLSVersion.TLSv1_3
    context.verify_mode = ssl.CERT_REQUIRED
    context.load_verify_locations(site.keys.certificate("ecdsa"))
    return context


def python_needing_name(site: Site) -> ssl.SSLContext:
    context = python_context(site)

    def choose(_: ssl.SSLObject, name: str, __: ssl.SSLContext) -> int | None:
        return None if name == "localhost" else ssl.ALERT_DESCRIPTION_UNRECOGNIZED_NAME

    context.sni_callback = choose
    return context


def add_python() -> None:
    add("python-server-order", "intermediate", python_server(python_server_order),
        PYTHON.but(features={**PYTHON.features, **SERVER_ORDER}))
    add("python-client-order", "intermediate", python_server(python_client_order),
        PYTHON.but(features={**PYTHON.features, **CLIENT_ORDER}))
    add("python-without-ems", "intermediate", python_server(python_without_ems),
        PYTHON.but(features={**PYTHON.features, "extended-master-secret": REFUSED}))
    add("python-old", "old", python_server(python_old), OLD_AND_DIFFERS.but(
        groups12=(P256,), groups13=(P256,), features=PYTHON.features))
    add("python-name-given", "intermediate", python_server(python_needing_name), PYTHON,
        "--servername", "localhost", compared=False)
    add("python-name-missing", "intermediate", python_server(python_needing_name),
        Expected(CANNOT_TELL, verdict_only=True), compared=False)
    add("python-name-wrong", "intermediate", python_server(python_needing_name),
        Expected(CANNOT_TELL, verdict_only=True), "--servername", "elsewhere.localhost",
        compared=False)
    add("modern-client-certificate", "modern", python_server(python_asking_for_certificate),
        PYTHON.but(suites={TLS_1_3: TLS13}, groups12=(), features={}))


def add_gnutls() -> None:
    modern = priority("1.3", AEAD_CIPHERS, "ECDHE-RSA", NIST_GROUPS)
    add("gnutls-modern", "modern", gnutls_server(modern, "--noticket"), MODERN)
    ecdhe = priority("1.3 1.2", AEAD_CIPHERS, "ECDHE-RSA ECDHE-ECDSA", NIST_GROUPS)
    add("gnutls-without-dh", "intermediate", gnutls_server(ecdhe, "--noticket"), GNUTLS)
    add("gnutls-ecdsa", "intermediate",
        gnutls_server(ecdhe, "--noticket", certificates=("ecdsa",)),
        GNUTLS.but(verdict=AGREES, certificates=(expected.ECDSA,),
                   suites={TLS_1_2: ECDHE_ECDSA_AEAD, TLS_1_3: TLS13}))
    add("gnutls-server-order", "intermediate",
        gnutls_server(ecdhe + ":%SERVER_PRECEDENCE", "--noticket"),
        GNUTLS.but(features={**GNUTLS.features, **SERVER_ORDER}))
    add("gnutls-without-ems", "intermediate",
        gnutls_server(ecdhe + ":%NO_SESSION_HASH", "--noticket"),
        GNUTLS.but(features={**GNUTLS.features, "extended-master-secret": REFUSED}))
    add("gnutls-without-renegotiation-info", "intermediate",
        gnutls_server(ecdhe + ":%DISABLE_SAFE_RENEGOTIATION", "--noticket"),
        GNUTLS.but(features={**GNUTLS.features, "secure-renegotiation": REFUSED}))
    # It numbers its sessions all the same.
    add("gnutls-without-sessions", "intermediate", gnutls_server(ecdhe, "--noticket", "--nodb"),
        GNUTLS)
    add("gnutls-client-certificate", "intermediate",
        gnutls_server(ecdhe, "--noticket", asks_for_certificate=True), GNUTLS)
    # Its DHE with AEAD cannot do without ChaCha20. Its parameters are those of RFC 7919; what is
    # told of TLS 1.2 is their size.
    dhe = priority("1.3 1.2", AEAD_CIPHERS, "ECDHE-RSA DHE-RSA", NIST_GROUPS + " FFDHE2048")
    add("gnutls-ffdhe", "intermediate", gnutls_server(dhe, "--noticket"),
        GNUTLS.but(suites={TLS_1_2: INTERMEDIATE_RSA + ("DHE-RSA-CHACHA20-POLY1305",),
                           TLS_1_3: TLS13}, dh_bits=2048,
                   groups13=LEVEL_GROUPS + ("ffdhe2048",)))
    add("gnutls-modern-ffdhe-only", "modern",
        gnutls_server(priority("1.3", AEAD_CIPHERS, "DHE-RSA", "FFDHE2048 FFDHE3072"),
                      "--noticket"),
        MODERN.but(verdict=DIFFERS, groups13=FFDHE_SMALL))
    # Its choice falls on DHE where a client has that, and there is no group for it: an alert that
    # says nothing of the client's offer.
    add("gnutls-x25519-only", "intermediate",
        gnutls_server("NORMAL:-GROUP-ALL:+GROUP-X25519", "--noticket"),
        GNUTLS.but(groups12=(X25519,), groups13=(X25519,), features={},
                   suites={TLS_1_0: GNUTLS_NORMAL_TLS10, TLS_1_1: GNUTLS_NORMAL_TLS10,
                           TLS_1_2: GNUTLS_NORMAL_TLS12, TLS_1_3: GNUTLS_TLS13},
                   unknown_suites={TLS_1_0: GNUTLS_NORMAL_DHE_TLS10,
                                   TLS_1_1: GNUTLS_NORMAL_DHE_TLS10,
                                   TLS_1_2: GNUTLS_NORMAL_DHE_TLS12}))
    for name, ciphers, macs, suites in (("rc4", "ARCFOUR-128", "SHA1 MD5", RC4_ALL),
                                        ("3des", "3DES-CBC", "SHA1", TRIPLE_DES_ALL)):
        add(f"gnutls-{name}", "intermediate",
            gnutls_server(priority("1.3 1.2", f"{AEAD_CIPHERS} {ciphers}", "ECDHE-RSA RSA",
                                   NIST_GROUPS, f"AEAD {macs}"), "--noticket"),
            GNUTLS.but(suites={TLS_1_2: ECDHE_RSA_AEAD + RSA_GCM + suites, TLS_1_3: TLS13}))
    add("gnutls-old-rc4", "old",
        gnutls_server(priority("1.2 1.1 1.0", "ARCFOUR-128 3DES-CBC AES-128-CBC", "RSA",
                               "SECP256R1", "SHA1"), "--noticket"),
        GNUTLS.but(suites={version: ("RC4-SHA", "DES-CBC3-SHA", "AES128-SHA")
                           for version in (TLS_1_0, TLS_1_1, TLS_1_2)},
                   groups12=(), groups13=()))


def add_client_certificates() -> None:
    add("client-certificate", "intermediate", openssl_intermediate("-Verify", "1"), INTERMEDIATE)
    add("client-certificate-modern", "modern", openssl_modern("-Verify", "1"), MODERN)
    cbc = RSA_SHA + ECDHE_RSA_SHA + RSA_CBC
    old = openssl_old("-Verify", "1", suites=INTERMEDIATE_RSA, more=cbc, dh=2048)
    add("client-certificate-and-old-versions", "intermediate", old, INTERMEDIATE.but(
        verdict=DIFFERS, suites={TLS_1_0: OLD_RSA_TLS10, TLS_1_1: OLD_RSA_TLS10,
                                 TLS_1_2: INTERMEDIATE_RSA + cbc, TLS_1_3: TLS13}))


def add_ways() -> None:
    """How a server is reached."""
    add("ipv6", "intermediate", openssl_intermediate(address="IPv6"), INTERMEDIATE,
        address="[::1]:{port}", compared=False)
    at_socket = nginx_server(NGINX_INTERMEDIATE, before="server { listen unix:{socket} ssl; }")
    add("unix-socket", "intermediate", at_socket, INTERMEDIATE, address="unix:{socket}",
        compared=False)
    add("by-name", "intermediate", openssl_intermediate(), INTERMEDIATE,
        address="localhost:{port}", compared=False)
    add("nothing-listens", "intermediate", lambda site: Nothing(),
        Expected(NOTHING_THERE, verdict_only=True), compared=False)
    add("second-certificate-for-name", "intermediate",
        openssl_with_second_certificate(), INTERMEDIATE_OF_ECDSA,
        "--servername", "second.localhost", compared=False)
    for protocol, plain_part in PLAIN_PARTS.items():
        add(f"starttls-{protocol}", "intermediate",
            after(plain_part, openssl_intermediate()), INTERMEDIATE,
            "--starttls", protocol, *(("--servername", "localhost") if protocol == "xmpp" else ()),
            compared=False)
    add("starttls-smtp-slow", "modern", after(slow_smtp, openssl_modern()), MODERN,
        "--starttls", "smtp", "--timeout", "10", "--deadline", "120", compared=False)
    add("starttls-smtp-not-offered", "intermediate", after(smtp_without_tls, openssl_modern()),
        Expected(CANNOT_TELL, verdict_only=True), "--starttls", "smtp", compared=False)


class Nothing:
    """A port where nothing listens."""

    def stop(self) -> None:
        pass


def openssl_with_second_certificate() -> Starter:
    def start(site: Site) -> Running:
        return openssl_intermediate(
            "-servername", "second.localhost", "-cert2", site.keys.certificate("ecdsa"),
            "-key2", site.keys.key("ecdsa"))(site)

    return start


def add_features() -> None:
    add("server-order", "intermediate", openssl_intermediate("-serverpref"),
        INTERMEDIATE.but(features={**OPENSSL_FEATURES, **SERVER_ORDER}))
    add("tickets", "intermediate", openssl_intermediate(tickets=True), INTERMEDIATE.but(
        verdict=DIFFERS, features={**OPENSSL_FEATURES, "session-tickets": ACCEPTED}))
    add("without-sessions", "intermediate", openssl_intermediate("-no_cache"),
        INTERMEDIATE.but(features={**OPENSSL_FEATURES, "session-ids": REFUSED}))
    # In its own order: a client that has P-384 has to have the certificate's P-256 too, and that is
    # what the server prefers. What no client can have, none lacks.
    add("server-order-ecdsa", "intermediate",
        openssl_intermediate("-serverpref", certificates=("ecdsa",)),
        INTERMEDIATE_OF_ECDSA.but(groups12=(P256,), hides_groups=True,
                                  features={**OPENSSL_FEATURES, **SERVER_ORDER}))


HANDMADE_FEATURES = {**CLIENT_ORDER, "compression": REFUSED, "session-ids": REFUSED,
                     "session-tickets": REFUSED, "secure-renegotiation": ACCEPTED,
                     "extended-master-secret": ACCEPTED}


def handmade(name: str, answers: Answers, **changes: Any) -> None:
    """What the answers name, and nothing else. For SSL 3 and older, RC4, single DES and export
    suites there is no other server left."""
    names = {SSL3: SSL_3, TLS1_0: TLS_1_0, TLS1_1: TLS_1_1, TLS1_2: TLS_1_2}
    suites = {names[version]: tuple(listed) for version, listed in answers.suites.items()}
    survey = Expected(DIFFERS, suites, certificates=(expected.RSA,), features=HANDMADE_FEATURES)
    add(name, "old", handmade_server(answers), survey.but(**changes), compared=False)


def add_handmade() -> None:
    sha = ("AES128-SHA", "AES256-SHA", "DES-CBC3-SHA")
    handmade("ssl-3", Answers({SSL3: sha, TLS1_0: sha, TLS1_1: sha, TLS1_2: sha}))
    handmade("ssl-3-only", Answers({SSL3: sha}),
             features={**HANDMADE_FEATURES, "extended-master-secret": REFUSED})
    handmade("ssl-2", Answers({TLS1_0: sha}, ssl2=True),
             suites={SSL_2: ANY_SUITES, TLS_1_0: sha})
    handmade("ssl-2-and-3", Answers({SSL3: sha}, ssl2=True), suites={SSL_2: ANY_SUITES, SSL_3: sha},
             features={**HANDMADE_FEATURES, "extended-master-secret": REFUSED})
    handmade("export-and-des", Answers({TLS1_0: ("EXP-RC4-MD5", "DES-CBC-SHA", "RC4-MD5")}))
    handmade("compression", Answers({TLS1_2: sha}, compression=True),
             features={**HANDMADE_FEATURES, "compression": ACCEPTED})
    handmade("session-ids", Answers({TLS1_2: sha}, session_ids=True),
             features={**HANDMADE_FEATURES, "session-ids": ACCEPTED})
    handmade("no-extensions", Answers({TLS1_2: sha}, secure_renegotiation=False,
                                      extended_master_secret=False),
             features={**HANDMADE_FEATURES, "secure-renegotiation": REFUSED,
                       "extended-master-secret": REFUSED})
    handmade("anonymous-dh-of-512-bits", Answers({TLS1_2: ("ADH-AES128-SHA",)}, dh_bits=512),
             certificates=(), features={})
    handmade("dhe-of-512-bits", Answers({TLS1_0: ("DHE-RSA-AES128-SHA", "AES128-SHA")},
                                        dh_bits=512), dh_bits=512)
    handmade("dhe-of-768-bits", Answers({TLS1_2: INTERMEDIATE_RSA}, dh_bits=768), dh_bits=768,
             groups12=(P256,))
    handmade("handmade-server-order", Answers({TLS1_2: sha}, server_order=True),
             features={**HANDMADE_FEATURES, **SERVER_ORDER})


TIMED = ("--timeout", "2", "--deadline", "20")
STUMBLED_OVER = 0xC0AC  # ECDHE-ECDSA-AES128-CCM


def add_proxies() -> None:
    intermediate = openssl_intermediate()
    for name, back in (
            ("every-7th-closed", spoiling(intermediate, proxies.close, lambda n: n % 7 == 0)),
            ("every-5th-reset", spoiling(intermediate, proxies.reset, lambda n: n % 5 == 0)),
            ("first-closed", spoiling(intermediate, proxies.close, lambda n: n == 1)),
            # After fifteen connections it takes none for a while.
            ("rate-limiting", spoiling(intermediate, proxies.close, lambda n: n % 20 >= 15)),
            ("bytewise", bytewise(intermediate)),
            ("small-records", small_records(intermediate)),
            ("long-hellos-closed", picky(intermediate, lambda hello: hello.size > 512)),
            ("many-suites-closed", picky(intermediate, lambda hello: len(hello.suites) > 64))):
        add(name, "intermediate", back, INTERMEDIATE, compared=False)
    add("tarpit-every-13th", "intermediate",
        spoiling(intermediate, proxies.tarpit, lambda n: n % 13 == 0), INTERMEDIATE,
        "--timeout", "2", compared=False)
    add("slow", "modern", delaying(openssl_modern(), 2.2), MODERN, "--timeout", "10",
        "--deadline", "120", compared=False)
    # One suite makes it stumble; whether it has that suite, nobody can find out. To SSL 3 it says
    # that no suite will do, not that the version will not.
    add("stumbling-over-a-suite", "intermediate",
        picky(intermediate, lambda hello: STUMBLED_OVER in hello.suites),
        INTERMEDIATE.but(verdict=CANNOT_TELL,
                         also_unknown=(SSL_3,),
                         unknown_suites={TLS_1_2: ("ECDHE-ECDSA-AES128-CCM",)}), compared=False)
    add("closing-at-tls-1.3", "intermediate",
        picky(openssl_intermediate("-tls1_2"), lambda hello: 0x0304 in hello.versions),
        INTERMEDIATE.but(verdict=CANNOT_TELL, suites={TLS_1_2: INTERMEDIATE_RSA}, groups13=(),
                         also_unknown=(TLS_1_3,)), compared=False)
    add("closing-at-old-versions", "intermediate",
        picky(intermediate, lambda hello: max(hello.versions) < 0x0303),
        INTERMEDIATE.but(verdict=CANNOT_TELL, also_unknown=(SSL_2, SSL_3, TLS_1_0, TLS_1_1)),
        compared=False)


def add_strangers() -> None:
    # Those that begin with a good ServerHello have refused TLS 1.3 with it.
    refusing = ("endless-handshake", "huge-certificate")
    for name, handler in STRANGERS.items():
        add(f"stranger-{name}", "intermediate", listening(handler),
            Expected(DIFFERS if name in refusing else CANNOT_TELL, verdict_only=True), *TIMED,
            compared=False)


for add_some in (add_levels, add_nginx, add_lacking, add_beside, add_groups, add_dh,
                 add_certificates, add_python, add_gnutls, add_client_certificates, add_ways,
                 add_features, add_handmade, add_proxies, add_strangers):
    add_some()
