"""What `cmake --install` gives desktops and file managers: the files, where they look, and what they would run."""

import os
import pathlib
import re
import shlex
import stat
import subprocess
import sys
import tempfile
import types
import unittest
import xml.etree.ElementTree

import own_environment  # noqa: F401 (it is entered by the import)

BUILD = pathlib.Path(os.environ["ORLINTH_BUILD"])
SHARE = os.environ["ORLINTH_SHARE"]
ID = "com.tarvinex.orlinth"

# Where it is read, and by whom.
FILES = {
    "applications/com.tarvinex.orlinth.share.desktop": "every desktop",
    "metainfo/com.tarvinex.orlinth.metainfo.xml": "software centres",
    "icons/hicolor/scalable/apps/com.tarvinex.orlinth.svg": "every desktop",
    "icons/hicolor/symbolic/apps/com.tarvinex.orlinth-symbolic.svg": "every desktop",
    "kio/servicemenus/com.tarvinex.orlinth.share.desktop": "Dolphin",
    "nautilus-python/extensions/orlinth-share.py": "GNOME Files",
    "caja-python/extensions/orlinth-share.py": "Caja",
    "nemo/actions/com.tarvinex.orlinth.share.nemo_action": "Nemo",
    "Thunar/sendto/com.tarvinex.orlinth.share.desktop": "Thunar",
    "orlinth/file-manager-script": "people who link it",
}
EXECUTABLE = {"kio/servicemenus/com.tarvinex.orlinth.share.desktop", "orlinth/file-manager-script"}

# Names that a shell, a pattern or a careless quotation would trip over.
AWKWARD = ["a b.txt", "it's \"quoted\".txt", "$HOME `id` ;&|.txt", "100%.txt", "*?[x].txt", "-rf", "Grüße 😀.txt",
           "two\nlines.txt", "back\\slash.txt"]


def run(*arguments, **options):
    return subprocess.run([str(argument) for argument in arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False, **options)


def groups(path):
    """A key file as {group: {key: value}}."""
    found, current = {}, None
    for line in path.read_text(encoding="utf-8").splitlines():
        if line.startswith("[") and line.endswith("]"):
            current = found.setdefault(line[1:-1], {})
        elif line and not line.startswith("#"):
            key, _, value = line.partition("=")
            current[key] = value
    return found


class DesktopFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="orlinth-desktop-files-")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.prefix = pathlib.Path(cls.folder.name) / "prefix"
        done = run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        if done.returncode != 0:
            raise AssertionError(done.stdout + done.stderr)
        cls.share = cls.prefix / "share"
        # a stand-in for the program, which writes down what it was given
        cls.tools = pathlib.Path(cls.folder.name) / "tools"
        cls.tools.mkdir()
        cls.given = pathlib.Path(cls.folder.name) / "given"
        stand_in = cls.tools / "orlinth-share"
        stand_in.write_text(f"#!/bin/sh\nprintf '%s\\0' \"$@\" > {shlex.quote(str(cls.given))}\n")
        stand_in.chmod(0o755)

    def environment(self, **more):
        return {**os.environ, "PATH": f"{self.tools}:{os.environ['PATH']}", **more}

    def arguments(self):
        text = self.given.read_text(encoding="utf-8")
        self.given.unlink()
        return text.split("\0")[:-1]

    def test_every_file_lies_where_its_reader_looks(self):
        for name, reader in FILES.items():
            with self.subTest(name=name, reader=reader):
                path = self.share / name
                self.assertTrue(path.is_file())
                self.assertEqual(bool(path.stat().st_mode & stat.S_IXUSR), name in EXECUTABLE)
        tops = {name.split("/")[0] for name in FILES}
        installed = {str(path.relative_to(self.share)) for path in self.share.rglob("*") if path.is_file()}
        self.assertEqual({name for name in installed if name.split("/")[0] in tops}, set(FILES))

    def test_the_program_is_installed_under_the_name_that_the_files_use(self):
        self.assertTrue(os.access(self.prefix / "bin" / "orlinth-share", os.X_OK))
        for path in self.share.rglob("*.desktop"):
            for group in groups(path).values():
                if "Exec" in group:
                    self.assertEqual(shlex.split(group["Exec"])[:2], ["orlinth-share", "--"], path)

    def test_the_entries_are_valid(self):
        # a service menu of KDE's is of a type that the standard's validator does not know
        for name in ("applications/com.tarvinex.orlinth.share.desktop",
                     "Thunar/sendto/com.tarvinex.orlinth.share.desktop"):
            with self.subTest(name=name):
                done = run("desktop-file-validate", self.share / name)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_the_metainfo_is_valid_and_names_what_is_there(self):
        path = self.share / "metainfo" / f"{ID}.metainfo.xml"
        done = run("appstreamcli", "validate", "--no-net", "--no-color", path)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        root = xml.etree.ElementTree.parse(path).getroot()
        self.assertEqual(root.findtext("id"), ID)
        self.assertTrue((self.share / "applications" / root.findtext("launchable")).is_file())
        self.assertTrue((self.share / "icons/hicolor/scalable/apps" / (root.findtext("icon") + ".svg")).is_file())
        for binary in root.iter("binary"):
            self.assertTrue((self.prefix / "bin" / binary.text).is_file())

    def test_the_entry_opens_any_file_and_several_at_once(self):
        entry = groups(self.share / f"applications/{ID}.share.desktop")["Desktop Entry"]
        # as files, not URIs: of what lies on a server, the desktop then gives the place where it is mounted
        self.assertTrue(entry["Exec"].endswith(" %F"))
        self.assertEqual(entry["MimeType"], "application/octet-stream;")
        self.assertEqual(entry["NoDisplay"], "true")

    def test_every_icon_that_is_named_is_there(self):
        named = set()
        for name in FILES:
            if name.endswith((".desktop", ".nemo_action")):
                for group in groups(self.share / name).values():
                    named |= {group[key] for key in ("Icon", "Icon-Name") if key in group}
        self.assertEqual(named, {ID})
        for size in ("scalable/apps/" + ID, "symbolic/apps/" + ID + "-symbolic"):
            root = xml.etree.ElementTree.parse(self.share / f"icons/hicolor/{size}.svg").getroot()
            self.assertTrue(root.tag.endswith("}svg"))
            self.assertEqual(root.get("viewBox"), f"0 0 {root.get('width')} {root.get('height')}")

    def test_the_symbolic_icon_has_only_filled_shapes(self):
        # desktops colour the filling, and a line would stay as it is
        text = (self.share / f"icons/hicolor/symbolic/apps/{ID}-symbolic.svg").read_text()
        self.assertNotIn("stroke", text)

    def test_dolphins_menu_is_one_and_points_to_its_action(self):
        menu = groups(self.share / f"kio/servicemenus/{ID}.share.desktop")
        entry = menu["Desktop Entry"]
        self.assertEqual((entry["Type"], entry["X-KDE-ServiceTypes"], entry["MimeType"]),
                         ("Service", "KonqPopupMenu/Plugin", "application/octet-stream;"))
        for action in filter(None, entry["Actions"].split(";")):
            self.assertEqual(menu[f"Desktop Action {action}"]["Exec"], "orlinth-share -- %U")

    def test_nemos_action_survives_awkward_names(self):
        action = groups(self.share / f"nemo/actions/{ID}.share.nemo_action")["Nemo Action"]
        self.assertEqual(action["Quote"], "double")
        self.assertEqual(action["Extensions"], "nodirs;")
        uris = [uri_like_glib("/home/ann/" + name) for name in AWKWARD]
        # Nemo puts each into double quotes, and GLib splits the line as a shell would, without expanding anything
        line = action["Exec"].replace("%U", " ".join(f'"{uri}"' for uri in uris))
        self.assertEqual(shlex.split(line), ["orlinth-share", "--", *uris])

    def test_the_script_passes_on_what_is_selected(self):
        script = self.share / "orlinth" / "file-manager-script"
        uris = [uri_like_glib("/home/ann/" + name) for name in AWKWARD]
        for manager in ("NAUTILUS", "CAJA", "NEMO"):
            with self.subTest(manager=manager):
                done = run(script, "ignored", cwd=self.folder.name, env=self.environment(
                    **{manager + "_SCRIPT_SELECTED_URIS": "\n".join(uris) + "\n"}))
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
                self.assertEqual(self.arguments(), ["--", *uris])
        done = run(script, *AWKWARD, env=self.environment())
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.arguments(), ["--", *AWKWARD])

    def extension(self, manager, name):
        """An extension's class, loaded with stand-ins for the file manager's own modules."""
        spawned = []
        repository = types.ModuleType("gi.repository")
        repository.GObject = types.SimpleNamespace(GObject=type("GObject", (), {}))
        repository.GLib = types.SimpleNamespace(
            SpawnFlags=types.SimpleNamespace(SEARCH_PATH="search the path"),
            spawn_async=lambda arguments, flags: spawned.append((arguments, flags)))

        class Item:
            def __init__(self, **properties):
                self.properties = properties

            def connect(self, signal, function, *data):
                assert signal == "activate"
                self.activate = lambda: function(self, *data)

        setattr(repository, manager, types.SimpleNamespace(MenuProvider=type("MenuProvider", (), {}), MenuItem=Item))
        gi = types.ModuleType("gi")
        gi.repository = repository
        saved = {key: sys.modules.get(key) for key in ("gi", "gi.repository")}
        sys.modules.update({"gi": gi, "gi.repository": repository})
        try:
            scope = {}
            text = (self.share / name).read_text(encoding="utf-8")
            exec(compile(text, name, "exec"), scope)  # as the file manager does
        finally:
            for key, module in saved.items():
                if module is None:
                    del sys.modules[key]
                else:
                    sys.modules[key] = module
        return scope["OrlinthShare"](), spawned

    def test_the_extensions_offer_to_send_files_and_nothing_else(self):
        class File:
            def __init__(self, uri, directory=False):
                self.uri, self.directory = uri, directory

            def get_uri(self):
                return self.uri

            def get_uri_scheme(self):
                return self.uri.partition(":")[0]

            def is_directory(self):
                return self.directory

        for manager, name, windows in (("Nautilus", "nautilus-python/extensions/orlinth-share.py", ((), (None,))),
                                       ("Caja", "caja-python/extensions/orlinth-share.py", ((None,),))):
            for window in windows:
                with self.subTest(manager=manager, window=window):
                    provider, spawned = self.extension(manager, name)
                    files = [File("file:///a%20b"), File("file:///c")]
                    item, = provider.get_file_items(*window, files)
                    self.assertEqual(item.properties["label"], "Send to Phone")
                    self.assertEqual(item.properties["icon"], ID)
                    item.activate()
                    self.assertEqual(spawned, [(["orlinth-share", "--", "file:///a%20b", "file:///c"],
                                                "search the path")])
                    for others in ([], [File("file:///d", directory=True)], [files[0], File("sftp://host/e")]):
                        self.assertEqual(provider.get_file_items(*window, others), [])


def uri_like_glib(path):
    """A URI as file managers write it: what RFC 3986 lets stand in a path stays."""
    kept = re.compile(rb"[A-Za-z0-9\-._~!$&'()*+,;=:@/]")
    return "file://" + "".join(chr(byte) if kept.fullmatch(bytes([byte])) else f"%{byte:02X}"
                               for byte in path.encode())


if __name__ == "__main__":
    unittest.main()
