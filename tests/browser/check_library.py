#!/usr/bin/env python3
"""Builds a small library in a throw-away home, rebuilds its pages with
`gabfolio rebuild`, serves it with `gabfolio view`, and checks in headless
Chromium that every local link of every page resolves and every image loads.

usage: check_library.py GABFOLIO DATA_DIR     (exit status 0: every check passed)"""
import glob
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request
import zlib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cdp import navigate, start_chromium  # noqa: E402


def png(width, height):
    row = b"\0" + b"\x60\xa0\xe6" * width

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(row * height)) + chunk(b"IEND", b""))


# Speakers whose names need escaping; dates in two months and two years.
LINKS = {"Ann Lee": ["2005-03-08T20:07:00Z", "2005-02-21T22:10:00Z", "2004-12-24T18:30:00Z"],
         "J\u00fcrgen": ["2005-03-05T19:20:00Z"], "\u674e\u96f7": ["2005-02-28T13:13:00Z"],
         "\u03a9mega Li": ["2005-03-07T21:00:00Z"]}
IMAGES = {"Ann Lee": [("beach", "png"), ("minutes", "pdf"), ("snow", "png"), (None, "png"),
                      ("tree", "png"), ("lake", "png")],
          "\u674e\u96f7": [("sunset", "png")]}


def plist(records):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<array>\n' + records
            + "</array>\n</plist>\n")


def build_library(home, data_dir):
    folder = os.path.join(home, "Library", "Gabfolio")
    os.makedirs(os.path.join(folder, "Images"))
    for name in ("linktemplate.html", "imagetemplate.html"):
        shutil.copy(os.path.join(data_dir, name), folder)
    shutil.copy(os.path.join(data_dir, "Images", "pdf.png"), os.path.join(folder, "Images"))
    links = ""
    for speaker, dates in LINKS.items():
        links += f"<dict><key>speaker</key><string>{speaker}</string><key>urls</key><array>\n"
        for i, d in enumerate(dates):
            links += f"<dict><key>date</key><date>{d}</date><key>linkurl</key><string>http://x.example/{i}?a=1&amp;b</string></dict>\n"
        links += "</array></dict>\n"
    open(os.path.join(folder, "gatheredURLs.plist"), "w").write(plist(links))
    images = ""
    for speaker, items in IMAGES.items():
        images += f"<dict><key>speaker</key><string>{speaker}</string><key>filenames</key><array>\n"
        for day, (name, kind) in enumerate(items):
            stamp = f"2005-03-{9 - day:02d} 15:07:42 -0500"
            stored = f"{speaker}-{stamp}.image" if name is None else f"{name}-{speaker}-{stamp}.{kind}"
            data = b"%PDF-1.4 not really" if kind == "pdf" else png(40 + 10 * day, 30)
            open(os.path.join(folder, "Images", stored), "wb").write(data)
            images += (f"<dict><key>date</key><date>2005-03-{9 - day:02d}T20:07:42Z</date><key>filename</key>"
                       f"<string>Images/{stored}</string><key>width</key><integer>{40 + 10 * day}</integer>"
                       f"<key>height</key><integer>30</integer></dict>\n")
        images += "</array></dict>\n"
    open(os.path.join(folder, "gatheredImages.plist"), "w").write(plist(images))
    return folder


PAGE_INFO = """(async () => {
  const imgs = [...document.images];
  await Promise.all(imgs.map(i => i.complete ? 0 : new Promise(r => { i.onload = i.onerror = r; })));
  return {links: [...document.links].map(a => a.href), images: imgs.map(i => [i.src, i.naturalWidth])};
})()"""


def main():
    gabfolio, data_dir = sys.argv[1:3]
    failures, checked = [], 0
    work = tempfile.mkdtemp(prefix="gabfolio-browser-")
    env = dict(os.environ, HOME=os.path.join(work, "home"), TZ="America/New_York")
    env.pop("DISPLAY", None)
    viewer = chromium = None
    try:
        folder = build_library(env["HOME"], data_dir)
        subprocess.run([gabfolio, "rebuild"], env=env, check=True)
        pages = sorted(os.path.basename(p) for p in glob.glob(os.path.join(folder, "*.html"))
                       if not p.endswith("template.html"))
        viewer = subprocess.Popen([gabfolio, "view", "--port", "0", "--no-open"], env=env,
                                  stdout=subprocess.PIPE, text=True)
        viewer.stdout.readline()  # "Serving ..."
        origin = viewer.stdout.readline().split()[-1].rsplit("/", 1)[0]
        chromium, tab = start_chromium(shutil.which("chromium") or "/usr/bin/chromium",
                                       os.path.join(work, "profile"))
        tab.call("Page.enable")
        for page in pages:
            if navigate(tab, origin + "/" + urllib.parse.quote(page)):
                failures.append(f"{page}: navigation failed")
                continue
            info = tab.evaluate(PAGE_INFO)
            for link in (l for l in info["links"] if l.startswith(origin)):
                checked += 1
                if urllib.request.urlopen(urllib.request.Request(link, method="HEAD")).status != 200:
                    failures.append(f"{page}: link {link}")
            for src, width in info["images"]:
                checked += 1
                if not width:
                    failures.append(f"{page}: image {src} did not load")
        print(f"{len(pages)} pages, {checked} links and images checked")
    finally:
        for p in (chromium, viewer):
            if p:
                p.terminate()
                p.wait(timeout=20)
        shutil.rmtree(work, ignore_errors=True)
    for f in failures:
        print("FAIL", f)
    ok = not failures and len(pages) == 8 and checked >= 40
    print("OK" if ok else f"{len(failures)} failures")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
