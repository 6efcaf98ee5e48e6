"""A D-Bus bus of a test's own. Its configuration is its own as well: it starts no service that is installed on this
machine, nor lists one."""

import pathlib
import subprocess
import xml.sax.saxutils

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>{kind}</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>{services}
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow send_requested_reply="true"/>
    <allow receive_requested_reply="true"/>
  </policy>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""


def command(folder, kind="session", services=None):
    """The command line of a bus at the socket `bus` in this folder; it says its address once it can be reached. It
    starts the services that are described in the folder `services`."""
    folder = pathlib.Path(folder)
    described = f"\n  <servicedir>{xml.sax.saxutils.escape(str(services))}</servicedir>" if services else ""
    (folder / "bus.conf").write_text(CONFIGURATION.format(kind=kind, services=described,
                                                          socket=xml.sax.saxutils.escape(str(folder / "bus"))))
    return ["dbus-daemon", f"--config-file={folder}/bus.conf", "--nofork", "--nopidfile", "--nosyslog",
            "--print-address=1"]


class BusTestMixin:
    """For a test with a bus of its own at `address`."""

    def setUp(self):
        super().setUp()
        folder = self.folder / "bus"
        folder.mkdir()
        daemon = subprocess.Popen(command(folder), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.stdout.close)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        self.address = daemon.stdout.readline().decode().strip()

    def on_usual_folder(self, identity):
        """Only the service of the usual folder has a name on the bus."""
        identity.environment.pop("XDG_DATA_HOME")
        identity.data = identity.root / ".local" / "share"
        identity.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address
