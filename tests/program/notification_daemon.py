"""A desktop of a session, as far as notifications go: it writes down what it is asked to show, and is clicked by a test.

It is the notification daemon, the file manager, Orlinth's application and, if it is to be, KDE's server of job views at
the same time.
"""

import threading

from bus_program import BusProgram

NAME = "org.freedesktop.Notifications"
OBJECT = "/org/freedesktop/Notifications"
FILE_MANAGER = "org.freedesktop.FileManager1"
APPLICATION = "com.tarvinex.orlinth"
JOBS = "org.kde.JobViewServer"
JOB_VIEW = "org.kde.JobViewV3"
PATIENCE = 90


class Shown(dict):
    """One call of Notify: id, title, body, actions (key to label), hints, replaces."""


class NotificationDaemon(BusProgram):
    def __init__(self, address, server="a daemon", owns=(NAME, FILE_MANAGER, APPLICATION)):
        self.all = []        # every Notify, in its order
        self.screen = {}     # by id, what is there now
        self.opened = []     # what the file manager and the application were asked for
        self.jobs = {}       # by path, what was said of each job, in its order
        self.last = 0
        self.server = server
        self.heard = threading.Condition()
        super().__init__(address)
        for name in owns:
            self.own(name)

    def called(self, message):
        if message.member == "GetCapabilities":
            return "as", [["actions", "body", "body-markup", "persistence"]]
        if message.member == "GetServerInformation":
            return "ssss", (self.server, "a vendor", "1", "1.2")
        if message.member == "Notify":
            return "u", (self.notify(*message.arguments),)
        if message.member == "CloseNotification":
            self.close_notification(message.arguments[0], 3)
            return "", ()
        if message.member in ("ShowItems", "Activate"):
            with self.heard:
                self.opened.append((message.member, *message.arguments))
                self.heard.notify_all()
            return "", ()
        if message.member in ("requestView", "update", "terminate"):
            return self.job(message)
        return None

    def job(self, message):
        with self.heard:
            is_new = message.member == "requestView"
            path = f"/JobViewServer/JobView_{len(self.jobs) + 1}" if is_new else message.path
            self.jobs.setdefault(path, []).append((message.member, *message.arguments))
            self.heard.notify_all()
        return ("o", (path,)) if is_new else ("", ())

    def cancel_job(self, path):
        self.signal(path, JOB_VIEW, "cancelRequested")

    def wait_for_job(self, member):
        """What was said of the first job, once this was."""
        def said():
            return [said for said in self.jobs.values() if any(word[0] == member for word in said)]
        self.wait_until(said, f"{member} of a job")
        return said()[0]

    def notify(self, application, replaces, icon, title, body, actions, hints, milliseconds):
        with self.heard:
            if replaces not in self.screen:
                self.last += 1
            number = replaces if replaces in self.screen else self.last
            shown = Shown(id=number, application=application, icon=icon, replaces=replaces, title=title, body=body,
                          actions=dict(zip(actions[::2], actions[1::2])), hints=hints, milliseconds=milliseconds)
            self.all.append(shown)
            self.screen[number] = shown
            self.heard.notify_all()
            return number

    def close_notification(self, number, reason):
        with self.heard:
            is_there = self.screen.pop(number, None) is not None
            self.heard.notify_all()
        if is_there:
            self.signal(OBJECT, NAME, "NotificationClosed", "uu", (number, reason))

    def press(self, shown, key, token=None):
        """Somebody presses a button; with "default", the notification itself. One that is not resident closes."""
        if token:
            self.signal(OBJECT, NAME, "ActivationToken", "us", (shown["id"], token))
        self.signal(OBJECT, NAME, "ActionInvoked", "us", (shown["id"], key))
        if not shown["hints"].get("resident"):
            self.close_notification(shown["id"], 2)

    def wait_until(self, condition, what):
        with self.heard:
            if not self.heard.wait_for(condition, PATIENCE):
                raise AssertionError(f"no {what}, only {self.all} {self.opened}, on the screen {self.screen}")

    def wait_for(self, beginning):
        """What is on the screen whose title begins like this, once there is one."""
        found = []
        def look():
            found[:] = [shown for shown in self.screen.values() if shown["title"].startswith(beginning)]
            return found
        self.wait_until(look, f"notification {beginning!r}")
        return found[0]

    def wait_opened(self, count=1):
        self.wait_until(lambda: len(self.opened) >= count, "opened window")
        return self.opened[:count]
