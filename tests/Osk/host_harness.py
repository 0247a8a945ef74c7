"""Shared pieces of the osk-host end-to-end tests: the build's programs (from
the environment CTest sets), a scratch directory per test, running osk-host,
configurations, reading the mail it produced and a real SMTP server.

Run with Debian's /usr/bin/python3 (python3-aiosmtpd for the SMTP server)."""

import email
import email.policy
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

OSK_HOST = os.environ.get("OSK_HOST", "")
MAILDIR_AGENT = os.environ.get("MAILDIR_AGENT", "")
SMTP_AGENT = os.environ.get("SMTP_AGENT", "")
DIGEST_AGENT = os.environ.get("DIGEST_AGENT", "")
COUNTING_AGENT = os.environ.get("COUNTING_AGENT", "")
SMTP_SERVER = os.environ.get("SMTP_SERVER", "")
EXAMPLES = pathlib.Path(os.environ.get("EXAMPLES_DIR", pathlib.Path(__file__).parents[2] / "examples"))
SANITIZED = os.environ.get("OSK_SANITIZED", "OFF").upper() in ("ON", "1", "TRUE", "YES")

# Every run is bounded; a hung host fails the test instead of the CI job.
TIMEOUT = 120 if SANITIZED else 60

SUMMARY = re.compile(
    r"^osk-host: (\d+) events read(?: \((\d+) skipped\))?, lost alerts: (\d+), reports: (.+?), "
    r"(\d+\.\d{3}) s, (\d+) events/s(?:, peak memory (\d+) KiB)?$", re.M)


class HostResult:
    def __init__(self, returncode, stdout, stderr):
        self.returncode = returncode
        self.stdout = stdout
        self.stderr = stderr

    def summary(self):
        """(events read, skipped, {severity: count}) from the closing line."""
        lines = SUMMARY.findall(self.stderr)
        if len(lines) != 1:
            raise AssertionError("expected one summary line in:\n" + self.stderr)
        read, skipped, _, reports = lines[0][:4]
        counts = {}
        if reports != "none":
            for part in reports.split(", "):
                n, severity = part.split(" ", 1)
                counts[severity] = int(n)
        return int(read), int(skipped or 0), counts

    def lost(self):
        """The alerts the closing line counts as lost."""
        return int(SUMMARY.findall(self.stderr)[0][2])

    def peak_kib(self):
        """The host's own peak resident size, from the closing line."""
        peak = SUMMARY.findall(self.stderr)[0][6]
        if not peak:
            raise AssertionError("no peak memory in the summary:\n" + self.stderr)
        return int(peak)

    def reports(self, severity):
        """Texts of the channel's reports at `severity`, as the stderr log target wrote them."""
        return re.findall(r"^EVENT: report_error SEV: %s WHY: (.*)$" % severity, self.stderr, re.M)


class HostTest(unittest.TestCase):
    """A test with its own scratch directory, removed afterwards."""

    def setUp(self):
        for name, value in (("OSK_HOST", OSK_HOST), ("MAILDIR_AGENT", MAILDIR_AGENT)):
            if not value or not os.path.exists(value):
                self.fail(f"{name} must name the built program (got {value!r})")
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="osk-host-e2e."))
        self.addCleanup(shutil.rmtree, self.dir, True)

    def write(self, name, text):
        path = self.dir / name
        path.write_bytes(text.encode("utf-8") if isinstance(text, str) else text)
        return path

    def host(self, config, events=None, stdin=None, args=(), env=None):
        """Runs osk-host in the scratch directory with `config` (text) and
        `events` (text, written to events.xml) or `stdin`."""
        command = [OSK_HOST, "--config", str(self.write("config.xml", config))]
        if events is not None:
            command += ["--events", str(self.write("events.xml", events))]
        command += list(args)
        run_env = _clean_env(env)
        done = subprocess.run(command, input=(stdin or "").encode("utf-8"), capture_output=True,
                              cwd=self.dir, env=run_env, timeout=TIMEOUT)
        return HostResult(done.returncode, done.stdout.decode("utf-8", "replace"),
                          done.stderr.decode("utf-8", "replace"))

    def live_host(self, config, args=(), stderr_limit=None):
        """osk-host reading standard input from the test as it goes; see LiveHost."""
        host = LiveHost([OSK_HOST, "--config", str(self.write("config.xml", config)), "--events", "-"]
                        + list(args), self.dir, stderr_limit)
        self.addCleanup(host.reap)
        return host

    def host_process(self, config, env=None):
        """osk-host reading events from a pipe, left running: the caller
        writes to its stdin and ends it (its output goes to host.log)."""
        log = open(self.dir / "host.log", "wb")
        self.addCleanup(log.close)
        process = subprocess.Popen(
            [OSK_HOST, "--config", str(self.write("config.xml", config)), "--events", "-"],
            stdin=subprocess.PIPE, stdout=log, stderr=log, cwd=self.dir, env=_clean_env(env))
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def maildir(self, name="mail"):
        """The messages delivered into the Maildir `name`, parsed."""
        new = self.dir / name / "new"
        return [parse_mail(p.read_bytes()) for p in sorted(new.glob("*"))] if new.exists() else []

    def assertNoMailDefects(self, msg):
        self.assertEqual([], msg.defects, msg.as_string())


class LiveHost:
    """A running osk-host: the test writes its events with send() while a
    thread collects standard error into `seen`. With `stderr_limit`, the
    thread closes standard error after that many bytes, like `| head -c`."""

    def __init__(self, command, cwd, stderr_limit=None):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, cwd=cwd, env=_clean_env(None))
        self.seen = bytearray()
        self.reader = threading.Thread(target=self._read, args=(stderr_limit,), daemon=True)
        self.reader.start()

    def _read(self, limit):
        pipe = self.process.stderr
        for piece in iter(lambda: os.read(pipe.fileno(), 4096), b""):
            self.seen.extend(piece)
            if limit is not None and len(self.seen) >= limit:
                break
        pipe.close()

    def send(self, text):
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def wait_for(self, condition):
        """Waits (up to TIMEOUT) until condition() holds; returns whether it did."""
        deadline = time.monotonic() + TIMEOUT
        while not condition() and time.monotonic() < deadline:
            time.sleep(0.02)
        return condition()

    def finish(self, text=""):
        """Sends the rest of the stream, closes it; osk-host's exit status."""
        if text:
            self.send(text)
        self.process.stdin.close()
        status = self.process.wait(TIMEOUT)
        self.reader.join(TIMEOUT)
        return status

    def stderr(self):
        return bytes(self.seen).decode("utf-8", "replace")

    def reap(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        if not self.process.stdin.closed:
            self.process.stdin.close()


def _clean_env(extra):
    """The test's environment without the locale variables the channel reads,
    so that only what a test sets chooses the charset."""
    env = {k: v for k, v in os.environ.items() if k not in ("TAM_LANG", "LANGUAGE")}
    env.update(extra or {})
    return env


def parse_mail(data):
    return email.message_from_bytes(data, policy=email.policy.default)


RECIPIENTS = ("ops@example.com", "oncall@example.org")
SENDER = "alerts@example.com"
SENDER_NAME = "Überwachung/Ops"
SUBJECT = "[ALERT] Störung gemeldet"


def channel_config(agent_lib, agent_params, groups, defaults_extra="", tokens="",
                   recipients=RECIPIENTS):
    """A configuration with the tests' common sender, subject and
    recipients; `groups` is the text between Tokens and EmailAgent."""
    params = "".join(f'    <Param name="{n}" value="{v}"/>\n' for n, v in agent_params)
    rcpts = "".join(f'      <Recipient value="{r}"/>\n' for r in recipients)
    return f"""<?xml version="1.0" encoding="UTF-8"?>
<Channel>
  <Default>
    <RecipientList>
{rcpts}    </RecipientList>
    <Sender name="{SENDER_NAME}" email="{SENDER}"/>
    <Subject value="{SUBJECT}"/>
{defaults_extra}
  </Default>
  <Tokens>
{tokens}
  </Tokens>
{groups}
  <EmailAgent lib="{agent_lib}">
{params}  </EmailAgent>
</Channel>
"""


def events_xml(*events):
    """An event stream of (id, document) pairs, one event a line."""
    lines = ['<?xml version="1.0" encoding="UTF-8"?>', "<Events>"]
    lines += [f'  <Event id="{i}">{doc}</Event>' for i, doc in events]
    lines.append("</Events>")
    return "\n".join(lines) + "\n"


class SmtpServer:
    """tests/Agents/smtp_server.py on 127.0.0.1: what it accepted, parsed.
    stop() and start() keep the port, so a client sees the same server go
    down and come back; freeze() makes it hang with its connections open."""

    def __init__(self, directory, *args):
        if not SMTP_SERVER or not os.path.exists(SMTP_SERVER):
            raise unittest.SkipTest("SMTP_SERVER does not name the test server script")
        self.record = pathlib.Path(directory) / "smtp-record"
        self.args = list(args)
        self.port = 0
        self.process = None
        self.start()
        self.url = f"smtp://127.0.0.1:{self.port}"

    def start(self):
        self.process = subprocess.Popen(
            ["/usr/bin/python3", SMTP_SERVER, "--record", str(self.record),
             "--port", str(self.port)] + self.args,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ready = _readline_within(self.process.stdout, 30)
        if not ready.startswith(b"READY "):
            self.stop()
            raise AssertionError(f"SMTP test server did not start: {ready!r}")
        self.port = int(ready.split()[1])

    def freeze(self, frozen):
        self.process.send_signal(signal.SIGSTOP if frozen else signal.SIGCONT)

    def messages(self):
        """[(envelope sender, [recipients], parsed message)] in arrival order."""
        out = []
        if self.record.exists():
            for line in self.record.read_text().splitlines():
                parts = line.split(" ")
                if parts[0] == "M":
                    out.append((parts[4], parts[5].split(",") if parts[5] else [],
                                parse_mail(bytes.fromhex(parts[6]))))
        return out

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            pipe.close()


def _readline_within(pipe, seconds):
    line = []
    reader = threading.Thread(target=lambda: line.append(pipe.readline()), daemon=True)
    reader.start()
    reader.join(seconds)
    return line[0] if line else b""
