"""The set-ups that docs/publisher.md shows, as they stand there but for ports and folders."""

import re
from pathlib import Path

from ground import free_port
from middleboxes import Varnish
from servers import Apache, Caddy, Lighttpd, Nginx

PAGE = Path(__file__).resolve().parents[2] / "docs/publisher.md"


def shown(ground, language, number=0, origin=0):
    """A block of the page. It has to be there: without one the case fails."""
    blocks = re.findall(rf"^```{language}\n(.*?)^```", PAGE.read_text(encoding="utf-8"), re.M | re.S)
    text = blocks[number].replace("/srv/games", str(ground.www))
    return text.replace("127.0.0.1:8080", f"127.0.0.1:{origin}").replace('"8080"', f'"{origin}"')


def nginx(ground):
    port = free_port()
    return Nginx(ground, port=port, whole=shown(ground, "nginx").replace("listen 80;", f"listen 127.0.0.1:{port};"))


def nginx_cache(ground):
    port, cache = free_port(), ground.folder("slices")
    text = shown(ground, "nginx", 1, nginx(ground).port).replace("/var/cache/nginx/games", str(cache))
    return Nginx(ground, port=port, whole=text.replace("listen 80;", f"listen 127.0.0.1:{port};"))


def apache(ground):
    return Apache(ground, shown(ground, "apache"), ["env"])


def lighttpd(ground):
    return Lighttpd(ground, whole=shown(ground, "lighttpd"))


def caddy(ground):
    return Caddy(ground, whole=shown(ground, "caddy"))


def varnish(ground):
    port = nginx(ground).port
    return Varnish(ground, port, shown(ground, "vcl", origin=port))
