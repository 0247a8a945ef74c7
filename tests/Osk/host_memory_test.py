#!/usr/bin/python3
"""osk-host keeps its memory flat on long streams and large events: the peak
resident size after 200,000 events is within 1 MiB of that after 20,000, and
an event of 100 MB is dropped in under 256 MiB, as the host reports it (its
own VmHWM: the rusage of a child started from Python would include Python's
resident size at the fork). The streams are generated on the fly into a pipe;
in the long one, one event in a hundred is rendered in full (XPath,
stylesheet, constant, extra headers) and handed to an agent that only counts,
so the channel's own path is measured along with the reader."""

import os
import shutil
import subprocess
import threading
import unittest

from host_harness import (COUNTING_AGENT, MAILDIR_AGENT, OSK_HOST, SANITIZED, TIMEOUT, HostResult,
                          HostTest, channel_config)

TOKENS = """
    <Token name="host" xpath="/alarm/host"/>
    <Token name="n" xpath="/alarm/@n"/>
    <Token name="site" default="dc-1"/>
    <Token name="shout">
      <xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:output method="text"/>
        <xsl:param name="locale"/>
        <xsl:template match="/"><xsl:value-of select="translate(/alarm/host, 'abcdefghijklmnopqrstuvwxyz', 'ABCDEFGHIJKLMNOPQRSTUVWXYZ')"/></xsl:template>
      </xsl:stylesheet>
    </Token>"""

GROUPS = """
  <EventGroup enabled="yes">
    <Message>Alert %n% on %host% (%shout%) at %site%</Message>
    <ExtraHeaders><Header name="X-Host" xpath="/alarm/host" default="none"/></ExtraHeaders>
    <Event id="1" enabled="yes"/>
  </EventGroup>"""

EVERY = 100  # one event in EVERY is for the group above


def _generate(pipe, count):
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


def _oversize(kind):
    """A stream of three events whose middle one is 100 MB of `kind`."""
    head, piece, tail = {
        "empty elements": (b"<alarm>", b"<e/>" * 16384, b"</alarm>"),
        "one text node": (b"<alarm><host>", b"x" * 65536, b"</host></alarm>"),
        "one attribute": (b'<alarm a="', b"x" * 65536, b'"><host>h</host></alarm>'),
    }[kind]

    def generate(pipe):
        pipe.write(b'<Events>\n<Event id="1"><alarm><host>before</host></alarm></Event>\n'
                   b'<Event id="1">' + head)
        for _ in range(100 * 1000 * 1000 // len(piece)):
            pipe.write(piece)
        pipe.write(tail + b'</Event>\n<Event id="1"><alarm><host>after</host></alarm></Event>\n'
                   b"</Events>\n")
    return generate


class MemoryTest(HostTest):
    def run_generated(self, config, generate, args=()):
        """Runs osk-host on a stream that `generate(pipe)` writes as it goes."""
        config = self.write("config.xml", config)
        host = subprocess.Popen([OSK_HOST, "--config", str(config), "--events", "-"] + list(args),
                                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE, cwd=self.dir)
        # The writer owns the host's input; communicate() only collects stderr.
        pipe, host.stdin = host.stdin, None

        def write():
            try:
                generate(pipe)
            except BrokenPipeError:
                pass  # the host died; the test reports its exit status
            finally:
                pipe.close()
        writer = threading.Thread(target=write, daemon=True)
        writer.start()
        try:
            _, stderr = host.communicate(timeout=TIMEOUT)
        finally:
            if host.poll() is None:
                host.kill()
                host.wait()
        writer.join(TIMEOUT)
        return HostResult(host.returncode, "", stderr.decode())

    def peak_kib(self, count):
        """Runs osk-host over `count` generated events; its peak RSS in KiB."""
        result = self.run_generated(channel_config(COUNTING_AGENT, [], GROUPS, tokens=TOKENS),
                                    lambda pipe: _generate(pipe, count))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual((count, 0, {}), result.summary())
        self.assertIn(f"counting agent: {(count + EVERY - 1) // EVERY} messages", result.stderr)
        return result.peak_kib()

    def test_peak_memory_does_not_grow_with_the_stream(self):
        if not COUNTING_AGENT or not os.path.exists(COUNTING_AGENT):
            self.fail(f"COUNTING_AGENT must name the built agent (got {COUNTING_AGENT!r})")
        # Sanitizer builds keep freed memory in quarantine: check the counts
        # on a shorter stream, not the memory.
        short, long_ = (2000, 20000) if SANITIZED else (20000, 200000)
        small = self.peak_kib(short)
        large = self.peak_kib(long_)
        print(f"peak RSS: {small} KiB after {short} events, {large} KiB after {long_}")
        if not SANITIZED:
            self.assertLess(large - small, 1024)

    def test_oversize_event_is_dropped_while_read(self):
        # Today's alternative is a tree of the whole event: gigabytes.
        config = channel_config(MAILDIR_AGENT, [("path", "mail"), ("fsync", "no")],
                                GROUPS.replace("Alert %n% on %host% (%shout%) at %site%", "%host%"),
                                tokens=TOKENS)
        for kind in ("empty elements", "one text node", "one attribute"):
            with self.subTest(kind):
                shutil.rmtree(self.dir / "mail", True)
                result = self.run_generated(config, _oversize(kind))
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertEqual((2, 1, {}), result.summary())
                self.assertRegex(result.stderr, r"osk-host: stdin:3: event skipped: it ")
                self.assertEqual(["after", "before"], sorted(m.get_content() for m in self.maildir()))
                print(f"peak RSS with 100 MB of {kind}: {result.peak_kib()} KiB")
                if not SANITIZED:
                    self.assertLess(result.peak_kib(), 256 * 1024)


if __name__ == "__main__":
    unittest.main()
