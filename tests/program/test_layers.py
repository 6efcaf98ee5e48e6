"""scripts/check-layers holds this project to its arrows, and would notice one that points the wrong way."""

import os
import pathlib
import subprocess
import tempfile
import unittest

import own_environment  # noqa: F401 (it is entered by the import)

SOURCE = pathlib.Path(os.environ["ORLINTH_SOURCE"])

HEADERS = ("base/Bytes.h", "platform/Clock.h", "platform/linux/LinuxSystem.h", "OrlinthCore/SecureChannel/Wire.h",
           "OrlinthCore/Peers/Record.h", "OrlinthCore/Sending/ActiveTransfers.h", "OrlinthCore/Sending/Journal.h",
           "OrlinthCore/Receiving/Receiver.h", "OrlinthCore/Share/ShareOutbox.h", "OrlinthShare/SharePickerView.h",
           "OrlinthHost/Home.h", "OrlinthHost/Phones/KnownKeys.h", "OrlinthHost/Reach/Cause.h",
           "OrlinthHost/Outbox/OutboxQueue.h", "orlinth/Reporting/Output.h")


def check(root):
    return subprocess.run([SOURCE / "scripts" / "check-layers", root], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False)


class Layers(unittest.TestCase):
    def verdict(self, path, line):
        """What is said of a tree in which the file `path` holds `line` and everything else is empty."""
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder) / "src"
            for name in (*HEADERS, path):
                (source / name).parent.mkdir(parents=True, exist_ok=True)
                (source / name).touch()
            (source / path).write_text(line + "\n", encoding="utf-8")
            done = check(folder)
        self.assertEqual(done.returncode, 1 if done.stdout else 0, done.stderr)
        return done.stdout

    def test_this_project_keeps_its_arrows(self):
        done = check(SOURCE)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_includes_along_the_arrows_are_fine(self):
        for path, line in (("base/A.cpp", '#include "base/Bytes.h"'),
                           ("base/A.cpp", "#include <vector>"),
                           ("base/SecretMemory.cpp", "#include <sys/mman.h>"),
                           ("platform/A.h", "#include <asio/awaitable.hpp>"),
                           ("platform/linux/A.cpp", "#include <openssl/evp.h>"),
                           ("platform/linux/A.cpp", "#include <sys/socket.h>"),
                           ("OrlinthCore/Sending/A.cpp", '#include "OrlinthCore/SecureChannel/Wire.h"'),
                           ("OrlinthCore/Receiving/A.cpp", '#include "OrlinthCore/Peers/Record.h"'),
                           ("OrlinthCore/Receiving/A.cpp", '#include "OrlinthCore/Sending/ActiveTransfers.h"'),
                           ("orlinth/main.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("orlinth/Reporting/A.cpp", '#include "Output.h"'),
                           ("OrlinthHost/Service/A.cpp", '#include "OrlinthHost/Outbox/OutboxQueue.h"'),
                           ("OrlinthHost/Reach/A.cpp", '#include "OrlinthHost/Phones/KnownKeys.h"'),
                           ("OrlinthHost/Outbox/A.cpp", '#include "OrlinthHost/Reach/Cause.h"'),
                           ("orlinth/Commands/A.cpp", '#include "OrlinthHost/Phones/KnownKeys.h"'),
                           ("orlinth/main.cpp", "#include <unistd.h>"),
                           ("OrlinthShare/A.cpp", "#include <QWidget>"),
                           ("OrlinthShare/A.cpp", '#include "OrlinthCore/Share/ShareOutbox.h"'),
                           ("OrlinthShare/main.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("OrlinthCore/Sending/A.h", "Task<> send(WireConnection& wire, std::string name);"),
                           ("OrlinthCore/Sending/A.h", "std::string name(const std::string& path);")):
            with self.subTest(path=path, line=line):
                self.assertEqual(self.verdict(path, line), "")

    def test_the_downloads_folder_is_used_by_its_descriptor(self):
        for path, line in (("OrlinthCore/Receiving/IncomingFile.cpp", "system_->files.remove(path);"),
                           ("OrlinthCore/Receiving/IncomingFile.h", "platform::FileSystem& files;"),
                           ("OrlinthCore/Receiving/PartialMeta.cpp", "if (files.exists(sidecar)) {"),
                           ("OrlinthCore/Receiving/CollisionResolver.cpp", "return std::filesystem::exists(path);")):
            with self.subTest(path=path, line=line):
                self.assertIn(f"src/{path}:1: ", self.verdict(path, line))
        for path, line in (("OrlinthCore/Receiving/IncomingFile.cpp", "folder_->remove(name); // no files by path"),
                           ("OrlinthCore/Receiving/IncomingFile.cpp", "return system.files.openFolder(path);"),
                           ("OrlinthCore/Receiving/DeliveredTransfers.cpp", "system_.files.open(file_);")):
            with self.subTest(path=path, line=line):
                self.assertEqual(self.verdict(path, line), "")

    def test_includes_against_the_arrows_are_named_with_file_and_line(self):
        for path, line in (("base/A.cpp", '#include "platform/Clock.h"'),
                           ("base/A.cpp", "#include <asio/awaitable.hpp>"),
                           ("base/A.cpp", "#include <sys/mman.h>"),
                           ("base/SecretMemory.cpp", "#include <unistd.h>"),
                           ("platform/A.cpp", '#include "OrlinthCore/Peers/Record.h"'),
                           ("platform/A.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("platform/A.cpp", "#include <openssl/evp.h>"),
                           ("platform/A.cpp", "#include <asio/ip/tcp.hpp>"),
                           ("platform/linux/A.cpp", '#include "OrlinthCore/Peers/Record.h"'),
                           ("OrlinthCore/Sending/A.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("OrlinthCore/Sending/A.cpp", '#include "orlinth/Reporting/Output.h"'),
                           ("OrlinthCore/Sending/A.cpp", "#  include <sys/socket.h>"),
                           ("OrlinthCore/Sending/A.cpp", '#include "OrlinthCore/Receiving/Receiver.h"'),
                           ("OrlinthCore/Receiving/A.cpp", '#include "OrlinthCore/Sending/Journal.h"'),
                           ("OrlinthCore/SecureChannel/A.cpp", '#include "OrlinthCore/Peers/Record.h"'),
                           ("OrlinthCore/Sending/A.cpp", '#include "Nowhere.h"'),
                           ("OrlinthCore/Sending/A.cpp", '#include "OrlinthHost/Home.h"'),
                           ("OrlinthHost/Service/A.cpp", '#include "orlinth/Reporting/Output.h"'),
                           ("OrlinthHost/Service/A.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("OrlinthHost/Service/A.cpp", "#include <unistd.h>"),
                           ("OrlinthHost/Service/A.cpp", "#include <CLI/CLI.hpp>"),
                           ("OrlinthHost/Phones/A.cpp", '#include "OrlinthHost/Outbox/OutboxQueue.h"'),
                           ("OrlinthHost/Phones/A.cpp", '#include "OrlinthHost/Reach/Cause.h"'),
                           ("OrlinthHost/Reach/A.cpp", '#include "OrlinthHost/Outbox/OutboxQueue.h"'),
                           ("OrlinthHost/A.h", '#include "OrlinthHost/Phones/KnownKeys.h"'),
                           ("orlinth/main.cpp", "#include <openssl/evp.h>"),
                           ("orlinth/main.cpp", "#include <QWidget>"),
                           ("orlinth/main.cpp", '#include "OrlinthShare/SharePickerView.h"'),
                           ("platform/linux/A.cpp", "#include <QtGui/QImage>"),
                           ("OrlinthCore/Share/A.cpp", "#include <QString>"),
                           ("OrlinthShare/A.cpp", '#include "platform/linux/LinuxSystem.h"'),
                           ("OrlinthShare/A.cpp", '#include "OrlinthCore/Sending/Journal.h"'),
                           ("OrlinthShare/A.cpp", '#include "orlinth/Reporting/Output.h"'),
                           ("OrlinthShare/A.cpp", "#include <sys/socket.h>"),
                           ("OrlinthCore/Sending/A.cpp", "co_spawn(executor, run(), asio::detached);"),
                           ("OrlinthCore/Sending/A.h", "Task<> send(const std::string& name);"),
                           ("OrlinthCore/Sending/B.h", "Task<std::size_t> send(int n,\n  std::string_view name) override;"),
                           ("Elsewhere/A.cpp", "#include <vector>")):
            with self.subTest(path=path, line=line):
                self.assertTrue(self.verdict(path, line).startswith(f"src/{path}:"))


if __name__ == "__main__":
    unittest.main()
