#!/usr/bin/python3
"""A real SMTP server on 127.0.0.1 for the agents' tests and benchmark.

Run with Debian's /usr/bin/python3 (python3-aiosmtpd). Prints "READY <port>"
once it listens. With --record, appends one line per event to that file,
flushed before the server answers, so a test sees what the server took even
when it is killed before replying:

    C <connection>                                   a client connected
    A <connection>                                   the client sent AUTH
    T <ok> <token>                                   an OAuth2 token offered (--oauth2)
    M <connection> <tls> <auth> <from> <to,to,...> <hex of the data>

<tls> and <auth> are 1 or 0; <from> is "-" for the null sender. The data is
exactly what arrived after the DATA command, dot-unstuffing undone, line
ends untouched.

Scripted: a recipient "r450.x@..." or "r550.x@..." (any 4xx/5xx code) is
refused with that code; a header line "X-Test-Reply: 451 text" is the reply
to DATA; --mail-reply answers every MAIL FROM; --echo-auth quotes a refused
AUTH PLAIN's Base64 string in the 535 reply, as careless servers do; --delay SECONDS answers each
message later (other connections go on), --command-delay SECONDS each MAIL, RCPT
and DATA command; with --die-once FILE, a message with
a line "X-Test-Die: yes" is recorded, then the server exits unanswered, as if
it crashed, and FILE keeps a restarted server from doing it again.
--oauth2 PUBLIC_KEY STATE requires an XOAUTH2 or OAUTHBEARER sign-in with a
token of token_endpoint.py (see oauth2_smtp_auth.py) instead.
"""

import argparse
import asyncio
import base64
import functools
import os
import re
import signal
import ssl
import sys

from aiosmtpd.smtp import SMTP, AuthResult

_RCPT_CODE = re.compile(r"^r([2-5]\d\d)\.")
_DATA_REPLY = re.compile(rb"^X-Test-Reply: (\d{3}[^\r\n]*)", re.M)
_DIE = re.compile(rb"^X-Test-Die: yes", re.M)


class Handler:
    def __init__(self, args):
        self.args = args
        self.file = open(args.record, "a", buffering=1) if args.record else None
        self.connections = 0

    def record(self, line):
        if self.file:
            print(line, file=self.file, flush=True)

    async def handle_MAIL(self, server, session, envelope, address, mail_options):
        await asyncio.sleep(self.args.command_delay)
        if self.args.mail_reply:
            return self.args.mail_reply
        envelope.mail_from = address
        envelope.mail_options.extend(mail_options)
        return "250 OK"

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        await asyncio.sleep(self.args.command_delay)
        m = _RCPT_CODE.match(address)
        if m and m.group(1)[0] in "45":
            code = m.group(1)
            kind = "4.2.0 mailbox busy, try later" if code[0] == "4" else "5.1.1 no such mailbox"
            return f"{code} {kind} <{address}>"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        await asyncio.sleep(self.args.command_delay)
        data = envelope.original_content
        m = _DATA_REPLY.search(data)
        if m:
            return m.group(1).decode("ascii", "replace")
        tls = session.ssl is not None or server.implicit_tls
        self.record(f"M {server.connection_number} {int(tls)} {int(bool(session.authenticated))} "
                            f"{envelope.mail_from or '-'} {','.join(envelope.rcpt_tos)} {data.hex()}")
        die_once = self.args.die_once
        if die_once and _DIE.search(data) and not os.path.exists(die_once):
            open(die_once, "w").close()
            os._exit(0)
        if self.args.delay:
            await asyncio.sleep(self.args.delay)
        return "250 OK queued"


class RecordingSMTP(SMTP):
    """Counts connections; a STARTTLS upgrade is not a new one."""

    connection_number = 0
    implicit_tls = False

    def connection_made(self, transport):
        fresh = self.transport is None
        super().connection_made(transport)
        if fresh:
            self.implicit_tls = transport.get_extra_info("ssl_object") is not None
            self.event_handler.connections += 1
            self.connection_number = self.event_handler.connections
            self.event_handler.record("C %d" % self.connection_number)

    @functools.wraps(SMTP.smtp_AUTH)  # keeps aiosmtpd's command syntax marks
    async def smtp_AUTH(self, arg):
        self.event_handler.record("A %d" % self.connection_number)
        return await super().smtp_AUTH(arg)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--record", help="file to append events to")
    parser.add_argument("--cert", help="certificate (PEM) to offer STARTTLS or TLS with")
    parser.add_argument("--key", help="its private key (PEM)")
    parser.add_argument("--tls-max", choices=["1.2"], help="the newest TLS version offered")
    parser.add_argument("--client-ca", help="require a client certificate signed by this (PEM)")
    parser.add_argument("--implicit-tls", action="store_true", help="TLS from the start (smtps)")
    parser.add_argument("--require-starttls", action="store_true")
    parser.add_argument("--auth", help="USER:PASSWORD; AUTH PLAIN is then required")
    parser.add_argument("--echo-auth", action="store_true")
    parser.add_argument("--die-once", help="marker file; see X-Test-Die above")
    parser.add_argument("--mail-reply", help="reply to every MAIL FROM, e.g. \"451 busy\"")
    parser.add_argument("--delay", type=float, default=0.0,
                        help="seconds before each message is answered")
    parser.add_argument("--command-delay", type=float, default=0.0,
                        help="seconds before MAIL, RCPT and DATA are each answered")
    parser.add_argument("--oauth2", nargs=2, metavar=("PUBLIC_KEY", "STATE"),
                        help="the token endpoint's public key and --state folder")
    parser.add_argument("--idle-timeout", type=float, default=300.0,
                        help="seconds before an idle client is dropped")
    args = parser.parse_args()

    context = None
    if args.cert:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(args.cert, args.key)
        if args.tls_max:
            context.maximum_version = ssl.TLSVersion.TLSv1_2
        if args.client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(args.client_ca)

    handler = Handler(args)
    if args.oauth2:
        sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
        from oauth2_smtp_auth import OAuth2Auth
        import logging
        import warnings
        # aiosmtpd's notes on AUTH without TLS: on purpose here.
        warnings.simplefilter("ignore")
        logging.getLogger("mail.log").setLevel(logging.ERROR)

        class OAuth2Handler(Handler, OAuth2Auth):
            def accepts(self, user, token):
                ok = OAuth2Auth.accepts(self, user, token)
                self.record(f"T {int(ok)} {token}")
                return ok

        handler = OAuth2Handler(args)
        OAuth2Auth.__init__(handler, *args.oauth2)
    options = dict(hostname="test.invalid", timeout=args.idle_timeout, data_size_limit=None,
                   enable_SMTPUTF8=True)
    if context is not None and not args.implicit_tls:
        options.update(tls_context=context, require_starttls=args.require_starttls)
    if args.oauth2:
        options.update(auth_required=True, auth_require_tls=context is not None,
                       auth_exclude_mechanism=["LOGIN", "PLAIN"])
    if args.auth:
        user, password = args.auth.split(":", 1)

        def authenticator(server, session, envelope, mechanism, auth_data):
            ok = (mechanism == "PLAIN" and auth_data.login == user.encode()
                  and auth_data.password == password.encode())
            echo = None
            if args.echo_auth and not ok:
                sent = base64.b64encode(b"\0" + auth_data.login + b"\0" + auth_data.password)
                echo = "535 5.7.8 refused " + sent.decode()
            return AuthResult(success=ok, handled=False, message=echo)

        options.update(authenticator=authenticator, auth_required=True,
                       auth_require_tls=context is not None, auth_exclude_mechanism=["LOGIN"])

    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    server = loop.run_until_complete(loop.create_server(
        lambda: RecordingSMTP(handler, loop=loop, **options), host="127.0.0.1",
        port=args.port, ssl=context if args.implicit_tls else None, reuse_address=True))
    port = server.sockets[0].getsockname()[1]
    print("READY %d" % port, flush=True)
    # Stopped by SIGTERM or SIGKILL from the test; either ends at once.
    loop.add_signal_handler(signal.SIGTERM, lambda: os._exit(0))
    # The test's end of the pipe closing means the test is gone.
    loop.add_reader(sys.stdin.fileno(), lambda: os._exit(0))
    loop.run_forever()


if __name__ == "__main__":
    main()
