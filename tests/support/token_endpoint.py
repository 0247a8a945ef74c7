#!/usr/bin/python3
"""A local OAuth2 token endpoint for the agents' tests (Debian's python3 and
python3-cryptography). Prints "READY <port>" once it listens on 127.0.0.1;
ends when its standard input closes.

It issues RS256 JWT access tokens (typ JWT, sub = --subject, exp after
--lifetime seconds) that Dovecot and oauth2_smtp_auth.py check with the
public half of --signing-key, for three grants:

  client_credentials  with client_secret = the first line of --secret-file, or
                      a client assertion (RFC 7523) signed by the key of
                      --client-cert: signature, aud, iss/sub, exp, nbf, both
                      thumbprints, and jti never seen before are checked
  refresh_token       rotated at each use: the token sent is answered with a
                      successor, and stays valid until that successor is
                      first used (then it and its other successors are dead)

The folder --state holds what a test reads and writes:
  requests       one line per request: "<grant_type> <HTTP status>"
  control.json   read at each request: {"status": 503, "error": "...",
                 "error_description": "...", "delay": 2.5}: answer so (after
                 waiting), instead of checking anything
  revoked        tokens (access or refresh), one a line, refused from then on
"""

import argparse
import base64
import hashlib
import http.server
import json
import os
import ssl
import sys
import threading
import time
import urllib.parse

from cryptography import x509
from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding


def b64u(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def unb64u(text):
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def sign_jwt(header, claims, private_key):
    signing_input = b64u(json.dumps(header).encode()) + "." + b64u(json.dumps(claims).encode())
    signature = private_key.sign(signing_input.encode(), padding.PKCS1v15(), hashes.SHA256())
    return signing_input + "." + b64u(signature)


def verify_jwt(token, public_key):
    """(header, claims) of an RS256 JWT whose signature holds, else None."""
    try:
        head, body, signature = token.split(".")
        header, claims = json.loads(unb64u(head)), json.loads(unb64u(body))
        if header.get("alg") != "RS256":
            return None
        public_key.verify(unb64u(signature), (head + "." + body).encode(), padding.PKCS1v15(),
                          hashes.SHA256())
        return header, claims
    except (ValueError, InvalidSignature):
        return None


def revoked(state, token):
    try:
        with open(os.path.join(state, "revoked")) as f:
            return token in f.read().split()
    except FileNotFoundError:
        return False


class Endpoint:
    def __init__(self, args):
        self.args = args
        with open(args.signing_key, "rb") as f:
            self.signing_key = serialization.load_pem_private_key(f.read(), None)
        self.client_cert = None
        if args.client_cert:
            with open(args.client_cert, "rb") as f:
                self.client_cert = x509.load_pem_x509_certificate(f.read())
        self.lock = threading.Lock()
        self.parents = {args.refresh_token: None} if args.refresh_token else {}
        self.seen_jti = set()
        self.serial = 0

    def access_token(self):
        now = int(time.time())
        self.serial += 1
        # exp rounded up: the token lasts at least the expires_in it is sent with.
        claims = {"sub": self.args.subject, "iat": now, "nbf": now,
                  "exp": now + 1 + self.args.lifetime, "jti": str(self.serial)}
        return sign_jwt({"alg": "RS256", "typ": "JWT"}, claims, self.signing_key)

    def client_ok(self, form, url):
        if form.get("client_id") != self.args.client_id:
            return False
        if "client_secret" in form and self.args.secret_file:
            with open(self.args.secret_file) as f:
                return form["client_secret"] == f.readline().rstrip("\r\n")
        assertion_type = "urn:ietf:params:oauth:client-assertion-type:jwt-bearer"
        if form.get("client_assertion_type") != assertion_type or not self.client_cert:
            return False
        checked = verify_jwt(form.get("client_assertion", ""), self.client_cert.public_key())
        if not checked:
            return False
        header, claims = checked
        der = self.client_cert.public_bytes(serialization.Encoding.DER)
        now = time.time()
        fresh = claims.get("jti") not in self.seen_jti
        self.seen_jti.add(claims.get("jti"))
        return (header.get("x5t") == b64u(hashlib.sha1(der).digest())
                and header.get("x5t#S256") == b64u(hashlib.sha256(der).digest())
                and claims.get("aud") == url and claims.get("iss") == self.args.client_id
                and claims.get("sub") == self.args.client_id and fresh
                and claims.get("nbf", 0) <= now + 5 and claims.get("exp", 0) > now)

    def answer(self, form, url):
        """(status, JSON answer) for a token request; called under the lock."""
        grant = form.get("grant_type")
        refused = (400, {"error": "invalid_client", "error_description": "unknown client"})
        if grant == "client_credentials":
            return (200, {"access_token": self.access_token(), "token_type": "Bearer",
                          "expires_in": self.args.lifetime}) if self.client_ok(form, url) else refused
        if grant != "refresh_token":
            return 400, {"error": "unsupported_grant_type"}
        if form.get("client_id") != self.args.client_id:
            return refused
        old = form.get("refresh_token", "")
        if old not in self.parents or revoked(self.args.state, old):
            return 400, {"error": "invalid_grant", "error_description": "refresh token unknown"}
        # Its first use retires its parent and the parent's other successors.
        parent = self.parents[old]
        if parent is not None:
            for token in [t for t, p in self.parents.items() if p == parent and t != old]:
                del self.parents[token]
            del self.parents[parent]
            self.parents[old] = None
        successor = b64u(os.urandom(24))
        self.parents[successor] = old
        return 200, {"access_token": self.access_token(), "token_type": "Bearer",
                     "expires_in": self.args.lifetime, "refresh_token": successor}


def handler_for(endpoint):
    state = endpoint.args.state

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def do_POST(self):
            length = int(self.headers.get("Content-Length", 0))
            form = dict(urllib.parse.parse_qsl(self.rfile.read(length).decode()))
            scheme = "https" if endpoint.args.cert else "http"
            url = "%s://127.0.0.1:%d%s" % (scheme, self.server.server_port, self.path)
            try:
                with open(os.path.join(state, "control.json")) as f:
                    control = json.load(f)
            except FileNotFoundError:
                control = {}
            time.sleep(control.get("delay", 0))
            if "status" in control:
                status = control["status"]
                body = {k: control[k] for k in ("error", "error_description") if k in control}
            else:
                with endpoint.lock:
                    status, body = endpoint.answer(form, url)
            with open(os.path.join(state, "requests"), "a") as f:
                f.write("%s %d\n" % (form.get("grant_type"), status))
            data = json.dumps(body).encode()
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)

    return Handler


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--state", required=True, help="folder of requests, control.json, revoked")
    parser.add_argument("--signing-key", required=True, help="RSA private key (PEM) for tokens")
    server_arguments(parser)
    parser.add_argument("--client-id", default="test-client")
    parser.add_argument("--secret-file", help="file whose first line is the client secret")
    parser.add_argument("--client-cert", help="the client's registered certificate (PEM)")
    parser.add_argument("--refresh-token", help="the first valid refresh token")
    parser.add_argument("--subject", default="alice@example.com", help="the tokens' sub")
    parser.add_argument("--lifetime", type=int, default=3600, help="seconds an access token lasts")
    args = parser.parse_args()

    serve(handler_for(Endpoint(args)), args)


def server_arguments(parser):
    """The options serve() reads."""
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--cert", help="TLS certificate (PEM); plain http without it")
    parser.add_argument("--key", help="its private key (PEM)")


def serve(handler, args):
    """Serves `handler` on 127.0.0.1 (args.port, TLS with args.cert and
    args.key when given) until standard input closes."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), handler)
    server.daemon_threads = True
    server.handle_error = lambda *args: None  # clients the tests cut off or kill
    if args.cert:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(args.cert, args.key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print("READY %d" % server.server_port, flush=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    sys.stdin.read()  # the test's end of the pipe closing means the test is gone


if __name__ == "__main__":
    main()
