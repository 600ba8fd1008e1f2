"""Certificates for programs that are started to be probed."""

import subprocess


class Certificates:
    """A CA of its own, a certificate for each address, and one for the prober: in folder `home` ca.pem,
    ADDRESS.pem and ADDRESS.key, and client.pem with its key."""

    def __init__(self, home, addresses):
        self.home = home
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=Demo CA",
                     "-keyout", f"{home}/ca.key", "-out", f"{home}/ca.pem")
        self.issue("client", "/CN=prober", None)
        with open(f"{home}/client.pem", "a", encoding="utf-8") as pem, \
                open(f"{home}/client.key", encoding="utf-8") as key:
            pem.write(key.read())  # a profile names one file with both
        for address in addresses:
            self.issue(address, f"/CN={address}", f"subjectAltName=IP:{address}")

    def issue(self, name, subject, extension):
        file = f"{self.home}/{name}"
        self.openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", subject, "-keyout", f"{file}.key",
                     "-out", f"{file}.csr")
        sign = ["x509", "-req", "-in", f"{file}.csr", "-CA", f"{self.home}/ca.pem", "-CAkey", f"{self.home}/ca.key",
                "-CAcreateserial", "-days", "2", "-out", f"{file}.pem"]
        if extension:
            with open(f"{file}.ext", "w", encoding="utf-8") as text:
                text.write(extension + "\n")
            sign += ["-extfile", f"{file}.ext"]
        self.openssl(*sign)

    @staticmethod
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
