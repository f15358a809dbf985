#!/usr/bin/python3
"""A loopback SMTP server (aiosmtpd) for the tests and the demo.

Prints "PORT <n>" once it listens on 127.0.0.1 (--port, 0 picks a free one)
and serves until its standard input closes (or, with --no-stdin, until
SIGTERM), so it never outlives whoever started it.  Every accepted message
is written to OUT/msg-<n>/ (numbering goes on from what OUT holds): raw (the
DATA bytes after dot-unstuffing), mail_from, rcpt_tos, auth_user, tls,
subject (decoded), part-<i>.type / .charset / .cte / .body (decoded), and
done last.  Other modes play misbehaving servers.
"""
import argparse
import asyncio
import email
import email.policy
import os
import signal
import ssl
import sys
import warnings

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


def parse_args():
    p = argparse.ArgumentParser()
    p.add_argument("--out", required=True)
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--mode", default="accept",
                   choices=["accept", "reject", "silent", "hangup", "flood", "garbled"])
    p.add_argument("--reject-at", choices=["rcpt", "data"], default="data")
    p.add_argument("--reject-reply", default="554 5.7.1 Message rejected")
    p.add_argument("--escaped", action="store_true", help="reject reply holds \\xNN escapes")
    p.add_argument("--user")
    p.add_argument("--password")
    p.add_argument("--cert")
    p.add_argument("--key")
    p.add_argument("--implicit-tls", action="store_true")
    p.add_argument("--no-stdin", action="store_true", help="serve until SIGTERM")
    args = p.parse_args()
    if args.escaped:
        args.reject_reply = args.reject_reply.encode("latin-1").decode("unicode_escape")
    os.makedirs(args.out, exist_ok=True)
    return args


class Handler:
    def __init__(self, args):
        self.args = args
        self.count = len([n for n in os.listdir(args.out) if n.startswith("msg-")])

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        if self.args.mode == "reject" and self.args.reject_at == "rcpt":
            return self.args.reject_reply
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        if self.args.mode == "reject" and self.args.reject_at == "data":
            return self.args.reject_reply
        self.count += 1
        folder = os.path.join(self.args.out, "msg-%d" % self.count)
        os.makedirs(folder)

        def put(name, data):
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data.encode("utf-8") if isinstance(data, str) else data)

        raw = envelope.original_content or envelope.content
        put("raw", raw)
        put("mail_from", envelope.mail_from or "")
        put("rcpt_tos", "\n".join(envelope.rcpt_tos))
        login = getattr(session, "auth_data", None)
        put("auth_user", login.login.decode("utf-8", "replace") if isinstance(login, LoginPassword) else "")
        encrypted = session.ssl is not None or server.transport.get_extra_info("ssl_object") is not None
        put("tls", "yes" if encrypted else "no")
        msg = email.message_from_bytes(raw, policy=email.policy.default)
        put("subject", str(msg["subject"] or ""))
        for i, part in enumerate(list(msg.iter_parts()) if msg.is_multipart() else [msg]):
            put("part-%d.type" % i, part.get_content_type())
            put("part-%d.charset" % i, part.get_param("charset") or "")
            put("part-%d.cte" % i, part.get("Content-Transfer-Encoding", ""))
            put("part-%d.body" % i, part.get_payload(decode=True) or b"")
        put("done", "")
        return "250 Message accepted"


async def misbehave(args, reader, writer):
    # A greeting, then on the first command a hang-up, an endless line, or a
    # reply that is not SMTP at all.
    writer.write(b"220 test.local ESMTP\r\n")
    await writer.drain()
    await reader.readline()
    if args.mode == "flood":
        try:
            for _ in range(2000):
                writer.write(b"x" * 1024)
                await writer.drain()
        except ConnectionError:
            pass
    elif args.mode == "garbled":
        writer.write(b"hello there\r\n")
        await writer.drain()
        await reader.readline()
    writer.close()


async def main():
    args = parse_args()
    warnings.simplefilter("ignore")
    loop = asyncio.get_running_loop()
    handler = Handler(args)
    ctx = None
    if args.cert:
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(args.cert, args.key)

    def check_login(server, session, envelope, mechanism, auth_data):
        ok = (isinstance(auth_data, LoginPassword) and auth_data.login.decode() == args.user
              and auth_data.password.decode() == args.password)
        return AuthResult(success=ok, handled=False, auth_data=auth_data)

    def factory():
        kwargs = dict(hostname="test.local", auth_require_tls=False, decode_data=False,
                      enable_SMTPUTF8=True)
        if args.user is not None:
            kwargs.update(authenticator=check_login, auth_required=True)
        if ctx is not None and not args.implicit_tls:
            kwargs.update(tls_context=ctx, require_starttls=False)
        return SMTP(handler, **kwargs)

    held = []

    async def hold(reader, writer):
        held.append(writer)  # accept, then never say a word
        open(os.path.join(args.out, "conn-%d" % len(held)), "w").close()
        await asyncio.sleep(3600)

    where = dict(host="127.0.0.1", port=args.port, reuse_address=True)
    if args.mode in ("hangup", "flood", "garbled"):
        server = await asyncio.start_server(lambda r, w: misbehave(args, r, w), **where)
    elif args.mode == "silent":
        server = await asyncio.start_server(hold, **where)
    else:
        server = await loop.create_server(factory, ssl=ctx if args.implicit_tls else None, **where)
    print("PORT %d" % server.sockets[0].getsockname()[1], flush=True)

    stop = asyncio.Event()
    loop.add_signal_handler(signal.SIGTERM, stop.set)
    if not args.no_stdin:
        loop.add_reader(sys.stdin.fileno(),
                        lambda: stop.set() if not os.read(sys.stdin.fileno(), 4096) else None)
    await stop.wait()
    server.close()


if __name__ == "__main__":
    asyncio.run(main())
