"""Web servers, each with a configuration of its own; their constructors start them on a Ground."""

import shutil
import signal

from ground import free_port


class Nginx:
    """`server` and `http` are further lines of those blocks, `location` what the one location holds; `whole` comes
    instead of a server block. `again()` starts it after `stop()`, with the same port."""

    def __init__(self, ground, www=None, server="", http="", location="", tls="", port=None, whole=""):
        self.ground, self.port = ground, port or free_port()
        self.folder = ground.folder("nginx")
        self.config = self.folder / "nginx.conf"
        kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        temporary = "".join(f"{kind}_temp_path {self.folder}/{kind};\n" for kind in kinds)
        authority = ground.authority
        secure = f"ssl_certificate {authority.certificate};\nssl_certificate_key {authority.key};\n" if tls else ""
        block = (
            f"server {{\nlisten 127.0.0.1:{self.port} {tls};\n{secure}root {www or ground.www};\n{server}\n"
            f"location / {{ {location} }}\n}}\n"
        )
        self.config.write_text(
            f"user root;\nworker_processes 1;\npid {self.folder}/pid;\nerror_log {self.folder}/error.log;\n"
            "events { worker_connections 512; }\n"
            f"http {{\ninclude /etc/nginx/mime.types;\ndefault_type application/octet-stream;\nsendfile on;\n"
            f"access_log {self.folder}/access.log;\n{temporary}{http}\n{whole or block}}}\n",
            encoding="ascii",
        )
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.port}/"
        self.again()

    def again(self):
        words = ["nginx", "-c", self.config, "-e", self.folder / "error.log", "-g", "daemon off;"]
        self.process = self.ground.start(self.port, self.folder, *words)

    def stop(self):
        self.process.terminate()
        self.process.wait(20)

    def reload(self):
        self.process.send_signal(signal.SIGHUP)


class Apache:
    def __init__(self, ground, lines="", modules=(), tls=False):
        self.port = free_port()
        folder = ground.folder("apache")
        (folder / "logs").mkdir()
        authority = ground.authority
        if tls:
            modules = ["ssl", "http2", *modules]
            lines += (
                "Protocols h2 http/1.1\nSSLEngine on\n"
                f"SSLCertificateFile {authority.certificate}\nSSLCertificateKeyFile {authority.key}\n"
            )
        loads = "".join(
            f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n"
            for name in ("mpm_event", "authz_core", "mime", *modules)
        )
        (folder / "apache.conf").write_text(
            f"ServerRoot {folder}\n{loads}PidFile {folder}/pid\nListen 127.0.0.1:{self.port}\n"
            f"ServerName 127.0.0.1\nUser www-data\nGroup www-data\nTypesConfig /etc/mime.types\n"
            f"ErrorLog {folder}/logs/error.log\nDocumentRoot {ground.www}\n"
            f"<Directory />\nRequire all granted\n</Directory>\n{lines}",
            encoding="ascii",
        )
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.port}/"
        ground.start(self.port, folder, "apache2", "-D", "FOREGROUND", "-f", folder / "apache.conf")


class Lighttpd:
    def __init__(self, ground, whole=""):
        self.port = free_port()
        folder = ground.folder("lighttpd")
        (folder / "lighttpd.conf").write_text(
            f'server.bind = "127.0.0.1"\nserver.port = {self.port}\nserver.errorlog = "{folder}/error.log"\n'
            + (whole or f'server.document-root = "{ground.www}"\n'),
            encoding="ascii",
        )
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, folder, "lighttpd", "-D", "-f", folder / "lighttpd.conf")


class Caddy:
    def __init__(self, ground, lines="", tls=False, whole=""):
        self.port = free_port()
        folder = ground.folder("caddy")
        authority = ground.authority
        secure = f"tls {authority.certificate} {authority.key}\n" if tls else ""
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.port}/"
        block = f":80 {{\n{secure}root * {ground.www}\n{lines}\nfile_server\n}}\n"
        (folder / "Caddyfile").write_text(
            "{\nadmin off\nauto_https off\n}\n" + (whole or block).replace(":80 ", self.url.rstrip("/") + " "),
            encoding="ascii",
        )
        words = ["caddy", "run", "--config", folder / "Caddyfile", "--adapter", "caddyfile"]
        own = {name: str(folder) for name in ("HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME")}
        ground.start(self.port, folder, *words, env=own)


class Busybox:
    def __init__(self, ground):
        self.port = free_port()
        words = ["busybox", "httpd", "-f", "-p", f"127.0.0.1:{self.port}", "-h", ground.www]
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, ground.folder("busybox"), *words)


class PythonServer:
    """A server of HTTP/1.0, with a connection for each request, and without ranges."""

    def __init__(self, ground):
        self.port = free_port()
        words = [shutil.which("python3"), "-m", "http.server", self.port, "-b", "127.0.0.1", "-d", ground.www]
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, ground.folder("python"), *words)
