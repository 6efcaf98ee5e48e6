"""Waiting for what other programs do. The kernel says when something has changed; only then is it looked at again."""

import ctypes
import errno
import math
import os
import pathlib
import select
import subprocess
import threading
import time
import weakref

# <sys/inotify.h>
IN_MODIFY, IN_CLOSE_WRITE, IN_MOVED_FROM, IN_MOVED_TO, IN_CREATE, IN_DELETE, IN_DELETE_SELF, IN_MOVE_SELF = (
    0x2, 0x8, 0x40, 0x80, 0x100, 0x200, 0x400, 0x800)
CHANGES = (IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF
           | IN_MOVE_SELF)
LIBC = ctypes.CDLL(None, use_errno=True)


class Flag(threading.Event):
    """An event that a Watch can wait for too."""

    def __init__(self):
        super().__init__()
        self.descriptor = os.eventfd(0, os.EFD_CLOEXEC | os.EFD_NONBLOCK)
        weakref.finalize(self, os.close, self.descriptor)

    def set(self):
        super().set()
        os.eventfd_write(self.descriptor, 1)

    def fileno(self):
        return self.descriptor


class Watch:
    """Hears of changes at its sources, from its construction on. A source is one of these:

    - a path: the file is written or replaced, something comes into the folder or goes. Neither must be there yet;
    - a process (subprocess.Popen): it ends;
    - a program with `process` and `errors`: it ends, or writes to its standard error, which is a file;
    - whatever has a descriptor: it gets ready to be read, once for each time that something comes.
    """

    def __init__(self, *sources):
        self.paths = []
        self.own = []  # descriptors to be closed
        self.epoll = select.epoll()
        try:
            self.inotify = LIBC.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
            if self.inotify < 0:
                raise OSError(ctypes.get_errno(), "inotify_init1")
            self.own.append(self.inotify)
            self._hear(self.inotify)
            for source in sources:
                self._add(source)
            self._follow()
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.epoll.close()
        for descriptor in self.own:
            os.close(descriptor)
        self.own = []

    def wait(self, seconds):
        """Whether there was a change since the last call, or is one within this time."""
        ready = self.epoll.poll(math.ceil(max(seconds, 0) * 1000) / 1000)
        if ready:
            try:
                while os.read(self.inotify, 65536):
                    pass
            except BlockingIOError:
                pass
            self._follow()
        return bool(ready)

    def _add(self, source):
        if isinstance(source, (str, os.PathLike)):
            self.paths.append(pathlib.Path(source))
        elif isinstance(source, subprocess.Popen):
            if source.returncode is None:
                end = os.pidfd_open(source.pid)
                self.own.append(end)
                self._hear(end)
        elif hasattr(source, "process"):
            self._add(source.process)
            self._watch_path(f"/proc/self/fd/{source.errors.fileno()}")
        else:
            self._hear(source)

    def _hear(self, descriptor):
        # edge-triggered: what is ready and stays so is one change
        self.epoll.register(descriptor, select.EPOLLIN | select.EPOLLRDHUP | select.EPOLLET)

    def _follow(self):
        """Watches each path and the folder that it is in, or the nearest one there is, also if they are others now."""
        for path in self.paths:
            self._approach(path)

    def _approach(self, path):
        is_there = self._watch_path(path)
        if path != path.parent:
            if is_there:
                self._watch_path(path.parent)
            else:
                self._approach(path.parent)
                self._watch_path(path)  # it may have come in between, unseen

    def _watch_path(self, path):
        if LIBC.inotify_add_watch(self.inotify, os.fsencode(path), CHANGES) >= 0:
            return True
        error = ctypes.get_errno()
        if error in (errno.ENOENT, errno.ENOTDIR):
            return False
        raise OSError(error, os.strerror(error), str(path))


def comes_true(condition, seconds, *sources):
    """What `condition` returns as soon as that is true, or when the time is up. Only a change at a source can make it
    true: it is looked at at once, and after each change."""
    if not sources:
        raise ValueError("what changes it?")
    end = time.monotonic() + seconds
    with Watch(*sources) as watch:
        while not (found := condition()):
            if not watch.wait(end - time.monotonic()) and time.monotonic() >= end:
                return condition()
        return found


def happens_within(seconds, *sources):
    """Whether something changes at a source in this time."""
    with Watch(*sources) as watch:
        return watch.wait(seconds)


def ends_within(seconds, process):
    """Whether the process (subprocess.Popen) has ended when this time is up, or before."""
    return process.poll() is not None or happens_within(seconds, process)
