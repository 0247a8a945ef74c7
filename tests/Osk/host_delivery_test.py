#!/usr/bin/python3
"""osk-host end to end: events rendered by the real channel and delivered by
the real agents, then read back with Python's email package; and the
channel's failure reports as they appear in the program's output."""

import email.utils
import os
import re
import shutil
import subprocess
import time
import unittest

from host_harness import (DEAD_URL, EXAMPLES, FAILING, MAILDIR, MAILDIR_AGENT, RECIPIENTS, SENDER,
                          SENDER_NAME, SMTP_AGENT, SUBJECT, HostTest, SmtpServer, channel_config,
                          events_xml, group, stylesheet)

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

# (agent, environment, charset of the mail, locale handed to the stylesheet, greeting)
ROWS = [
    (MAILDIR_AGENT, {"TAM_LANG": "de_DE.UTF-8"}, "iso-8859-15", "de_DE.UTF-8", "Grüße"),
    (MAILDIR_AGENT, {"LANGUAGE": "fr_FR"}, "utf-8", "fr_FR", "Hello"),
    (MAILDIR_AGENT, {"TAM_LANG": "fr", "LANGUAGE": "de_DE"}, "utf-8", "fr", "Hello"),
    (SMTP_AGENT, {"TAM_LANG": "de_DE.UTF-8"}, "iso-8859-15", "de_DE.UTF-8", "Grüße"),
]


def spooled(spool):
    return [f for _, _, files in os.walk(spool) for f in files]


class DeliveryTest(HostTest):
    def check_mails(self, mails, charset, locale, greeting):
        want = [e[2] for e in EVENTS if e[2]]
        self.assertEqual(sorted(w[0] for w in want), sorted(str(m["X-Alert-Host"]) for m in mails))
        for msg, (header_host, host, used, ticket) in zip(sorted(mails, key=lambda m: str(m["X-Alert-Host"])),
                                                          sorted(want)):
            self.assertNoMailDefects(msg)
            sender = msg["From"].addresses[0]
            self.assertEqual((SUBJECT, SENDER_NAME, SENDER, list(RECIPIENTS), charset),
                             (str(msg["Subject"]), sender.display_name, sender.addr_spec,
                              [a.addr_spec for a in msg["To"].addresses], msg.get_content_charset()))
            sent = email.utils.parsedate_to_datetime(str(msg["Date"])).timestamp()
            self.assertLess(abs(sent - time.time()), 600)
            headers = {"X-Alert-Host": header_host, "X-Alert-Source": "osk e2e", "X-Kind": "channel-wide",
                       "X-Group": "disk", "X-Fallback": "fallback", "X-Ticket": ticket, "X-Empty": None}
            self.assertEqual(headers, {name: msg[name] and str(msg[name]) for name in headers})
            self.assertEqual(f"Disk on {host} is {used} full.\n[{locale}] {greeting} {host}\n"
                             f"Runbook: https://wiki.example.com/rb (ünïcödé €)", msg.get_content())

    def test_rendered_and_delivered(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        smtp = [("url", server.url), ("starttls", "no"), ("timeout", "20"), ("spool", self.dir / "spool")]
        for agent, env, charset, locale, greeting in ROWS:
            with self.subTest(agent=os.path.basename(agent), env=env):
                shutil.rmtree(self.dir / "mail", True)
                config = channel_config(agent, MAILDIR if agent == MAILDIR_AGENT else smtp, GROUPS,
                                        DEFAULTS, TOKENS)
                # The system log target is set up, but there is no report for it.
                result = self.host(config, events_xml(*[e[:2] for e in EVENTS]), env=env,
                                   args=["--syslog", "osk-host-e2e"])
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual((len(EVENTS), 0, {}), result.summary())
                mails = self.maildir()
                if agent == SMTP_AGENT:
                    mails = [msg for _, _, msg in server.messages()]
                    self.assertEqual([(SENDER, list(RECIPIENTS))] * len(mails),
                                     [(s, r) for s, r, _ in server.messages()])
                    # Everything was accepted: nothing waits in the spool or sits in failed/.
                    self.assertEqual([], spooled(self.dir / "spool"))
                self.check_mails(mails, charset, locale, greeting)


# The failure table: tokens a, bad and b (b last, so "%b%%" is matched whole).
FAILURE_TOKENS = '<Token name="a" xpath="/e/a"/>' + stylesheet("bad", FAILING) + '<Token name="b" default="B"/>'
FAILURE_GROUPS = (group("before %a% | %bad% | after", 1) + group("Host %a%%b%% rest", 2)
                  + group("plain %b% text", 3))


class FailureTest(HostTest):
    def run_failures(self, agent_lib, params, events, recipients=RECIPIENTS):
        config = channel_config(agent_lib, params, FAILURE_GROUPS, tokens=FAILURE_TOKENS,
                                recipients=recipients)
        return self.host(config, events_xml(*events))

    def test_rendering_faults_and_unknown_ids(self):
        result = self.run_failures(MAILDIR_AGENT, MAILDIR, [(1, "<e><a>A</a></e>"), (2, "<e><a>A</a></e>"),
                                                            (9, "<e><a>A</a></e>"), (3, "<e/>")])
        self.assertEqual(0, result.returncode, result.stderr)
        # Only the stylesheet reports: the cut and the unknown id are silent.
        self.assertEqual((4, 0, {"critical": 1}), result.summary())
        [critical] = result.reports("critical")
        self.assertTrue(critical.startswith("Tamtk exception [Could not apply stylesheet: boom"),
                        critical)
        # The stylesheet's mail is sent with what was rendered before it; the
        # template stops at "%b%%"; id 9 belongs to no group and sends nothing.
        self.assertEqual(sorted(["before A | ", "Host A", "plain B text"]), self.bodies())

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
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        dead = [("url", DEAD_URL), ("starttls", "no"), ("timeout", "5")]
        refused = "r550.nobody@example.com"
        cases = [  # (what, agent, its parameters, recipients, why, alerts lost)
            ("Maildir behind a file", MAILDIR_AGENT, [("path", self.dir / "afile" / "mail")], RECIPIENTS,
             "a file of that name is in the way; the alert is lost", 2),
            ("Maildir on a full disk", MAILDIR_AGENT, [("path", full and full / "mail")], RECIPIENTS,
             "No space left on device; the alert is lost", 2),
            ("SMTP server down, no spool", SMTP_AGENT, dead, RECIPIENTS,
             "it is lost: no spool directory is configured", 2),
            ("SMTP server down, spool on a full disk", SMTP_AGENT,
             dead + [("spool", full and full / "spool")], RECIPIENTS, "No space left on device", 2),
            ("SMTP server down, spool kept", SMTP_AGENT, dead + [("spool", self.dir / "spool")],
             RECIPIENTS, "was kept in the spool", 0),
            ("a recipient refused, no spool", SMTP_AGENT, [("url", server.url), ("starttls", "no")],
             ("ops@example.com", refused), f"SMTP agent ({server.url}): ", 2),
        ]
        for name, agent, params, recipients, why, lost in cases:
            with self.subTest(name):
                if None in (v for _, v in params):
                    self.skipTest("cannot mount a tmpfs here: the full-disk case is not run")
                result = self.run_failures(agent, params, [(3, "<e/>"), (3, "<e/>")], recipients)
                self.assertEqual(3 if lost else 0, result.returncode, result.stderr)
                self.assertEqual((2, 0, {"warning": 2}), result.summary())
                self.assertEqual(lost, result.lost())
                for warning in result.reports("warning"):
                    self.assertTrue(warning.startswith("Tamtk exception:: [ "), warning)
                    self.assertIn(why, warning)
                    self.assertNotIn("[osk-host:", warning)
                self.assertEqual(lost, len(re.findall(r"^osk-host: \S+:\d+: event 3: the alert is lost$",
                                                      result.stderr, re.M)))
        # The recipient the server took still got each mail.
        self.assertEqual([(SENDER, ["ops@example.com"], "plain B text")] * 2,
                         [(s, r, msg.get_content()) for s, r, msg in server.messages()])


class ExamplesTest(HostTest):
    """The shipped example configurations work with the shipped events."""

    def test_each_example(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        hosts = ["db1.example.com", "web2.example.com", "Köln-backup"]
        subjects = ["[ALERT] disk 97% full on db1.example.com", "[ALERT] nginx down on web2.example.com",
                    "[ALERT] disk 91% full on Köln-backup"]
        rows = [  # (configuration, the mails' types as they arrive, the headers that tell the alerts apart)
            ("alerts.xml", ["text/plain"] * 3, {"X-Alert-Host": hosts, "Subject": subjects}),
            ("alerts-digest.xml", ["text/plain", "multipart/digest"], {"Subject": subjects}),
            ("alerts-smtp.xml", ["text/plain"] * 3, {"X-Alert-Host": hosts}),
        ]
        for name, types, want in rows:
            with self.subTest(name):
                shutil.rmtree(self.dir / "example-mail", True)
                config = (EXAMPLES / name).read_text(encoding="utf-8")
                result = self.host(config.replace("smtp://127.0.0.1:2525", server.url),
                                   (EXAMPLES / "events.xml").read_text(encoding="utf-8"))
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual((4, 0, {}), result.summary())
                mails = [m for _, _, m in server.messages()] if "smtp" in name else self.maildir("example-mail")
                self.assertEqual(types, [m.get_content_type() for m in mails])
                # A digest's alerts follow its summary as parts of their own.
                singles = [p.get_content() for m in mails if m.is_multipart() for p in list(m.iter_parts())[1:]]
                singles += [m for m in mails if not m.is_multipart()]
                self.assertEqual(set(zip(*want.values())), {tuple(str(m[h]) for h in want) for m in singles})
        self.assertEqual([], spooled(self.dir / "example-spool"))


if __name__ == "__main__":
    unittest.main()
