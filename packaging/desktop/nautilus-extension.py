"""Adds "Send to Phone" to the menu of files in GNOME Files. Needs python3-nautilus."""

from gi.repository import GLib, GObject, Nautilus


class OrlinthShare(GObject.GObject, Nautilus.MenuProvider):
    # Files up to version 42 passes its window before the files.
    def get_file_items(self, *arguments):
        files = arguments[-1]
        if not files or any(file.is_directory() or file.get_uri_scheme() != "file" for file in files):
            return []
        item = Nautilus.MenuItem(
            name="Orlinth::SendToPhone",
            label="Send to Phone",
            tip="Send the selected files to your paired phones",
            icon="com.tarvinex.orlinth",
        )
        item.connect("activate", self.send, [file.get_uri() for file in files])
        return [item]

    def get_background_items(self, *_arguments):
        return []

    @staticmethod
    def send(_item, uris):
        GLib.spawn_async(["orlinth-share", "--", *uris], flags=GLib.SpawnFlags.SEARCH_PATH)
