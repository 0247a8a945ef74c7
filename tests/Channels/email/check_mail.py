"""Parses every *.eml in a folder with Python's email package and compares the
decoded Subject, From display name, X-Detail header and body with the UTF-8
texts in the matching *.expected file (charset, subject, name, header, body,
separated by NUL bytes). Exits non-zero on the first mismatch."""

import email
import email.header
import email.utils
import pathlib
import sys


def decoded(raw):
    return str(email.header.make_header(email.header.decode_header(raw)))


def main(folder):
    checked = 0
    for eml in sorted(pathlib.Path(folder).glob("*.eml")):
        charset, subject, name, header, body = (
            eml.with_suffix(".expected").read_bytes().decode("utf-8").split("\0"))
        msg = email.message_from_bytes(eml.read_bytes())
        sender = decoded(msg["From"])
        got_name, got_addr = sender[:sender.rindex("<")].rstrip(), sender[sender.rindex("<"):]
        checks = {
            "subject": (decoded(msg["Subject"]), subject),
            "display name": (got_name, name.rstrip()),
            "sender": (got_addr, "<s@example.com>"),
            "X-Detail": (decoded(msg["X-Detail"]), header),
            "X-Plain": (decoded(msg["X-Plain"]), "ascii"),
            "recipients": ([a for _, a in email.utils.getaddresses([msg["To"]])], ["a@x.org", "b@y.org"]),
            "content type": (msg.get_content_charset(), charset.lower()),
            "body": (msg.get_payload(decode=True).decode(charset), body),
        }
        for what, (got, want) in checks.items():
            if got != want:
                print(f"{eml.name} ({charset}) {what}: got {got!r}, want {want!r}")
                return 1
        if msg.defects:
            print(f"{eml.name} ({charset}) defects: {msg.defects}")
            return 1
        checked += 1
    print(f"{checked} messages checked")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
