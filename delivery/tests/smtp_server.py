#!/usr/bin/python3
"""A loopback SMTP server for the delivery tests (aiosmtpd).

Prints "PORT <n>" once it listens, then serves until its standard input
closes, so it never outlives the test that started it.  Every accepted
message is written to OUT/msg-<n>/: raw (the DATA bytes as received after
dot-unstuffing), mail_from, rcpt_tos, auth_user, tls, subject (decoded),
and part-<i>.type / part-<i>.charset / part-<i>.cte / part-<i>.body (decoded).
"""
import argparse
import asyncio
import email
import email.policy
import os
import ssl
import sys
import warnings

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


def parse_args():
    p = argparse.ArgumentParser()
    p.add_argument(
        "--mode", choices=["accept", "reject", "silent", "hangup", "flood", "garbled"], default="accept"
    )
    p.add_argument("--reject-at", choices=["rcpt", "data"], default="data")
    p.add_argument("--reject-reply", default="554 5.7.1 Message rejected")
    p.add_argument("--escaped", action="store_true", help="reject reply holds \\xNN escapes")
    p.add_argument("--user")
    p.add_argument("--password")
    p.add_argument("--cert")
    p.add_argument("--key")
    p.add_argument("--implicit-tls", action="store_true")
    p.add_argument("--out", required=False, default=".")
    args = p.parse_args()
    if args.escaped:
        args.reject_reply = args.reject_reply.encode("latin-1").decode("unicode_escape")
    return args


class Handler:
    def __init__(self, args):
        self.args = args
        self.count = 0

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
        os.makedirs(folder, exist_ok=True)

        def put(name, data):
            if isinstance(data, str):
                data = data.encode("utf-8")
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)

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
        parts = list(msg.iter_parts()) if msg.is_multipart() else [msg]
        for i, part in enumerate(parts):
            put("part-%d.type" % i, part.get_content_type())
            put("part-%d.charset" % i, part.get_param("charset") or "")
            put("part-%d.cte" % i, part.get("Content-Transfer-Encoding", ""))
            put("part-%d.body" % i, part.get_payload(decode=True) or b"")
        put("done", "")
        return "250 Message accepted"


def authenticator(args):
    def check(server, session, envelope, mechanism, auth_data):
        ok = (
            isinstance(auth_data, LoginPassword)
            and auth_data.login.decode() == args.user
            and auth_data.password.decode() == args.password
        )
        return AuthResult(success=ok, handled=False, auth_data=auth_data)

    return check


def tls_context(args):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(args.cert, args.key)
    return ctx


async def main():
    args = parse_args()
    warnings.simplefilter("ignore")
    loop = asyncio.get_running_loop()
    handler = Handler(args)
    ctx = tls_context(args) if args.cert else None

    if args.mode in ("hangup", "flood", "garbled"):
        # Misbehaving peers: a greeting, then on the first command a hang-up,
        # an endless line, or a reply that is not SMTP at all.
        async def misbehave(reader, writer):
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

        server = await asyncio.start_server(misbehave, "127.0.0.1", 0)
    elif args.mode == "silent":
        held = []

        async def hold(reader, writer):
            held.append(writer)  # accept, then never say a word
            with open(os.path.join(args.out, "conn-%d" % len(held)), "w"):
                pass
            await asyncio.sleep(3600)

        server = await asyncio.start_server(hold, "127.0.0.1", 0)
    else:

        def factory():
            kwargs = dict(
                hostname="test.local",
                auth_require_tls=False,
                decode_data=False,
                enable_SMTPUTF8=True,
            )
            if args.user is not None:
                kwargs.update(authenticator=authenticator(args), auth_required=True)
            if ctx is not None and not args.implicit_tls:
                kwargs.update(tls_context=ctx, require_starttls=False)
            return SMTP(handler, **kwargs)

        server = await loop.create_server(
            factory, "127.0.0.1", 0, ssl=ctx if args.implicit_tls else None
        )

    port = server.sockets[0].getsockname()[1]
    print("PORT %d" % port, flush=True)

    # Serve until the test closes our standard input.
    stdin_closed = loop.create_future()

    def on_stdin():
        if not sys.stdin.buffer.read1(4096) and not stdin_closed.done():
            stdin_closed.set_result(None)

    loop.add_reader(sys.stdin.fileno(), on_stdin)
    await stdin_closed
    server.close()


if __name__ == "__main__":
    asyncio.run(main())
