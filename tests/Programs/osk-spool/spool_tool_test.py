#!/usr/bin/python3
"""osk-spool end to end: a spool filled by the real channel and SMTP agent
(osk-host against an unreachable port and against a test server that refuses
one recipient), then listed, flushed, requeued and dropped."""

import fcntl
import json
import os
import subprocess
import time
import unittest

from host_harness import (DEAD_URL, DIGEST_AGENT, HOST_TOKEN, OSK_SPOOL, SMTP_AGENT, SUBJECT,
                          TIMEOUT, SmtpSpoolTest, alarm, channel_config, events_xml, group, run)

GROUPS = group("Disk on %host% is full.", 100)
# The subject goes out in ISO-8859-15, so listing it takes a charset conversion.
CHARSET = '<Charset enabled="yes" locale="de" charset="ISO-8859-15"/>'
REFUSED = "r550.gone@example.org"


class SpoolToolTest(SmtpSpoolTest):
    def setUp(self):
        super().setUp()
        self.flush_config = self.config(self.server.url, name="flush.xml")

    def config(self, url, recipients=("ops@example.com",), name="config.xml", drain="0"):
        params = [("url", url), ("starttls", "no"), ("timeout", "5"), ("drain", drain),
                  ("spool", str(self.spool))]
        return self.write(name, channel_config(SMTP_AGENT, params, GROUPS, CHARSET, HOST_TOKEN,
                                               recipients))

    def alert(self, url, *hosts, recipients=("ops@example.com",)):
        """An alert per host through osk-host; each ends in the server or in the spool."""
        config = self.config(url, recipients).read_text()
        self.host(config, events_xml(*[(100, alarm(h)) for h in hosts]), env={"TAM_LANG": "de_DE"})

    def spool_tool(self, *args):
        done = run(OSK_SPOOL, *args, cwd=self.dir)
        return done.returncode, done.stdout, done.stderr

    def listing(self):
        code, out, err = self.spool_tool("list", self.spool, "--json")
        self.assertEqual(0, code, err)
        return json.loads(out)

    def fill(self):
        """Two mails waiting (server unreachable), one failed (refused)."""
        self.alert(self.server.url, "db0", recipients=("ops@example.com", REFUSED))
        self.assertEqual(1, len(self.server.messages()))
        self.alert(DEAD_URL, "db1", "db2")
        entries = self.listing()
        self.assertEqual(["failed", "waiting", "waiting"], [e["state"] for e in entries])
        return entries

    def test_list_flush_requeue_drop(self):
        entries = self.fill()
        failed, first, second = entries
        self.assertIn("550", failed["reason"])
        self.assertEqual(([REFUSED], ["ops@example.com"], None, None),
                         (failed["recipients"], first["recipients"], first["reason"], second["reason"]))
        for e in entries:
            self.assertEqual(SUBJECT, e["subject"])
            self.assertRegex(e["queued"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")

        code, text, _ = self.spool_tool("list", self.spool)
        lines = text.splitlines()
        self.assertEqual((0, "3 mails: 2 waiting, 1 failed"), (code, lines[-1]))
        self.assertEqual([e["id"] for e in entries], [line.split()[0] for line in lines[:-1]])
        self.assertIn(SUBJECT, lines[1])
        self.assertIn("550", lines[0])

        code, out, err = self.spool_tool("flush", "--config", self.flush_config)
        self.assertEqual((0, ""), (code, err))
        self.assertIn("2 delivered", out)
        self.assertEqual(3, len(self.server.messages()))
        self.assertEqual([failed["id"]], [e["id"] for e in self.listing()])

        # Back to waiting without the reply; the server refuses it again.
        code, out, _ = self.spool_tool("requeue", self.spool)
        self.assertEqual(0, code)
        (requeued,) = self.listing()
        self.assertEqual(("waiting", None, [REFUSED]),
                         (requeued["state"], requeued["reason"], requeued["recipients"]))
        self.assertIn(requeued["id"], out)
        code, out, err = self.spool_tool("flush", "--config", self.flush_config)
        self.assertEqual(0, code, out + err)
        self.assertIn(REFUSED, err)
        (refused,) = self.listing()
        self.assertEqual("failed", refused["state"])

        self.assertEqual(0, self.spool_tool("drop", self.spool, refused["id"])[0])
        self.assertEqual([], self.listing())
        self.assertEqual("0 mails: 0 waiting, 0 failed\n", self.spool_tool("list", self.spool)[1])
        # A file name cannot drive the terminal: escaped as osk-host escapes its reports.
        (self.spool / "new" / "x\x1b[2J\n\u009b").write_text("no envelope")
        self.assertRegex(self.spool_tool("list", self.spool)[1],
                         r"^x\\x1b\[2J\\n\\u009b  waiting .*\[the file has no valid envelope\]\n1 mail:")

    def test_mistakes_and_a_locked_spool_change_nothing_or_send_twice(self):
        entries = self.fill()
        ids = [e["id"] for e in entries]
        not_spool = self.dir / "not-a-spool"
        not_spool.mkdir()
        shared = self.dir / "shared"
        for sub in ("new", "tmp", "failed/new"):
            (shared / sub).mkdir(parents=True)
        shared.chmod(0o777)
        no_spool = self.write("no-spool.xml", channel_config(
            SMTP_AGENT, [("url", self.server.url)], GROUPS, "", HOST_TOKEN))
        locked = "another process"
        cases = [  # (arguments, exit status, what the message says)
            (("list", not_spool), 2, "is not a spool"),
            (("drop", not_spool, ids[0]), 2, "is not a spool"),
            (("list", self.dir / "missing"), 2, "is not a spool"),
            (("list", shared), 2, f'"{shared}" may be written by group or others (mode 0777)'),
            (("drop", self.spool, ids[1], "no-such-id"), 2, '"no-such-id" is not in the spool'),
            (("drop", self.spool, "../spool/new/" + ids[1]), 2, "is not in the spool"),
            (("requeue", self.spool, ids[0], ids[1]), 2, f'"{ids[1]}" is waiting, not failed'),
            (("flush", "--config", no_spool), 2, 'no "spool" parameter'),
            (("flush", "--config", self.flush_config), 1, locked),
            (("requeue", self.spool), 1, locked),
            (("drop", self.spool, ids[1]), 1, locked),
        ]
        with open(self.spool / "lock", "a") as lock:
            for args, status, message in cases:
                with self.subTest(args=args):
                    # Another process holds the spool's lock for the last rows.
                    fcntl.flock(lock, fcntl.LOCK_EX if message == locked else fcntl.LOCK_UN)
                    code, out, err = self.spool_tool(*args)
                    self.assertEqual(status, code, out + err)
                    self.assertIn(message, err)
        self.assertEqual(entries, self.listing())
        self.assertEqual([], os.listdir(not_spool))
        self.assertFalse((self.dir / "missing").exists())
        self.assertEqual(1, len(self.server.messages()))

        # Two flushes at once: each mail reaches the server exactly once.
        self.alert(DEAD_URL, *[f"db{n}" for n in range(3, 12)])
        runs = [subprocess.Popen([OSK_SPOOL, "flush", "--config", str(self.flush_config)],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                for _ in range(2)]
        for flush in runs:
            out, err = flush.communicate(timeout=TIMEOUT)
            self.assertIn(flush.returncode, (0, 1), out + err)
        bodies = [m.get_content() for _, _, m in self.server.messages()[1:]]
        self.assertEqual(11, len(bodies), bodies)
        self.assertEqual(len(bodies), len(set(bodies)))
        self.assertEqual(["failed"], [e["state"] for e in self.listing()])

    def test_channel_and_flush_configure_the_agent_alike(self):
        """One EmailAgent element, read by the channel (osk-host) and by flush: the same
        children skipped, the same parameters, the same verdict."""
        url, dead = self.server.url, DEAD_URL
        rows = [  # (name, library, children, skipped, osk-host's status, flush's status)
            ("any child counts, the first of a name wins, empty ones are skipped", SMTP_AGENT,
             f'<Relay name="url" value="{url}"/><Param name="url" value="{dead}"/><Param name="timeout" value=""/>'
             '<Param name="drain"/><Param name="starttls" value="no"/>', 2, 0, 0),
            ("the SMTP agent behind the digest agent", DIGEST_AGENT,
             f'<Param name="agent" value="{SMTP_AGENT}"/><Param name="hold" value="hold"/><Param name="burst" value="5"/>'
             f'<Param name="url" value="{url}"/><Param name="starttls" value="no"/>', 0, 0, 0),
            # Last: its mail stays in the spool.
            ("a bad value", SMTP_AGENT,
             f'<Param name="url" value="{url}"/><Param name="connections" value="many"/>', 0, 3, 2),
        ]
        for n, (name, lib, children, skipped, host_status, flush_status) in enumerate(rows):
            with self.subTest(name):
                config = channel_config(lib, [], GROUPS, tokens=HOST_TOKEN).replace(
                    "  </EmailAgent>", f'{children}<Param name="spool" value="{self.spool}"/></EmailAgent>')
                before = self.server.count()
                result = self.host(config, events_xml((100, alarm("db1"))))
                delivered = self.server.count() - before
                self.alert(dead, "db2")  # a mail waiting in the spool for flush
                code, out, err = self.spool_tool("flush", "--config", self.write(f"row{n}.xml", config))
                self.assertEqual((host_status, int(host_status == 0), skipped, flush_status, skipped),
                                 (result.returncode, delivered,
                                  len([r for r in result.reports("warning") if r.endswith(": skipped")]),
                                  code, err.count(": skipped\n")), result.stderr + out + err)

    def test_files_that_are_not_mail_hold_up_nothing_and_are_never_sent(self):
        """A FIFO, a link to /dev/zero and a sparse 1 GiB file in new/: list, flush and
        osk-host's start and exit drain go past them; each ends in failed/, unread."""
        self.alert(DEAD_URL, "db1")

        def plant(run):
            new = self.spool / "new"
            os.mkfifo(new / f"fifo{run}")
            os.symlink("/dev/zero", new / f"zero{run}")
            with open(new / f"huge{run}", "wb") as huge:
                huge.truncate(1 << 30)

        plant(1)
        self.assertEqual(["fifo1", "huge1", "zero1"],
                         sorted(e["id"] for e in self.listing() if e["reason"]))
        drain = 20
        started = time.monotonic()
        done = self.host(self.config(self.server.url, drain=str(drain)).read_text(),
                         events_xml((100, alarm("db2"))))
        self.assertLess(time.monotonic() - started, drain, done.stderr)
        self.assertIn("symbolic link", done.stderr)
        plant(2)
        code, out, err = self.spool_tool("flush", "--config", self.flush_config)
        self.assertEqual(0, code, out + err)
        self.assertIn("3 refused", out)
        self.assertIn("larger than", err)
        self.assertEqual(2, len(self.server.messages()))
        self.assertEqual(["failed"] * 6, [e["state"] for e in self.listing()])


if __name__ == "__main__":
    unittest.main()
