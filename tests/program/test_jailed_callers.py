"""A program in a sandbox that may talk to the service gets what it was let in for, sending files, and nothing else."""

import json
import os
import pathlib
import subprocess

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from faces import NAME, ROOT, BusFace
from harness import MIB, PATIENCE
from outbox_world import OutboxTest
from private_bus import BusTestMixin

SERVICE = f"{NAME}.Service"
PROPERTIES = "org.freedesktop.DBus.Properties"
SLOWLY = 4 * MIB


class JailedCallers(BusTestMixin, OutboxTest):
    def setUp(self):
        super().setUp()
        self.on_usual_folder(self.mac)
        self.mac.record(self.phone)
        self.phone.record(self.mac)

    def jail(self, *files):
        """A root folder that shows what is here, besides empty files at these places."""
        root = self.folder / "root"
        root.mkdir()
        mounts = []
        for entry in pathlib.Path("/").iterdir():
            place = root / entry.name
            if entry.is_symlink():
                place.symlink_to(os.readlink(entry))
            elif entry.is_dir():
                place.mkdir()
                mounts.append(entry)
        for file in files:
            (root / file).touch()
        inner = "; ".join(f'mount --rbind "{entry}" "{root}{entry}"' for entry in mounts)
        return ["unshare", "--mount", "sh", "-ec", f'{inner}; exec chroot "{root}" "$@"', "sh"]

    def call(self, jail, path, interface, method, *arguments):
        """The error's text; "" if there is none."""
        result = subprocess.run([*jail, "busctl", f"--address={self.address}", "--json=short", "call", NAME, path,
                                 interface, method, *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
        self.answer = result.stdout
        self.assertEqual(result.returncode != 0, bool(result.stderr), result.stderr)
        return result.stderr.strip()

    def calls_that_need_trust(self, phone):
        yield phone, f"{NAME}.Phone", "Rename", "s", "Mine"
        yield phone, f"{NAME}.Phone", "Wake"
        yield ROOT, SERVICE, "GetLastText"
        yield ROOT, SERVICE, "GetHistory", "tu", "0", "10"
        yield ROOT, SERVICE, "ClearHistory"
        yield phone, f"{NAME}.Phone", "Remove"

    def test_a_sandboxed_program_sends_files_and_steers_that_and_does_nothing_else(self):
        receiving = self.serve(self.phone)
        gate = self.gate(receiving.port, bytes_per_second=SLOWLY)
        self.mac.record(self.phone, gate.port)
        service = self.serve(self.mac)
        face = BusFace(self)
        watcher = face.watch()
        jail = self.jail(".flatpak-info")
        phone = face.phone_path(self.phone.key)
        before = self.mac.peer_file.read_bytes()
        for call in self.calls_that_need_trust(phone):
            self.assertEqual("Call failed: programs in a sandbox may not do this", self.call(jail, *call), call)
        self.assertEqual(before, self.mac.peer_file.read_bytes())
        self.assertEqual("", self.call(jail, ROOT, PROPERTIES, "GetAll", "s", SERVICE))
        self.assertIn("listening", self.answer)
        self.assertEqual("", self.call(jail, ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"))
        self.assertIn(phone, self.answer)
        uri = "file://" + str(self.file("film.bin", bytes(64 * MIB)))
        self.assertEqual("", self.call(jail, ROOT, SERVICE, "SendFiles", "asaoa{sv}", "1", uri, "1", phone, "0"))
        [batch] = json.loads(self.answer)["data"]
        transfer = watcher.wait("transfer", batch=batch, state="active")["id"]
        self.assertEqual("", self.call(jail, face.batch_path(batch, self.phone.key), f"{NAME}.Batch", "RetryNow"))
        self.assertEqual("", self.call(jail, f"{ROOT}/transfers/{transfer}", f"{NAME}.Transfer", "Cancel"))
        watcher.wait("transfer", id=transfer, state="cancelled")
        self.end(service)
        self.end(receiving)

    def test_a_program_in_another_root_folder_is_no_sandbox_by_that(self):
        service = self.serve(self.mac)
        face = BusFace(self)
        jail = self.jail("flatpak-info")
        self.assertEqual("", self.call(jail, ROOT, SERVICE, "GetHistory", "tu", "0", "10"))
        self.assertEqual("", self.call(jail, face.phone_path(self.phone.key), f"{NAME}.Phone", "Rename", "s", "Mine"))
        self.end(service)

    def test_what_is_no_method_is_nobodys(self):
        service = self.serve(self.mac)
        self.assertIn("Unknown method", self.call([], ROOT, SERVICE, "Format"))
        self.end(service)


if __name__ == "__main__":
    side_by_side.main()
