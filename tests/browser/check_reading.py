#!/usr/bin/env python3
"""Serves a home's transcripts with `gabfolio view` and reads and searches
them in headless Chromium over the DevTools protocol: a word, a phrase and a
non-ASCII word are found, clicking a result lands on the highlighted message,
and chat text that looks like HTML shows as text and runs nothing.

usage: check_reading.py GABFOLIO HOME [--screenshots DIR] [--chromium PATH]
Exit status 0 when every check passed."""
import argparse
import base64
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cdp import navigate, start_chromium  # noqa: E402

HITS = "[...document.querySelectorAll('ol.hits li')].map(li => li.innerText)"
TARGET = """(() => {
  const t = document.querySelector(':target');
  if (!t) return null;
  const r = t.getBoundingClientRect();
  return {id: t.id, text: t.innerText, background: getComputedStyle(t).backgroundColor,
          top: r.top, bottom: r.bottom, height: innerHeight};
})()"""
# textContent, not innerText: messages off screen are skipped by
# content-visibility until the first frame after load, and innerText leaves
# skipped text out.  A tag that became an element has no "<b>" in its text.
SCRIPTED = """({scripts: document.scripts.length, pwned: typeof window.pwned,
  bold: document.querySelectorAll('.m .x b, .m .x i').length, text: document.body.textContent})"""


def click(tab, selector):
    """A real mouse click in the middle of the first element matching `selector`."""
    box = tab.evaluate(f"(() => {{ const r = document.querySelector({selector!r}).getBoundingClientRect();"
                       " return [r.left + r.width / 2, r.top + r.height / 2]; })()")
    tab.events.clear()
    for kind in ("mousePressed", "mouseReleased"):
        tab.call("Input.dispatchMouseEvent", type=kind, x=box[0], y=box[1], button="left", clickCount=1)
    tab.wait_event("Page.loadEventFired")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("gabfolio")
    ap.add_argument("home")
    ap.add_argument("--screenshots")
    ap.add_argument("--chromium", default=shutil.which("chromium") or "/usr/bin/chromium")
    args = ap.parse_args()
    failures = []

    def check(ok, what):
        print(("ok   " if ok else "FAIL ") + what)
        if not ok:
            failures.append(what)

    work = tempfile.mkdtemp(prefix="gabfolio-reading-")
    env = dict(os.environ, HOME=args.home, TZ="America/New_York")
    env.pop("DISPLAY", None)
    env.pop("WAYLAND_DISPLAY", None)
    viewer = chromium = None
    try:
        viewer = subprocess.Popen([args.gabfolio, "view", "--port", "0", "--no-open"], env=env,
                                  stdout=subprocess.PIPE, text=True)
        origin = None
        for line in viewer.stdout:
            if line.strip().startswith("People:"):
                origin = line.split()[-1].rsplit("/", 1)[0]
                break
        if not origin:
            raise RuntimeError("the viewer printed no address")
        chromium, tab = start_chromium(args.chromium, os.path.join(work, "profile"))
        tab.call("Page.enable")

        def search(query):
            navigate(tab, origin + "/search?q=" + urllib.parse.quote(query))
            return tab.evaluate(HITS)

        navigate(tab, origin + "/people")
        people = tab.evaluate("[...document.querySelectorAll('table.people a')].map(a => a.innerText)")
        check({"Anna Berg", "Book Club", "Eve", "Zo\u00eb"} <= set(people), f"people listed: {people}")

        hits = search("saturday")
        check(len(hits) == 2, f"a word: {len(hits)} hits")
        hits = search('"see you saturday"')
        check(len(hits) == 1 and "see you saturday" in hits[0], f"a phrase: {hits}")
        hits = search("gr\u00fc\u00dfe")
        check(len(hits) == 1 and "Gr\u00fc\u00dfe aus Z\u00fcrich" in hits[0], f"a non-ASCII word: {hits}")
        hits = search("zurich cafe")
        check(len(hits) == 1, f"accents do not matter: {hits}")

        # Click the result: the chat opens scrolled to the message, highlighted.
        hits = search("quokka")
        check(len(hits) == 1, f"a word far down a long chat: {hits}")
        click(tab, "a.hit")
        time.sleep(0.3)
        url = tab.evaluate("location.href")
        target = tab.evaluate(TARGET)
        check(url.startswith(origin + "/chat?") and url.endswith("#m300"), f"landed on {url}")
        check(target is not None and target["id"] == "m300" and "quokka" in target["text"],
              f"the message is the target: {target}")
        if target:
            check(target["background"] not in ("rgba(0, 0, 0, 0)", "transparent"),
                  f"the message is highlighted: {target['background']}")
            check(0 <= target["top"] and target["bottom"] <= target["height"],
                  f"the message is in view: {target['top']:.0f}..{target['bottom']:.0f}")
        if args.screenshots:
            os.makedirs(args.screenshots, exist_ok=True)
            shot = tab.call("Page.captureScreenshot", format="png")
            open(os.path.join(args.screenshots, "reading-chat.png"), "wb").write(base64.b64decode(shot["data"]))

        # Chat-borne HTML is text.
        hits = search("script")
        check(len(hits) == 1, f"the script message is found as text: {hits}")
        click(tab, "a.hit")
        page = tab.evaluate(SCRIPTED)
        check(page["scripts"] == 0 and page["pwned"] == "undefined", f"nothing ran: {page['scripts']}, {page['pwned']}")
        check("<script>window.pwned=1</script>" in page["text"], "the <script> message shows as text")
        check("<b>not bold</b> & <i>not italic</i>" in page["text"] and page["bold"] == 0,
              "the <b> message shows as text")

        if args.screenshots:
            for name, path in (("reading-people", "/people"),
                               ("reading-search", "/search?q=" + urllib.parse.quote("see*")),
                               ("reading-person", "/person?name=Anna%20Berg")):
                navigate(tab, origin + path)
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
    print("OK" if not failures else f"{len(failures)} failures")
    return 0 if not failures else 1


if __name__ == "__main__":
    sys.exit(main())
