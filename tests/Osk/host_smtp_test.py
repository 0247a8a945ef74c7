#!/usr/bin/python3
"""osk-host with the SMTP agent when the server is not simply there: a server
that stops and comes back, a dead first relay, a server that hangs, and the
host stopped by a signal. Every alert must arrive, each with one Message-ID
of its own, which a retried mail keeps."""

import collections
import os
import signal
import subprocess
import threading
import time
import unittest

from host_harness import (OSK_HOST, SMTP_AGENT, TIMEOUT, HostResult, HostTest, SmtpServer,
                          _clean_env, channel_config)

TOKENS = '<Token name="n" xpath="/e/@n"/>'
GROUPS = """
  <EventGroup enabled="yes"><Message>alert %n%</Message>
    <Event id="1" enabled="yes"/></EventGroup>"""


def event(n):
    return f'<Event id="1"><e n="{n}"/></Event>\n'


class HostRun:
    """osk-host reading events from a pipe, fed while it runs; standard error
    is collected as it comes, with the time the summary line appeared."""

    def __init__(self, test, params):
        config = test.write("config.xml", channel_config(SMTP_AGENT, params, GROUPS,
                                                         tokens=TOKENS))
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [OSK_HOST, "--config", str(config), "--events", "-"], stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=test.dir, env=_clean_env(None))
        self.process.stdin.write(b'<?xml version="1.0"?>\n<Events>\n')
        self.stderr = []
        self.summary_after = None
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stderr:
            text = line.decode("utf-8", "replace")
            self.stderr.append(text)
            if text.startswith("osk-host: ") and " events read" in text:
                self.summary_after = time.monotonic() - self.started

    def feed(self, first, count, per_second=None):
        for n in range(first, first + count):
            self.process.stdin.write(event(n).encode())
            self.process.stdin.flush()
            if per_second:
                time.sleep(1.0 / per_second)

    def finish(self, close=True):
        """Ends the stream (or leaves it open for a signal); returns the exit status and
        standard error once osk-host has ended."""
        if close:
            self.process.stdin.write(b"</Events>\n")
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass
        status = self.process.wait(TIMEOUT)
        self.reader.join(10)
        self.process.stderr.close()
        return status, "".join(self.stderr)


class SmtpHostTest(HostTest):
    def setUp(self):
        super().setUp()
        self.spool = self.dir / "spool"

    def params(self, url, **extra):
        params = [("url", url), ("starttls", "no"), ("spool", self.spool)]
        return params + list(extra.items())

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
        run = HostRun(self, self.params(server.url, timeout="2"))
        run.feed(0, 300)
        # About 300 are through when the server dies; the rest come during
        # its absence and after its return.
        time.sleep(0.5)
        server.stop()
        run.feed(300, 400, per_second=200)
        time.sleep(2)
        server.start()
        run.feed(700, 300)
        status, stderr = run.finish()
        self.assertEqual(0, status, stderr)
        second = HostRun(self, self.params(server.url))
        second.feed(1000, 1)
        status, stderr = second.finish()
        self.assertEqual(0, status, stderr)
        # The one mail that may come twice: taken by the server as it died.
        self.check_arrivals(server, range(1001), duplicates_allowed=1)

    def test_a_dead_first_relay_is_passed_over(self):
        (self.dir / "dead").mkdir()
        dead = SmtpServer(self.dir / "dead")
        dead.stop()
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        run = HostRun(self, self.params(f"{dead.url} {server.url}"))
        run.feed(0, 100)
        status, stderr = run.finish()
        self.assertEqual(0, status, stderr)
        self.assertEqual((100, 0, {}), HostResult(status, "", stderr).summary())
        self.check_arrivals(server, range(100))

    def test_a_hung_server_does_not_hold_up_the_host(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        server.freeze(True)
        run = HostRun(self, self.params(server.url, timeout="5"))
        run.feed(0, 60, per_second=10)
        status, stderr = run.finish()
        self.assertEqual(0, status, stderr)
        self.assertIsNotNone(run.summary_after, stderr)
        self.assertLess(run.summary_after, 15, stderr)
        self.assertEqual(60, self.waiting())
        self.assertIn(f'60 mails wait in the spool "{self.spool}"', stderr)
        server.freeze(False)
        second = HostRun(self, self.params(server.url, timeout="5"))
        second.feed(60, 1)
        status, stderr = second.finish()
        self.assertEqual(0, status, stderr)
        self.check_arrivals(server, range(61))

    def test_a_signal_ends_the_host_normally(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        server.stop()
        run = HostRun(self, self.params(server.url))
        run.feed(0, 10)
        deadline = time.monotonic() + 30
        while self.waiting() < 10 and time.monotonic() < deadline:
            time.sleep(0.05)
        run.process.send_signal(signal.SIGTERM)
        status, stderr = run.finish(close=False)
        self.assertEqual(0, status, stderr)
        self.assertIn("stopped reading", stderr)
        self.assertIn("osk-host: 10 events read", stderr)
        # Said by the agent as the process ends, so its teardown ran.
        self.assertIn(f'10 mails wait in the spool "{self.spool}"', stderr)
        server.start()
        second = HostRun(self, self.params(server.url))
        second.feed(10, 1)
        status, stderr = second.finish()
        self.assertEqual(0, status, stderr)
        self.check_arrivals(server, range(11))


if __name__ == "__main__":
    unittest.main()
