"""The clients that are let connect: what each is called with, so that it offers this or that.

A client is (name, command line, standard input, changes of the environment); in the command line
{port} stands for the server's. None of them trusts anything, so that none refuses a certificate.
"""
import os
import shutil
import subprocess

project = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
appliance = project + "/build/appliance-sdk"
debian13 = project + "/build/debian13-clients"

VERSIONS = ["-tls1", "-tls1_1", "-tls1_2", "-tls1_3", "-no_tls1_3", "-no_tls1_2", ""]
LISTS = ["ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384:AES128-SHA",
         "DHE-RSA-AES256-GCM-SHA384", "AES128-SHA", "AES256-GCM-SHA384:AES128-SHA256",
         "DHE-RSA-CHACHA20-POLY1305:CAMELLIA256-SHA", "CAMELLIA128-SHA", "ALL", "kDHE", "kRSA",
         "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305", "aECDSA", "SHA1"]
SUITES13 = ["TLS_AES_128_GCM_SHA256", "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384",
            "TLS_AES_128_CCM_SHA256", "TLS_AES_128_CCM_8_SHA256:TLS_AES_256_GCM_SHA384"]
GROUPS = ["X25519", "X25519:P-256", "P-256:X25519", "P-384", "P-521:P-384", "X448:X25519", "X448"]
SIGNATURES = ["RSA+SHA256", "ECDSA+SHA256", "RSA-PSS+SHA256:ECDSA+SHA384", "RSA+SHA1:ECDSA+SHA1",
              "ed25519", "RSA+SHA512:RSA-PSS+SHA512", "ECDSA+SHA512", "rsa_pss_pss_sha256"]


def openssl(name, command, environment):
    base = command + ["s_client", "-connect", "127.0.0.1:{port}"]
    lax = "DEFAULT:@SECLEVEL=0"
    offers = [("", [])]
    for version in VERSIONS:
        offers += [(version or "lax", [version, "-cipher", lax] if version else ["-cipher", lax])]
    for suites in LISTS:
        offers += [(suites + " " + version, ["-cipher", suites + ":@SECLEVEL=0", version])
                   for version in ("-no_tls1_3", "-tls1_1", "-tls1_3")[:2]]
        offers += [(suites, ["-cipher", suites + ":@SECLEVEL=0"])]
    offers += [(suites, ["-ciphersuites", suites]) for suites in SUITES13]
    offers += [(suites + " only", ["-ciphersuites", suites, "-tls1_3"]) for suites in SUITES13]
    for groups in GROUPS:
        offers += [(groups, ["-groups", groups]), (groups + " -tls1_2", ["-groups", groups, "-tls1_2"])]
    for signatures in SIGNATURES:
        offers += [(signatures, ["-sigalgs", signatures]),
                   (signatures + " -tls1_2", ["-sigalgs", signatures, "-tls1_2"])]
    offers += [("name", ["-servername", "a.example"]), ("ALPN", ["-alpn", "h2,http/1.1"]),
               ("fallback", ["-fallback_scsv", "-tls1_2"]), ("status", ["-status"]),
               ("no ticket", ["-no_ticket"]), ("no EtM", ["-no_etm", "-tls1_2"])]
    for offer, arguments in offers:
        yield name + " " + offer, base + arguments, "GET / HTTP/1.0\r\n\r\n", environment


def openssl_30():
    yield from openssl("openssl 3.0", ["/usr/bin/openssl"], {})


def in_root(root):
    """openssl of another Debian, with its own libraries; and its surroundings."""
    libraries = root + "/usr/lib/x86_64-linux-gnu"
    paths = libraries + ":" + root + "/lib/x86_64-linux-gnu"
    loader = next(one for one in (root + "/lib/x86_64-linux-gnu/ld-linux-x86-64.so.2",
                                  root + "/usr/lib64/ld-linux-x86-64.so.2", "")
                  if one == "" or os.path.exists(one))  # links may lead out of the root
    environment = {"OPENSSL_CONF": root + "/etc/ssl/openssl.cnf",
                   "OPENSSL_MODULES": libraries + "/ossl-modules"}
    return [loader, "--library-path", paths, root + "/usr/bin/openssl"], environment


def openssl_35():
    command, environment = in_root(debian13)
    yield from openssl("openssl 3.5", command, environment)
    base = command + ["s_client", "-connect", "127.0.0.1:{port}"]
    for groups in ["X25519MLKEM768", "X25519MLKEM768:P-256", "MLKEM1024:SecP256r1MLKEM768"]:
        yield "openssl 3.5 " + groups, base + ["-groups", groups], "GET / HTTP/1.0\r\n\r\n", environment


def openssl_111():
    """Of the appliance's generation; the same release as on the appliance."""
    yield from openssl("openssl 1.1.1", *in_root(appliance))


def gnutls():
    none = "NONE:+MAC-ALL:+SIGN-ALL:+COMP-NULL:+CTYPE-X509:%DISABLE_SAFE_RENEGOTIATION:%VERIFY_ALLOW_BROKEN"
    versions = ["NORMAL", "SECURE128", "PFS", "LEGACY", "PERFORMANCE",
                "NORMAL:-VERS-ALL:+VERS-TLS1.3", "NORMAL:-VERS-ALL:+VERS-TLS1.2",
                "LEGACY:-VERS-ALL:+VERS-TLS1.1", "LEGACY:-VERS-ALL:+VERS-TLS1.0",
                "LEGACY:-VERS-ALL:+VERS-TLS1.0:+VERS-TLS1.1:+VERS-TLS1.2"]
    groups = ["X25519", "SECP256R1", "SECP384R1", "X448", "FFDHE2048", "SECP521R1:+GROUP-X25519"]
    exchanges = ["ECDHE-RSA", "ECDHE-ECDSA", "DHE-RSA", "RSA", "RSA:+ECDHE-ECDSA"]
    ciphers = ["AES-128-GCM", "AES-256-GCM", "CHACHA20-POLY1305", "AES-128-CBC", "AES-128-CCM",
               "CAMELLIA-128-GCM", "3DES-CBC"]
    signatures = ["RSA-SHA256", "ECDSA-SECP256R1-SHA256:+SIGN-ECDSA-SHA256", "RSA-PSS-RSAE-SHA256",
                  "EDDSA-ED25519", "RSA-SHA1"]
    offers = versions
    offers += [f"NORMAL:-GROUP-ALL:+GROUP-{one}" for one in groups]
    offers += [f"NORMAL:-VERS-TLS1.3:-GROUP-ALL:+GROUP-{one}" for one in groups]
    offers += [none + f":+VERS-TLS1.2:+GROUP-ALL:+CIPHER-ALL:+{one}" for one in exchanges]
    offers += [f"NORMAL:-CIPHER-ALL:+{one}" for one in ciphers]
    offers += [f"NORMAL:-VERS-TLS1.3:-CIPHER-ALL:+{one}" for one in ciphers]
    offers += [f"NORMAL:-SIGN-ALL:+SIGN-{one}" for one in signatures]
    offers += [f"NORMAL:-VERS-TLS1.3:-SIGN-ALL:+SIGN-{one}" for one in signatures]
    for offer in offers:
        yield ("gnutls-cli " + offer,
               ["/usr/bin/gnutls-cli", "--insecure", "--priority", offer, "-p", "{port}", "127.0.0.1"],
               "GET / HTTP/1.0\r\n\r\n", {})


def curl():
    offers = [[], ["--http1.1"], ["--tls-max", "1.2"], ["--tlsv1.3"], ["--tls-max", "1.0", "--tlsv1.0"],
              ["--no-alpn"], ["--tls-max", "1.1", "--tlsv1.0", "--ciphers", "DEFAULT:@SECLEVEL=0"]]
    offers += [["--curves", one] for one in ("X25519", "P-256", "P-384:P-521")]
    offers += [["--ciphers", one, "--tls-max", "1.2"] for one in LISTS[:6]]
    offers += [["--tls13-ciphers", one] for one in SUITES13[:3]]
    for offer in offers:
        yield ("curl " + " ".join(offer),
               ["/usr/bin/curl", "-sk", "--max-time", "8", *offer, "https://127.0.0.1:{port}/"], "", {})


def wget():
    for offer in ([], ["--secure-protocol=TLSv1"], ["--secure-protocol=TLSv1_1"],
                  ["--secure-protocol=TLSv1_2"], ["--secure-protocol=TLSv1_3"],
                  ["--secure-protocol=PFS"], ["--ciphers=NORMAL:-GROUP-X25519"],
                  ["--ciphers=SECURE256"]):
        yield ("wget " + " ".join(offer),
               ["/usr/bin/wget", "-q", "-O", "-", "--tries=1", "--timeout=8", "--no-check-certificate",
                *offer, "https://127.0.0.1:{port}/"], "", {})


def python():
    program = """
import socket, ssl, sys
context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
context.check_hostname = False
context.verify_mode = ssl.CERT_NONE
exec(sys.argv[2])
with socket.create_connection(("127.0.0.1", int(sys.argv[1])), 8) as plain:
    with context.wrap_socket(plain, server_hostname=NAME if "NAME" in globals() else None) as tls:
        tls.sendall(b"GET / HTTP/1.0\\r\\n\\r\\n")
        tls.recv(100)
"""
    offers = ["", "NAME = 'a.example'", "context.set_alpn_protocols(['h2', 'http/1.1'])",
              "context.maximum_version = ssl.TLSVersion.TLSv1_2",
              "context.minimum_version = ssl.TLSVersion.TLSv1_3",
              "context.set_ecdh_curve('prime256v1')", "context.set_ecdh_curve('X448')",
              "context.set_ciphers('AES128-SHA:@SECLEVEL=0')",
              "context.set_ciphers('ALL:@SECLEVEL=0'); context.minimum_version = ssl.TLSVersion.TLSv1;"
              "context.maximum_version = ssl.TLSVersion.TLSv1_1",
              "context.options |= ssl.OP_NO_TICKET",
              "context.set_ciphers('ECDHE+AESGCM'); context.maximum_version = ssl.TLSVersion.TLSv1_2"]
    for offer in offers:
        yield "Python " + offer, ["/usr/bin/python3", "-c", program, "{port}", offer], "", {}


def nss():
    offers = [["-V", one] for one in ("tls1.2:tls1.3", "tls1.2:tls1.2", "tls1.3:tls1.3", "tls1.0:tls1.1",
                                      "tls1.0:tls1.3")]
    offers += [["-V", "tls1.2:tls1.3", "-I", one] for one in ("P256", "P384,P521", "x25519", "FF2048",
                                                             "x25519,P256")]
    offers += [["-V", "tls1.2:tls1.2", "-c", one] for one in
               (":c02f", ":c02b", ":009e", ":002f", ":000a:0035", ":cca8:cca9")]
    offers += [["-V", "tls1.3:tls1.3", "-c", one] for one in (":1301", ":1303:1302")]
    offers += [["-V", "tls1.2:tls1.3", "-J", one] for one in
               ("rsa_pss_rsae_sha256", "ecdsa_secp256r1_sha256", "rsa_pkcs1_sha256,ecdsa_secp384r1_sha384")]
    for offer in offers:
        yield ("tstclnt " + " ".join(offer),
               ["/usr/bin/tstclnt", "-h", "127.0.0.1", "-p", "{port}", "-D", "-o", "-Q", *offer], "", {})


def node():
    program = ("const s=require('tls').connect(Object.assign({host:'127.0.0.1',port:+process.argv[1],"
               "rejectUnauthorized:false},eval('('+process.argv[2]+')')),()=>{s.end('GET / HTTP/1.0\\r\\n\\r\\n')});"
               "s.on('error',()=>{});s.setTimeout(8000,()=>s.destroy());s.resume()")
    for offer in ("{}", "{maxVersion:'TLSv1.2'}", "{minVersion:'TLSv1.3'}", "{ecdhCurve:'X25519'}",
                  "{servername:'a.example',ALPNProtocols:['h2']}", "{ecdhCurve:'P-384:P-256'}",
                  "{ciphers:'ECDHE-ECDSA-AES128-GCM-SHA256',maxVersion:'TLSv1.2'}",
                  "{sigalgs:'RSA-PSS+SHA256'}",
                  "{minVersion:'TLSv1',maxVersion:'TLSv1.1',ciphers:'ALL:@SECLEVEL=0'}"):
        yield "Node.js " + offer, ["/usr/bin/node", "-e", program, "{port}", offer], "", {}


def ruby():
    program = """
require 'socket'; require 'openssl'
context = OpenSSL::SSL::SSLContext.new
context.verify_mode = OpenSSL::SSL::VERIFY_NONE
eval(ARGV[1])
tls = OpenSSL::SSL::SSLSocket.new(TCPSocket.new('127.0.0.1', ARGV[0].to_i), context)
tls.connect
tls.write("GET / HTTP/1.0\r\n\r\n")
tls.read
"""
    for offer in ("", "context.max_version = :TLS1_2", "context.min_version = :TLS1_3",
                  "context.ecdh_curves = 'X25519'", "context.ciphers = 'AES256-SHA:@SECLEVEL=0'",
                  "context.alpn_protocols = ['http/1.1']"):
        yield "Ruby " + offer, ["/usr/bin/ruby", "-e", program, "{port}", offer], "", {}


def java():
    for offer in ("", "protocols=TLSv1.2", "protocols=TLSv1.3", "protocols=TLSv1,TLSv1.1",
                  "protocols=TLSv1,TLSv1.1,TLSv1.2", "suites=TLS_AES_256_GCM_SHA384",
                  "suites=TLS_RSA_WITH_AES_128_CBC_SHA",
                  "suites=TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384,TLS_DHE_RSA_WITH_AES_128_GCM_SHA256",
                  "groups=secp256r1", "groups=x25519", "groups=ffdhe2048", "name=a.example"):
        groups = offer[7:] if offer.startswith("groups=") else ""
        yield ("Java " + offer,
               ["/usr/bin/java", "-Xshare:auto", "-XX:TieredStopAtLevel=1",
                "-Djava.security.properties=/tmp/java.security",
                *(["-Djdk.tls.namedGroups=" + groups] if groups else []),
                "-cp", "/tmp", "Client", "{port}", "" if groups else offer], "", {})


def go():
    for offer in ("", "max=1.2", "min=1.3", "min=1.0,max=1.1", "curves=X25519", "curves=P256",
                  "curves=P384,min=1.3", "suite=0xc02b,max=1.2", "suite=0x2f,max=1.2",
                  "name=a.example"):
        yield "Go " + offer, ["/tmp/go-client", "{port}", offer], "", {}


def chromium():
    for offer in ([], ["--ssl-version-max=tls1.2"], ["--ssl-version-min=tls1.3"],
                  ["--disable-features=PostQuantumKyber,UseMLKEM"],
                  ["--cipher-suite-blacklist=0xc02f,0xc02b,0x1301"]):
        yield ("Chromium " + " ".join(offer),
               ["/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu",
                "--disable-dev-shm-usage", "--ignore-certificate-errors", "--no-first-run",
                "--user-data-dir=/tmp/chromium", "--timeout=4000", "--dump-dom", *offer,
                "https://127.0.0.1:{port}/"], "", {})


def firefox():
    for offer in ("", "security.tls.version.max=3", "security.tls.version.min=4",
                  "security.tls.enable_kyber=false", "security.tls.version.min=1"):
        yield ("Firefox ESR " + offer,
               [os.path.dirname(os.path.abspath(__file__)) + "/firefox", "{port}", offer], "", {})


FAMILIES = [openssl_30, openssl_35, openssl_111, gnutls, curl, wget, python, nss, node, ruby, java, go,
            chromium, firefox]


KNOWN = [("OpenSSL", "", openssl_30), ("OpenSSL", "", openssl_35), ("OpenSSL", "", openssl_111),
         ("GnuTLS", "gnutls-bin", gnutls), ("curl", "curl", curl), ("Wget", "wget", wget),
         ("Python", "python3.11", python), ("NSS", "libnss3-tools", nss),
         ("Node.js", "nodejs", node), ("Ruby", "ruby3.1", ruby),
         ("Java", "openjdk-17-jdk-headless", java), ("Go", "golang-1.19-go", go),
         ("Chromium", "chromium", chromium), ("Firefox ESR", "firefox-esr", firefox)]

# What of an offer leaves a client as it comes, or gives it a name to ask for.
PLAIN = ("", "{}", "NORMAL", "-V tls1.2:tls1.3", "name=a.example", "NAME = 'a.example'", "name")


def version_of(package, command):
    """Of openssl the one that it tells: a root's packages may only be unpacked."""
    if package:
        told = subprocess.run(["dpkg-query", "-W", "-f", "${source:Upstream-Version}", package],
                              stdout=subprocess.PIPE, text=True, check=True).stdout
        return told.split("~")[0].split("+")[0]
    told = subprocess.run([*command[:command.index("s_client")], "version"], stdout=subprocess.PIPE,
                          text=True, check=True)
    return told.stdout.split()[1]


def as_they_come():
    """(name, client) of clients without an option, connecting to an address and to a name."""
    for name, package, family in KNOWN:
        offers = list(family())
        version = version_of(package, offers[0][1])
        words_of_name = len(offers[0][0].split(" ")) if name in ("OpenSSL", "Firefox ESR") else 2
        for client in offers:
            offer = client[0].split(" ", words_of_name - 1)[-1] if " " in client[0] else ""
            if offer.strip() in PLAIN:
                yield f"{name} {version}", client
                words = [word.replace("127.0.0.1", "localhost") for word in client[1]]
                if words != client[1]:
                    yield f"{name} {version}", (client[0], words, *client[2:])


def is_there(client):
    return shutil.which(client[1][0]) is not None
