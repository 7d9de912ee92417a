"""A certificate for a server on loopback, which is its own authority."""
import subprocess


def make_certificate(folder, name):
    """`cert` and `key` in the folder, for "DNS:localhost" or "IP:127.0.0.1"."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "key", "-out",
                    "cert", "-subj", "/CN=localhost", "-addext", f"subjectAltName={name}", "-days", "2"],
                   cwd=folder, check=True, capture_output=True)
