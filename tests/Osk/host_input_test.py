#!/usr/bin/python3
"""osk-host end to end: bad input never crashes the program or loses what
came before it, and the command line does what --help says."""

import base64
import signal
import subprocess
import unittest

from host_harness import (FAKE_AGENT, MAILDIR_AGENT, OSK_HOST, TIMEOUT, HostTest, channel_config,
                          events_xml)

TOKENS = '<Token name="host" xpath="/alarm/host"/>'
GROUPS = """
  <EventGroup enabled="yes">
    <Message>Alert on %host%</Message>
    <ExtraHeaders><Header name="X-Host" xpath="/alarm/host" default="none"/></ExtraHeaders>
    <Event id="1" enabled="yes"/>
  </EventGroup>"""


# A token whose stylesheet always fails: a critical report for every event,
# and the mail is still sent.
FAILING_TOKEN = """
    <Token name="boom">
      <xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:template match="/"><xsl:message terminate="yes">boom</xsl:message></xsl:template>
      </xsl:stylesheet>
    </Token>"""


def maildir_config(**kwargs):
    return channel_config(MAILDIR_AGENT, [("path", "mail"), ("fsync", "no")], GROUPS,
                          tokens=TOKENS, **kwargs)


def alarm(host):
    return f"<alarm><host>{host}</host></alarm>"


class BadInputTest(HostTest):
    def bodies(self):
        return sorted(msg.get_content() for msg in self.maildir())

    def test_broken_event_xml(self):
        # The break sits right after three good events, well inside one read.
        events = events_xml((1, alarm("one")), (1, alarm("two")), (1, alarm("three")))
        events = events.replace("</Events>\n", '<Event id="1"><alarm><host>four</alarm></Event>\n'
                                               '<Event id="1">' + alarm("five") + "</Event>\n</Events>\n")
        result = self.host(maildir_config(), events)
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertEqual(["Alert on one", "Alert on three", "Alert on two"], self.bodies())
        self.assertIn(f"osk-host: {self.dir / 'events.xml'}:6: Opening and ending tag mismatch",
                      result.stderr)
        self.assertEqual((3, 0, {}), result.summary())

    def test_stream_cut_off_mid_event_on_stdin(self):
        stream = events_xml((1, alarm("one")), (1, alarm("two")))
        result = self.host(maildir_config(), stdin=stream[:stream.index("two") + 2])
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertEqual(["Alert on one"], self.bodies())
        self.assertRegex(result.stderr, r"osk-host: stdin:\d+: ")

    def test_external_entity_is_never_read(self):
        secret = self.write("secret.txt", "TOP-SECRET-4711")
        events = (f'<?xml version="1.0"?>\n<!DOCTYPE Events [\n'
                  f'  <!ENTITY leak SYSTEM "file://{secret}">\n'
                  f'  <!ENTITY near SYSTEM "secret.txt">\n]>\n'
                  f'<Events>\n<Event id="1">{alarm("a&leak;b")}</Event>\n'
                  f'<Event id="1">{alarm("&near;")}</Event>\n</Events>\n')
        result = self.host(maildir_config(), events)
        self.assertEqual(0, result.returncode, result.stderr)
        mails = self.maildir()
        self.assertEqual(2, len(mails))
        raw = b"".join(p.read_bytes() for p in (self.dir / "mail" / "new").iterdir())
        for text in (raw, "".join(m.get_content() + str(m["X-Host"]) for m in mails).encode(),
                     result.stderr.encode()):
            self.assertNotIn(b"TOP-SECRET", text)
        self.assertNotIn(base64.b64encode(b"TOP-SECRET")[:12], raw)

    def test_event_ids_that_are_no_numbers(self):
        # An id that tries to forge a line of its own stays on its line.
        forged = "7&#10;osk-host: 9 events read&#13;&#155;2J"
        events = events_xml((1, alarm("one")), ("abc", alarm("bad")), (1, alarm("two")),
                            ("", alarm("empty")), (1, alarm("three")), (forged, alarm("x")))
        result = self.host(maildir_config(), events)
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertEqual(["Alert on one", "Alert on three", "Alert on two"], self.bodies())
        where = self.dir / "events.xml"
        self.assertIn(f'osk-host: {where}:4: event without a numeric id (id="abc") skipped',
                      result.stderr)
        self.assertIn(f'osk-host: {where}:6: event without a numeric id (id="") skipped',
                      result.stderr)
        self.assertIn(f'osk-host: {where}:8: event without a numeric id '
                      f'(id="7\\nosk-host: 9 events read\\r\\u009b2J") skipped', result.stderr)
        self.assertNotIn("\x9b", result.stderr)
        self.assertEqual((3, 3, {}), result.summary())

    def test_configurations_that_fault(self):
        good = maildir_config()
        cases = [
            ("no sender", good.replace('<Sender name="Überwachung/Ops" email="alerts@example.com"/>', ""),
             ["configuration failed: pSender", "at email_channel:421 in "]),
            ("not XML", good[:good.index("<Tokens>")],
             ["configuration failed: Could not parse XML file", "at XmlToolkit/Document:"]),
            ("agent missing", good.replace(MAILDIR_AGENT, "/nonexistent/libagent.so"),
             ["configuration failed: Opening of module ", "/nonexistent/libagent.so"]),
            ("no agent", good[:good.index("  <EmailAgent")] + "</Channel>\n",
             ["configuration failed: pEmailAgentList && !pEmailAgentList->empty()",
              "at email_channel:189 in "]),
            ("no tokens", good.replace(TOKENS, ""),
             ["Error reading tokens during configuration", "the channel did not accept"]),
        ]
        for name, config, texts in cases:
            with self.subTest(name):
                result = self.host(config, events_xml((1, alarm("one"))))
                self.assertEqual(2, result.returncode, result.stderr)
                for text in texts:
                    self.assertIn(text, result.stderr)
                self.assertEqual(0, result.summary()[0])
                self.assertEqual([], self.maildir())


class CommandLineTest(HostTest):
    def test_help_explains_options_and_event_format(self):
        done = subprocess.run([OSK_HOST, "--help"], capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual(0, done.returncode)
        for text in ("--config FILE", "--events FILE", "--channel PATH", "--syslog IDENT",
                     "--progress", "--max-event-size BYTES", "--max-event-nodes COUNT", "<Events>",
                     '<Event id="7">', "An alert is lost when", "SIGTERM", "Exit status",
                     "3 an alert was lost"):
            self.assertIn(text, done.stdout)

    def test_bad_command_lines(self):
        for args in (["--bogus"], [], ["--config"], ["--events", "-"],
                     ["--config", "c.xml", "--max-event-size", "0"],
                     ["--config", "c.xml", "--max-event-nodes", "1e6"]):
            with self.subTest(args=args):
                done = subprocess.run([OSK_HOST] + args, capture_output=True, text=True,
                                      timeout=TIMEOUT)
                self.assertEqual(64, done.returncode)
                self.assertIn("Usage: osk-host", done.stderr)

    def test_plugin_that_cannot_be_loaded(self):
        result = self.host(maildir_config(), events_xml(), args=["--channel", "/nonexistent.so"])
        self.assertEqual(69, result.returncode)
        self.assertIn("cannot load /nonexistent.so", result.stderr)

    def test_clean_run_and_summary(self):
        # With the system log target set up, but no report to write to the
        # machine's log.
        events = events_xml(*[(1, alarm(f"h{i}")) for i in range(5)], (2, alarm("other")))
        result = self.host(maildir_config(), events, args=["--syslog", "osk-host-e2e"])
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual((6, 0, {}), result.summary())
        self.assertEqual(5, len(self.maildir()))

    def test_summary_counts_reports_by_severity(self):
        result = self.host(channel_config(MAILDIR_AGENT, [("path", "/dev/null/mail")], GROUPS,
                                          tokens=TOKENS),
                           events_xml((1, alarm("a")), (1, alarm("b")), (7, alarm("c"))))
        self.assertEqual(3, result.returncode, result.stderr)
        self.assertEqual((3, 0, {"warning": 2}), result.summary())
        self.assertEqual(2, result.lost())

    def test_progress_shows_a_live_count(self):
        host = self.live_host(maildir_config(), ["--progress"])
        host.send("<Events>\n" + f'<Event id="1">{alarm("first")}</Event>\n')
        # The count appears while the stream is still open.
        self.assertTrue(host.wait_for(lambda: b"\rosk-host: 1 events" in host.seen), host.stderr())
        self.assertEqual(1, len(self.maildir()))
        self.assertEqual(0, host.finish("".join(f'<Event id="1">{alarm(i)}</Event>\n' for i in range(3))
                                        + "</Events>\n"))
        text = host.stderr()
        self.assertIn("\rosk-host: 4 events\n", text)
        self.assertIn("osk-host: 4 events read, lost alerts: 0, reports: none, ", text)

    def test_delivery_goes_on_when_standard_error_is_gone(self):
        # osk-host ... 2>&1 >/dev/null | head -c 100: every event reports (a
        # stylesheet fails) and every mail is still delivered.
        config = channel_config(MAILDIR_AGENT, [("path", "mail"), ("fsync", "no")],
                                GROUPS.replace("%host%", "%host% %boom%"), tokens=TOKENS + FAILING_TOKEN)
        host = self.live_host(config, ["--progress"], stderr_limit=100)
        host.send("<Events>\n" + f'<Event id="1">{alarm("first")}</Event>\n')
        host.reader.join(TIMEOUT)
        self.assertFalse(host.reader.is_alive())
        self.assertEqual(0, host.finish("".join(f'<Event id="1">{alarm(i)}</Event>\n' for i in range(199))
                                        + "</Events>\n"))
        self.assertEqual(200, len(self.maildir()))

    def test_signal_ends_the_run_in_order(self):
        for sig, name in ((signal.SIGTERM, "SIGTERM"), (signal.SIGINT, "SIGINT")):
            with self.subTest(name):
                host = self.live_host(channel_config(FAKE_AGENT, [], GROUPS, tokens=TOKENS),
                                      ["--progress"])
                host.send("<Events>\n" + f'<Event id="1">{alarm("a")}</Event>\n')
                self.assertTrue(host.wait_for(lambda: b"osk-host: 1 events" in host.seen))
                # The next event is still open: the reader waits in the middle of it.
                host.send('<Event id="1"><alarm>')
                host.process.send_signal(sig)
                status = host.finish(close=False)
                text = host.stderr()
                self.assertEqual(0, status, text)
                self.assertIn(f"osk-host: stopped by {name}; shutting the channel down", text)
                self.assertIn("osk-host: 1 events read, lost alerts: 0, ", text)
                # The agent's static destructor ran: the process ended normally.
                self.assertIn("fake agent: 1 messages", text)


if __name__ == "__main__":
    unittest.main()
