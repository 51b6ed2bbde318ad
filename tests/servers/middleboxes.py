"""What stands between a client and a web server: balancers, caches, proxies; their constructors start them."""

from ground import free_port
from servers import Nginx


def origin(port):
    return f"http://127.0.0.1:{port}"


def slices(ground, port, size="1m"):
    """nginx with a cache that fetches slices of its own size."""
    zone = f"proxy_cache_path {ground.folder('slices')} keys_zone=slices:1m max_size=200m use_temp_path=off;"
    lines = (
        f"slice {size}; proxy_cache slices; proxy_cache_key $uri$is_args$args$slice_range; "
        "proxy_set_header Range $slice_range; proxy_http_version 1.1; proxy_cache_valid 200 206 1h; "
        f"proxy_pass {origin(port)};"
    )
    return Nginx(ground, http=zone, location=lines)


def whole_cache(ground, port):
    """nginx with a cache of whole files."""
    zone = f"proxy_cache_path {ground.folder('whole')} keys_zone=whole:1m max_size=200m use_temp_path=off;"
    return Nginx(ground, http=zone, location=f"proxy_cache whole; proxy_cache_valid 200 1h; proxy_pass {origin(port)};")


class Haproxy:
    """A balancer that gives requests to the web servers at these ports in turn."""

    def __init__(self, ground, *ports, lines=""):
        self.port = free_port()
        folder = ground.folder("haproxy")
        servers = "".join(f"  server s{port} 127.0.0.1:{port}\n" for port in ports)
        (folder / "haproxy.cfg").write_text(
            "global\n  maxconn 200\ndefaults\n  mode http\n  timeout connect 5s\n  timeout client 30s\n"
            f"  timeout server 30s\n{lines}frontend front\n  bind 127.0.0.1:{self.port}\n  default_backend back\n"
            f"backend back\n  balance roundrobin\n{servers}",
            encoding="ascii",
        )
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, folder, "haproxy", "-db", "-f", folder / "haproxy.cfg")


class Varnish:
    """A cache in front of the web server at `port`. Where there is a `vcl` that names the server, too."""

    def __init__(self, ground, port, vcl=""):
        self.port = free_port()
        folder = ground.folder("varnish")
        words = ["varnishd", "-F", "-j", "none", "-n", folder, "-a", f"127.0.0.1:{self.port}"]
        self.url = f"http://127.0.0.1:{self.port}/"
        backend = ["-b", f"127.0.0.1:{port}"]
        if vcl:
            program = ground.folder("vcl") / "game.vcl"
            program.write_text(vcl, encoding="ascii")
            backend = ["-f", program]
        ground.start(self.port, folder, *words, *backend, "-s", "malloc,200m", "-T", "none")


class Squid:
    """A cache in front of the web server at `port`, or a proxy for all servers where that is none."""

    def __init__(self, ground, port=None, lines=""):
        self.port = free_port()
        folder = ground.folder("squid", owner="proxy")
        accelerated = f"accel defaultsite=127.0.0.1:{port} no-vhost" if port else ""
        peer = f"cache_peer 127.0.0.1 parent {port} 0 no-query no-digest originserver\n" if port else ""
        (folder / "squid.conf").write_text(
            f"http_port 127.0.0.1:{self.port} {accelerated}\n{peer}http_access allow all\n"
            "cache_mem 200 MB\nmaximum_object_size_in_memory 100 MB\nmaximum_object_size 100 MB\n"
            f"pid_filename {folder}/pid\naccess_log stdio:{folder}/access.log\ncache_log {folder}/cache.log\n"
            f"coredump_dir {folder}\ncache_effective_user proxy\nshutdown_lifetime 0 seconds\npinger_enable off\n"
            f"netdb_filename none\nvisible_hostname trial\n{lines}",
            encoding="ascii",
        )
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, folder, "squid", "-N", "-f", folder / "squid.conf")


class Tinyproxy:
    def __init__(self, ground):
        self.port = free_port()
        folder = ground.folder("tinyproxy")
        config = f"Port {self.port}\nListen 127.0.0.1\nTimeout 30\nAllow 127.0.0.1\nLogFile \"{folder}/log\"\n"
        (folder / "tinyproxy.conf").write_text(config, encoding="ascii")
        self.url = f"http://127.0.0.1:{self.port}/"
        ground.start(self.port, folder, "tinyproxy", "-d", "-c", folder / "tinyproxy.conf")
