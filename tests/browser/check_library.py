#!/usr/bin/env python3
"""Builds a realistic library in a throw-away home, rebuilds its pages with
`gabfolio rebuild`, serves it with `gabfolio view`, and checks in headless
Chromium that every link of every page resolves and every gallery image
loads.  Also records what Chromium does with the pages opened as files, and
optionally takes screenshots.

usage: check_library.py GABFOLIO DATA_DIR [--screenshots DIR] [--chromium PATH]
Exit status 0 when every check passed."""
import argparse
import base64
import datetime
import glob
import json
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request
import zlib
from zoneinfo import ZoneInfo

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cdp import DevTools  # noqa: E402

ZONE = ZoneInfo("America/New_York")


# ---- a realistic library ---------------------------------------------------

def png(width, height, palette, seed):
    """A small landscape-like picture: sky gradient, a sun, rolling hills."""
    (r1, g1, b1), (r2, g2, b2), (hr, hg, hb) = palette
    sun_x, sun_y, sun_r = width * (0.25 + 0.5 * (seed % 3) / 2), height * 0.3, min(width, height) * 0.12
    rows = []
    for y in range(height):
        t = y / max(1, height - 1)
        row = bytearray([0])
        import math
        hill = height * (0.62 + 0.08 * math.sin(seed + 0 / 40.0))
        for x in range(width):
            hill = height * (0.65 + 0.07 * math.sin(seed + x / (width / 6.0)))
            if y > hill:
                shade = 1 - 0.25 * (y - hill) / height
                px = (int(hr * shade), int(hg * shade), int(hb * shade))
            elif (x - sun_x) ** 2 + (y - sun_y) ** 2 < sun_r ** 2:
                px = (255, 226, 140)
            else:
                px = (int(r1 + (r2 - r1) * t), int(g1 + (g2 - g1) * t), int(b1 + (b2 - b1) * t))
            row += bytes(px)
        rows.append(bytes(row))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(b"".join(rows), 6)) + chunk(b"IEND", b""))


def pdf(title):
    content = f"BT /F1 24 Tf 72 700 Td ({title}) Tj ET".encode()
    objs = [b"<< /Type /Catalog /Pages 2 0 R >>",
            b"<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
            b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents 4 0 R "
            b"/Resources << /Font << /F1 5 0 R >> >> >>",
            b"<< /Length %d >>\nstream\n" % len(content) + content + b"\nendstream",
            b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"]
    out, offsets = b"%PDF-1.4\n", []
    for i, o in enumerate(objs):
        offsets.append(len(out))
        out += b"%d 0 obj\n" % (i + 1) + o + b"\nendobj\n"
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objs) + 1)
    out += b"".join(b"%010d 00000 n \n" % o for o in offsets)
    out += b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (len(objs) + 1, xref)
    return out


def when(text):
    return datetime.datetime.strptime(text, "%Y-%m-%d %H:%M").replace(tzinfo=ZONE)


def iso(d):
    return d.astimezone(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def xml(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


LINKS = {
    "Ann Lee": [("2005-03-08 15:07", "https://www.example.com/articles/2005/03/the-long-road-to-a-quiet-weekend.html"),
                ("2005-03-02 09:41", "http://news.example.org/"),
                ("2005-02-21 22:10", "https://maps.example.net/?q=harbour+cafe&z=15"),
                ("2005-02-03 12:00", "http://photos.example.com/ann/album/1234"),
                ("2004-12-24 18:30", "http://recipes.example.com/gingerbread")],
    "bob": [("2005-03-09 11:15", "http://ftp.example.edu/pub/tools/"),
            ("2005-03-01 08:05", "https://code.example.org/project/issues/42"),
            ("2005-01-15 17:45", "http://music.example.com/listen?track=7")],
    "J\u00fcrgen": [("2005-03-05 19:20", "http://www.example.de/wetter/berlin"),
                    ("2005-02-11 07:55", "http://bahn.example.de/fahrplan")],
    "\u03a9mega Li": [("2005-03-07 21:00", "http://books.example.com/isbn/0131103628")],
    "\u674e\u96f7": [("2005-02-28 13:13", "http://www.example.cn/")],
}
PALETTES = [((96, 160, 230), (200, 228, 250), (70, 140, 80)),
            ((240, 140, 90), (250, 210, 160), (110, 90, 70)),
            ((40, 50, 110), (120, 90, 160), (30, 60, 60)),
            ((150, 200, 240), (240, 250, 255), (200, 200, 210))]
IMAGES = {  # name, time, kind, width, height
    "Ann Lee": [("beach", "2005-03-08 15:07", "png", 320, 200), ("portrait", "2005-03-04 10:30", "png", 180, 270),
                ("minutes", "2005-03-03 16:45", "pdf", 0, 0), ("snow", "2005-02-14 09:00", "png", 300, 200),
                ("tree", "2005-02-10 12:00", "png", 160, 240), ("lake", "2005-02-09 12:00", "png", 320, 180),
                ("dunes", "2005-02-08 12:00", "png", 300, 190), ("boat", "2005-02-07 12:00", "png", 240, 240),
                ("hill", "2005-02-06 12:00", "png", 320, 200)],
    "bob": [("screenshot", "2005-03-09 11:20", "png", 320, 210), ("avatar", "2005-03-06 08:00", "png", 200, 200),
            (None, "2005-01-20 20:20", "png", 200, 300)],
    "J\u00fcrgen": [("berlin", "2005-03-05 19:25", "png", 320, 220)],
    "\u03a9mega Li": [("cover", "2005-03-07 21:05", "png", 200, 300)],
    "\u674e\u96f7": [("sunset", "2005-02-28 13:20", "png", 320, 200)],
}


def build_library(home, data_dir):
    folder = os.path.join(home, "Library", "Gabfolio")
    os.makedirs(os.path.join(folder, "Images"))
    for name in ("linktemplate.html", "imagetemplate.html"):
        shutil.copy(os.path.join(data_dir, name), folder)
    shutil.copy(os.path.join(data_dir, "Images", "pdf.png"), os.path.join(folder, "Images"))
    head = ('<?xml version="1.0" encoding="UTF-8"?>\n<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" '
            '"http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n<plist version="1.0">\n<array>\n')
    links = head
    for speaker, items in LINKS.items():
        links += f"<dict><key>speaker</key><string>{xml(speaker)}</string><key>urls</key><array>\n"
        for t, url in items:
            links += f"<dict><key>date</key><date>{iso(when(t))}</date><key>linkurl</key><string>{xml(url)}</string></dict>\n"
        links += "</array></dict>\n"
    open(os.path.join(folder, "gatheredURLs.plist"), "w").write(links + "</array>\n</plist>\n")
    images, seed = head, 0
    for speaker, items in IMAGES.items():
        images += f"<dict><key>speaker</key><string>{xml(speaker)}</string><key>filenames</key><array>\n"
        for name, t, kind, w, h in items:
            d = when(t)
            stamp = d.strftime("%Y-%m-%d %H:%M:%S %z")
            stored = f"{speaker}-{stamp}.image" if name is None else f"{name}-{speaker}-{stamp}.{kind}"
            data = pdf(f"Minutes of {t}") if kind == "pdf" else png(w, h, PALETTES[seed % 4], seed)
            seed += 1
            open(os.path.join(folder, "Images", stored), "wb").write(data)
            images += (f"<dict><key>date</key><date>{iso(d)}</date><key>filename</key><string>Images/{xml(stored)}"
                       f"</string><key>width</key><integer>{w}</integer><key>height</key><integer>{h}</integer></dict>\n")
        images += "</array></dict>\n"
    open(os.path.join(folder, "gatheredImages.plist"), "w").write(images + "</array>\n</plist>\n")
    return folder


# ---- browser ---------------------------------------------------------------

def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_chromium(chromium, profile):
    port = free_port()
    proc = subprocess.Popen([chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                             "--no-first-run", "--disable-background-networking", "--disable-component-update",
                             "--disable-sync", f"--user-data-dir={profile}", f"--remote-debugging-port={port}",
                             "--window-size=1280,900", "about:blank"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    for _ in range(200):
        try:
            targets = json.load(urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list", timeout=1))
            pages = [t for t in targets if t.get("type") == "page"]
            if pages:
                return proc, DevTools(pages[0]["webSocketDebuggerUrl"])
        except OSError:
            pass
        time.sleep(0.1)
    proc.kill()
    raise RuntimeError("Chromium did not start")


def navigate(tab, url):
    tab.events.clear()
    result = tab.call("Page.navigate", url=url)
    if result.get("errorText"):
        return result["errorText"]  # no document loads, so no load event
    tab.wait_event("Page.loadEventFired")
    return None


PAGE_INFO = """(async () => {
  const imgs = [...document.images];
  await Promise.all(imgs.map(i => i.complete ? 0 : new Promise(r => { i.onload = i.onerror = r; })));
  return {links: [...document.links].map(a => a.href),
          images: imgs.map(i => [i.getAttribute('src'), i.src, i.naturalWidth])};
})()"""


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("gabfolio")
    ap.add_argument("data_dir")
    ap.add_argument("--screenshots")
    ap.add_argument("--chromium", default=shutil.which("chromium") or "/usr/bin/chromium")
    args = ap.parse_args()
    failures = []
    work = tempfile.mkdtemp(prefix="gabfolio-browser-")
    env = dict(os.environ, HOME=os.path.join(work, "home"), TZ="America/New_York")
    env.pop("DISPLAY", None)
    env.pop("WAYLAND_DISPLAY", None)
    viewer = chromium = None
    try:
        folder = build_library(env["HOME"], args.data_dir)
        subprocess.run([args.gabfolio, "rebuild"], env=env, check=True)
        pages = sorted(os.path.basename(p) for p in glob.glob(os.path.join(folder, "*.html"))
                       if not p.endswith("template.html"))
        print(f"pages: {len(pages)}: {', '.join(pages)}")
        viewer = subprocess.Popen([args.gabfolio, "view", "--port", "0", "--no-open"], env=env,
                                  stdout=subprocess.PIPE, text=True)
        viewer.stdout.readline()  # "Serving ..."
        links_line = viewer.stdout.readline()
        origin = links_line.split()[-1].rsplit("/", 1)[0]
        print(f"viewer: {origin}")
        chromium, tab = start_chromium(args.chromium, os.path.join(work, "profile"))
        tab.call("Page.enable")

        # Served over HTTP: every link resolves, every image loads.
        checked_links = checked_images = 0
        for page in pages:
            href = origin + "/" + urllib.parse.quote(page)  # a plain URL for the page itself
            # ... but reach the pages the way the navigation does: through their own hrefs.
            err = navigate(tab, href)
            if err:
                failures.append(f"{page}: navigation failed: {err}")
                continue
            info = tab.evaluate(PAGE_INFO)
            for link in info["links"]:
                if not link.startswith(origin):
                    continue
                status = urllib.request.urlopen(urllib.request.Request(link, method="HEAD")).status
                checked_links += 1
                if status != 200:
                    failures.append(f"{page}: link {link} -> {status}")
            for src, url, width in info["images"]:
                checked_images += 1
                if not width:
                    failures.append(f"{page}: image {src} did not load ({url})")
        print(f"http: {checked_links} local links and {checked_images} images checked on {len(pages)} pages")

        # Opened as files: record what resolves.
        file_links = {}
        for page in ("Links.html", "Images.html"):
            navigate(tab, "file://" + urllib.parse.quote(os.path.join(folder, page)))
            info = tab.evaluate(PAGE_INFO)
            for link in info["links"]:
                if link.startswith("file://"):
                    file_links.setdefault(link, page)
            broken = [src for src, url, width in info["images"] if not width]
            print(f"file:// {page}: {len(info['images']) - len(broken)} of {len(info['images'])} images load;"
                  f" broken: {broken[:3]}{' ...' if len(broken) > 3 else ''}")
        ok, bad = [], []
        for link in sorted(file_links):
            err = navigate(tab, link)
            (bad if err else ok).append((link, err))
        print(f"file:// links: {len(ok)} resolve, {len(bad)} do not")
        for link, err in bad:
            print(f"  {err}: {urllib.parse.unquote(link[len('file://' + folder) + 1:]) if link.startswith('file://' + folder) else link}"
                  f"   [{link[len('file://' + folder) + 1:]}]")

        if args.screenshots:
            os.makedirs(args.screenshots, exist_ok=True)
            shots = [("links-all", "Links.html", False), ("links-speaker", "Ann%20Lee.html", False),
                     ("gallery-all", "Images.html", False), ("gallery-speaker", "Ann%20Lee-images.html", False),
                     ("links-all-phone", "Links.html", True), ("gallery-all-phone", "Images.html", True),
                     ("stats-not-yet", "stats.html", False)]
            for name, path, phone in shots:
                tab.call("Emulation.setDeviceMetricsOverride", width=390 if phone else 1280,
                         height=844 if phone else 900, deviceScaleFactor=2 if phone else 1, mobile=phone)
                navigate(tab, origin + "/" + path)
                tab.evaluate(PAGE_INFO)
                shot = tab.call("Page.captureScreenshot", format="png")
                open(os.path.join(args.screenshots, name + ".png"), "wb").write(base64.b64decode(shot["data"]))
            print(f"screenshots in {args.screenshots}")
    finally:
        if chromium:
            chromium.terminate()
            chromium.wait(timeout=20)
        if viewer:
            viewer.terminate()
            viewer.wait(timeout=20)
        shutil.rmtree(work, ignore_errors=True)
    for f in failures:
        print("FAIL", f)
    print("OK" if not failures else f"{len(failures)} failures")
    return 0 if not failures else 1


if __name__ == "__main__":
    sys.exit(main())
