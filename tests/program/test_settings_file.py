"""What is set while the service runs: settings.json, config.toml and flags beside it, both ways to the service."""

import json
import socket
import stat
import subprocess

import private_bus
import side_by_side
from harness import PATIENCE
from outbox_world import OutboxTest

NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"


class SettingsFile(OutboxTest):
    """`mac` runs the service, without the flags that would fix its settings; `phone` sends to it."""

    def setUp(self):
        super().setUp()
        self.mac.environment.pop("XDG_DATA_HOME")  # the usual folder: only its service has a name on the bus
        self.mac.data = self.mac.root / ".local" / "share"
        self.mac.record(self.phone)
        self.phone.record(self.mac)
        self.downloads = self.mac.root / "Downloads"
        self.file_ = self.mac.data / "Orlinth" / "settings.json"

    def desk(self, *arguments, **options):
        service = self.running(self.mac, "serve", "--port", "0", "--json", *arguments, **options)
        service.port = service.events.wait_for("listening")["port"]
        self.phone.record(self.mac, service.port)
        return service

    def configure(self, text):
        folder = self.mac.config / "orlinth"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "config.toml").write_text(text)

    def bus(self):
        folder = self.folder / "bus"
        folder.mkdir()
        daemon = subprocess.Popen(private_bus.command(folder), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.stdout.close)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        self.address = daemon.stdout.readline().decode().strip()
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address

    def busctl(self, *arguments, status=0):
        result = subprocess.run(["busctl", f"--address={self.address}", "--json=short", *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
        self.assertEqual(status, result.returncode, result.stderr + result.stdout)
        return json.loads(result.stdout)["data"] if status == 0 and result.stdout.strip() else result.stderr

    def get(self, name):
        return self.busctl("get-property", NAME, ROOT, f"{NAME}.Service", name)

    def set(self, name, kind, value, status=0):
        return self.busctl("call", NAME, ROOT, f"{NAME}.Service", "SetSetting", "sv", name, kind, value, status=status)

    def ask(self, **request):
        """The lines that the service answers by its socket."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PATIENCE)
            connection.connect(str(self.mac.data / "Orlinth" / "service.sock"))
            connection.sendall(json.dumps(request).encode() + b"\n")
            with connection.makefile("rb") as answer:
                return [json.loads(line) for line in answer]

    def send(self, name):
        """Whether the service has taken the file."""
        result = self.phone.run("send", "--to", "mac", str(self.file(name, name.encode())))
        self.assertIn(result.returncode, (0, 1), result.stderr)
        return result.returncode == 0

    def test_what_is_set_by_the_bus_holds_at_once_and_after_a_restart(self):
        self.bus()
        service = self.desk()
        self.assertTrue(self.send("a.txt"))
        self.assertEqual(b"a.txt", (self.downloads / "a.txt").read_bytes())
        self.assertFalse(self.file_.exists())
        self.set("accept", "s", "never")
        self.assertFalse(self.send("b.txt"))
        self.set("accept", "s", "")
        self.set("dir", "s", "~/Incoming")
        self.assertTrue(self.send("c.txt"))
        self.set("name", "s", "Ann's laptop")
        self.set("history", "b", "false")
        self.set("max-file", "t", "5")
        self.assertEqual("Ann's laptop", self.get("Name"))
        settings = {name: value["data"] for name, value in self.get("Settings").items()}
        self.assertEqual({"accept": "always", "clipboard": True, "dir": str(self.mac.root / "Incoming"),
                          "history": False, "keep-free": 512 * 1024 * 1024, "max-file": 5, "name": "Ann's laptop",
                          "notifications": True, "to": ""}, settings)
        self.assertEqual([], self.get("FixedSettings"))
        self.assertEqual(0o600, stat.S_IMODE(self.file_.stat().st_mode))
        self.assertEqual({"dir": str(self.mac.root / "Incoming"), "format": 1, "history": False, "max-file": 5,
                          "name": "Ann's laptop"}, json.loads(self.file_.read_text()))
        self.end(service)
        service = self.desk()
        self.assertFalse(self.send("longer.txt"))
        self.assertTrue(self.send("d"))
        self.assertEqual(["c.txt", "d"], sorted(path.name for path in (self.mac.root / "Incoming").iterdir()))
        self.assertEqual("Ann's laptop", json.loads(self.mac.run("id", "--json").stdout)["name"])
        self.end(service)

    def test_what_is_fixed_or_wrong_is_refused_on_the_bus(self):
        self.bus()
        self.configure('[serve]\n\naccept = "ask"\n')
        service = self.desk("--no-clipboard")
        self.assertEqual(["accept", "clipboard"], sorted(self.get("FixedSettings")))
        self.assertIn("'accept' is set by config.toml, line 3", self.set("accept", "s", "always", status=1))
        self.assertIn("'clipboard' is set by `--no-clipboard`", self.set("clipboard", "b", "true", status=1))
        self.assertIn("there is no setting 'port'", self.set("port", "u", "7", status=1))
        self.assertIn("'history' must be true or false", self.set("history", "s", "no", status=1))
        self.assertIn("it is your home folder", self.set("dir", "s", "~", status=1))
        self.assertIn("neither a text nor a flag nor a whole number", self.set("max-file", "d", "1.5", status=1))
        self.assertIn("no phone with the key x is paired", self.set("phones.x.dir", "s", "/tmp", status=1))
        self.assertFalse(self.file_.exists())
        self.end(service)

    def test_the_socket_says_and_sets_the_same(self):
        service = self.desk("--max-file", "1G")
        self.assertEqual([{"found": True}], self.ask(request="set", setting="accept", value="never"))
        self.assertFalse(self.send("a.txt"))
        name = f"phones.{self.phone.key}.accept"
        self.assertEqual([{"found": True}], self.ask(request="set", setting=name, value="always"))
        self.assertTrue(self.send("b.txt"))
        lines = {line["name"]: line for line in self.ask(request="settings") if line["event"] == "setting"}
        self.assertEqual({"event": "setting", "name": "accept", "value": "never"}, lines["accept"])
        self.assertEqual("always", lines[name]["value"])
        self.assertEqual({"event": "setting", "name": "max-file", "value": 1024 ** 3, "fixed_by": "`--max-file`"},
                         lines["max-file"])
        [answer] = self.ask(request="set", setting="max-file", value=0)
        self.assertIn("is set by `--max-file`", answer["error"])
        self.end(service)

    def test_config_toml_gives_a_phone_a_folder_and_an_answer_of_its_own(self):
        self.configure('[serve]\naccept = "never"\n[phones.phone]\ndir = "~/From the phone"\naccept = "always"\n'
                       '[phones.tablet]\naccept = "ask"\n')
        service = self.desk()
        self.assertTrue(self.send("a.txt"))
        self.assertEqual(b"a.txt", (self.mac.root / "From the phone" / "a.txt").read_bytes())
        self.end(service)
        self.assertIn("config.toml, line 7: no paired phone matches 'tablet'; these settings have no effect",
                      service.stderr)
        self.configure('[phones.phone]\ndir = "~"\n')
        result = self.mac.run("serve", "--port", "0")
        self.assertEqual(2, result.returncode)
        self.assertIn("received files cannot go to " + str(self.mac.root), result.stderr)

    def test_a_file_that_makes_no_sense_ends_every_command_and_stays_as_it_is(self):
        self.file_.write_text('{"accept":"sometimes","format":1}')
        for command in (("serve", "--port", "0"), ("send", "--to", "phone", "a.txt"), ("pair", "--timeout", "1")):
            result = self.mac.run(*command)
            self.assertEqual(2, result.returncode, command)
            self.assertEqual([f"orlinth: settings file {self.file_}: 'accept' must be always, never or ask",
                              "Correct the file, or move it away to return to the usual settings."],
                             result.stderr.splitlines())
        self.assertEqual(0, self.mac.run("serve", "--help").returncode)
        self.assertEqual('{"accept":"sometimes","format":1}', self.file_.read_text())

    def test_a_folder_that_is_gone_is_shown_and_can_be_replaced(self):
        self.file_.write_text('{"dir":"/proc/usb","format":1}')
        service = self.desk()
        problem = "cannot write to the folder for received files, /proc/usb: "
        self.assertIn(f"into /proc/usb. Problem: {problem}", self.mac.run("status").stdout)
        self.assertFalse(self.send("a.txt"))
        self.assertEqual([{"found": True}], self.ask(request="set", setting="dir", value=str(self.mac.downloads)))
        self.assertNotIn("Problem", self.mac.run("status").stdout)
        self.assertTrue(self.send("b.txt"))
        self.end(service)
        self.assertIn(f"orlinth: {problem}", service.stderr)
        self.file_.unlink()
        self.assertEqual(1, self.mac.run("serve", "--port", "0", "--dir", "/proc/usb").returncode)

    def test_a_file_of_a_later_version_counts_and_is_never_written(self):
        later = '{"accept":"never","format":2,"new":{}}'
        self.file_.write_text(later)
        service = self.desk()
        self.assertFalse(self.send("a.txt"))
        [answer] = self.ask(request="set", setting="accept", value="always")
        self.assertIn("was written by a later version of Orlinth", answer["error"])
        self.end(service)
        self.assertIn(f"{self.file_} was written by a later version of Orlinth", service.stderr)
        self.assertEqual(later, self.file_.read_text())

    def test_the_default_phone_is_that_of_the_file_unless_config_toml_has_one(self):
        for name in ("first", "second"):
            self.another_phone(name)
        self.file_.write_text(json.dumps({"format": 1, "to": "first"}))
        shared = self.share(self.file("a.txt", b"a"))
        manifest = json.loads((self.outbox / shared / "manifest.json").read_text())
        keys = {phone["peer_hostname"]: phone["peer_pubkey"] for phone in json.loads(self.mac.peer_file.read_text())["peers"]}
        self.assertEqual([keys["first"]], manifest["targetPubkeys"])
        self.configure('[send]\nto = "second"\n')
        shared = self.share(self.file("b.txt", b"b"))
        manifest = json.loads((self.outbox / shared / "manifest.json").read_text())
        self.assertEqual([keys["second"]], manifest["targetPubkeys"])


if __name__ == "__main__":
    side_by_side.main()
