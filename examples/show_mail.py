"""Prints every message of a Maildir as a mail client shows it: decoded
headers and the body in its own charset."""

import email.header
import mailbox
import sys


def decoded(value):
    return str(email.header.make_header(email.header.decode_header(value)))


def main(path):
    box = mailbox.Maildir(path, create=False)
    for key in sorted(box.keys()):
        msg = box[key]
        print("-" * 72)
        for name in msg.keys():
            if name.lower() not in ("mime-version", "content-disposition", "content-transfer-encoding"):
                print(f"{name}: {decoded(msg[name])}")
        print()
        charset = msg.get_content_charset() or "utf-8"
        print(msg.get_payload(decode=True).decode(charset))
    print("-" * 72)
    print(f"{len(box)} messages in {path}")


if __name__ == "__main__":
    main(sys.argv[1])
