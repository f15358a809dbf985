"""A small Chrome DevTools Protocol client over a hand-rolled websocket
(standard library only), and headless Chromium started for it."""
import base64
import json
import os
import socket
import struct
import subprocess
import time
import urllib.parse
import urllib.request


class DevTools:
    def __init__(self, ws_url, timeout=30):
        u = urllib.parse.urlparse(ws_url)
        self.sock = socket.create_connection((u.hostname, u.port), timeout=timeout)
        key = base64.b64encode(os.urandom(16)).decode()
        self.sock.sendall((f"GET {u.path} HTTP/1.1\r\nHost: {u.hostname}:{u.port}\r\n"
                           "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                           f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.sock.recv(1)
            if not chunk:
                raise RuntimeError("websocket handshake failed")
            head += chunk
        if b" 101 " not in head.split(b"\r\n")[0]:
            raise RuntimeError("websocket handshake refused: " + head.decode(errors="replace"))
        self.next_id = 0
        self.events = []

    def _read(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                raise RuntimeError("devtools connection closed")
            data += chunk
        return data

    def _send_frame(self, text):
        payload = text.encode()
        n = len(payload)
        header = bytes([0x81])
        if n < 126:
            header += bytes([0x80 | n])
        elif n < 65536:
            header += bytes([0x80 | 126]) + struct.pack(">H", n)
        else:
            header += bytes([0x80 | 127]) + struct.pack(">Q", n)
        mask = os.urandom(4)
        self.sock.sendall(header + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))

    def _recv_message(self):
        message = b""
        while True:
            b0, b1 = self._read(2)
            n = b1 & 0x7F
            if n == 126:
                n = struct.unpack(">H", self._read(2))[0]
            elif n == 127:
                n = struct.unpack(">Q", self._read(8))[0]
            payload = self._read(n)
            opcode = b0 & 0x0F
            if opcode == 0x9:  # ping
                continue
            message += payload
            if b0 & 0x80:
                return json.loads(message)

    def call(self, method, **params):
        self.next_id += 1
        my_id = self.next_id
        self._send_frame(json.dumps({"id": my_id, "method": method, "params": params}))
        while True:
            msg = self._recv_message()
            if msg.get("id") == my_id:
                if "error" in msg:
                    raise RuntimeError(f"{method}: {msg['error']}")
                return msg.get("result", {})
            self.events.append(msg)

    def wait_event(self, name):
        while True:
            for i, e in enumerate(self.events):
                if e.get("method") == name:
                    return self.events.pop(i)
            self.events.append(self._recv_message())

    def evaluate(self, expression):
        r = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in r:
            raise RuntimeError(str(r["exceptionDetails"]))
        return r["result"].get("value")


def start_chromium(chromium, profile):
    """Headless Chromium with a throw-away profile; the process and its first tab."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
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
    """Loads `url` in `tab`; the navigation error, or None once the page has loaded."""
    tab.events.clear()
    result = tab.call("Page.navigate", url=url)
    if result.get("errorText"):
        return result["errorText"]  # no document loads, so no load event
    tab.wait_event("Page.loadEventFired")
    return None
