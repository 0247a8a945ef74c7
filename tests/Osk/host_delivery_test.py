#!/usr/bin/python3
"""osk-host end to end: events rendered by the real channel and delivered by
the real agents, then read back with Python's email package; and the
channel's failure reports as they appear in the program's output."""

import email.utils
import os
import re
import socket
import subprocess
import time
import unittest

from host_harness import (EXAMPLES, MAILDIR_AGENT, RECIPIENTS, SENDER, SENDER_NAME,
                          SMTP_AGENT, SUBJECT, HostTest, SmtpServer, channel_config, events_xml)

# Tokens of all three kinds. The stylesheet shows the "locale" parameter it
# was given, so the test sees exactly what the channel passed.
TOKENS = """
    <Token name="host" xpath="/alarm/host"/>
    <Token name="used" xpath="/alarm/disk/@used"/>
    <Token name="missing" xpath="/alarm/nothing" default="never used"/>
    <Token name="runbook" default="https://wiki.example.com/rb"/>
    <Token name="greeting">
      <xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:output method="text" encoding="UTF-8"/>
        <xsl:param name="locale"/>
        <xsl:template match="/">
          <xsl:text>[</xsl:text><xsl:value-of select="$locale"/><xsl:text>] </xsl:text>
          <xsl:choose>
            <xsl:when test="starts-with($locale, 'de')">Grüße</xsl:when>
            <xsl:otherwise>Hello</xsl:otherwise>
          </xsl:choose>
          <xsl:text> </xsl:text><xsl:value-of select="/alarm/host"/>
        </xsl:template>
      </xsl:stylesheet>
    </Token>"""

DEFAULTS = """
    <Charset enabled="yes" locale="de" charset="ISO-8859-15"/>
    <Charset enabled="no" locale="fr" charset="KOI8-R"/>
    <Charset enabled="yes" locale="" charset="UTF-8"/>
    <ExtraHeaders>
      <Header name="X-Alert-Host" xpath="/alarm/host" default="unknown-host"/>
      <Header name="X-Alert-Source" default="osk e2e"/>
      <Header name="X-Kind" default="channel-wide"/>
    </ExtraHeaders>"""

GROUPS = """
  <EventGroup enabled="yes">
    <Message>Disk on %host% is %used% full.%missing%
%greeting%
Runbook: %runbook% (ünïcödé €)</Message>
    <ExtraHeaders>
      <Header name="X-Kind" default="group loses to the channel-wide header"/>
      <Header name="X-Group" default="disk"/>
      <Header name="X-Empty" xpath="/alarm/nothing"/>
      <Header name="X-Fallback" xpath="/alarm/nothing" default="fallback"/>
      <Header name="X-Ticket" xpath="/alarm/@ticket" default="none"/>
    </ExtraHeaders>
    <Event id="100" enabled="yes"/>
    <Event id="101" enabled="yes"/>
    <Event id="102" enabled="no"/>
  </EventGroup>
  <EventGroup enabled="no">
    <Message>never</Message>
    <Event id="300" enabled="yes"/>
  </EventGroup>"""

# (id, document, what the mail must say: host header, host text, used, ticket);
# None: no mail.
EVENTS = [
    (100, '<alarm ticket="T-1"><host>db1.example.com</host><disk used="97%"/></alarm>',
     ("db1.example.com", "db1.example.com", "97%", "T-1")),
    (102, "<alarm><host>disabled.example.com</host></alarm>", None),
    (101, '<alarm><host>Köln-backup</host><disk used="91%"/></alarm>',
     ("Köln-backup", "Köln-backup", "91%", "none")),
    (300, "<alarm><host>group-off.example.com</host></alarm>", None),
    (555, "<alarm><host>unknown-id.example.com</host></alarm>", None),
    (100, '<alarm><disk used="50%"/></alarm>', ("unknown-host", "", "50%", "none")),
]

# Environment -> (charset of the mail, locale handed to the stylesheet, greeting).
LOCALES = [
    ({"TAM_LANG": "de_DE.UTF-8"}, "iso-8859-15", "de_DE.UTF-8", "Grüße"),
    ({"LANGUAGE": "fr_FR"}, "utf-8", "fr_FR", "Hello"),
    ({"TAM_LANG": "fr", "LANGUAGE": "de_DE"}, "utf-8", "fr", "Hello"),
]


class DeliveryTest(HostTest):
    def expected(self, locale, greeting):
        """Per X-Alert-Host value: the headers and body the templates promise."""
        out = {}
        for _, _, want in EVENTS:
            if want is None:
                continue
            header_host, host, used, ticket = want
            out[header_host] = {
                "headers": {"X-Alert-Host": header_host, "X-Alert-Source": "osk e2e",
                            "X-Kind": "channel-wide", "X-Group": "disk", "X-Fallback": "fallback",
                            "X-Ticket": ticket, "X-Empty": None},
                "body": f"Disk on {host} is {used} full.\n[{locale}] {greeting} {host}\n"
                        f"Runbook: https://wiki.example.com/rb (ünïcödé €)",
            }
        return out

    def check_mails(self, mails, charset, locale, greeting):
        want = self.expected(locale, greeting)
        self.assertEqual(len(want), len(mails))
        for msg in mails:
            self.assertNoMailDefects(msg)
            expected = want.pop(str(msg["X-Alert-Host"]))
            self.assertEqual(SUBJECT, str(msg["Subject"]))
            self.assertEqual(SENDER_NAME, msg["From"].addresses[0].display_name)
            self.assertEqual(SENDER, msg["From"].addresses[0].addr_spec)
            self.assertEqual(list(RECIPIENTS), [a.addr_spec for a in msg["To"].addresses])
            sent = email.utils.parsedate_to_datetime(str(msg["Date"])).timestamp()
            self.assertLess(abs(sent - time.time()), 600)
            for name, value in expected["headers"].items():
                self.assertEqual(value, None if msg[name] is None else str(msg[name]), name)
            self.assertEqual(charset, msg.get_content_charset())
            self.assertEqual(expected["body"], msg.get_content())
        self.assertEqual({}, want)

    def test_maildir_agent(self):
        for env, charset, locale, greeting in LOCALES:
            with self.subTest(env=env):
                maildir = "mail-" + locale
                config = channel_config(MAILDIR_AGENT, [("path", maildir), ("fsync", "no")], GROUPS,
                                        DEFAULTS, TOKENS)
                result = self.host(config, events_xml(*[e[:2] for e in EVENTS]), env=env)
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual((len(EVENTS), 0, {}), result.summary())
                self.check_mails(self.maildir(maildir), charset, locale, greeting)

    def test_smtp_agent(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        env, charset, locale, greeting = LOCALES[0]
        spool = self.dir / "spool"
        config = channel_config(SMTP_AGENT, [("url", server.url), ("starttls", "no"),
                                             ("timeout", "20"), ("spool", spool)],
                                GROUPS, DEFAULTS, TOKENS)
        result = self.host(config, events_xml(*[e[:2] for e in EVENTS]), env=env)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual((len(EVENTS), 0, {}), result.summary())
        received = server.messages()
        for sender, recipients, _ in received:
            self.assertEqual(SENDER, sender)
            self.assertEqual(list(RECIPIENTS), recipients)
        self.check_mails([msg for _, _, msg in received], charset, locale, greeting)
        # Everything was accepted: nothing waits in the spool or sits in failed/.
        self.assertEqual([], [f for _, _, files in os.walk(spool) for f in files])


# The failure table: tokens a, bad and b (b last, so "%b%%" is matched whole).
FAILURE_TOKENS = """
    <Token name="a" xpath="/e/a"/>
    <Token name="bad">
      <xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:output method="text"/>
        <xsl:template match="/"><xsl:message terminate="yes">boom</xsl:message></xsl:template>
      </xsl:stylesheet>
    </Token>
    <Token name="b" default="B"/>"""

FAILURE_GROUPS = """
  <EventGroup enabled="yes"><Message>before %a% | %bad% | after</Message>
    <Event id="1" enabled="yes"/></EventGroup>
  <EventGroup enabled="yes"><Message>Host %a%%b%% rest</Message>
    <Event id="2" enabled="yes"/></EventGroup>
  <EventGroup enabled="yes"><Message>plain %b% text</Message>
    <Event id="3" enabled="yes"/></EventGroup>"""


class FailureTest(HostTest):
    def run_failures(self, agent_lib, params, events, recipients=RECIPIENTS):
        config = channel_config(agent_lib, params, FAILURE_GROUPS, tokens=FAILURE_TOKENS,
                                recipients=recipients)
        return self.host(config, events_xml(*events))

    def test_rendering_faults_and_unknown_ids(self):
        result = self.run_failures(MAILDIR_AGENT, [("path", "mail"), ("fsync", "no")],
                                   [(1, "<e><a>A</a></e>"), (2, "<e><a>A</a></e>"),
                                    (9, "<e><a>A</a></e>"), (3, "<e/>")])
        self.assertEqual(0, result.returncode, result.stderr)
        # Only the stylesheet reports: the cut and the unknown id are silent.
        self.assertEqual((4, 0, {"critical": 1}), result.summary())
        [critical] = result.reports("critical")
        self.assertTrue(critical.startswith("Tamtk exception [Could not apply stylesheet: boom"),
                        critical)
        self.assertEqual([], result.reports("warning"))
        bodies = sorted(msg.get_content() for msg in self.maildir())
        # The stylesheet's mail is sent with what was rendered before it; the
        # template stops at "%b%%"; id 9 belongs to no group and sends nothing.
        self.assertEqual(sorted(["before A | ", "Host A", "plain B text"]), bodies)

    def full_disk(self):
        """A directory on a tmpfs that is already full, or None where this
        process may not mount one."""
        mount = self.dir / "full"
        mount.mkdir()
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", str(mount)],
                              capture_output=True)
        if done.returncode != 0:
            return None
        self.addCleanup(subprocess.run, ["umount", "-l", str(mount)], capture_output=True)
        with open(mount / "filler", "wb") as filler:
            try:
                while True:
                    filler.write(b"\0" * 65536)
                    filler.flush()
            except OSError:
                pass
        return mount

    def test_lost_alerts(self):
        # Every way an alert is lost: the report says so and why, osk-host
        # names the event, counts it and exits 3. A mail the spool keeps is
        # not lost.
        self.write("afile", "a file where the Maildir's folder should be")
        full = self.full_disk()
        with socket.socket() as probe:  # a port nobody listens on
            probe.bind(("127.0.0.1", 0))
            dead = "smtp://127.0.0.1:%d" % probe.getsockname()[1]
        smtp = [("url", dead), ("starttls", "no"), ("timeout", "5")]
        cases = [
            ("Maildir behind a file", MAILDIR_AGENT, [("path", self.dir / "afile" / "mail")],
             "a file of that name is in the way; the alert is lost", 2),
            ("Maildir on a full disk", MAILDIR_AGENT, [("path", full and full / "mail")],
             "No space left on device; the alert is lost", 2),
            ("SMTP server down, no spool", SMTP_AGENT, smtp,
             "it is lost: no spool directory is configured", 2),
            ("SMTP server down, spool on a full disk", SMTP_AGENT,
             smtp + [("spool", full and full / "spool")], "No space left on device", 2),
            ("SMTP server down, spool kept", SMTP_AGENT, smtp + [("spool", self.dir / "spool")],
             "was kept in the spool", 0),
        ]
        for name, agent, params, why, lost in cases:
            with self.subTest(name):
                if None in (v for _, v in params):
                    self.skipTest("cannot mount a tmpfs here: the full-disk case is not run")
                result = self.run_failures(agent, params, [(3, "<e/>"), (3, "<e/>")])
                self.assertEqual(3 if lost else 0, result.returncode, result.stderr)
                self.assertEqual((2, 0, {"warning": 2}), result.summary())
                self.assertEqual(lost, result.lost())
                for warning in result.reports("warning"):
                    self.assertTrue(warning.startswith("Tamtk exception:: [ "), warning)
                    self.assertIn(why, warning)
                    self.assertNotIn("[osk-host:", warning)
                self.assertEqual(lost, len(re.findall(r"^osk-host: \S+:\d+: event 3: the alert is lost$",
                                                      result.stderr, re.M)))

    def test_agent_that_throws_smtp_refusal(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        result = self.run_failures(SMTP_AGENT, [("url", server.url), ("starttls", "no"),
                                                ("timeout", "20")],
                                   [(3, "<e/>")],
                                   recipients=("ops@example.com", "r550.nobody@example.com"))
        # One recipient's copy is gone: without a spool nothing kept it.
        self.assertEqual(3, result.returncode, result.stderr)
        self.assertEqual((1, 0, {"warning": 1}), result.summary())
        self.assertEqual(1, result.lost())
        [warning] = result.reports("warning")
        self.assertTrue(warning.startswith("Tamtk exception:: [ SMTP agent ("), warning)
        self.assertIn("r550.nobody@example.com", warning)
        # The recipient the server took still got the mail.
        [(sender, recipients, msg)] = server.messages()
        self.assertEqual((SENDER, ["ops@example.com"]), (sender, recipients))
        self.assertEqual("plain B text", msg.get_content())


class ExamplesTest(HostTest):
    """The shipped example configurations work with the shipped events."""

    def run_example(self, name, replace=("", "")):
        config = (EXAMPLES / name).read_text(encoding="utf-8").replace(*replace)
        result = self.host(config, (EXAMPLES / "events.xml").read_text(encoding="utf-8"))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual((4, 0, {}), result.summary())
        return result

    def test_maildir_example(self):
        self.run_example("alerts.xml")
        mails = self.maildir("example-mail")
        self.assertEqual(3, len(mails))
        self.assertEqual({"db1.example.com", "web2.example.com", "Köln-backup"},
                         {str(msg["X-Alert-Host"]) for msg in mails})
        self.assertEqual({"[ALERT] disk 97% full on db1.example.com", "[ALERT] nginx down on web2.example.com",
                          "[ALERT] disk 91% full on Köln-backup"}, {str(msg["Subject"]) for msg in mails})

    def test_digest_example(self):
        self.run_example("alerts-digest.xml")
        mails = self.maildir("example-mail")
        self.assertEqual(["text/plain", "multipart/digest"], [m.get_content_type() for m in mails])
        self.assertEqual("[ALERT] disk 97% full on db1.example.com", str(mails[0]["Subject"]))
        self.assertEqual(3, len(list(mails[1].iter_parts())))

    def test_smtp_example(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        self.run_example("alerts-smtp.xml", ("smtp://127.0.0.1:2525", server.url))
        self.assertEqual({"db1.example.com", "web2.example.com", "Köln-backup"},
                         {str(msg["X-Alert-Host"]) for _, _, msg in server.messages()})
        self.assertEqual([], [f for _, _, files in os.walk(self.dir / "example-spool") for f in files])


if __name__ == "__main__":
    unittest.main()
