"""Adds "Send to Phone" to the menu of files in Caja. Needs python3-caja."""

from gi.repository import Caja, GLib, GObject


class OrlinthShare(GObject.GObject, Caja.MenuProvider):
    # Caja calls every extension's __init__, and wants one to be there.
    def __init__(self):
        super().__init__()

    def get_file_items(self, _window, files):
        if not files or any(file.is_directory() or file.get_uri_scheme() != "file" for file in files):
            return []
        item = Caja.MenuItem(
            name="Orlinth::SendToPhone",
            label="Send to Phone",
            tip="Send the selected files to your paired phones",
            icon="com.tarvinex.orlinth",
        )
        item.connect("activate", self.send, [file.get_uri() for file in files])
        return [item]

    @staticmethod
    def send(_item, uris):
        GLib.spawn_async(["orlinth-share", "--", *uris], flags=GLib.SpawnFlags.SEARCH_PATH)
