"""A program on the session's bus that talks with the service, and stays there."""

from bus_client import SIGNAL, SIGNATURE, BusClient, BusError, types

__all__ = ["NAME", "ROOT", "BusError", "ServiceClient"]

NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"


class ServiceClient:
    def __init__(self, address):
        self.bus = BusClient(address)
        self.seen = 0

    def close(self):
        if self.bus:
            self.bus.close()
            self.bus = None

    def call(self, path, interface, member, signature="", *arguments):
        """What it returns, as a list; a descriptor as its number, which is the caller's to close."""
        answer = self.bus.call(NAME, path, interface, member, signature, *arguments)
        kinds = types(answer.fields.get(SIGNATURE, ""))
        return [answer.descriptors[value] if kind == "h" else value for kind, value in zip(kinds, answer.values)]

    def send(self, path, interface, member, signature="", *arguments):
        """The call alone, whose answer nobody waits for."""
        self.bus.send(NAME, path, interface, member, signature, *arguments)

    def follow(self):
        """Hears the service's signals from now on."""
        self.bus.listen(f"type='signal',sender='{NAME}'")

    def wait_for_signal(self, member, condition=lambda values: True):
        """The values of the next signal of this name for which that holds."""
        def find():
            return next((at for at, message in enumerate(self.bus.messages)
                         if at >= self.seen and message.type == SIGNAL and message.member == member
                         and condition(message.values)), -1) + 1
        self.seen = self.bus.wait_until(find, member)
        return self.bus.messages[self.seen - 1].values
