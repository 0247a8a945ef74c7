#!/usr/bin/python3
"""osk-host end to end: bad input never crashes the program or loses what
came before it, and the command line does what --help says."""

import shutil
import signal
import unittest

from host_harness import (DEAD_URL, FAILING, HOST_TOKEN, MAILDIR, MAILDIR_AGENT, OSK_HOST,
                          SMTP_AGENT, TIMEOUT, X_HOST, HostTest, alarm, channel_config, events_xml,
                          group, run, stylesheet)

GROUP = group("Alert on %host%", 1, extra=X_HOST)


def maildir_config(message="Alert on %host%", tokens=HOST_TOKEN):
    return channel_config(MAILDIR_AGENT, MAILDIR, GROUP.replace("Alert on %host%", message),
                          tokens=tokens)


def alarms(*hosts):
    return [(1, alarm(h)) for h in hosts]


def event_lines(*hosts):
    return "".join(f'<Event id="1">{alarm(h)}</Event>\n' for h in hosts)


class BadInputTest(HostTest):
    def test_bad_events_cost_only_themselves(self):
        where = self.dir / "events.xml"
        good = events_xml(*alarms("one", "two", "three"))
        broken = good.replace("</Events>\n", '<Event id="1"><alarm><host>four</alarm></Event>\n'
                              f'<Event id="1">{alarm("five")}</Event>\n</Events>\n')
        # An id that tries to forge a line of its own stays on its line.
        forged = "7&#10;osk-host: 9 events read&#13;&#155;2J"
        bad_ids = events_xml((1, alarm("one")), ("abc", alarm("bad")), (1, alarm("two")),
                             ("", alarm("empty")), (1, alarm("three")), (forged, alarm("x")))
        secret = self.write("secret.txt", "TOP-SECRET-4711")
        # An internal entity whose text is markup stays inside the event using it.
        entities = (f'<?xml version="1.0"?>\n<!DOCTYPE Events [\n'
                    f'  <!ENTITY leak SYSTEM "file://{secret}">\n'
                    f'  <!ENTITY near SYSTEM "secret.txt">\n'
                    f'  <!ENTITY event \'<Event id="1"><alarm/></Event>\'>\n]>\n'
                    f'<Events>\n<Event id="1">{alarm("a&leak;b")}</Event>\n'
                    f'<Event id="1">{alarm("&near;&event;")}</Event>\n</Events>\n')
        big = events_xml(*alarms("one", "x" * 300, "two"))
        deep = events_xml(*alarms("one", "<b/>" * 5, "two"))
        rows = [  # (what, events, arguments, status, hosts mailed, read, skipped, said)
            ("broken XML", broken, [], 1, ["one", "three", "two"], 3, 0,
             [f"osk-host: {where}:6: Opening and ending tag mismatch"]),
            ("ids that are no numbers", bad_ids, [], 1, ["one", "three", "two"], 3, 3,
             [f'osk-host: {where}:4: event without a numeric id (id="abc") skipped',
              f'osk-host: {where}:6: event without a numeric id (id="") skipped',
              f'osk-host: {where}:8: event without a numeric id '
              f'(id="7\\nosk-host: 9 events read\\r\\u009b2J") skipped']),
            ("external entities are never read", entities, [], 0, ["", "ab"], 2, 0, []),
            ("event over --max-event-size", big, ["--max-event-size", "200"], 1, ["one", "two"], 2, 1,
             [f"osk-host: {where}:4: event skipped: it is larger than 200 bytes"]),
            ("event over --max-event-nodes", deep, ["--max-event-nodes", "5"], 1, ["one", "two"], 2, 1,
             [f"osk-host: {where}:4: event skipped: it has more than 5 "]),
        ]
        for what, events, args, status, hosts, read, skipped, said in rows:
            with self.subTest(what):
                shutil.rmtree(self.dir / "mail", True)
                result = self.host(maildir_config(), events, args=args)
                self.assertEqual(status, result.returncode, result.stderr)
                self.assertEqual(sorted(f"Alert on {h}" for h in hosts), self.bodies())
                self.assertEqual((read, skipped, {}), result.summary())
                for line in said:
                    self.assertIn(line, result.stderr)
                self.assertNotIn("\x9b", result.stderr)
                raw = b"".join(p.read_bytes() for p in (self.dir / "mail" / "new").iterdir())
                self.assertNotIn(b"TOP-SECRET", raw + result.stderr.encode())

    def test_configurations_that_fault(self):
        good = maildir_config()
        cases = [
            ("no sender", good.replace('<Sender name="Überwachung/Ops" email="alerts@example.com"/>', ""),
             ["configuration failed: pSender", "at email_channel:421 in "]),
            ("no tokens", good.replace(HOST_TOKEN, ""),
             ["Error reading tokens during configuration", "the channel did not accept"]),
        ]
        for name, config, texts in cases:
            with self.subTest(name):
                result = self.host(config, events_xml(*alarms("one")))
                self.assertEqual(2, result.returncode, result.stderr)
                for text in texts:
                    self.assertIn(text, result.stderr)
                self.assertEqual(0, result.summary()[0])
                self.assertEqual([], self.maildir())


class CommandLineTest(HostTest):
    def test_exit_status_of_each_command_line(self):
        config = self.write("config.xml", maildir_config())
        usage = ["Usage: osk-host"]
        rows = [  # (arguments, exit status, what standard output or, failing, error says)
            (["--help"], 0, ["--config FILE", "--events FILE", "--channel PATH", "--syslog IDENT",
                             "--progress", "--max-event-size BYTES", "--max-event-nodes COUNT",
                             "<Events>", '<Event id="7">', "An alert is lost when", "SIGTERM",
                             "Exit status", "3 an alert was lost", "--render", "--send-test", "--to ADDRESS"]),
            (["--bogus"], 64, usage), ([], 64, usage), (["--config"], 64, usage),
            (["--events", "-"], 64, usage), (["--config", config, "--max-event-size", "0"], 64, usage),
            (["--config", config, "--max-event-nodes", "1e6"], 64, usage),
            (["--config", config, "--render", "--check"], 64, ["--check, --render and --send-test go alone"]),
            (["--config", config, "--to", "a@example.com"], 64, ["--to goes with --send-test"]),
            (["--config", config, "--send-test", "--to", "a@@b"], 64, ["--to a@@b is no address"]),
            (["--config", config, "--channel", "/nonexistent.so"], 69, ["cannot load /nonexistent.so"]),
            (["--config", config, "--events", "/nonexistent/events.xml"], 1,
             ["osk-host: /nonexistent/events.xml: cannot open the event stream: No such file or directory"]),
        ]
        for args, status, texts in rows:
            with self.subTest(args=args):
                done = run(OSK_HOST, *args)
                self.assertEqual(status, done.returncode, done.stderr)
                for text in texts:
                    self.assertIn(text, done.stderr if status else done.stdout)

    def test_delivery_goes_on_when_standard_error_is_gone(self):
        # osk-host ... 2>&1 >/dev/null | head -c 100: every event reports (a
        # stylesheet fails) and every mail is still delivered.
        config = maildir_config("Alert on %host% %boom%", HOST_TOKEN + stylesheet("boom", FAILING))
        host = self.live_host(config, ["--progress"], stderr_limit=100)
        host.send("<Events>\n" + event_lines("first"))
        host.reader.join(TIMEOUT)
        self.assertFalse(host.reader.is_alive())
        self.assertEqual(0, host.finish(event_lines(*range(199)) + "</Events>\n"))
        self.assertEqual(200, len(self.maildir()))

    def test_live_progress_and_a_signal_that_ends_the_run_in_order(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(sig.name):
                spool = self.dir / sig.name
                host = self.live_host(channel_config(SMTP_AGENT, [("url", DEAD_URL), ("spool", spool)],
                                                     GROUP, tokens=HOST_TOKEN), ["--progress"])
                host.send("<Events>\n" + event_lines("a"))
                # The count appears and the mail is kept while the stream is still open.
                self.assertTrue(host.wait_for(lambda: b"\rosk-host: 1 events" in host.seen))
                self.assertEqual(1, len(list(spool.glob("new/*"))))
                # The next event is still open: the reader waits in the middle of it.
                host.send('<Event id="1"><alarm>')
                host.process.send_signal(sig)
                status = host.finish(close=False)
                text = host.stderr()
                self.assertEqual(0, status, text)
                self.assertIn(f"\rosk-host: 1 events\nosk-host: stopped by {sig.name}; shutting the channel down",
                              text)
                self.assertIn("osk-host: 1 events read, lost alerts: 0, ", text)
                # Said by the agent's static destructor as it drains: the process ended normally.
                self.assertIn(f'1 mail waits in the spool "{spool}"', text)


if __name__ == "__main__":
    unittest.main()
