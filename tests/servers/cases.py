"""The cases: each arranges its servers on a Ground and gives the Site that the client plays from."""

import contextlib
import os
import signal

import documented
from ground import Site, move_times
from middleboxes import Haproxy, Squid, Tinyproxy, Varnish, origin, slices, whole_cache
from peculiar import Peculiar
from proxylink import ProxyLink
from servers import Apache, Busybox, Caddy, Lighttpd, Nginx, PythonServer

CASES = []
FORMS = ["plain", "packed"]


class Case:
    """`pace` in seconds is what the game takes at least, `limit_s` what the whole run may take. Where `ends` is there,
    the run may end at once with a failure that says this. With `later` the run ends with its game, and the rest is
    fetched by a second command."""

    def __init__(self, name, arrange, forms, pace, limit_s, ends, later):
        self.name, self.arrange, self.forms, self.pace, self.limit_s = name, arrange, forms, pace, limit_s
        self.ends, self.later = ends, later


def case(name, forms=None, pace=3.0, limit_s=60, ends=None, later=False):
    def register(arrange):
        CASES.append(Case(name, arrange, forms or FORMS, pace, limit_s, ends, later))
        return arrange

    return register


def plain_site(name, make, **settings):
    """A server without anything that happens during the game."""

    @case(name, **settings)
    def arrange(ground):
        return Site(make(ground).url)


# -- web servers

plain_site("nginx, HTTP/1.1", Nginx)
plain_site("nginx, gzip for all types", lambda ground: Nginx(ground, http="gzip on; gzip_types *; gzip_min_length 1;"))
plain_site("nginx, a connection for each request", lambda ground: Nginx(ground, http="keepalive_timeout 0;"))
plain_site("nginx, 5 requests a connection", lambda ground: Nginx(ground, http="keepalive_requests 5;"))
plain_site("nginx, connections kept for 1 s", lambda ground: Nginx(ground, http="keepalive_timeout 1s;"), pace=8)
plain_site("nginx, no ETag", lambda ground: Nginx(ground, http="etag off;"))
plain_site("nginx, no ranges", lambda ground: Nginx(ground, http="max_ranges 0;"), ends="range")
plain_site("nginx, time-out of 2 s for a slow reader", lambda ground: Nginx(ground, http="send_timeout 2s;"), pace=8)
plain_site("nginx, 1 MB/s a connection", lambda ground: Nginx(ground, location="limit_rate 1m;"), limit_s=120)
plain_site("apache", Apache)


@case("apache, mod_deflate for all")
def _(ground):
    return Site(Apache(ground, "SetOutputFilter DEFLATE\n", ["filter", "deflate"]).url)


plain_site("lighttpd", Lighttpd)
plain_site("caddy", Caddy)
plain_site("caddy, encode", lambda ground: Caddy(ground, "encode gzip zstd {\nmatch header Content-Type *\n}"))
plain_site("busybox httpd", Busybox)
plain_site("python's http.server (HTTP/1.0, no ranges)", PythonServer, ends="range")


@case("nginx, password")
def _(ground):
    hidden = ground.folder("secrets") / "passwords"
    hidden.write_text("player:{PLAIN}secret\n", encoding="ascii")
    server = Nginx(ground, server=f'auth_basic "game"; auth_basic_user_file {hidden};')
    return Site(server.url.replace("//", "//player:secret@"))


@case("nginx, a token in the address")
def _(ground):
    server = Nginx(ground, location="if ($arg_token != secret) { return 403; }")
    return Site(server.url, query="?token=secret")


@case("nginx, a name with an address that nobody listens at")
def _(ground):
    return Site(Nginx(ground).url.replace("127.0.0.1", "localhost"))


@case("apache, Content-Encoding for .zst", forms=["packed"])
def _(ground):
    return Site(Apache(ground, "AddEncoding zstd .zst\n").url)


def peculiar_site(name, *habits, **settings):
    plain_site(name, lambda ground: Peculiar(ground, *habits), **settings)


peculiar_site("server with chunked answers", "chunked")
peculiar_site("server without lengths, closing", "no length")
peculiar_site("server with ranges of whole MiB", "large ranges")
peculiar_site("server with ranges of an unknown total", "no total")
peculiar_site("server that writes Bytes", "letters")
peculiar_site("server with weak ETags", "weak")
peculiar_site("server that knows no last N bytes", "no suffixes")
peculiar_site("server that takes 5 s for each 9th request", "slow", limit_s=120)
peculiar_site("server that redirects to addresses good for 2 s", "signed", pace=8)


# -- limits

LIMITS = (
    "limit_req_zone $binary_remote_addr zone=requests:1m rate={}r/s; "
    "limit_conn_zone $binary_remote_addr zone=connections:1m;"
)


def limited(ground, rate, location):
    return Nginx(ground, http=LIMITS.format(rate), location=location)


plain_site(
    "nginx, 10 requests a second, then 503",
    lambda ground: limited(ground, 10, "limit_req zone=requests burst=5 nodelay;"),
    limit_s=120,
)
plain_site(
    "nginx, 5 requests a second, then 429",
    lambda ground: limited(ground, 5, "limit_req zone=requests burst=5 nodelay; limit_req_status 429;"),
    limit_s=120,
)
plain_site(
    "nginx, 2 connections, then 503",
    lambda ground: limited(ground, 10, "limit_conn connections 2;"),
    limit_s=120,
)
plain_site(
    "nginx, 1 connection, then 429",
    lambda ground: limited(ground, 10, "limit_conn connections 1; limit_conn_status 429;"),
    limit_s=120,
)

# -- TLS and HTTP/2


def secure_site(name, make, **settings):
    @case(name, **settings)
    def arrange(ground):
        return Site(make(ground).url, env=ground.trusting())


secure_site("nginx, TLS, HTTP/1.1", lambda ground: Nginx(ground, tls="ssl"))
secure_site("nginx, TLS, HTTP/2", lambda ground: Nginx(ground, tls="ssl http2"))
for number in (5, 20, 100):
    lines = f"keepalive_requests {number};"
    secure_site(
        f"nginx, TLS, HTTP/2, {number} requests a connection",
        lambda ground, lines=lines: Nginx(ground, tls="ssl http2", http=lines),
    )


@case("nginx, TLS, HTTP/2, reloads", pace=8)
def _(ground):
    server = Nginx(ground, tls="ssl http2")

    def during(trial):
        for _ in range(6):
            trial.pause(1)
            server.reload()

    return Site(server.url, env=ground.trusting(), during=during)


@case("nginx, redirects to TLS")
def _(ground):
    target = Nginx(ground, tls="ssl http2")
    server = Nginx(ground, location=f"return 301 {target.url.rstrip('/')}$request_uri;")
    return Site(server.url, env=ground.trusting())


secure_site("apache, TLS, HTTP/2", lambda ground: Apache(ground, tls=True))
secure_site("caddy, TLS, HTTP/2", lambda ground: Caddy(ground, tls=True))

# -- balancers, caches, proxies


@case("nginx cache with slices")
def _(ground):
    return Site(slices(ground, Nginx(ground).port).url)


@case("nginx cache with slices, origin of other times")
def _(ground):
    # What the cache holds, and what it fetches later, have other validators.
    copy = ground.mirror(0)
    server = slices(ground, Nginx(ground, www=copy).port)

    def during(trial):
        trial.pause(1)
        move_times(copy, 50)

    return Site(server.url, during=during)


@case("nginx cache of whole files")
def _(ground):
    return Site(whole_cache(ground, Nginx(ground).port).url)


@case("nginx, HTTP/1.0 to its origin, no buffers")
def _(ground):
    server = Nginx(ground)
    return Site(Nginx(ground, location=f"proxy_buffering off; proxy_pass {origin(server.port)};").url)


@case("haproxy, two backends of the same times")
def _(ground):
    return Site(Haproxy(ground, Nginx(ground).port, Nginx(ground).port).url)


@case("haproxy, two backends of other times", limit_s=120)
def _(ground):
    return Site(Haproxy(ground, Nginx(ground).port, Nginx(ground, www=ground.mirror(100)).port).url)


@case("haproxy, nginx and apache", limit_s=120)
def _(ground):
    return Site(Haproxy(ground, Nginx(ground).port, Apache(ground).port).url)


@case("haproxy, one of two backends is down")
def _(ground):
    first, second = Nginx(ground), Nginx(ground)

    def during(trial):
        trial.pause(1)
        second.stop()

    return Site(Haproxy(ground, first.port, second.port).url, during=during)


@case("varnish")
def _(ground):
    return Site(Varnish(ground, Nginx(ground).port).url)


@case("varnish, origin without ranges")
def _(ground):
    return Site(Varnish(ground, Nginx(ground, http="max_ranges 0;").port).url)


@case("squid")
def _(ground):
    return Site(Squid(ground, Nginx(ground).port).url)


@case("squid, range_offset_limit none")
def _(ground):
    return Site(Squid(ground, Nginx(ground).port, "range_offset_limit none\n").url)


@case("squid as the client's proxy")
def _(ground):
    return Site(Nginx(ground).url, env={"http_proxy": Squid(ground).url})


@case("tinyproxy as the client's proxy")
def _(ground):
    return Site(Nginx(ground).url, env={"http_proxy": Tinyproxy(ground).url})


@case("nginx, redirects to another one")
def _(ground):
    target = Nginx(ground)
    return Site(Nginx(ground, location=f"return 302 {target.url.rstrip('/')}$request_uri;").url)


@case("nginx, redirects to one of two, which goes down", pace=6)
def _(ground):
    one, other = Nginx(ground), Nginx(ground)
    halves = 'split_clients "$connection$connection_requests" $port { 50% ' + f"{one.port}; * {other.port}; }}"
    server = Nginx(ground, http=halves, location="return 302 http://127.0.0.1:$port$request_uri;")

    def during(trial):
        trial.pause(1)
        other.stop()

    return Site(server.url, during=during)


# -- what the page for publishers shows

for name in ("nginx", "nginx_cache", "apache", "lighttpd", "caddy", "varnish"):
    plain_site(f"as in docs/publisher.md: {name.replace('_', ' as a ')}", getattr(documented, name))


# -- a server that isn't right for a while


def passing_trouble(name, lines, seconds=6.0):
    @case(name, pace=10, limit_s=120)
    def arrange(ground):
        flag = ground.top / "trouble"
        server = Nginx(ground, location=f"if (-f {flag}) {{ {lines} }}")

        def during(trial):
            trial.pause(1.5)
            flag.touch()
            trial.pause(seconds)
            flag.unlink()

        return Site(server.url, during=during)


passing_trouble("nginx, 503 for a while", "return 503;")
passing_trouble("nginx, 403 for a while", "return 403;")
passing_trouble("nginx, 401 for a while", "return 401;")
passing_trouble("nginx, 404 for a while", "return 404;")
passing_trouble("nginx, a log-in page for a while", "return 200 '<html>Log in</html>';")
passing_trouble("nginx, redirects to a log-in page for a while", "return 302 /login?from=$request_uri;")
passing_trouble("nginx, closes without an answer for a while", "return 444;")


@case("nginx, down for 6 s", pace=10, limit_s=120)
def _(ground):
    server = Nginx(ground)

    def during(trial):
        trial.pause(1.5)
        server.stop()
        trial.pause(6)
        server.again()

    return Site(server.url, during=during)


@case("nginx, down for 6 s, other times after", pace=10, limit_s=120)
def _(ground):
    copy = ground.mirror(0)
    server = Nginx(ground, www=copy)

    def during(trial):
        trial.pause(1.5)
        server.stop()
        move_times(copy, 50)
        trial.pause(6)
        server.again()

    return Site(server.url, during=during)


@case("nginx, silent for 20 s", pace=10, limit_s=120)
def _(ground):
    server = Nginx(ground)
    workers = f"/proc/{server.process.pid}/task/{server.process.pid}/children"

    def during(trial):
        trial.pause(1.5)
        with open(workers, encoding="ascii") as file:
            children = [int(word) for word in file.read().split()]
        signal_all(children, signal.SIGSTOP)
        try:
            trial.pause(20)
        finally:
            signal_all(children, signal.SIGCONT)

    return Site(server.url, during=during)


def signal_all(processes, number):
    for process in processes:
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, number)


# -- links


def linked(name, happens=None, pace=8.0, limit_s=120, forms=None, later=False, **settings):
    """nginx behind a link; `happens(link, trial)` is called during the game."""

    @case(name, forms=forms, pace=pace, limit_s=limit_s, later=later)
    def arrange(ground):
        link = ground.enter_context(ProxyLink(Nginx(ground).port, **settings))
        during = (lambda trial: happens(link, trial)) if happens else None
        return Site(f"http://127.0.0.1:{link.port}/", during=during, moved=lambda: link.n_bytes)


def stalls(seconds):
    def happens(link, trial):
        trial.pause(1.5)
        link.stall(True)
        trial.pause(seconds)
        link.stall(False)

    return happens


def repeatedly(what):
    def happens(link, trial):
        for _ in range(3):
            trial.pause(1.5)
            getattr(link, what)()

    return happens


def goes_away(link, trial):
    trial.pause(1.5)
    link.refuse(True)
    link.reset()
    trial.pause(6)
    link.refuse(False)


def damages(link, trial):
    for _ in range(8):
        trial.pause(0.5)
        link.damage(100_000)


linked("link of 12 Mbit/s", rate=1_500_000)
linked("link that stalls for 5 s", stalls(5))
linked("link that stalls for 25 s", stalls(25))
linked("link that moves three times", repeatedly("move"))
linked("link that resets all three times", repeatedly("reset"))
linked("link that resets each connection after 1 MB", cut_at=1 << 20)
linked("link that is down for 6 s", goes_away)
linked("link of 12 Mbit/s, the rest fetched after the game", pace=2, later=True, rate=1_500_000)
linked("link that changes eight bytes", damages, forms=["packed"])
