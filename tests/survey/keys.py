"""Certificates, keys and Diffie-Hellman parameters of the servers, made once for each run."""

import functools
import os
import subprocess

# X.509's own spelling of times. The survey has to report these two.
NOT_BEFORE, NOT_AFTER = "20260101000000Z", "20460101000000Z"

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DH_FILES = {bits: os.path.join(PROJECT, "tests/bed/data", f"dh{bits}.pem") for bits in (1024, 2048)}
DH_FILES[768] = os.path.join(os.path.dirname(os.path.abspath(__file__)), "dh768.pem")
DH_FILES[3072] = os.path.join(os.path.dirname(os.path.abspath(__file__)), "dh3072.pem")

ALGORITHMS = {
    "rsa": ["RSA", "rsa_keygen_bits:2048"],
    "rsa1024": ["RSA", "rsa_keygen_bits:1024"],
    "rsa3072": ["RSA", "rsa_keygen_bits:3072"],
    "rsa-pss": ["RSA-PSS", "rsa_keygen_bits:2048"],
    "ecdsa": ["EC", "ec_paramgen_curve:prime256v1"],
    "ecdsa384": ["EC", "ec_paramgen_curve:secp384r1"],
    "ed25519": ["ED25519"],
    "ed448": ["ED448"],
    "dsa": ["DSA"],
}
CA_SETTINGS = """
[ca]
default_ca = here
[here]
database = {directory}/index
serial = {directory}/serial
new_certs_dir = {directory}
default_md = {digest}
policy = any
unique_subject = no
x509_extensions = names
[any]
commonName = supplied
[names]
subjectAltName = DNS:localhost, DNS:{name}.localhost
[req]
distinguished_name = subject
[subject]
"""


def run(*command: str) -> None:
    """Its output shows only if it fails."""
    result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} ended with {result.returncode}: {result.stdout}")


class Keys:
    """PEM files by name; each is made when it is first asked for."""

    def __init__(self, directory: str) -> None:
        self.directory = directory
        os.makedirs(directory, exist_ok=True)

    @functools.cache
    def certificate(self, name: str) -> str:
        self._make(name)
        return os.path.join(self.directory, f"{name}.crt")

    def key(self, name: str) -> str:
        self.certificate(name)
        return os.path.join(self.directory, f"{name}.key")

    @functools.cache
    def certificate_with_key(self, name: str) -> str:
        path = os.path.join(self.directory, f"{name}.pem")
        with open(path, "w", encoding="ascii") as both:
            for part in (self.certificate(name), self.key(name)):
                with open(part, encoding="ascii") as file:
                    both.write(file.read())
        return path

    def make_all(self) -> None:
        """Before there are threads, so that none is made twice."""
        for name in ALGORITHMS:
            self.certificate_with_key(name)

    def _make(self, name: str) -> None:
        place = os.path.join(self.directory, f"{name}.ca")
        os.makedirs(place)
        digest = "default" if name in ("ed25519", "ed448") else "sha256"
        with open(f"{place}/settings", "w", encoding="ascii") as file:
            file.write(CA_SETTINGS.format(directory=place, digest=digest, name=name))
        open(f"{place}/index", "w", encoding="ascii").close()
        with open(f"{place}/serial", "w", encoding="ascii") as file:
            file.write("01\n")
        key, request = f"{self.directory}/{name}.key", f"{place}/request"
        self._make_key(name, key, place)
        settings = ["-config", f"{place}/settings"]
        run("openssl", "req", "-new", *settings, "-key", key, "-subj", "/CN=localhost",
            "-out", request)
        run("openssl", "ca", *settings, "-batch", "-notext", "-selfsign", "-keyfile", key,
            "-in", request, "-startdate", NOT_BEFORE, "-enddate", NOT_AFTER,
            "-out", f"{self.directory}/{name}.crt")

    @staticmethod
    def _make_key(name: str, key: str, place: str) -> None:
        algorithm, *options = ALGORITHMS[name]
        if algorithm == "DSA":
            run("openssl", "genpkey", "-genparam", "-algorithm", "DSA", "-pkeyopt",
                "dsa_paramgen_bits:2048", "-out", f"{place}/parameters")
            run("openssl", "genpkey", "-paramfile", f"{place}/parameters", "-out", key)
            return
        chosen = [word for option in options for word in ("-pkeyopt", option)]
        run("openssl", "genpkey", "-algorithm", algorithm, *chosen, "-out", key)
