#!/usr/bin/python3
"""osk-host --check end to end: one configuration per finding (and every
shipped example), its lines and the exit status (0 clean, 1 warnings,
2 errors), and nothing sent or created."""

import unittest

from host_harness import (DEAD_URL, EXAMPLES, HOST_TOKEN, MAILDIR_AGENT, SMTP_AGENT, HostTest,
                          SmtpServer, channel_config, group, stylesheet)

HOST = HOST_TOKEN + "\n"


class CheckTest(HostTest):
    def test_each_finding_and_its_status(self):
        (self.dir / "server").mkdir()
        server = SmtpServer(self.dir / "server")
        self.addCleanup(server.stop)
        secret = self.write("secret", "pw\n")
        secret.chmod(0o640)

        def smtp(url, *params):
            return channel_config(SMTP_AGENT, [("url", url), ("starttls", "no")] + list(params),
                                  group("Host %host%", 7), tokens=HOST)

        def maildir(groups=group("Host %host%", 7), tokens=HOST, params=(), defaults=""):
            return channel_config(MAILDIR_AGENT, [("path", "mail")] + list(params), groups,
                                  tokens=tokens, defaults_extra=defaults)

        rows = [
            ("stylesheet that does not compile cuts its template",
             maildir(group("Host %host% / %s% / end", 7),
                     HOST + stylesheet("s", '<xsl:template match="/"><xsl:value-of select="(("/>'
                                       '</xsl:template>')), 1,
             ["warning: the token %s% (line 14) does not load: its stylesheet does not compile",
              "warning: the message of the event group at line 16 is cut at %s%: that token does not load"]),
            ("subject and thread placeholders naming no token",
             maildir(group("%host%", 7, extra="<Subject>%hots%</Subject><Thread>%host%/%mnt%</Thread>")), 1,
             ["warning: the subject of the event group at line 16 has %hots%, which names no token",
              "warning: the thread of the event group at line 16 has %mnt%, which names no token"]),
            ("last placeholder followed by a percent sign", maildir(group("Load on %host%% now", 7)), 1,
             ["is cut at %host%%: the last token's placeholder followed by"]),
            ("group without an enabled event, duplicate token and event id",
             maildir(group("a %host%", 7, 9) + group("b %host%", 7) + group("never %host%", 8, enabled="no"),
                     HOST + '<Token name="host" default="x"/>'), 1,
             ["warning: the token %host% is defined again at line 14 (first at line 13)",
              "warning: event id 7 is enabled again at line 17: only the event group at line 16 sends mail",
              "warning: the event group at line 18 has no enabled event: it never sends mail"]),
            ("agent refuses its parameters", maildir(params=[("colour", "blue")]), 2,
             ["error: the agent " + MAILDIR_AGENT + " refuses its parameters: Maildir agent"]),
            ("agent library missing",
             channel_config("/nonexistent/libagent.so", [], group("Host %host%", 7), tokens=HOST), 2,
             ["error: the channel refuses the configuration: Opening of module",
              "error: the agent /nonexistent/libagent.so does not load"]),
            ("no token loads", maildir(tokens='<Token name="x" xpath="(("/>'), 2,
             ["error: the channel does not take the configuration: no token loads",
              "warning: the token %x% (line 13) does not load: its xpath does not compile"]),
            ("not XML", "<Channel><Default>", 2, ["error: the configuration cannot be read"]),
            ("secret others may read",
             smtp(server.url, ("username", "u"), ("password_file", secret), ("allow_plaintext_auth", "yes")), 1,
             [f'warning: the agent {SMTP_AGENT} warns: SMTP agent: parameter "password_file" names "{secret}", '
              "which its group may read (mode 0640)"]),
            # With --probe: relays that answer EHLO, one of two that does not, none that does.
            ("probe: relay answers", smtp(server.url), 0, [f"ok: the agent {SMTP_AGENT} reaches what it delivers"]),
            ("probe: relay down of two", smtp(f"{DEAD_URL} {server.url}"), 1,
             [f"warning: the agent {SMTP_AGENT} warns: SMTP agent: relay {DEAD_URL} fails at connecting"]),
            ("probe: relay down", smtp(DEAD_URL), 2,
             [f"error: the agent {SMTP_AGENT} fails its probe: SMTP agent: relay {DEAD_URL} fails at connecting"]),
            ("probe: Maildir under a file", channel_config(MAILDIR_AGENT, [("path", "config.xml/mail")], group("%host%", 7),
                                                           tokens=HOST), 2, ['"config.xml" takes no new files']),
        ] + [(f"example {path.name}", path.read_text(), 0, ["ok: the agent lib"])
             for path in sorted(EXAMPLES.glob("*.xml")) if "<Channel>" in path.read_text()]
        before = sorted(p.name for p in self.dir.iterdir())
        for name, config, status, expected in rows:
            with self.subTest(name):
                result = self.host(config, args=["--check"] + (["--probe"] if name.startswith("probe") else []))
                self.assertEqual((status, ""), (result.returncode, result.stderr), result.stdout)
                self.assertEqual(sorted(before + ["config.xml"]), sorted(p.name for p in self.dir.iterdir()),
                                 "the check created something")
                for line in expected:
                    self.assertIn(line, result.stdout)
                findings = [l for l in result.stdout.splitlines() if l.startswith(("error:", "warning:"))]
                self.assertEqual(len(findings), len([l for l in expected if not l.startswith("ok:")])
                                 + result.stdout.count("the channel reports"), result.stdout)

        # The probe connected, and sent nothing.
        self.assertEqual([], server.messages())
        self.assertIn("C ", server.record.read_text())


if __name__ == "__main__":
    unittest.main()
