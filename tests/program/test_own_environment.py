"""The tests see the same environment on every machine."""

import json
import os
import pathlib
import subprocess
import sys
import unittest

import own_environment

TESTS = pathlib.Path(__file__).resolve().parent.parent

# Some of what the sessions of desktops, service managers and people set.
FOREIGN = {
    "DISPLAY": ":77", "WAYLAND_DISPLAY": "wayland-7", "XDG_RUNTIME_DIR": "/run/user/77", "XDG_CONFIG_HOME": "/theirs",
    "XDG_DATA_HOME": "/theirs", "XDG_CURRENT_DESKTOP": "KDE", "XDG_DOWNLOAD_DIR": "/theirs", "QT_SCALE_FACTOR": "2",
    "DBUS_SESSION_BUS_ADDRESS": "unix:path=/run/user/77/bus", "HOME": "/theirs", "LANG": "de_DE.UTF-8", "LC_ALL": "C",
    "LANGUAGE": "de", "TZ": "Asia/Kolkata", "NO_COLOR": "1", "COLUMNS": "20", "https_proxy": "http://127.0.0.1:9",
    "SSL_CERT_FILE": "/theirs", "INVOCATION_ID": "77", "NOTIFY_SOCKET": "/theirs", "LISTEN_FDS": "1",
    "ORLINTH_FCM_BASE_URL": "https://theirs.example", "TMPDIR": "/a/folder/in/whose/paths/sockets/have/no/room",
}

# Loads a test file as its program would, but for running it, and tells what has become of the environment.
LOAD = """\
import importlib.util, json, os, sys
sys.path.insert(0, os.path.dirname(sys.argv[1]))
spec = importlib.util.spec_from_file_location("a_test", sys.argv[1])
spec.loader.exec_module(importlib.util.module_from_spec(spec))
umask = os.umask(0)
print(json.dumps({"environment": dict(os.environ), "umask": umask}))
"""


class OwnEnvironment(unittest.TestCase):
    def test_is_entered_by_every_test_program(self):
        needed = {"ORLINTH_SHARE": "none", "ORLINTH_CXX": "none", "ORLINTH_BUILD": "none", "ORLINTH_SOURCE": "none"}
        kept = {name: value for name, value in {**needed, **os.environ}.items()
                if name in own_environment.KEPT and name not in FOREIGN}
        programs = sorted([*TESTS.glob("program/test_*.py"), *TESTS.glob("interop/test_*.py")])
        self.assertIn(pathlib.Path(__file__).resolve(), programs)
        for program in programs:
            with self.subTest(program.name):
                done = subprocess.run([sys.executable, "-B", "-s", "-c", LOAD, program], env={**kept, **FOREIGN},
                                      umask=0o077, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertEqual(json.loads(done.stdout), {"environment": {**kept, **own_environment.SET},
                                                           "umask": own_environment.UMASK})


if __name__ == "__main__":
    unittest.main()
