"""A desktop of a session, as far as notifications go: it writes down what it is asked to show, and is clicked by a test.

It is the notification daemon, the file manager and Orlinth's application at the same time.
"""

import threading

from bus_program import BusProgram

NAME = "org.freedesktop.Notifications"
OBJECT = "/org/freedesktop/Notifications"
FILE_MANAGER = "org.freedesktop.FileManager1"
APPLICATION = "com.tarvinex.orlinth"
PATIENCE = 90


class Shown(dict):
    """One call of Notify: id, title, body, actions (key to label), hints, replaces."""


class NotificationDaemon(BusProgram):
    def __init__(self, address, server="a daemon", owns=(NAME, FILE_MANAGER, APPLICATION)):
        self.all = []        # every Notify, in its order
        self.screen = {}     # by id, what is there now
        self.opened = []     # what the file manager and the application were asked for
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
        return None

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
