"""Shared pieces of the osk-host end-to-end tests and benchmark; run with
Debian's /usr/bin/python3 (python3-aiosmtpd for the SMTP server)."""

import collections
import email
import email.policy
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

PROGRAMS = ("OSK_HOST", "OSK_SPOOL", "MAILDIR_AGENT", "SMTP_AGENT", "DIGEST_AGENT", "FAKE_AGENT")
OSK_HOST, OSK_SPOOL, MAILDIR_AGENT, SMTP_AGENT, DIGEST_AGENT, FAKE_AGENT = (
    os.environ.get(name, "") for name in PROGRAMS)
SMTP_SERVER = str(pathlib.Path(__file__).with_name("smtp_server.py"))
EXAMPLES = pathlib.Path(os.environ.get("EXAMPLES_DIR", pathlib.Path(__file__).parents[2] / "examples"))
SANITIZED = os.environ.get("OSK_SANITIZED", "OFF").upper() in ("ON", "1", "TRUE", "YES")

# Every run is bounded; a hung host fails the test instead of the CI job.
TIMEOUT = 120 if SANITIZED else 60

SUMMARY = re.compile(
    r"^osk-host: (\d+) events read(?: \((\d+) skipped\))?, lost alerts: (\d+), reports: (.+?), "
    r"(\d+\.\d{3}) s, (\d+) events/s(?:, peak memory (\d+) KiB)?$", re.M)


class HostResult(collections.namedtuple("HostResult", "returncode stdout stderr")):
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
        return int(SUMMARY.findall(self.stderr)[0][6])

    def reports(self, severity):
        """Texts of the channel's reports at `severity`, as the stderr log target wrote them."""
        return re.findall(r"^EVENT: report_error SEV: %s WHY: (.*)$" % severity, self.stderr, re.M)


def read_metrics(path):
    """A metrics file as Prometheus's own parser reads it: {'name{label="value"}': value},
    a sample without labels by its bare name."""
    from prometheus_client.parser import text_string_to_metric_families
    samples = {}
    for family in text_string_to_metric_families(pathlib.Path(path).read_text(encoding="utf-8")):
        for s in family.samples:
            labels = ",".join(f'{k}="{v}"' for k, v in sorted(s.labels.items()))
            samples[f"{s.name}{{{labels}}}" if labels else s.name] = s.value
    return samples


def metric_sum(samples, name):
    """The sum of a family's samples over its labels."""
    return sum(v for k, v in samples.items() if k.partition("{")[0] == name)


class HostTest(unittest.TestCase):
    """A test with its own scratch directory, removed afterwards."""

    def setUp(self):
        for name in PROGRAMS:
            if not os.path.exists(globals()[name]):
                self.fail(f"{name} must name the built program (got {globals()[name]!r})")
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="osk-host-e2e."))
        self.addCleanup(shutil.rmtree, self.dir, True)

    def write(self, name, text):
        path = self.dir / name
        path.write_bytes(text.encode("utf-8") if isinstance(text, str) else text)
        return path

    def host(self, config, events=None, args=(), env=None):
        """osk-host in the scratch directory on `config` and `events` (texts)."""
        command = [OSK_HOST, "--config", self.write("config.xml", config)]
        if events is not None:
            command += ["--events", self.write("events.xml", events)]
        return run(*command, *args, cwd=self.dir, env=env)

    def live_host(self, config, args=(), env=None, stderr_limit=None):
        """osk-host reading standard input from the test as it goes; see LiveHost."""
        host = LiveHost([OSK_HOST, "--config", str(self.write("config.xml", config)), "--events", "-"]
                        + list(args), self.dir, env, stderr_limit)
        self.addCleanup(host.reap)
        return host

    def maildir(self, name="mail"):
        """The messages delivered into the Maildir `name`, parsed."""
        new = self.dir / name / "new"
        return [parse_mail(p.read_bytes()) for p in sorted(new.glob("*"))] if new.exists() else []

    def bodies(self, name="mail"):
        """The texts of the messages in the Maildir `name`, sorted."""
        return sorted(msg.get_content() for msg in self.maildir(name))


class LiveHost:
    """A running osk-host fed by send() or generate(); a thread collects standard
    error into `seen` (closing it after `stderr_limit` bytes, like `| head -c`)."""

    def __init__(self, command, cwd, env=None, stderr_limit=None):
        self.started = time.monotonic()
        self.summary_after = None
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, cwd=cwd, env=_clean_env(env))
        self.seen = bytearray()
        self.reader = threading.Thread(target=self._read, args=(stderr_limit,), daemon=True)
        self.reader.start()
        self.writer = None

    def _read(self, limit):
        pipe = self.process.stderr
        for piece in iter(lambda: os.read(pipe.fileno(), 65536), b""):
            self.seen.extend(piece)
            if self.summary_after is None and b" events read" in self.seen:
                self.summary_after = time.monotonic() - self.started
            if limit is not None and len(self.seen) >= limit:
                break
        pipe.close()

    def send(self, text):
        self.process.stdin.write(text.encode() if isinstance(text, str) else text)
        self.process.stdin.flush()

    def generate(self, write):
        """Has write(pipe) produce the whole stream from a thread, then close it."""
        pipe, self.process.stdin = self.process.stdin, None

        def run():
            try:
                write(pipe)
            except BrokenPipeError:
                pass  # the host died; the test reports its exit status
            finally:
                pipe.close()
        self.writer = threading.Thread(target=run, daemon=True)
        self.writer.start()

    def wait_for(self, condition):
        """Waits (up to TIMEOUT) until condition() holds; returns whether it did."""
        deadline = time.monotonic() + TIMEOUT
        while not condition() and time.monotonic() < deadline:
            time.sleep(0.02)
        return condition()

    def finish(self, text="", close=True):
        """osk-host's exit status, after the rest of the stream (closed unless `close` is False)."""
        if text:
            self.send(text)
        if close and self.process.stdin:
            self.process.stdin.close()
        status = self.process.wait(TIMEOUT)
        for thread in (self.reader, self.writer):
            if thread:
                thread.join(TIMEOUT)
        return status

    def result(self):
        """The finished run as a HostResult."""
        return HostResult(self.process.returncode, "", self.stderr())

    def stderr(self):
        return bytes(self.seen).decode("utf-8", "replace")

    def reap(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        if self.process.stdin and not self.process.stdin.closed:
            self.process.stdin.close()


def run(*command, cwd=None, env=None):
    """Runs a program to its end (bounded by TIMEOUT) as a HostResult."""
    done = subprocess.run([str(c) for c in command], stdin=subprocess.DEVNULL, capture_output=True,
                          cwd=cwd, env=_clean_env(env), timeout=TIMEOUT)
    return HostResult(done.returncode, done.stdout.decode("utf-8", "replace"),
                      done.stderr.decode("utf-8", "replace"))


def _clean_env(extra):
    """Without the locale variables the channel reads: only a test's own choose the charset."""
    env = {k: v for k, v in os.environ.items() if k not in ("TAM_LANG", "LANGUAGE")}
    env.update(extra or {})
    return env


def parse_mail(data):
    return email.message_from_bytes(data, policy=email.policy.default)


RECIPIENTS = ("ops@example.com", "oncall@example.org")
SENDER = "alerts@example.com"
SENDER_NAME = "Überwachung/Ops"
SUBJECT = "[ALERT] Störung gemeldet"
# Nobody listens on port 1: an SMTP relay that is down.
DEAD_URL = "smtp://127.0.0.1:1"
MAILDIR = [("path", "mail"), ("fsync", "no")]
HOST_TOKEN = '<Token name="host" xpath="/alarm/host"/>'
XSL = 'xmlns:xsl="http://www.w3.org/1999/XSL/Transform"'
# A stylesheet that always fails: a critical report, and the mail goes out
# with what was rendered before it.
FAILING = '<xsl:template match="/"><xsl:message terminate="yes">boom</xsl:message></xsl:template>'


def stylesheet(name, body):
    """A token whose text is what a stylesheet of `body` makes."""
    return f'<Token name="{name}"><xsl:stylesheet version="1.0" {XSL}>{body}</xsl:stylesheet></Token>'


def group(message, *ids, enabled="yes", extra=""):
    """An event group sending `message` for `ids`, `extra` (a subject, headers) between."""
    events = "".join(f'<Event id="{i}" enabled="{enabled}"/>' for i in ids)
    return f'<EventGroup enabled="yes"><Message>{message}</Message>{extra}{events}</EventGroup>\n'


def alarm(host):
    """An event document about `host`."""
    return f"<alarm><host>{host}</host></alarm>"


def channel_config(agent_lib, agent_params, groups, defaults_extra="", tokens="",
                   recipients=RECIPIENTS):
    """A configuration of the tests' sender, subject and recipients; `groups` after Tokens."""
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
    body = "".join(f'  <Event id="{i}">{doc}</Event>\n' for i, doc in events)
    return f'<?xml version="1.0" encoding="UTF-8"?>\n<Events>\n{body}</Events>\n'


class SmtpServer:
    """smtp_server.py on 127.0.0.1, recording into `directory`; stop() and start()
    keep the port; freeze() hangs it with its connections open."""

    def __init__(self, directory, extra=()):
        self.record = directory and pathlib.Path(directory) / "smtp-record"
        self.args = (["--record", str(self.record)] if directory else []) + [str(a) for a in extra]
        self.port = 0
        self.process = None
        self.start()
        self.url = f"smtp://127.0.0.1:{self.port}"

    def start(self):
        self.process = subprocess.Popen(
            ["/usr/bin/python3", SMTP_SERVER, "--port", str(self.port)] + self.args,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ready = select.select([self.process.stdout], [], [], 30)[0] and self.process.stdout.readline()
        if not ready or not ready.startswith(b"READY "):
            self.stop()
            raise AssertionError(f"SMTP test server did not start: {ready!r}")
        self.port = int(ready.split()[1])

    def freeze(self, frozen):
        self.process.send_signal(signal.SIGSTOP if frozen else signal.SIGCONT)

    def records(self):
        """The record's message lines, split into their fields."""
        lines = self.record.read_text().splitlines() if self.record and self.record.exists() else []
        return [parts for parts in (line.split(" ") for line in lines) if parts[0] == "M"]

    def messages(self):
        """[(envelope sender, [recipients], parsed message)] in arrival order."""
        return [(parts[4], parts[5].split(",") if parts[5] else [], parse_mail(bytes.fromhex(parts[6])))
                for parts in self.records()]

    def count(self):
        """How many messages arrived, without parsing them (cheap enough to poll)."""
        return len(self.records())

    def stop(self):
        # Each line of the record is flushed before the reply: nothing is lost.
        self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            pipe.close()


class SmtpSpoolTest(HostTest):
    """A host test with an SMTP test server and a spool directory for the agent."""

    def setUp(self):
        super().setUp()
        self.spool = self.dir / "spool"
        self.server = SmtpServer(self.dir)
        self.addCleanup(self.server.stop)


# The long stream of the memory test and benchmark: one event in EVERY is
# rendered in full (XPath, stylesheet, constant, extra headers).
SHOUT = ('<xsl:output method="text"/><xsl:param name="locale"/><xsl:template match="/">'
         "<xsl:value-of select=\"translate(/alarm/host, 'abcdefghijklmnopqrstuvwxyz', "
         "'ABCDEFGHIJKLMNOPQRSTUVWXYZ')\"/></xsl:template>")
MEMORY_TOKENS = (HOST_TOKEN + '<Token name="n" xpath="/alarm/@n"/><Token name="site" default="dc-1"/>'
                 + stylesheet("shout", SHOUT))
X_HOST = '<ExtraHeaders><Header name="X-Host" xpath="/alarm/host" default="none"/></ExtraHeaders>'
MEMORY_GROUPS = group("Alert %n% on %host% (%shout%) at %site%", 1, extra=X_HOST)
EVERY = 100


def memory_config(agent_lib):
    """The long stream's configuration; the fake agent only counts."""
    return channel_config(agent_lib, [("mode", "count")], MEMORY_GROUPS, tokens=MEMORY_TOKENS)


def memory_stream(pipe, count):
    """Writes `count` events of the long stream to `pipe`."""
    pipe.write(b"<Events>\n")
    batch = []
    for i in range(count):
        event_id = 1 if i % EVERY == 0 else 1000 + i % 5000
        batch.append(f'<Event id="{event_id}"><alarm n="{i}"><host>host-{i}.example.com</host>'
                     f'<detail>value {i}</detail></alarm></Event>\n')
        if len(batch) == 1000:
            pipe.write("".join(batch).encode())
            batch = []
    pipe.write(("".join(batch) + "</Events>\n").encode())
