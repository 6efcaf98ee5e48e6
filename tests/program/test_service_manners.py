"""How the receive service gets on with its service manager, and with other commands of the same data folder."""

import contextlib
import fcntl
import json
import os
import signal
import socket
import struct
import sys
import time

import side_by_side
from harness import ORLINTH, PATIENCE, Identity, ProgramTest, Running, sha256, unused_port
from test_pairing import ScriptedPhone

# Gives the sockets that the test has opened to the program, as a service manager does.
LAUNCHER = """
import os, sys
numbers = [int(text) for text in sys.argv[1].split(",")]
for place, number in enumerate(numbers):
    os.dup2(number, 3 + place)
    os.set_inheritable(3 + place, True)
os.environ["LISTEN_FDS"] = str(len(numbers))
os.environ["LISTEN_PID"] = str(os.getpid())
os.execv(sys.argv[2], sys.argv[2:])
"""


class ServiceTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.tablet = Identity(self.folder, "tablet")

    def serve(self, identity=None, *arguments, program=(), port="0", **options):
        identity = identity or self.mac
        service = Running([*program, ORLINTH, "serve", "--port", port, "--dir", str(identity.downloads), "--json",
                           *arguments], env=identity.environment, **options)
        self.addCleanup(service.close)
        return service

    def listening(self, *arguments, **options):
        service = self.serve(*arguments, **options)
        service.port = service.events.wait_for("listening")["port"]
        return service

    def activated(self, *sockets, **options):
        """The service, started with these sockets open."""
        # beyond the places where they shall go, so that none is overwritten before it is moved
        numbers = [os.dup(one.fileno()) for one in sockets]
        high = [self.raised(number) for number in numbers]
        try:
            return self.serve(program=[sys.executable, "-c", LAUNCHER, ",".join(map(str, high))], pass_fds=high,
                              **options)
        finally:
            for number in high:
                os.close(number)

    @staticmethod
    def raised(number):
        high = fcntl.fcntl(number, fcntl.F_DUPFD, 20)
        os.close(number)
        return high

    def end(self, service):
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)

    def pair(self, *arguments, identity=None):
        return self.running(identity or self.mac, "pair", "--interface", "lo", "--no-advertise", "--yes", "--json",
                            *arguments)

    def pair_tablet(self, *arguments):
        """One whole pairing; returns the port that the tablet was told."""
        program = self.pair(*arguments)
        payload = program.events.wait_for("payload")["payload"]
        joined = self.tablet.run("join", "--payload", "-", "--yes", "--json", "--listen-port", "9",
                                 input=json.dumps(payload))
        self.assertEqual(0, joined.returncode, joined.stderr)
        self.assertEqual(0, program.wait(), program.stderr)
        self.assertIsNotNone(program.events.find("paired"))
        return payload["peer_port"]

    def deliver(self, service, identity, name):
        """A file goes from this identity to the service, which is tried for a while: it may be coming back."""
        identity.record(self.mac, service.port)
        content = os.urandom(100_000)
        file = self.file(name, content)
        end = time.monotonic() + PATIENCE
        sent = None
        while sent is None or sent.returncode != 0 and time.monotonic() < end:
            sent = identity.run("send", "--to", "mac", "--json", str(file))
        self.assertEqual(0, sent.returncode, sent.stderr)
        self.assert_arrived(service, file)

    def assert_arrived(self, service, file):
        """The service has told of this file, and its content is right."""
        saved = str(self.mac.downloads / file.name)

        def is_told():
            return any(event["event"] == "received" and event["saved_at"] == saved for event in service.events.all)
        with service.events.changed:
            service.events.changed.wait_for(lambda: service.events.ended or is_told(), PATIENCE)
        self.assertTrue(is_told(), service.events.all)
        self.assertEqual(sha256(file), sha256(saved))

    def control(self, identity=None):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        connection.connect(str((identity or self.mac).data / "Orlinth" / "service.sock"))
        return connection

    def ask(self, line, connection=None):
        connection = connection or self.control()
        connection.sendall(line)
        answer = b""
        while not answer.endswith(b"\n"):
            byte = connection.recv(1)
            self.assertTrue(byte, f"the connection ended after {answer}")
            answer += byte
        return json.loads(answer)


class ServiceManagers(ServiceTest):
    def test_are_told_when_the_port_is_open_how_many_phones_there_are_and_when_it_ends(self):
        path = self.folder / "notify"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as told:
            told.settimeout(PATIENCE)
            told.bind(str(path))
            self.mac.environment["NOTIFY_SOCKET"] = str(path)
            service = self.serve()
            self.assertEqual(b"READY=1", told.recv(1000))
            self.assertIsNotNone(service.events.wait_for("listening"))
            self.assertEqual(b"STATUS=Receiving from 1 paired phone.", told.recv(1000))
            self.end(service)
            self.assertEqual(b"STOPPING=1", told.recv(1000))

    def test_that_are_not_there_are_not_missed(self):
        self.mac.environment["NOTIFY_SOCKET"] = str(self.folder / "nobody")
        service = self.listening()
        self.deliver(service, self.phone, "a.bin")
        self.end(service)

    def test_may_open_the_port_themselves(self):
        for address in ("127.0.0.1", "::") if socket.has_dualstack_ipv6() else ("127.0.0.1",):
            with self.subTest(address=address):
                family = socket.AF_INET6 if ":" in address else socket.AF_INET
                with socket.create_server((address, 0), family=family, dualstack_ipv6=":" in address) as port:
                    service = self.activated(port)
                    service.port = service.events.wait_for("listening")["port"]
                    self.assertEqual(port.getsockname()[1], service.port)
                    self.deliver(service, self.phone, f"{len(address)}.bin")
                    self.end(service)

    def test_whose_port_stays_open_get_connections_served_that_came_between_two_services(self):
        with socket.create_server(("127.0.0.1", 0)) as port:
            first = self.activated(port)
            first.port = first.events.wait_for("listening")["port"]
            self.end(first)
            self.phone.record(self.mac, first.port)
            file = self.file("between.bin", os.urandom(100_000))
            sender = self.running(self.phone, "send", "--to", "mac", "--json", "--attempt-timeout", str(PATIENCE),
                                  str(file))
            sender.events.wait_for("connected")
            second = self.activated(port)
            self.assertEqual(0, sender.wait(), sender.stderr)
            self.assert_arrived(second, file)
            self.end(second)

    def test_that_open_something_else_are_told_so(self):
        with contextlib.ExitStack() as open_sockets:
            datagrams = open_sockets.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            connected, _ = map(open_sockets.enter_context, socket.socketpair())
            unbound = open_sockets.enter_context(socket.socket(socket.AF_INET, socket.SOCK_STREAM))
            ports = [open_sockets.enter_context(socket.create_server(("127.0.0.1", 0))) for _ in range(2)]
            text = "cannot use what the service manager has opened: "
            for sockets, reason in (([datagrams], "descriptor 3 is no listening TCP socket"),
                                    ([connected], "descriptor 3 is no listening TCP socket"),
                                    ([unbound], "descriptor 3 is no listening TCP socket"),
                                    (ports, "2 sockets were passed to the program instead of one")):
                with self.subTest(reason=reason):
                    service = self.activated(*sockets)
                    self.assertEqual(1, service.wait())
                    self.assert_one_line_error(service.stderr, text + reason)


class PairingBesideTheService(ServiceTest):
    def test_takes_the_services_port_and_gives_it_back_twice_in_a_row(self):
        service = self.listening()
        for attempt in range(2):
            self.assertEqual(service.port, self.pair_tablet())
            self.deliver(service, self.tablet, f"{attempt}.bin")
        self.end(service)
        self.assertEqual([], [event for event in service.events.all if event["event"] == "error"])

    def test_works_on_a_port_that_the_service_manager_keeps_open(self):
        with socket.create_server(("127.0.0.1", 0)) as port:
            service = self.activated(port)
            service.port = service.events.wait_for("listening")["port"]
            for attempt in range(2):
                self.assertEqual(service.port, self.pair_tablet())
                self.deliver(service, self.tablet, f"{attempt}.bin")
            self.end(service)

    def test_names_the_address_at_which_the_service_manager_keeps_the_port_open(self):
        with socket.create_server(("127.0.0.1", 0)) as port:
            service = self.activated(port)
            service.port = service.events.wait_for("listening")["port"]
            program = self.running(self.mac, "pair", "--no-advertise", "--yes", "--json")
            payload = program.events.wait_for("payload")["payload"]
            self.assertEqual(("127.0.0.1", service.port), (payload["peer_ip"], payload["peer_port"]))
            program.signal(signal.SIGINT)
            self.assertEqual(130, program.wait())
            self.end(service)

    def test_starts_a_service_that_has_not_been_needed_yet(self):
        with socket.create_server(("127.0.0.1", 0)) as port:
            number = port.getsockname()[1]
            self.mac.environment["PATH"] = str(self.service_manager()) + ":" + os.environ["PATH"]
            program = self.pair("--port", str(number))
            asked, started = self.folder / "asked", self.folder / "started"
            self.wait_until(asked.exists, asked)
            service = self.activated(port)
            service.port = service.events.wait_for("listening")["port"]
            door = self.mac.data / "Orlinth" / "service.sock"
            self.wait_until(door.exists, door)
            started.write_text("\n")
            payload = program.events.wait_for("payload")["payload"]
            self.assertEqual(number, payload["peer_port"])
            joined = self.tablet.run("join", "--payload", "-", "--yes", "--json", "--listen-port", "9",
                                     input=json.dumps(payload))
            self.assertEqual(0, joined.returncode, joined.stderr)
            self.assertEqual(0, program.wait(), program.stderr)
            self.deliver(service, self.tablet, "a.bin")
            self.end(service)

    def service_manager(self):
        """A folder with a systemctl that has orlinth.socket, and starts the service when the test says that it did."""
        folder = self.folder / "bin"
        folder.mkdir()
        os.mkfifo(self.folder / "started")
        systemctl = folder / "systemctl"
        systemctl.write_text(f"""#!/bin/sh
case "$*" in
"--user --quiet is-active orlinth.socket") exit 0 ;;
"--user --quiet start orlinth.service") touch {self.folder}/asked
    read line < {self.folder}/started
    exit 0 ;;
esac
exit 1
""")
        systemctl.chmod(0o755)
        return folder

    def test_is_not_disturbed_by_paired_phones_that_want_to_deliver_meanwhile(self):
        service = self.listening()
        program = self.pair()
        payload = program.events.wait_for("payload")["payload"]
        self.phone.record(self.mac, service.port)
        file = self.file("early.bin", b"abc")
        for _ in range(2):
            sent = self.phone.run("send", "--to", "mac", str(file))
            self.assertEqual(1, sent.returncode)
            self.assertIn("noise handshake", sent.stderr)
        with socket.create_connection(("127.0.0.1", service.port)):  # and one who hangs up without a word
            pass
        joined = self.tablet.run("join", "--payload", "-", "--yes", "--json", "--listen-port", "9",
                                 input=json.dumps(payload))
        self.assertEqual(0, joined.returncode, joined.stderr)
        self.assertEqual(0, program.wait(), program.stderr)
        self.assertEqual(2, program.stderr.count("wanted to deliver something"), program.stderr)
        self.deliver(service, self.phone, "late.bin")
        self.deliver(service, self.tablet, "a.bin")

    def test_turns_away_a_second_phone_also_on_a_port_that_stays_open(self):
        with socket.create_server(("127.0.0.1", 0)) as port:
            service = self.activated(port)
            service.port = service.events.wait_for("listening")["port"]
            program = self.pair()
            payload = program.events.wait_for("payload")["payload"]
            first, second = ScriptedPhone(payload), ScriptedPhone(payload)
            blob, late = (phone.sealed(phone.plaintext()) for phone in (first, second))
            turned_away = []

            def introduce(phone):
                with contextlib.suppress(ConnectionError):  # refused is as good as dropped
                    connection = phone.connect()
                    self.addCleanup(connection.close)
                    turned_away.append(connection)
                    connection.sendall(struct.pack(">I", len(late)) + late)

            with first.connect() as one:
                one.sendall(struct.pack(">I", len(blob)) + blob[:-1])
                deadline = time.monotonic() + PATIENCE
                while not self.is_turned_away(second):  # until the pairing has its phone
                    self.assertLess(time.monotonic(), deadline)
                for _ in range(3):
                    introduce(second)
                one.sendall(blob[-1:])
                self.assertEqual(0, program.wait(), program.stderr)
            self.assertEqual(first.key, program.events.find("paired")["peer"]["peer_pubkey"])
            self.deliver(service, self.phone, "a.bin")  # the service is back
            for connection in turned_away:
                with contextlib.suppress(ConnectionError):
                    self.assertEqual(b"", connection.recv(1000))
            self.end(service)

    def is_turned_away(self, phone):
        """Whether somebody who connects now, and says nothing, is let go of within a fifth of a second."""
        try:
            with phone.connect() as connection:
                connection.settimeout(0.2)
                return connection.recv(1) == b""
        except TimeoutError:
            return False
        except ConnectionError:
            return True

    def test_may_ask_for_the_services_port_by_its_number(self):
        service = self.listening()
        self.assertEqual(service.port, self.pair_tablet("--port", str(service.port)))
        self.deliver(service, self.tablet, "a.bin")

    def test_on_another_port_leaves_the_service_where_it_is(self):
        service = self.listening()
        for port in ("0", str(unused_port())):
            program = self.pair("--port", port)
            self.assertNotEqual(service.port, program.events.wait_for("payload")["payload"]["peer_port"])
            self.deliver(service, self.phone, f"{port}.bin")
            program.kill()

    def test_that_is_killed_gives_the_port_back(self):
        service = self.listening()
        program = self.pair()
        self.assertEqual(service.port, program.events.wait_for("payload")["payload"]["peer_port"])
        program.kill()
        self.deliver(service, self.phone, "a.bin")
        self.end(service)

    def test_works_in_a_folder_whose_path_is_too_long_for_a_socket(self):
        far = Identity(self.folder, "/".join(["long" * 12] * 4) + "/far")
        service = self.listening(far)
        self.assertGreater(len(str(far.data / "Orlinth" / "service.sock")), 200)
        program = self.pair(identity=far)
        self.assertEqual(service.port, program.events.wait_for("payload")["payload"]["peer_port"])
        program.kill()
        self.end(service)


class TheControlSocket(ServiceTest):
    @property
    def path(self):
        return self.mac.data / "Orlinth" / "service.sock"

    def test_is_the_users_own_and_goes_with_the_service(self):
        service = self.listening()
        self.control()
        self.assertEqual(0o600, self.path.stat().st_mode & 0o777)
        self.end(service)
        self.assertFalse(self.path.exists())

    def test_left_by_a_service_that_was_killed_is_replaced(self):
        self.listening().kill()
        self.assertTrue(self.path.is_socket())
        with self.assertRaises(ConnectionRefusedError):
            self.control()
        program = self.pair("--port", "0")
        program.events.wait_for("payload")
        program.kill()
        service = self.listening()
        self.assertEqual(service.port, self.pair_tablet())

    def test_takes_no_file_of_somebody_elses_away(self):
        self.path.write_text("precious")
        service = self.listening()
        self.deliver(service, self.phone, "a.bin")
        self.end(service)
        self.assertEqual("precious", self.path.read_text())
        self.assertIn("`orlinth pair` cannot use the service's port", service.stderr)

    def test_lends_the_port_as_a_socket_behind_its_number(self):
        service = self.listening()
        with self.control() as connection:
            self.assertEqual({"port": service.port}, self.ask(b'{"request":"lend_port"}\n', connection))
            data, numbers, _, _ = socket.recv_fds(connection, 1, 1)
            self.assertEqual((1, 1), (len(data), len(numbers)))
            with socket.socket(fileno=numbers[0]) as port:
                self.assertEqual(service.port, port.getsockname()[1])
                with socket.create_connection(("127.0.0.1", service.port), PATIENCE):
                    port.setblocking(True)
                    port.accept()[0].close()
        self.deliver(service, self.phone, "a.bin")


if __name__ == "__main__":
    side_by_side.main()
