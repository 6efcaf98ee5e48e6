"""What `cmake --install` puts in place serves a host application outside the tree, and is hardened."""

import configparser
import json
import os
import pathlib
import platform
import re
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

import own_environment  # noqa: F401 (it is entered by the import)

BUILD = pathlib.Path(os.environ["ORLINTH_BUILD"])
COMPILER = os.environ["ORLINTH_CXX"]
SANITIZE = os.environ.get("ORLINTH_SANITIZE", "")
READELF = "llvm-readelf-19"
BUILD_TYPE = re.search(r"(?m)^CMAKE_BUILD_TYPE:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(encoding="utf-8"))[1]

PROJECT = """\
cmake_minimum_required(VERSION 3.25)
project(Consumer LANGUAGES CXX)
find_package(Orlinth 0.1 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE Orlinth::OrlinthCore)
"""

# Ten lines, and something of every layer: base, the crypto of platform/linux, and the core.
PROGRAM = """\
#include <orlinth/OrlinthCore/Receiving/CollisionResolver.h>
#include <orlinth/base/Hex.h>
#include <orlinth/platform/Crypto.h>

#include <iostream>

int main() {
    std::cout << orlinth::CollisionResolver::sanitize("../../etc/passwd") << '\\n'
              << orlinth::hexEncode(orlinth::platform::sha256({orlinth::asBytes("abc")})) << '\\n';
}
"""

# The same from a coroutine that runs on this machine's event loop: what a host does that receives or sends.
HOST = """\
#include <orlinth/OrlinthCore/Receiving/ReceiveTransfer.h>
#include <orlinth/platform/Spawn.h>
#include <orlinth/platform/linux/LinuxSystem.h>

#include <iostream>

orlinth::Task<> receiveNothing(orlinth::platform::System system, const orlinth::platform::PrivateKey& key,
                               orlinth::platform::Path downloads) {
    orlinth::ReceiveRequest request{.staticKey = key,
                                    .expectedPeerPubkey = key.publicKey(),
                                    .downloadsDir = downloads,
                                    .acceptTimeout = std::chrono::milliseconds(50)};
    request.listener = system.network.listen({}, system.queues.makeSerialQueue("host"));
    co_await orlinth::receiveOneTransfer(system, std::move(request));
}

int main(int, char** arguments) {
    asio::io_context context;
    orlinth::platform::LinuxSystem machine(context);
    const auto key = orlinth::platform::PrivateKey::generate();
    orlinth::platform::spawn(context.get_executor(), receiveNothing(machine.system(), key, arguments[1]),
                             [](std::exception_ptr error) { std::cout << orlinth::describe(error) << '\\n'; });
    context.run();
}
"""


def run(*arguments, **options):
    """Runs a command; its output becomes part of the failure if there is one."""
    done = subprocess.run([str(argument) for argument in arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{arguments} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


class InstalledPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="orlinth-install-")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.prefix = pathlib.Path(cls.folder.name) / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)

    def build_consumer(self, name, program):
        source = pathlib.Path(self.folder.name) / name
        source.mkdir()
        (source / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")
        (source / "main.cpp").write_text(program, encoding="utf-8")
        # The libraries carry the sanitizer of their build; whoever links them needs the same.
        flags = [f"-DCMAKE_CXX_FLAGS=-fsanitize={SANITIZE}"] if SANITIZE else []
        run("cmake", "-G", "Ninja", "-S", source, "-B", source / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={COMPILER}", "-DCMAKE_CXX_FLAGS_INIT=-Wall -Wextra -Werror", *flags)
        run("cmake", "--build", source / "build")
        return source / "build" / "consumer"

    def test_a_consumer_of_ten_lines_builds_and_runs(self):
        self.assertLessEqual(len(PROGRAM.splitlines()), 10)
        lines = run(self.build_consumer("small", PROGRAM)).splitlines()
        self.assertEqual(lines[0], "passwd")
        # SHA-256 of "abc", FIPS 180-4.
        self.assertEqual(lines[1], "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")

    def test_a_host_runs_the_core_on_this_machine(self):
        downloads = pathlib.Path(self.folder.name) / "downloads"
        self.assertEqual(run(self.build_consumer("host", HOST), downloads), "timed out\n")
        self.assertTrue(downloads.is_dir())

    def test_the_headers_lie_below_one_folder_and_name_it(self):
        include = self.prefix / "include"
        self.assertEqual(["orlinth"], [path.name for path in include.iterdir()])
        headers = sorted(include.rglob("*.h"))
        self.assertIn(include / "orlinth" / "OrlinthCore" / "Receiving" / "Receiver.h", headers)
        for header in headers:
            for named in re.findall(r'(?m)^\s*#\s*include\s*"([^"]+)"', header.read_text(encoding="utf-8")):
                self.assertTrue(named.startswith("orlinth/") and (include / named).is_file(), f"{header}: {named}")

    def test_of_the_code_for_linux_a_host_sees_what_it_makes_in_its_main(self):
        linux = self.prefix / "include" / "orlinth" / "platform" / "linux"
        self.assertEqual(["LinuxSystem.h"], sorted(path.name for path in linux.iterdir()))

    def test_the_service_needs_no_unit_beside_it_to_find_the_desktop(self):
        units = self.prefix / "lib" / "systemd" / "user"
        self.assertEqual(["orlinth.service", "orlinth.socket"], sorted(path.name for path in units.iterdir()))
        self.assertNotIn("Also=", (units / "orlinth.service").read_text(encoding="utf-8"))

    def settings_of(self, path):
        """The sections of a file of systemd or of D-Bus."""
        parser = configparser.ConfigParser(interpolation=None, strict=False)
        parser.optionxform = str
        parser.read_string((self.prefix / path).read_text(encoding="utf-8"))
        return parser

    def test_the_bus_starts_the_service_by_its_unit_or_by_its_program(self):
        described = self.settings_of("share/dbus-1/services/com.tarvinex.orlinth1.service")
        self.assertEqual({"Name": "com.tarvinex.orlinth1", "SystemdService": "orlinth.service",
                          "Exec": f'"{self.prefix}/bin/orlinth" serve'}, dict(described["D-BUS Service"]))
        unit = self.settings_of("lib/systemd/user/orlinth.service")
        self.assertEqual(described["D-BUS Service"]["Exec"], unit["Service"]["ExecStart"])

    def test_the_unit_starts_the_service_anew_when_that_asks_for_it_and_not_for_accounts_of_the_system(self):
        unit = self.settings_of("lib/systemd/user/orlinth.service")
        status = unit["Service"]["RestartForceExitStatus"]
        self.assertEqual(f"ORLINTH_RESTART_STATUS={status}", unit["Service"]["Environment"])
        source = pathlib.Path(os.environ["ORLINTH_SOURCE"]) / "src/orlinth/Commands/ServeCommand.cpp"
        self.assertIn(f" restartStatus = {status};", source.read_text(encoding="utf-8"))
        self.assertEqual("notify", unit["Service"]["Type"])
        self.assertEqual("process", unit["Service"]["KillMode"])
        self.assertEqual("!@system", unit["Unit"]["ConditionUser"])

    def assert_firewalls_find(self, settings, programs):
        """The port under its name, in these folders of settings and programs."""
        source = pathlib.Path(os.environ["ORLINTH_SOURCE"])
        port = re.search(r"(?m)^ListenStream=(\d+)$",
                         (source / "packaging/systemd/orlinth.socket").read_text(encoding="utf-8"))[1]
        self.assertIn(f" defaultPort = {port};", (source / "src/orlinth/Commands/Command.h").read_text(encoding="utf-8"))
        profiles = configparser.ConfigParser(interpolation=None)
        profiles.read_string((settings / "ufw/applications.d/orlinth").read_text(encoding="utf-8"))
        self.assertEqual(["Orlinth"], profiles.sections())
        profile = profiles["Orlinth"]
        self.assertEqual({"title", "description", "ports"}, set(profile))
        self.assertTrue(profile["title"] and profile["description"])
        self.assertEqual(f"{port}/tcp", profile["ports"])
        service = xml.etree.ElementTree.parse(programs / "lib/firewalld/services/orlinth.xml").getroot()
        self.assertEqual("service", service.tag)
        self.assertEqual(["short", "description", "port"], [part.tag for part in service])
        self.assertTrue(service.findtext("short") and service.findtext("description"))
        self.assertEqual({"protocol": "tcp", "port": port}, service.find("port").attrib)

    def test_firewalls_learn_the_port_under_its_name(self):
        self.assert_firewalls_find(self.prefix / "etc", self.prefix)

    def test_a_package_puts_the_profiles_where_firewalls_look(self):
        root = pathlib.Path(self.folder.name) / "root"
        run("cmake", "--install", BUILD, "--prefix", "/usr", env={**os.environ, "DESTDIR": str(root)})
        self.assert_firewalls_find(root / "etc", root / "usr")
        self.assertFalse((root / "usr" / "etc").exists())

    def test_the_installed_program_runs(self):
        data = pathlib.Path(self.folder.name) / "data"
        told = json.loads(run(self.prefix / "bin" / "orlinth", "id", "--json",
                              env={**os.environ, "XDG_DATA_HOME": str(data)}))
        self.assertEqual(len(told["self_pubkey"]), 44)
        self.assertTrue((data / "Orlinth" / "noise_static.bin").is_file())

    def programs(self):
        found = sorted((self.prefix / "bin").iterdir())
        self.assertIn("orlinth", [path.name for path in found])
        return found

    def test_the_programs_are_loaded_anywhere_and_bound_before_they_run(self):
        for program in self.programs():
            with self.subTest(program=program.name):
                segments = run(READELF, "-lW", program)
                self.assertRegex(segments, r"(?m)^\s*INTERP\b")
                self.assertRegex(segments, r"(?m)^\s*GNU_RELRO\b")
                self.assertRegex(segments, r"(?m)^\s*GNU_STACK\s+\S+\s+\S+\s+\S+\s+\S+\s+\S+\s+RW\s")
                self.assertRegex(run(READELF, "-hW", program), r"Type:\s+DYN\b")
                dynamic = run(READELF, "-dW", program)
                self.assertRegex(dynamic, r"\(FLAGS\).*\bBIND_NOW\b")
                self.assertRegex(dynamic, r"\(FLAGS_1\).*\bNOW\b.*\bPIE\b")

    def test_the_program_lists_the_libraries_that_it_loads_when_it_needs_them(self):
        notes = run(READELF, "-nW", self.prefix / "bin" / "orlinth")
        texts = [bytes.fromhex(text).decode() for text in
                 re.findall(r"FDO\s.*\n\s*description data: ([0-9a-f ]+)", notes)]
        listed = [json.loads(text.rstrip("\0"))[0] for text in texts]
        names = sorted(name.split(".so.")[0] for library in listed for name in library["soname"])
        self.assertEqual(["libavahi-client", "libavahi-common", "libcurl", "libsystemd"], names)
        needed = run(READELF, "-dW", self.prefix / "bin" / "orlinth")
        for library in listed:
            self.assertEqual("recommended", library["priority"])
            self.assertTrue(library["description"])
            for name in library["soname"]:
                self.assertNotIn(name, needed)

    def test_the_programs_notice_what_is_written_beyond_its_end(self):
        for program in self.programs():
            with self.subTest(program=program.name):
                symbols = run(READELF, "--dyn-syms", "-W", program)
                self.assertRegex(symbols, r"\b__stack_chk_fail@")
                self.assertIn("__glibcxx_assert_fail", symbols)
                if BUILD_TYPE != "Debug":  # what the checks need the optimiser for
                    self.assertRegex(symbols, r"\b__\w+_chk@")

    @unittest.skipUnless(platform.machine() == "x86_64", "other processors have other means")
    def test_jumps_and_returns_of_our_code_are_checked_by_processors_that_can(self):
        # in the libraries: whether a whole program has the mark depends on the system's own startup files
        archives = sorted(self.prefix.rglob("*.a"))
        self.assertEqual(3, len(archives))
        for archive in archives:
            objects = run(READELF, "-n", archive).split("File: ")[1:]
            self.assertTrue(objects)
            for one in objects:
                self.assertRegex(one, r"x86 feature: IBT, SHSTK", one.splitlines()[0])

    def test_all_of_our_code_is_compiled_so(self):
        commands = json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8"))
        # a build of several files at once (ORLINTH_UNITY) compiles files that it has made itself
        places = tuple(f"{place}/src/" for place in (os.environ["ORLINTH_SOURCE"], BUILD))
        ours = [entry for entry in commands if entry["file"].startswith(places)]
        for layer in ("base", "platform", "OrlinthCore", "OrlinthHost", "orlinth"):
            self.assertTrue(any(f"/src/{layer}/" in entry["file"] for entry in ours), layer)
        for entry in ours:
            for flag in ("-fstack-protector-strong", "-fstack-clash-protection", "-D_GLIBCXX_ASSERTIONS"):
                self.assertIn(flag, entry["command"].split(), entry["file"])

    def test_no_file_of_the_package_names_a_folder_of_the_build(self):
        package = self.prefix.rglob("*.cmake")
        texts = {path.name: path.read_text(encoding="utf-8") for path in package}
        self.assertIn("OrlinthConfig.cmake", texts)
        self.assertIn("OrlinthTargets.cmake", texts)
        for name, text in texts.items():
            for place in (str(BUILD), os.environ["ORLINTH_SOURCE"]):
                self.assertNotIn(place, text, name)


if __name__ == "__main__":
    unittest.main()
