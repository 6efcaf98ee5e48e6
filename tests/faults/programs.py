"""A program that runs with --json, and whoever must hear of its events the moment they are said."""

import json
import os
import subprocess
import tempfile
import threading


class Program:
    """`on_event` is called on a thread of its own, as soon as an event has been read."""

    def __init__(self, arguments, environment, on_event=None):
        self.on_event = on_event
        self.events = []
        self.changed = threading.Condition()
        self.has_ended = threading.Event()
        self.is_closed = False
        self.errors = tempfile.TemporaryFile()
        # SIGXFSZ stays ignored, as Python has it: a file that grows too large is an error then, not a death
        self.process = subprocess.Popen(arguments, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=self.errors, restore_signals=False)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.process.stdout:
            try:
                event = json.loads(line)
            except ValueError:
                event = {"event": "not JSON", "message": line.decode(errors="replace")}
            if self.on_event:
                self.on_event(event)
            with self.changed:
                self.events.append(event)
                self.changed.notify_all()
        self.process.wait()
        with self.changed:
            self.has_ended.set()
            self.changed.notify_all()

    def wait_for(self, name, seconds):
        """The first event of this name, or None."""
        def found():
            return next((event for event in self.events if event["event"] == name), None)
        with self.changed:
            self.changed.wait_for(lambda: self.has_ended.is_set() or found(), seconds)
            return found()

    @property
    def status(self):
        return self.process.returncode if self.has_ended.is_set() else None

    @property
    def stderr(self):
        return os.pread(self.errors.fileno(), 1 << 20, 0).decode(errors="replace")

    def signal(self, number):
        if not self.has_ended.is_set():
            self.process.send_signal(number)

    def close(self, seconds=20):
        """Kills it if it still runs. Its events stay readable."""
        if self.is_closed:
            return
        self.is_closed = True
        if self.process.poll() is None:
            self.process.kill()
        self.thread.join(seconds)
        self.process.stdout.close()
        self.errors.close()
