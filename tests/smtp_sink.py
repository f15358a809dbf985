#!/usr/bin/python3
"""A local SMTP sink for the whole-product tests and the demo (aiosmtpd).

Listens on 127.0.0.1 (--port, 0 picks a free one), prints "PORT <n>" once it
listens and keeps every message as OUT/msg-<n>.eml (the DATA as received).
--user/--password require AUTH LOGIN; --reject-rcpt refuses every recipient.  Serves until standard input closes or
SIGTERM, so it never outlives whoever started it.
"""
import argparse
import asyncio
import os
import signal
import sys

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--out", required=True)
    p.add_argument("--user")
    p.add_argument("--password")
    p.add_argument("--no-stdin", action="store_true", help="do not stop when stdin closes")
    p.add_argument("--reject-rcpt", action="store_true", help="answer 550 to every RCPT")
    args = p.parse_args()
    os.makedirs(args.out, exist_ok=True)

    class Handler:
        count = len([n for n in os.listdir(args.out) if n.endswith(".eml")])

        async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
            if args.reject_rcpt:
                return "550 5.1.1 <%s>: no such mailbox" % address
            envelope.rcpt_tos.append(address)
            return "250 OK"

        async def handle_DATA(self, server, session, envelope):
            Handler.count += 1
            path = os.path.join(args.out, "msg-%d.eml" % Handler.count)
            with open(path + ".tmp", "wb") as f:
                f.write(envelope.original_content or envelope.content)
            os.rename(path + ".tmp", path)
            return "250 OK"

    def authenticator(server, session, envelope, mechanism, auth_data):
        ok = (isinstance(auth_data, LoginPassword)
              and auth_data.login.decode() == args.user
              and auth_data.password.decode() == args.password)
        return AuthResult(success=ok)

    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    kwargs = {}
    if args.user:
        kwargs = dict(authenticator=authenticator, auth_require_tls=False,
                      auth_required=True)
    server = loop.run_until_complete(loop.create_server(
        lambda: SMTP(Handler(), hostname="localhost", **kwargs),
        host="127.0.0.1", port=args.port, reuse_address=True))
    port = server.sockets[0].getsockname()[1]
    print("PORT %d" % port, flush=True)

    stop = asyncio.Event()
    loop.add_signal_handler(signal.SIGTERM, stop.set)
    loop.add_signal_handler(signal.SIGINT, stop.set)
    if not args.no_stdin:
        loop.add_reader(sys.stdin.fileno(),
                        lambda: stop.set() if not os.read(sys.stdin.fileno(), 4096) else None)
    loop.run_until_complete(stop.wait())
    server.close()
    loop.run_until_complete(server.wait_closed())


if __name__ == "__main__":
    main()
