"""Certificates for servers on the loopback interface."""

import lab


class Authority:
    """`ca` is the file that a client must trust; `certificate` and `key` are those of a server."""

    def __init__(self, folder):
        folder.mkdir()
        self.ca, ca_key = folder / "ca.pem", folder / "ca.key"
        self.certificate, self.key = folder / "server.pem", folder / "server.key"
        request, names = folder / "server.csr", folder / "names"
        new = ["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-batch"]
        lab.run(*new, "-x509", "-days", 30, "-subj", "/CN=Trial CA", "-keyout", ca_key, "-out", self.ca)
        lab.run(*new, "-subj", "/CN=127.0.0.1", "-keyout", self.key, "-out", request)
        names.write_text("subjectAltName=IP:127.0.0.1,DNS:localhost\n", encoding="ascii")
        signing = ["-CA", self.ca, "-CAkey", ca_key, "-CAcreateserial", "-days", 30, "-extfile", names]
        lab.run("openssl", "x509", "-req", "-in", request, *signing, "-out", self.certificate)
        self.key.chmod(0o644)  # for servers that give up their rights; it is worth nothing
