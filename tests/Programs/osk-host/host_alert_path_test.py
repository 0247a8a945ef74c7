#!/usr/bin/python3
"""The alert path seen and tested before an incident: --render shows what a run
would send and touches nothing, --send-test tells delivered from kept from lost,
and a group's Thread makes one conversation of each incident."""

import os
import re
import shutil
import unittest

from host_harness import (DEAD_URL, EXAMPLES, HOST_TOKEN, MAILDIR, MAILDIR_AGENT, OSK_HOST, SENDER,
                          SMTP_AGENT, HostTest, SmtpServer, alarm, channel_config, events_xml, group, run)

MAIL = re.compile(r"^---- mail \d+ ----\n", re.M)


def rendered(stdout):
    """[(headers {name: value}, body)] of the mails --render printed."""
    mails = []
    for text in MAIL.split(stdout)[1:]:
        head, body = text.split("\n\n", 1)
        fields = dict(line.split(": ", 1) for line in head.splitlines())
        mails.append((fields, body))
    return mails


class AlertPathTest(HostTest):
    def server(self, *args):
        (self.dir / "server").mkdir(exist_ok=True)
        server = SmtpServer(self.dir / "server")
        self.addCleanup(server.stop)
        if args:
            server.args += list(args)
            server.stop()
            server.start()
        return server

    def test_render_shows_what_a_run_delivers_and_touches_nothing(self):
        config, events = (EXAMPLES / "alerts.xml").read_text(), (EXAMPLES / "events.xml").read_text()
        self.assertEqual(0, self.host(config, events).returncode)
        delivered = self.maildir("example-mail")
        self.assertEqual(3, len(delivered))
        shutil.rmtree(self.dir / "example-mail")
        server = self.server()
        smtp = config.replace('lib="libemail_agent_maildir.so"', f'lib="{SMTP_AGENT}"').replace(
            '<Param name="path" value="./example-mail"/>\n    <Param name="fsync" value="yes"/>',
            f'<Param name="url" value="{server.url}"/><Param name="starttls" value="no"/>')
        for name, text in (("maildir", config), ("smtp", smtp)):
            with self.subTest(name):
                path = self.write("render.xml", text)
                before = sorted(self.dir.rglob("*"))
                result = run(OSK_HOST, "--render", "--config", path,
                             "--events", EXAMPLES / "events.xml", cwd=self.dir)
                self.assertEqual((0, 0), (result.returncode, result.lost()), result.stderr)
                self.assertEqual(before, sorted(self.dir.rglob("*")), "--render created something")
                shown = rendered(result.stdout)
                self.assertEqual(len(delivered), len(shown))
                for mail, (fields, body) in zip(delivered, shown):
                    for header in ("Subject", "From", "X-Alert-Host"):
                        self.assertEqual(str(mail[header]), fields[header])
                    self.assertEqual(mail.get_content().rstrip("\n"), body.rstrip("\n"))
        self.assertEqual("", server.record.read_text(), "--render connected")

    def test_send_test_names_each_outcome(self):
        secret = self.write("password", "wrong\n")
        secret.chmod(0o600)
        spool = self.dir / "spool"
        live = self.server()
        rows = [
            # name, server arguments, extra agent parameters, --to, exit status, words on stdout
            ("delivered", None, [], "tester@example.net", 0, "delivered:"),
            ("dead relay", DEAD_URL, [], "", 3, "Couldn't connect to server"),
            ("dead relay, spool keeps it", DEAD_URL, [("spool", spool)], "", 1, "kept, not delivered:"),
            ("relay refuses the sender", ["--mail-reply", "550 not from you"], [], "", 3, "550 not from you"),
            ("relay refuses the sign-in", ["--auth", "u:right"],
             [("username", "u"), ("password_file", secret), ("allow_plaintext_auth", "yes")], "", 3, "535"),
        ]
        for name, server, extra, to, status, words in rows:
            with self.subTest(name):
                url = server if isinstance(server, str) else (self.server(*server) if server else live).url
                config = channel_config(SMTP_AGENT, [("url", url), ("starttls", "no")] + extra,
                                        group("%host%", 7), tokens=HOST_TOKEN)
                result = self.host(config, args=["--send-test"] + (["--to", to] if to else []))
                self.assertEqual(status, result.returncode, result.stdout + result.stderr)
                self.assertIn(words, result.stdout)
                self.assertEqual(status != 0, "not delivered" in result.stdout)
        (sender, recipients, mail), = live.messages()
        self.assertEqual((SENDER, ["tester@example.net"]), (sender, recipients))
        self.assertIn("TEST", mail["Subject"])
        for fact in (os.uname().nodename, str(self.dir / "config.xml"), "test alert"):
            self.assertIn(fact, mail.get_content())

    def test_each_incident_is_one_thread_across_runs(self):
        groups = group("%host% %mount% full", 1, extra="<Thread>%host%/%mount%</Thread>") + group("%host%", 2)
        config = channel_config(MAILDIR_AGENT, MAILDIR, groups,
                                tokens=HOST_TOKEN + '<Token name="mount" xpath="/alarm/@mount"/>')
        incidents = [alarm(host).replace("<alarm>", '<alarm mount="/var">') for host in ("db1", "db2")]
        stream = events_xml(*[(1, incidents[i % 2]) for i in range(10)], (2, alarm("db1")))
        runs = []
        for _ in range(2):
            self.assertEqual(0, self.host(config, stream).returncode)
            threads = {}
            for mail in self.maildir():
                self.assertEqual(mail["References"], mail["In-Reply-To"])
                threads.setdefault(mail.get_content(), []).append(mail["References"])
            shutil.rmtree(self.dir / "mail")
            runs.append(threads)
            ids = {body: set(refs) for body, refs in threads.items()}
            self.assertEqual([5, 5, 1], [len(threads[b]) for b in ("db1 /var full", "db2 /var full", "db1")])
            self.assertEqual({None}, ids.pop("db1"), "a group without Thread starts no thread")
            self.assertEqual([1, 1], [len(refs) for refs in ids.values()])
            self.assertEqual(2, len(set.union(*ids.values())), "incidents share a thread")
            for ref in set.union(*ids.values()):
                self.assertRegex(ref, r"^<[0-9a-z.]+@example\.com>$")
        self.assertEqual(runs[0], runs[1])


if __name__ == "__main__":
    unittest.main()
