#!/usr/bin/python3
"""XOAUTH2 and OAUTHBEARER sign-in for an aiosmtpd test server: the bearer
token must be an RS256 JWT signed by the token endpoint's key
(token_endpoint.py), unexpired, not revoked, for the user signing in.

A handler gains the mechanisms by deriving from OAuth2Auth (aiosmtpd 1.4
finds its auth_XOAUTH2 and auth_OAUTHBEARER methods). A refusal goes as the
providers do it: a 334 challenge carrying a JSON error, then 535 once the
client answers it (libcurl stops at the challenge and reports a denied login).

Run alone, it is a server that takes mail only after such a sign-in and
drops it: prints "READY <port>", ends when its standard input closes.
"""

import argparse
import asyncio
import json
import logging
import os
import sys
import time
import warnings

from aiosmtpd.smtp import SMTP, AuthResult
from cryptography.hazmat.primitives import serialization

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from token_endpoint import revoked, verify_jwt  # noqa: E402

_REFUSAL = json.dumps({"status": "401", "schemes": "bearer", "scope": "mail"})


class OAuth2Auth:
    def __init__(self, public_key_file, state):
        with open(public_key_file, "rb") as f:
            self.public_key = serialization.load_pem_public_key(f.read())
        self.state = state  # the endpoint's folder, for its "revoked" list

    def accepts(self, user, token):
        checked = verify_jwt(token, self.public_key)
        return (checked is not None and checked[1].get("sub") == user
                and checked[1].get("exp", 0) > time.time() and not revoked(self.state, token))

    async def _sign_in(self, server, args, parse):
        blob = await server.challenge_auth("") if len(args) == 1 else _b64(args[1])
        fields = parse(blob.decode("utf-8", "replace")) if isinstance(blob, bytes) else None
        if fields and self.accepts(*fields):
            return AuthResult(success=True, auth_data=fields[0])
        await server.challenge_auth(_REFUSAL)
        return AuthResult(success=False, handled=False)

    async def auth_XOAUTH2(self, server, args):
        return await self._sign_in(server, args, _xoauth2)

    async def auth_OAUTHBEARER(self, server, args):
        return await self._sign_in(server, args, _oauthbearer)


def _b64(text):
    import base64
    try:
        return base64.b64decode(text, validate=True)
    except ValueError:
        return None


def _bearer(parts):
    auth = [p for p in parts if p.startswith("auth=Bearer ")]
    return auth[0][len("auth=Bearer "):] if auth else None


def _xoauth2(text):
    # "user=" user ^A "auth=Bearer " token ^A ^A
    parts = text.split("\x01")
    users = [p[5:] for p in parts if p.startswith("user=")]
    token = _bearer(parts)
    return (users[0], token) if users and token else None


def _oauthbearer(text):
    # gs2 header "n,a=user," ^A "auth=Bearer " token ^A ^A (RFC 7628)
    parts = text.split("\x01")
    gs2 = parts[0].split(",")
    users = [g[2:] for g in gs2 if g.startswith("a=")]
    token = _bearer(parts[1:])
    return (users[0], token) if users and token else None


class DropHandler(OAuth2Auth):
    async def handle_DATA(self, server, session, envelope):
        return "250 OK dropped"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--public-key", required=True, help="the endpoint's key (PEM, public)")
    parser.add_argument("--state", required=True, help="the endpoint's --state folder")
    args = parser.parse_args()
    # aiosmtpd's notes on AUTH without TLS: on purpose here.
    warnings.simplefilter("ignore")
    logging.getLogger("mail.log").setLevel(logging.ERROR)
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    handler = DropHandler(args.public_key, args.state)
    server = loop.run_until_complete(loop.create_server(
        lambda: SMTP(handler, loop=loop, hostname="oauth2.test", auth_required=True,
                     auth_require_tls=False, auth_exclude_mechanism=["LOGIN", "PLAIN"]),
        host="127.0.0.1", port=0))
    print("READY %d" % server.sockets[0].getsockname()[1], flush=True)
    loop.add_reader(sys.stdin.fileno(), lambda: os._exit(0))
    loop.run_forever()


if __name__ == "__main__":
    main()
