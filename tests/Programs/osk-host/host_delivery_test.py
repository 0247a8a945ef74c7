#!/usr/bin/python3
"""osk-host end to end: events rendered by the real channel and delivered by
the real agents, then read back with Python's email package; and the alerts
that are lost, as the program's output and exit status say."""

import email.utils
import os
import re
import shutil
import subprocess
import time
import unittest

from host_harness import (DEAD_URL, DIGEST_AGENT, EXAMPLES, MAILDIR_AGENT, RECIPIENTS, SENDER, SMTP_AGENT, HostTest,
                          SmtpServer, channel_config, events_xml, group, read_metrics)

# The shipped example's events and two more: an id no group has, and a disk
# alert without a host, whose placeholder vanishes and whose header falls
# back to its default.
EVENTS = (EXAMPLES / "events.xml").read_text(encoding="utf-8").replace(
    "</Events>", '<Event id="555"><alarm><host>nobody</host></alarm></Event>\n'
    '<Event id="100"><alarm><disk mount="/" used="50%"/></alarm></Event>\n</Events>')
DISK = "Disk space is running out on {0}: {1} is {2} full.\n\n{{}}\n{3}  - disk:  mount={1} used={2}\n\n" \
    "Runbook: https://wiki.example.com/runbooks/disk-full"
# X-Alert-Host: subject, X-Alert-Kind, X-Priority, body ({} the stylesheet's first line)
MAILS = {
    "db1.example.com": ("[ALERT] disk 97% full on db1.example.com", "disk", "2", DISK.format(
        "db1.example.com", "/var/lib/postgresql", "97%", "  - host: db1.example.com\n")),
    "Köln-backup": ("[ALERT] disk 91% full on Köln-backup", "disk", "2",
                    DISK.format("Köln-backup", "/srv/backup", "91%", "  - host: Köln-backup\n")),
    "unknown-host": ("[ALERT] disk 50% full on", "disk", "2", DISK.format("", "/", "50%", "")),
    "web2.example.com": ("[ALERT] nginx down on web2.example.com", "service", "1",
                         "Service nginx on web2.example.com stopped answering.\n\n{}\n  - host: web2.example.com\n"
                         "  - service: nginx\n  - since: 2026-11-21T03:12:00Z\n\n"
                         "Runbook: https://wiki.example.com/runbooks/service-down"),
}
# (example, environment, charset of the mail, the stylesheet's greeting for the locale it was given);
# the SMTP example's groups have no subjects of their own.
ROWS = [
    ("alerts.xml", {"TAM_LANG": "de_DE.UTF-8"}, "iso-8859-15", "Einzelheiten:"),
    ("alerts.xml", {"LANGUAGE": "fr_FR"}, "utf-8", "Details:"),
    ("alerts-smtp.xml", {"TAM_LANG": "de_DE.UTF-8"}, "iso-8859-15", "Einzelheiten:"),
]


class DeliveryTest(HostTest):
    """The shipped example configurations, their mail read back."""

    def check_mails(self, mails, charset, greeting, group_subjects):
        self.assertEqual(sorted(MAILS), sorted(str(m["X-Alert-Host"]) for m in mails))
        for msg in mails:
            subject, kind, priority, body = MAILS[str(msg["X-Alert-Host"])]
            subject = subject if group_subjects else "[ALERT] Event on the monitored systems"
            self.assertEqual([], msg.defects, msg.as_string())
            sender = msg["From"].addresses[0]
            self.assertEqual((subject, "Überwachung / Monitoring", "alerts@example.com", charset),
                             (str(msg["Subject"]), sender.display_name, sender.addr_spec,
                              msg.get_content_charset()))
            self.assertEqual(["ops@example.com", "Oncall.Team@example.org"],
                             [a.addr_spec for a in msg["To"].addresses])
            sent = email.utils.parsedate_to_datetime(str(msg["Date"])).timestamp()
            self.assertLess(abs(sent - time.time()), 600)
            self.assertEqual(("osk email channel", kind, priority),
                             (msg["X-Alert-Source"], msg["X-Alert-Kind"], msg["X-Priority"]))
            self.assertEqual(body.format(greeting), msg.get_content())

    def test_rendered_and_delivered(self):
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        for name, env, charset, greeting in ROWS:
            with self.subTest(name, env=env):
                shutil.rmtree(self.dir / "example-mail", True)
                config = (EXAMPLES / name).read_text(encoding="utf-8")
                config = config.replace("smtp://127.0.0.1:2525", server.url)
                # The system log target is set up, but there is no report for it.
                result = self.host(config, EVENTS, env=env, args=["--syslog", "osk-host-e2e"])
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual((6, 0, {}), result.summary())
                mails = self.maildir("example-mail")
                if "smtp" in name:
                    mails = [msg for _, _, msg in server.messages()]
                    self.assertEqual([("alerts@example.com", ["ops@example.com", "Oncall.Team@example.org"])]
                                     * len(mails), [(s, r) for s, r, _ in server.messages()])
                    # Everything was accepted: nothing waits in the spool or sits in failed/.
                    self.assertEqual([], [f for _, _, files in os.walk(self.dir / "example-spool") for f in files])
                self.check_mails(mails, charset, greeting, name == "alerts.xml")


class FailureTest(HostTest):
    def full_disk(self):
        """A directory on a full tmpfs, or None where this process may not mount one."""
        mount = self.dir / "full"
        mount.mkdir()
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", str(mount)],
                              capture_output=True)
        if done.returncode != 0:
            return None
        self.addCleanup(subprocess.run, ["umount", "-l", str(mount)], capture_output=True)
        # dd writes until the disk is full.
        subprocess.run(["dd", "if=/dev/zero", f"of={mount}/filler", "bs=64k"], capture_output=True)
        return mount

    def test_lost_alerts(self):
        # Every way an alert is lost: reported with why, named, counted and
        # exit 3. A mail the spool or the digest's hold keeps is not lost, and
        # mail the digest cannot hold goes straight to its delivering agent.
        self.write("afile", "a file where the Maildir's folder should be")
        full = self.full_disk()
        server = SmtpServer(self.dir)
        self.addCleanup(server.stop)
        dead = [("url", DEAD_URL), ("starttls", "no"), ("timeout", "5")]
        refused = "r550.nobody@example.com"
        in_file = [("path", self.dir / "afile" / "mail")]
        good = [("path", self.dir / "mail"), ("fsync", "no")]

        def digest(inner, params, **own):
            own = {"agent": inner, "burst": 0, "hold": self.dir / "hold", **own}
            return list(own.items()) + params
        cases = [  # (what, agent, its parameters, recipients, why (None: delivered), alerts lost)
            ("Maildir behind a file", MAILDIR_AGENT, in_file, RECIPIENTS,
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
            ("digest held, SMTP server down, no spool", DIGEST_AGENT, digest(SMTP_AGENT, dead),
             RECIPIENTS, "Digest agent: the alert is held in", 0),
            ("digest without its agent's library", DIGEST_AGENT, digest("libno_such_agent.so", good),
             RECIPIENTS, "Opening of module libno_such_agent.so failed", 2),
            ("digest on a full disk, Maildir behind a file", DIGEST_AGENT,
             digest(MAILDIR_AGENT, in_file, hold=full and full / "hold"), RECIPIENTS,
             "a file of that name is in the way; the alert is lost", 2),
            ("digest on a full disk", DIGEST_AGENT, digest(MAILDIR_AGENT, good, hold=full and full / "hold"),
             RECIPIENTS, None, 0),
            ("digest with a bad burst", DIGEST_AGENT, digest(MAILDIR_AGENT, good, burst=-1), RECIPIENTS, None, 0),
            ("digest with its hold under a file", DIGEST_AGENT,
             digest(MAILDIR_AGENT, good, hold=self.dir / "afile" / "hold"), RECIPIENTS, None, 0),
        ]
        # Rows whose agent keeps a metrics file, and the figures it ends with.
        counted = {
            "Maildir behind a file": {"email_agent_delivered_total": 0, 'email_agent_lost_total{reason="disk"}': 2},
            "SMTP server down, spool kept": {'email_agent_spooled_total{reason="connect"}': 2,
                                             "email_agent_spool_waiting": 2, "email_agent_delivered_total": 0},
            "digest held, SMTP server down, no spool": {"email_digest_held_total": 2, "email_digest_holding": 2,
                                                        "email_digest_sent_total": 0},
        }
        for name, agent, params, recipients, why, lost in cases:
            with self.subTest(name):
                if None in (v for _, v in params):
                    self.skipTest("cannot mount a tmpfs here: the full-disk case is not run")
                shutil.rmtree(self.dir / "mail", True)
                metrics = self.dir / (name + ".prom")
                config = channel_config(agent, params + ([("metrics", metrics)] if name in counted else []),
                                        group("plain %b% text", 3),
                                        tokens='<Token name="b" default="B"/>', recipients=recipients)
                result = self.host(config, events_xml((3, "<e/>"), (3, "<e/>")),
                                   args=["--metrics", self.dir / "host.prom"])
                host = read_metrics(self.dir / "host.prom")
                self.assertEqual((2, 2, lost, 2 if why else 0),
                                 (host["osk_host_events_read_total"], host["osk_host_alerts_sent_total"],
                                  host["osk_host_alerts_lost_total"],
                                  host.get('osk_host_reports_total{severity="warning"}', 0)))
                # The kernel's resident count is read approximately, a few pages either way.
                self.assertAlmostEqual(host["osk_host_peak_memory_bytes"], 1024 * result.peak_kib(),
                                       delta=1 << 20)
                if name in counted:
                    figures = read_metrics(metrics)
                    self.assertEqual(counted[name], {k: figures[k] for k in counted[name]})
                    # and no other counter moved
                    self.assertEqual({}, {k: v for k, v in figures.items()
                                          if "_total" in k and v and k not in counted[name]})
                self.assertEqual(3 if lost else 0, result.returncode, result.stderr)
                self.assertEqual((2, 0, {"warning": 2} if why else {}), result.summary())
                self.assertEqual(lost, result.lost())
                self.assertEqual(0 if why else 2, len(self.maildir()))
                for warning in result.reports("warning"):
                    self.assertTrue(warning.startswith("Tamtk exception:: [ "), warning)
                    self.assertIn(why, warning)
                    self.assertNotIn("[osk-host:", warning)
                self.assertEqual(lost, len(re.findall(r"^osk-host: \S+:\d+: event 3: the alert is lost$",
                                                      result.stderr, re.M)))
        # The recipient the server took still got each mail.
        self.assertEqual([(SENDER, ["ops@example.com"], "plain B text")] * 2,
                         [(s, r, msg.get_content()) for s, r, msg in server.messages()])
        # What the digest held for the relay that was down waits for the next run.
        self.assertEqual(2, len(list((self.dir / "hold" / "new").glob("*"))))


if __name__ == "__main__":
    unittest.main()
