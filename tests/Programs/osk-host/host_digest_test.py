#!/usr/bin/python3
"""osk-host end to end through the digest agent: a flood becomes a few single
mails and a digest of every other alert, while a second host on the busy
hold passes its alerts straight on; in front of an SMTP relay with a spool,
neither an outage nor SIGKILLs at random moments lose an alert or send one
again."""

import email.header
import random
import time
import unittest

from host_harness import (DIGEST_AGENT, EXAMPLES, HOST_TOKEN, MAILDIR_AGENT, SMTP_AGENT, HostTest, SmtpSpoolTest,
                          channel_config, events_xml, group, parse_mail)

TOKENS = '<Token name="n" xpath="/alarm/@n"/>' + HOST_TOKEN
# ISO-8859-1 for TAM_LANG=de: the subjects' encoded words are not UTF-8.
DEFAULTS = '<Charset enabled="yes" locale="de" charset="ISO-8859-1"/>'
GROUPS = group("Alert %n% on %host%", 1, extra="<Subject>[ALERT] Nr. %n% Störung auf %host%</Subject>")
ENV = {"TAM_LANG": "de_DE"}


def alert_events(numbers):
    return [(1, f'<alarm n="{n}"><host>köln-{n % 7}.example.com</host></alarm>') for n in numbers]


def decoded(value):
    return str(email.header.make_header(email.header.decode_header(value)))


def alerts_in(msg):
    """The alert numbers of a mail, of each part of a digest, of a held or spooled file."""
    if msg.get_content_type() == "multipart/digest":
        return [n for part in list(msg.iter_parts())[1:] for n in alerts_in(part.get_content())]
    return [int(msg.get_content().split()[1])]


class DigestTest(HostTest):
    def config(self):
        params = [("agent", MAILDIR_AGENT), ("burst", 5), ("window", 600),
                  ("hold", self.dir / "hold"), ("path", self.dir / "mail")]
        return channel_config(DIGEST_AGENT, params, GROUPS, defaults_extra=DEFAULTS, tokens=TOKENS)

    def delivered(self):
        """(single mails, checked digests, the alert numbers they carry) in the Maildir."""
        singles, digests = [], []
        for path in sorted((self.dir / "mail" / "new").glob("*")):
            raw = path.read_bytes()
            msg = parse_mail(raw)
            if msg.get_content_type() == "multipart/digest":
                self.check_digest(raw, msg)
            (digests if msg.get_content_type() == "multipart/digest" else singles).append(msg)
        return singles, digests, sum((alerts_in(m) for m in singles + digests), [])

    def check_digest(self, raw, msg):
        """Checks the headers, structure and summary of a digest."""
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

    def test_a_flood_becomes_five_mails_and_a_digest_and_a_busy_hold_passes_mail_on(self):
        # The first host sends five of its sixty alerts and holds the rest.
        first = self.live_host(self.config(), env=ENV)
        first.send(events_xml(*alert_events(range(1, 61))).rpartition("</Events>")[0])
        held = self.dir / "hold" / "new"
        first.wait_for(lambda: len(list(held.glob("*"))) >= 55)
        # A second host finds the hold busy: it says so once and passes its ten alerts on.
        second = self.host(self.config(), events_xml(*alert_events(range(61, 71))), env=ENV)
        self.assertEqual((0, 0, {}), (second.returncode, second.lost(), second.summary()[2]), second.stderr)
        self.assertEqual(1, second.stderr.count("is in use by another digest agent"), second.stderr)
        self.assertEqual(0, first.finish("</Events>\n"), first.stderr())
        # Each alert held is told as kept, none as lost.
        self.assertEqual((0, {"warning": 55}), (first.result().lost(), first.result().summary()[2]))
        self.assertTrue(all("Digest agent: the alert is held in" in w for w in first.result().reports("warning")))
        singles, digests, alerts = self.delivered()
        self.assertEqual((len(singles), len(digests)), (15, 1))
        self.assertEqual(list(range(1, 71)), sorted(alerts))
        self.assertEqual([], list(held.glob("*")), "nothing left held")

    def test_the_shipped_example(self):
        # A burst of one: the first alert alone, the other two in one digest.
        result = self.host((EXAMPLES / "alerts-digest.xml").read_text(encoding="utf-8"),
                           (EXAMPLES / "events.xml").read_text(encoding="utf-8"))
        self.assertEqual((0, (4, 0, {"warning": 2})), (result.returncode, result.summary()))
        single, digest = self.maildir("example-mail")
        self.assertEqual({"[ALERT] disk 97% full on db1.example.com", "[ALERT] nginx down on web2.example.com",
                          "[ALERT] disk 91% full on Köln-backup"},
                         {str(single["Subject"])} | {str(p.get_content()["Subject"])
                                                     for p in list(digest.iter_parts())[1:]})


class SmtpDigestTest(SmtpSpoolTest):
    """The digest agent in front of the SMTP agent with a spool."""

    def start(self, first, count, window=1):
        params = [("agent", SMTP_AGENT), ("burst", 2), ("window", window), ("hold", self.dir / "hold"),
                  ("url", self.server.url), ("starttls", "no"), ("timeout", 2), ("spool", self.spool)]
        host = self.live_host(channel_config(DIGEST_AGENT, params, group("alert %n%", 1),
                                             tokens='<Token name="n" xpath="/e/@n"/>'))
        host.send('<Events>\n' + "".join(f'<Event id="1"><e n="{n}"/></Event>\n'
                                         for n in range(first, first + count)))
        return host

    def stored(self, *wheres):
        """The alerts of each mail in hold/new and spool/new, or that arrived at the server."""
        msgs = [m for _, _, m in self.server.messages()] if "server" in wheres else []
        files = [p for w in wheres if w != "server" for p in (self.dir / w / "new").glob("*")]
        msgs += [parse_mail(p.read_bytes()) for p in files]
        return [alerts_in(msg) for msg in msgs]

    def test_an_outage_delivers_each_alert_once(self):
        self.server.stop()
        host = self.start(0, 20)
        time.sleep(6)
        self.server.start()
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())
        arrived = sum(self.stored("server"), [])
        print(f"outage: {len(arrived)} deliveries for 20 alerts", flush=True)
        self.assertEqual(list(range(20)), sorted(arrived))
        self.assertEqual([], self.stored("hold", "spool"))

    def test_kills_at_random_moments_lose_nothing(self):
        kills, safe = 30, set()
        for first in range(0, kills * 13, 13):
            host = self.start(first, 12, window=0.2)
            time.sleep(random.uniform(0, 0.6))
            host.process.kill()
            host.process.wait()
            # What the host was done with is durable somewhere: a prefix of
            # what it was sent, at most the alert in hand missing.
            stored = sum(self.stored("hold", "spool", "server"), [])
            done = sorted({n for n in stored if first <= n < first + 12})
            self.assertEqual(list(range(first, first + len(done))), done)
            safe |= set(done) | {first + 12}
            self.assertEqual(0, self.start(first + 12, 1).finish("</Events>\n"))
        seen, again = set(), 0
        for alerts in self.stored("server"):  # a mail sent again repeats what arrived before
            again += bool(seen & set(alerts))
            seen |= set(alerts)
        print(f"kills: {kills}, alerts kept safe {len(safe)}, mails sent again {again}", flush=True)
        self.assertEqual(set(), safe - seen)
        self.assertLessEqual(again, kills)
        self.assertEqual([], self.stored("hold", "spool"))


if __name__ == "__main__":
    unittest.main()
