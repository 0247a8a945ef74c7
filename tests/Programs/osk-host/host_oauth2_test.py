#!/usr/bin/python3
"""osk-host with the SMTP agent signing in with OAuth2: a local token endpoint
(token_endpoint.py) issues the tokens and the SMTP test server checks them.
One token serves every connection for its lifetime; a refused one is
replaced once; a refused client waits in the spool without hammering the
endpoint; no secret leaves the agent."""

import os
import pathlib
import select
import subprocess
import time
import unittest

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import rsa

from host_harness import OSK_SPOOL, SMTP_AGENT, SmtpServer, channel_config, group, read_metrics, run
from host_smtp_test import TOKENS, SmtpHostTest

SUPPORT = pathlib.Path(__file__).parents[2] / "support"
SECRET = "s3cret-of-the-test-client"
WRONG = "not-the-s3cret-at-all"
USER = "alice@example.com"


def start(command):
    """A tests/support server started with `command`; (process, its port)."""
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
    ready = select.select([process.stdout], [], [], 30)[0] and process.stdout.readline()
    if not ready or not ready.startswith(b"READY "):
        process.kill()
        raise AssertionError(f"{command[1]} did not start: {ready!r}")
    return process, int(ready.split()[1])


def tokens(server):
    """(accepted, token) for each token offered to `server` (smtp_server.py --oauth2)."""
    lines = server.record.read_text().splitlines() if server.record.exists() else []
    return [(parts[1] == "1", parts[2]) for parts in (l.split(" ") for l in lines) if parts[0] == "T"]


class OAuth2HostTest(SmtpHostTest):
    lifetime = 3600

    def setUp(self):
        super().setUp()
        key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
        signing = self.write("signing.pem", key.private_bytes(
            serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()))
        public = self.write("public.pem", key.public_key().public_bytes(
            serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo))
        self.state = self.dir / "endpoint"
        self.state.mkdir()
        endpoint, port = start(["/usr/bin/python3", str(SUPPORT / "token_endpoint.py"), "--state", self.state,
                                "--signing-key", signing, "--secret-file", self.write("endpoint-secret", SECRET),
                                "--lifetime", str(self.lifetime), "--subject", USER])
        self.addCleanup(lambda: (endpoint.kill(), endpoint.wait(), endpoint.stdin.close(), endpoint.stdout.close()))
        self.endpoint_url = f"http://127.0.0.1:{port}/token"
        self.server.stop()
        self.server = SmtpServer(self.dir, ["--oauth2", public, self.state])
        self.addCleanup(self.server.stop)
        self.secret_file = self.write("client-secret", SECRET + "\n")
        os.chmod(self.secret_file, 0o600)

    def oauth2(self, **extra):
        return {"auth": "oauth2", "username": USER, "allow_plaintext_auth": "yes",
                "oauth2_token_url": self.endpoint_url, "oauth2_client_id": "test-client",
                "oauth2_scope": "mail", "oauth2_client_secret_file": str(self.secret_file), **extra}

    def config(self, **extra):
        params = [("url", self.server.url), ("starttls", "no"), ("spool", extra.pop("spool", self.spool))]
        return channel_config(SMTP_AGENT, params + list(self.oauth2(**extra).items()),
                              group("alert %n%", 1), tokens=TOKENS)

    def run_oauth2(self, **extra):
        return self.run_host(self.server.url, **self.oauth2(**extra))

    def requests(self):
        path = self.state / "requests"
        return path.read_text().splitlines() if path.exists() else []

    def token_figures(self, path):
        """(fetches, failed fetches) as the agent's metrics file counts them."""
        figures = read_metrics(path)
        return (figures["email_agent_token_fetches_total"],
                figures["email_agent_token_fetch_failures_total"])

    def assert_no_secret(self, *texts):
        """Neither the client secrets nor any token appears in `texts` or in the spool."""
        secrets = [SECRET, WRONG] + [token for _, token in tokens(self.server)]
        spooled = [p.read_bytes().decode("utf-8", "replace") for p in self.spool.rglob("*") if p.is_file()]
        for text in list(texts) + spooled:
            for secret in secrets:
                self.assertNotIn(secret, text)


class TokenLifeTest(OAuth2HostTest):
    lifetime = 2

    def test_a_thousand_alerts_share_one_token_per_lifetime(self):
        started = time.monotonic()
        metrics = self.dir / "agent.prom"
        host = self.run_oauth2(metrics=str(metrics))
        self.feed(host, 0, 1000, per_second=250)
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())
        elapsed = time.monotonic() - started
        self.check_arrivals(range(1000))
        # Renewed shortly before each expiry: about one request per 1.8 s.
        requests = self.requests()
        self.assertTrue(all(r == "client_credentials 200" for r in requests), requests)
        self.assertLessEqual(len(requests), elapsed / 1.8 + 3, (elapsed, requests))
        self.assertGreaterEqual(len(requests), int(elapsed / 2), (elapsed, requests))
        self.assertEqual((len(requests), 0), self.token_figures(metrics))
        self.assertTrue(all(ok for ok, _ in tokens(self.server)))
        self.assert_no_secret(host.stderr())


class RefusalTest(OAuth2HostTest):
    def test_a_revoked_token_is_replaced_once(self):
        host = self.run_oauth2()
        self.feed(host, 0, 5)
        self.assertTrue(host.wait_for(lambda: self.server.count() == 5))
        (_, token), = tokens(self.server)
        (self.state / "revoked").write_text(token + "\n")
        # A new connection must sign in again.
        self.server.stop()
        self.server.start()
        self.feed(host, 5, 1)
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())
        self.check_arrivals(range(6))
        self.assertEqual([True, False, True], [ok for ok, _ in tokens(self.server)])
        self.assertEqual(2, len(self.requests()))
        self.assert_no_secret(host.stderr())

    def test_a_refused_client_waits_in_the_spool_until_fixed(self):
        self.secret_file.write_text(WRONG + "\n")
        metrics = self.dir / "agent.prom"
        host = self.run_oauth2(drain="0", metrics=str(metrics))
        self.feed(host, 0, 50, per_second=10)
        self.assertEqual(0, host.finish("</Events>\n"), host.stderr())
        self.assertEqual(50, self.waiting())
        self.assertEqual((len(self.requests()),) * 2, self.token_figures(metrics))
        self.assertIn('error "invalid_client": "unknown client"', host.stderr())
        self.assertIn(self.endpoint_url, host.stderr())
        # Five seconds of alerts: the endpoint asked once, not per alert nor per backoff step.
        self.assertLessEqual(len(self.requests()), 2, self.requests())
        self.assert_no_secret(host.stderr())

        self.secret_file.write_text(SECRET + "\n")
        flushed = run(OSK_SPOOL, "flush", "--config", self.write("flush.xml", self.config()), cwd=self.dir)
        self.assertEqual(0, flushed.returncode, flushed.stderr)
        self.check_arrivals(range(50))
        self.assert_no_secret(flushed.stdout, flushed.stderr)

    def test_check_and_probe_name_the_failing_step(self):
        wrong = self.write("wrong-secret", WRONG + "\n")
        os.chmod(wrong, 0o600)
        shared = self.dir / "shared"
        shared.mkdir()
        os.chmod(shared, 0o777)
        rows = [
            ("good", {}, 0, "ok: the agent"),
            ("bad secret", {"oauth2_client_secret_file": str(wrong)}, 2,
             'fails at fetching the OAuth2 token: the OAuth2 token endpoint'),
            ("endpoint down", {"oauth2_token_url": "http://127.0.0.1:1/token"}, 2,
             "fails at fetching the OAuth2 token: the OAuth2 token endpoint http://127.0.0.1:1/token "
             "cannot be reached"),
            ("relay refuses the token", {"username": "bob@example.com"}, 2, "fails at signing in (AUTH)"),
            ("spool others may write to", {"spool": shared}, 2, "only its owner may write to it"),
        ]
        for name, change, status, expected in rows:
            with self.subTest(name):
                result = self.host(self.config(**change), args=["--check", "--probe"])
                self.assertEqual(status, result.returncode, result.stdout)
                self.assertIn(expected, result.stdout)
                self.assert_no_secret(result.stdout, result.stderr)
        self.assertEqual([], self.server.messages())


if __name__ == "__main__":
    unittest.main()
