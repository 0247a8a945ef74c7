#!/usr/bin/python3
"""osk-host end to end through the digest agent in front of the Maildir
agent: a flood becomes a few single mails and digests that carry every other
alert byte for byte, across a SIGKILL and a restart."""

import email.header
import re
import signal
import unittest

from host_harness import (DIGEST_AGENT, EXAMPLES, HOST_TOKEN, MAILDIR_AGENT, HostTest, channel_config,
                          events_xml, group, parse_mail)

TOKENS = '<Token name="n" xpath="/alarm/@n"/>' + HOST_TOKEN
# ISO-8859-1 for TAM_LANG=de: the subjects' encoded words are not UTF-8.
DEFAULTS = '<Charset enabled="yes" locale="de" charset="ISO-8859-1"/>'
GROUPS = group("Alert %n% on %host%", 1, extra="<Subject>[ALERT] Nr. %n% Störung auf %host%</Subject>")
ENV = {"TAM_LANG": "de_DE"}


def alert_events(numbers):
    return [(1, f'<alarm n="{n}"><host>köln-{n % 7}.example.com</host></alarm>') for n in numbers]


def as_built(raw):
    """A mail without its Date and the lines the Maildir agent puts in front."""
    raw = re.sub(rb"\A(?:(?:Message-ID|Auto-Submitted): .*\n)+", b"", raw)
    return re.sub(rb"^Date: .*\n", b"", raw, count=1, flags=re.M)


def decoded(value):
    return str(email.header.make_header(email.header.decode_header(value)))


class DigestTest(HostTest):
    def config(self):
        params = [("agent", MAILDIR_AGENT), ("burst", 5), ("window", 600),
                  ("hold", self.dir / "hold"), ("path", self.dir / "mail")]
        return channel_config(DIGEST_AGENT, params, GROUPS, defaults_extra=DEFAULTS, tokens=TOKENS)

    def delivered(self):
        """(single mails, checked digests, {alert number: [raw alert]}) in the Maildir."""
        singles, digests, alerts = [], [], {}
        for path in sorted((self.dir / "mail" / "new").glob("*")):
            raw = path.read_bytes()
            msg = parse_mail(raw)
            parts = [raw]
            if msg.get_content_type() == "multipart/digest":
                parts = self.check_digest(raw, msg)
                digests.append(msg)
            else:
                singles.append(msg)
            for part in parts:
                n = int(re.search(rb"Nr. (\d+) ", decoded(parse_mail(part)["Subject"]).encode()).group(1))
                alerts.setdefault(n, []).append(part)
        return singles, digests, alerts

    def check_digest(self, raw, msg):
        """The raw alerts of a digest whose headers, structure and summary are checked."""
        self.assertEqual([], [p.defects for p in msg.walk() if p.defects])
        self.assertEqual((["auto-generated"], 1),
                         (msg.get_all("Auto-Submitted"), len(msg.get_all("Message-ID"))))
        self.assertRegex(msg["Message-ID"], r"^<[^<>@\s]+@[^<>@\s]+>$")
        self.assertIsNotNone(msg["Date"])
        # The alerts as they were built, byte for byte, between the boundaries.
        pieces = raw[raw.index(b"\n\n") + 2:].split(b"\n--" + msg.get_boundary().encode())
        self.assertEqual(b"--\n", pieces[-1])
        prefix = b"\nContent-Type: message/rfc822\n\n"
        self.assertTrue(all(p.startswith(prefix) for p in pieces[2:-1]))
        alerts = [p[len(prefix):] for p in pieces[2:-1]]
        self.assertEqual(f"Digest of {len(alerts)} alerts", str(msg["Subject"]))
        parts = list(msg.iter_parts())
        self.assertEqual(["text/plain"] + ["message/rfc822"] * len(alerts),
                         [p.get_content_type() for p in parts])
        parsed = [parse_mail(a) for a in alerts]
        lines = parts[0].get_content().splitlines()
        self.assertEqual(f"{len(alerts)} alerts, from {parsed[0]['Date']} to {parsed[-1]['Date']}.", lines[0])
        self.assertEqual([f"{a['Date']}  {decoded(a['Subject'])}" for a in parsed], lines[2:])
        self.assertEqual([(msg["To"], msg["From"])] * len(parsed), [(a["To"], a["From"]) for a in parsed])
        return alerts

    def test_a_flood_across_a_killed_host_becomes_ten_mails_and_two_digests_byte_for_byte(self):
        # What the channel builds for each alert without the digest agent.
        plain = channel_config(MAILDIR_AGENT, [("path", self.dir / "plain")], GROUPS,
                               defaults_extra=DEFAULTS, tokens=TOKENS)
        self.assertEqual(self.host(plain, events_xml(*alert_events(range(1, 101))), env=ENV).returncode, 0)
        reference = {int(re.search(rb"Alert (\d+) ", parse_mail(p.read_bytes()).get_payload(
            decode=True)).group(1)): p.read_bytes() for p in (self.dir / "plain" / "new").glob("*")}

        # The first run sends five of its sixty alerts, holds the rest and is killed.
        host = self.live_host(self.config(), env=ENV)
        host.send(events_xml(*alert_events(range(1, 61))).rpartition("</Events>")[0])
        held = self.dir / "hold" / "new"
        host.wait_for(lambda: len(list(held.glob("*"))) >= 55)
        host.process.send_signal(signal.SIGKILL)
        host.process.wait()
        self.assertEqual((55, 5), (len(list(held.glob("*"))), len(self.maildir())))

        result = self.host(self.config(), events_xml(*alert_events(range(61, 101))), env=ENV)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.summary()[2], {})
        singles, digests, alerts = self.delivered()
        # The earlier run's digest first, then this run's five and its own.
        self.assertEqual((len(singles), len(digests)), (10, 2))
        self.assertEqual(list(range(1, 101)), sorted(alerts))
        self.assertEqual([], list(held.glob("*")), "nothing left held")
        for n, (raw,) in alerts.items():  # each alert once, as it was built
            self.assertEqual(as_built(raw), as_built(reference[n]), f"alert {n}")


    def test_the_shipped_example(self):
        # A burst of one: the first alert alone, the other two in one digest.
        result = self.host((EXAMPLES / "alerts-digest.xml").read_text(encoding="utf-8"),
                           (EXAMPLES / "events.xml").read_text(encoding="utf-8"))
        self.assertEqual((0, (4, 0, {})), (result.returncode, result.summary()))
        single, digest = self.maildir("example-mail")
        self.assertEqual({"[ALERT] disk 97% full on db1.example.com", "[ALERT] nginx down on web2.example.com",
                          "[ALERT] disk 91% full on Köln-backup"},
                         {str(single["Subject"])} | {str(p.get_content()["Subject"])
                                                     for p in list(digest.iter_parts())[1:]})


if __name__ == "__main__":
    unittest.main()
