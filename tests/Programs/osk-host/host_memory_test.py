#!/usr/bin/python3
"""osk-host keeps its memory flat on long generated streams and drops a 100 MB
event in under 256 MiB, by the peak the host reports (its own VmHWM: a child's
rusage would include Python's resident size at the fork)."""

import shutil
import unittest

from host_harness import (EVERY, FAKE_AGENT, HOST_TOKEN, MAILDIR, MAILDIR_AGENT, SANITIZED, HostTest,
                          channel_config, group, memory_config, memory_stream)


def _oversize(megabytes, head, piece, tail):
    """A stream of three events whose middle one is `megabytes` of `piece`."""
    def generate(pipe):
        pipe.write(b'<Events>\n<Event id="1"><alarm><host>before</host></alarm></Event>\n'
                   b'<Event id="1">' + head)
        for _ in range(megabytes * 1000 * 1000 // len(piece)):
            pipe.write(piece)
        pipe.write(tail + b'</Event>\n<Event id="1"><alarm><host>after</host></alarm></Event>\n'
                   b"</Events>\n")
    return generate


class MemoryTest(HostTest):
    def run_generated(self, config, generate):
        """osk-host on a stream that `generate(pipe)` writes as it goes."""
        host = self.live_host(config)
        host.generate(generate)
        host.finish(close=False)
        return host.result()

    def peak_kib(self, count):
        """Runs osk-host over `count` generated events; its peak RSS in KiB."""
        result = self.run_generated(memory_config(FAKE_AGENT), lambda pipe: memory_stream(pipe, count))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual((count, 0, {}), result.summary())
        self.assertIn(f"fake agent: {(count + EVERY - 1) // EVERY} messages", result.stderr)
        return result.peak_kib()

    def test_peak_memory_does_not_grow_with_the_stream(self):
        # Sanitizer builds keep freed memory in quarantine: check the counts
        # on a shorter stream, not the memory.
        short, long_ = (2000, 20000) if SANITIZED else (20000, 200000)
        small = self.peak_kib(short)
        large = self.peak_kib(long_)
        print(f"peak RSS: {small} KiB after {short} events, {large} KiB after {long_}")
        if not SANITIZED:
            self.assertLess(large - small, 1024)

    def test_oversize_event_is_dropped_while_read(self):
        config = channel_config(MAILDIR_AGENT, MAILDIR, group("%host%", 1), tokens=HOST_TOKEN)
        rows = [  # (what, megabytes, the event's start, a piece of it repeated, its end)
            ("empty elements", 100, b"<alarm>", b"<e/>" * 16384, b"</alarm>"),
            ("one text node", 100, b"<alarm><host>", b"x" * 65536, b"</host></alarm>"),
            ("one attribute", 100, b'<alarm a="', b"x" * 65536, b'"><host>h</host></alarm>'),
        ]
        for kind, megabytes, *event in rows:
            with self.subTest(kind):
                shutil.rmtree(self.dir / "mail", True)
                result = self.run_generated(config, _oversize(megabytes, *event))
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertEqual((2, 1, {}), result.summary())
                self.assertRegex(result.stderr, r"osk-host: stdin:3: event skipped: it ")
                self.assertEqual(["after", "before"], self.bodies())
                print(f"peak RSS with {megabytes} MB of {kind}: {result.peak_kib()} KiB")
                if not SANITIZED:
                    self.assertLess(result.peak_kib(), 256 * 1024)


if __name__ == "__main__":
    unittest.main()
