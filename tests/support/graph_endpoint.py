#!/usr/bin/python3
"""A local Microsoft Graph sendMail endpoint for the agents' tests (Debian's
python3 and python3-cryptography). Prints "READY <port>" once it listens on
127.0.0.1; ends when its standard input closes.

POST /v1.0/users/<mailbox>/sendMail takes a bearer token that
token_endpoint.py issued (checked with the public half of its signing key,
and its exp) and a Base64 MIME message, which it decodes and parses with
Python's email package.

The folder --state holds what a test reads and writes:
  requests       one line per request: "<status> <mailbox> <defects> <message-id>"
  mail/          each accepted message, as decoded, in <n>.eml
  early          one line per request that came before a Retry-After had passed
                 (and more than CROSSING after it was sent)
  control.json   read at each request:
                   {"next": [401, 429, ...]}   answer these first, one per request
                   {"status": 503}             answer every request so
                   {"throttle_every": 50}      answer each 50th request 429
                   "retry_after": "2"          sent with 429 and 503 (seconds or a date)
                   "code", "message"           the JSON error of a refusal
"""

import argparse
import base64
import email
import email.policy
import email.utils
import http.server
import json
import os
import threading
import time

from cryptography.hazmat.primitives import serialization

from token_endpoint import serve, server_arguments, verify_jwt

CROSSING = 0.05  # seconds


class Endpoint:
    def __init__(self, args):
        self.state = args.state
        with open(args.public_key, "rb") as f:
            self.public_key = serialization.load_pem_public_key(f.read())
        self.lock = threading.Lock()
        self.count = 0
        self.not_before = 0.0  # the last Retry-After sent, as a time
        self.paused_at = 0.0  # when the answer asking for it was sent
        os.makedirs(os.path.join(self.state, "mail"), exist_ok=True)

    def control(self):
        try:
            with open(os.path.join(self.state, "control.json")) as f:
                return json.load(f)
        except FileNotFoundError:
            return {}

    def planned(self):
        """The status the control file asks for now, or None; under the lock."""
        control = self.control()
        queue = control.get("next", [])
        if queue:
            control["next"] = queue[1:]
            with open(os.path.join(self.state, "control.json"), "w") as f:
                json.dump(control, f)
            return queue[0], control
        every = control.get("throttle_every", 0)
        if every and self.count % every == 0:
            return 429, control
        return control.get("status"), control

    def token_ok(self, header):
        if not header.startswith("Bearer "):
            return False
        checked = verify_jwt(header[7:], self.public_key)
        return bool(checked) and checked[1].get("exp", 0) > time.time()

    def answer(self, path, headers, body, arrival):
        """(status, extra headers, JSON answer or None), the mail recorded;
        `arrival`: when the request began."""
        parts = path.split("/")
        if len(parts) != 5 or parts[:3] != ["", "v1.0", "users"] or parts[4] != "sendMail":
            return 404, {}, {"error": {"code": "ResourceNotFound", "message": path}}
        with self.lock:
            self.count += 1
            now = time.time()
            # A request that came in before the client could have read the
            # pause (the answer written, plus the time another of its
            # connections takes to hear of it) crossed it.
            if self.paused_at + CROSSING <= arrival < self.not_before:
                with open(os.path.join(self.state, "early"), "a") as f:
                    f.write("%.3f before %.3f\n" % (arrival, self.not_before))
            status, control = self.planned()
            if status is None and not self.token_ok(headers.get("Authorization", "")):
                status = 401
            if status in (429, 503) and "retry_after" in control:
                after = control["retry_after"]
                seconds = float(after) if after.isdigit() else \
                    email.utils.parsedate_to_datetime(after).timestamp() - now
                self.not_before = max(self.not_before, now + seconds)
                self.paused_at = float("inf")  # until the answer is out
            if status is None:
                if headers.get("Content-Type") != "text/plain":
                    status = 415
                else:
                    status = 202
            mailbox, defects, message_id = parts[3], "-", "-"
            if status == 202:
                mime = base64.b64decode(body, validate=True)
                message = email.message_from_bytes(mime, policy=email.policy.default)
                defects = sum(len(part.defects) for part in message.walk())
                message_id = message.get("Message-ID", "-")
                name = os.path.join(self.state, "mail", "%d.eml" % self.count)
                with open(name + ".part", "wb") as f:
                    f.write(mime)
                os.rename(name + ".part", name)
            with open(os.path.join(self.state, "requests"), "a") as f:
                f.write("%d %s %s %s\n" % (status, mailbox, defects, message_id))
        extra = {"Retry-After": control["retry_after"]} \
            if status in (429, 503) and "retry_after" in control else {}
        error = {"error": {"code": control.get("code", "Error%d" % status),
                           "message": control.get("message", "refused by the test")}}
        return status, extra, None if status == 202 else error


def handler_for(endpoint):
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        # Headers and body leave at once: with Nagle's algorithm the body
        # would wait for the client's delayed ACK, and a 429 reach it late.
        disable_nagle_algorithm = True

        def log_message(self, *args):
            pass

        def do_POST(self):
            arrival = time.time()
            body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
            status, extra, answer = endpoint.answer(self.path, self.headers, body, arrival)
            data = json.dumps(answer).encode() if answer else b""
            self.send_response(status)
            for name, value in extra.items():
                self.send_header(name, value)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)
            self.wfile.flush()
            if status in (429, 503):
                with endpoint.lock:
                    endpoint.paused_at = min(endpoint.paused_at, time.time())

    return Handler


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for name, text in (("--state", "folder of requests, mail/, control.json"),
                       ("--public-key", "the token signer's public key (PEM)")):
        parser.add_argument(name, required=True, help=text)
    server_arguments(parser)
    args = parser.parse_args()
    serve(handler_for(Endpoint(args)), args)


if __name__ == "__main__":
    main()
