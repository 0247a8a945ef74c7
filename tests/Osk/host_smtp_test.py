#!/usr/bin/python3
"""osk-host with the SMTP agent when the server is not simply there: a server
that stops and comes back, a dead first relay, a server that hangs, and the
host stopped by a signal. Every alert must arrive, each with one Message-ID
of its own, which a retried mail keeps."""

import collections
import os
import signal
import time
import unittest

from host_harness import SMTP_AGENT, HostTest, SmtpServer, channel_config

TOKENS = '<Token name="n" xpath="/e/@n"/>'
GROUPS = """
  <EventGroup enabled="yes"><Message>alert %n%</Message>
    <Event id="1" enabled="yes"/></EventGroup>"""


def event(n):
    return f'<Event id="1"><e n="{n}"/></Event>\n'


class SmtpHostTest(HostTest):
    def setUp(self):
        super().setUp()
        self.spool = self.dir / "spool"

    def run_host(self, url, **extra):
        """osk-host with the SMTP agent, its event stream opened."""
        params = [("url", url), ("starttls", "no"), ("spool", self.spool)] + list(extra.items())
        host = self.live_host(channel_config(SMTP_AGENT, params, GROUPS, tokens=TOKENS))
        host.send('<?xml version="1.0"?>\n<Events>\n')
        return host

    def feed(self, host, first, count, per_second=None):
        for n in range(first, first + count):
            host.send(event(n))
            if per_second:
                time.sleep(1.0 / per_second)

    def send_one_more(self, url, n):
        """A later run with alert `n`: it starts by delivering what waits."""
        host = self.run_host(url)
        self.feed(host, n, 1)
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())

    def waiting(self):
        new = self.spool / "new"
        return len(os.listdir(new)) if new.exists() else 0

    def check_arrivals(self, server, numbers, duplicates_allowed=0):
        """Every alert of `numbers` arrived, each mail with one Message-ID and one
        Auto-Submitted; a mail that came twice carries the same id both times."""
        ids = collections.defaultdict(set)
        copies = collections.Counter()
        for _, _, msg in server.messages():
            self.assertEqual(1, len(msg.get_all("Message-ID")), msg.as_string())
            self.assertEqual(["auto-generated"], msg.get_all("Auto-Submitted"))
            n = int(msg.get_content().split()[1])
            ids[n].add(str(msg["Message-ID"]))
            copies[n] += 1
        self.assertEqual(set(numbers), set(ids))
        self.assertTrue(all(len(v) == 1 for v in ids.values()), "a retry got a new Message-ID")
        self.assertEqual(len(numbers), len({next(iter(v)) for v in ids.values()}))
        self.assertLessEqual(sum(copies.values()) - len(numbers), duplicates_allowed, copies)
        self.assertEqual(0, self.waiting())

    def test_server_stopped_and_restarted_during_a_thousand_alerts(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        run = self.run_host(server.url, timeout="2")
        self.feed(run, 0, 300)
        # About 300 are through when the server dies; the rest come during
        # its absence and after its return.
        time.sleep(0.5)
        server.stop()
        self.feed(run, 300, 400, per_second=200)
        time.sleep(2)
        server.start()
        self.feed(run, 700, 300)
        self.assertEqual(0, run.finish("</Events>\n"), run.stderr())
        self.send_one_more(server.url, 1000)
        # The one mail that may come twice: taken by the server as it died.
        self.check_arrivals(server, range(1001), duplicates_allowed=1)

    def test_a_dead_first_relay_is_passed_over(self):
        (self.dir / "dead").mkdir()
        dead = SmtpServer(self.dir / "dead")
        dead.stop()
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        run = self.run_host(f"{dead.url} {server.url}")
        self.feed(run, 0, 100)
        self.assertEqual(0, run.finish("</Events>\n"), run.stderr())
        self.assertEqual((100, 0, {}), run.result().summary())
        self.check_arrivals(server, range(100))

    def test_a_hung_server_does_not_hold_up_the_host(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        server.freeze(True)
        run = self.run_host(server.url, timeout="5")
        self.feed(run, 0, 60, per_second=10)
        self.assertEqual(0, run.finish("</Events>\n"), run.stderr())
        self.assertIsNotNone(run.summary_after, run.stderr())
        self.assertLess(run.summary_after, 15, run.stderr())
        self.assertEqual(60, self.waiting())
        self.assertIn(f'60 mails wait in the spool "{self.spool}"', run.stderr())
        server.freeze(False)
        self.send_one_more(server.url, 60)
        self.check_arrivals(server, range(61))

    def test_a_signal_ends_the_host_normally(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        server.stop()
        run = self.run_host(server.url)
        self.feed(run, 0, 10)
        self.assertTrue(run.wait_for(lambda: self.waiting() >= 10))
        run.process.send_signal(signal.SIGTERM)
        self.assertEqual(0, run.finish(close=False), run.stderr())
        stderr = run.stderr()
        self.assertIn("stopped by SIGTERM", stderr)
        self.assertIn("osk-host: 10 events read", stderr)
        # Said by the agent as the process ends, so its teardown ran.
        self.assertIn(f'10 mails wait in the spool "{self.spool}"', stderr)
        server.start()
        self.send_one_more(server.url, 10)
        self.check_arrivals(server, range(11))


if __name__ == "__main__":
    unittest.main()
