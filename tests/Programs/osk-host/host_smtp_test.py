#!/usr/bin/python3
"""osk-host with the SMTP agent when the server is not simply there: a server
that stops and comes back and a server that hangs. Every alert must arrive,
each with one Message-ID of its own, which a retried mail keeps."""

import collections
import os
import time
import unittest

from host_harness import SMTP_AGENT, SmtpSpoolTest, channel_config, group, metric_sum, read_metrics

TOKENS = '<Token name="n" xpath="/e/@n"/>'


def event(n):
    return f'<Event id="1"><e n="{n}"/></Event>\n'


class SmtpHostTest(SmtpSpoolTest):
    """What the tests below share; two classes, so that CTest runs them side by side."""

    def run_host(self, url, args=(), **extra):
        """osk-host with the SMTP agent, its event stream opened."""
        params = [("url", url), ("starttls", "no"), ("spool", self.spool)] + list(extra.items())
        host = self.live_host(channel_config(SMTP_AGENT, params, group("alert %n%", 1), tokens=TOKENS), args)
        host.send('<?xml version="1.0"?>\n<Events>\n')
        return host

    def feed(self, host, first, count, per_second=0):
        if not per_second:
            return host.send("".join(event(n) for n in range(first, first + count)))
        for n in range(first, first + count):
            host.send(event(n))
            time.sleep(1.0 / per_second)

    def send_one_more(self, url, n):
        """A later run with alert `n`: it starts by delivering what waits."""
        host = self.run_host(url)
        self.feed(host, n, 1)
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())

    def waiting(self):
        new = self.spool / "new"
        return len(os.listdir(new)) if new.exists() else 0

    def check_arrivals(self, numbers, duplicates_allowed=0):
        """Every alert of `numbers` arrived, each mail with one Message-ID and one
        Auto-Submitted; a mail that came twice carries the same id both times."""
        ids = collections.defaultdict(set)
        copies = collections.Counter()
        for _, _, msg in self.server.messages():
            self.assertEqual(1, len(msg.get_all("Message-ID")), msg.as_string())
            self.assertEqual(["auto-generated"], msg.get_all("Auto-Submitted"))
            n = int(msg.get_content().split()[1])
            ids[n].add(str(msg["Message-ID"]))
            copies[n] += 1
        # A retry keeps the mail's Message-ID.
        self.assertEqual({n: 1 for n in numbers}, {n: len(v) for n, v in ids.items()})
        self.assertEqual(len(numbers), len({next(iter(v)) for v in ids.values()}))
        self.assertLessEqual(sum(copies.values()) - len(numbers), duplicates_allowed, copies)
        self.assertEqual(0, self.waiting())


class OutageTest(SmtpHostTest):
    def check_metrics(self, events):
        """The host's and the agent's metrics files, once they tell of `events` events and of
        the spool as it is: what arrived, what waits and since when."""
        host_file, agent_file = self.dir / "host.prom", self.dir / "agent.prom"
        self.assertTrue(self.run.wait_for(
            lambda: read_metrics(host_file)["osk_host_events_read_total"] == events
            and read_metrics(agent_file)["email_agent_spool_waiting"] == self.waiting()))
        written, host, agent = agent_file.stat().st_mtime, read_metrics(host_file), read_metrics(agent_file)
        waiting = sorted((self.spool / "new").glob("*"))
        # A mail the server took as it died arrived without being counted delivered.
        self.assertIn(self.server.count() - agent["email_agent_delivered_total"], (0, 1))
        self.assertEqual(agent["email_agent_delivered_total"], agent["email_agent_delivery_seconds_count"])
        self.assertAlmostEqual(written - int(waiting[0].name.split(".")[0]) if waiting else 0,
                               agent["email_agent_spool_oldest_age_seconds"], delta=1.5)
        # Each kept alert is one warning of the channel; nothing is lost.
        self.assertEqual((events, 0, 0), (host["osk_host_alerts_sent_total"], host["osk_host_alerts_lost_total"],
                                          metric_sum(agent, "email_agent_lost_total")))
        self.assertEqual(host.get('osk_host_reports_total{severity="warning"}', 0),
                         metric_sum(agent, "email_agent_spooled_total"))
        return agent

    def test_server_stopped_and_restarted_during_a_thousand_alerts(self):
        server = self.server
        self.run = run = self.run_host(server.url, args=["--metrics", self.dir / "host.prom"], timeout="2",
                                       metrics=self.dir / "agent.prom")
        self.feed(run, 0, 300)
        # The server dies with about 300 through; the next 400 come during
        # its absence, the last 300 after its return.
        self.assertTrue(run.wait_for(lambda: server.count() >= 250))
        server.stop()
        self.feed(run, 300, 400)
        # Every alert so far went through or waits, and the metrics say so.
        self.assertTrue(run.wait_for(lambda: self.waiting() + server.count() >= 700))
        during = self.check_metrics(700)
        self.assertEqual(self.waiting(), metric_sum(during, "email_agent_spooled_total"))
        self.assertEqual(self.waiting(), during['email_agent_spooled_total{reason="connect"}'])
        server.start()
        self.feed(run, 700, 300)
        self.assertEqual(0, run.finish("</Events>\n"), run.stderr())
        self.assertEqual(0, self.check_metrics(1000)["email_agent_spool_waiting"])
        self.send_one_more(server.url, 1000)
        # The one mail that may come twice: taken by the server as it died.
        self.check_arrivals(range(1001), duplicates_allowed=1)


class HungServerTest(SmtpHostTest):
    def test_a_hung_server_does_not_hold_up_the_host(self):
        server = self.server
        server.freeze(True)
        # No drain at the end: it would wait out one more timeout.
        run = self.run_host(server.url, timeout="5", drain="0")
        self.feed(run, 0, 60, per_second=10)
        self.assertEqual(0, run.finish("</Events>\n"), run.stderr())
        # One wait for the hung server, not one per alert (a minute).
        self.assertIsNotNone(run.summary_after, run.stderr())
        self.assertLess(run.summary_after, 15, run.stderr())
        self.assertEqual(60, self.waiting())
        self.assertIn(f'60 mails wait in the spool "{self.spool}"', run.stderr())
        server.freeze(False)
        self.send_one_more(server.url, 60)
        self.check_arrivals(range(61))


if __name__ == "__main__":
    unittest.main()
