"""Which fault happens where: everything about one case follows from the seed and its number."""

import dataclasses
import random

from relay import ALTERATIONS, BACK, THERE
from wire import CHUNK, frames_back, frames_there

SERVE, RECEIVE, OUTBOX = "send to serve", "send to receive", "outbox"
WAYS = {"send": (SERVE, SERVE, RECEIVE), "outbox": (OUTBOX,), "both": (SERVE, SERVE, RECEIVE, OUTBOX, OUTBOX, OUTBOX)}

RECEIVER_KILLED, RECEIVER_ENDED = "receiver killed", "receiver ended"
SENDER_KILLED, SENDER_ENDED = "sender killed", "sender ended"
CUT, RESET, HALF_CLOSE, STALL, DISK_FULL = "cut", "reset", "half-close", "stall", "disk full"
PROCESS = (RECEIVER_KILLED, RECEIVER_ENDED, SENDER_KILLED, SENDER_ENDED)
# How often each is chosen. A wire that is cut, or stalls, keeps its transfer waiting, so there are few of those.
SHARES = {RECEIVER_KILLED: 20, RECEIVER_ENDED: 10, SENDER_KILLED: 11, SENDER_ENDED: 8, CUT: 3, RESET: 14,
          HALF_CLOSE: 6, STALL: 3, "flipped": 5, "dropped": 5, "doubled": 5, "swapped": 4, DISK_FULL: 6}
KINDS = tuple(SHARES)
# They wait most of the time: many of them run side by side.
SLOW = (CUT, STALL)
LONGEST_STALL = 4.0
# Of the faults that hit a program: without the relay, by what lies in the receiver's folder.
SHARE_DIRECT = 0.15

# Of the kills of a receiver: just when it has got the last byte, as what it does then is over so soon.
SHARE_AT_DONE, LONGEST_AFTER_DONE = 0.2, 3e-3

# How an attempt ends that hangs for good, because nobody told its sender anything any more.
ENDINGS = ("kill the sender", "end the sender", "reset the sender", "reset both")


@dataclasses.dataclass
class Case:
    index: int
    kind: str
    way: str
    name: str
    size: int
    content_seed: int
    # on the wire
    flow: str = THERE
    anchor: str = "byte"
    at: int = 0
    total: int = 0          # bytes of that flow
    bit: int = 0
    count: int = 1
    seconds: float = 0      # a stall's length, or how long after its moment a program is hit
    # without it
    is_direct: bool = False
    share: float = 0        # of the file, in the receiver's folder; above 1: the file has its name
    disk_bytes: int = 0     # how much of the file the disk takes
    # afterwards
    ending: str = ENDINGS[0]
    retries_at_once: bool = True
    outbox_goes_on_alone: bool = False

    @property
    def is_slow(self):
        return self.kind in SLOW

    def content(self):
        return random.Random(self.content_seed).randbytes(self.size)

    def where(self):
        delay = f", {self.seconds * 1000:.2f} ms later" if self.seconds and self.kind in PROCESS else ""
        if self.kind == DISK_FULL:
            return f"after {self.disk_bytes} bytes"
        if self.is_direct:
            point = "once the file has its name" if self.share > 1 else f"once {self.share:.0%} of it lie there"
            return f"{point}{delay} (no relay)"
        point = {"byte": f"byte {self.at} of {self.total}", "end": "the end", "after": "behind the end"}[self.anchor]
        length = f" for {self.seconds:.1f} s" if self.kind == STALL else ""
        return f"{point} {self.flow}{delay}{length}"

    def __str__(self):
        return f"{self.kind}, {self.way}, {self.size} bytes, {self.where()}"


def make_case(seed, index, way):
    dice = random.Random(f"{seed}:{index}:{way}")
    kind = dice.choices(KINDS, SHARES.values())[0]
    size = choose_size(dice)
    case = Case(index=index, kind=kind, way=dice.choice(WAYS[way]),
                name=f"film-{index}" + dice.choice((".bin", ".bin", ".bin", "")), size=size,
                content_seed=dice.randrange(2**48), ending=dice.choice(ENDINGS),
                retries_at_once=dice.random() < 0.5, outbox_goes_on_alone=dice.random() < 0.03)
    if kind == DISK_FULL:
        case.size = max(size, 8192)
        case.disk_bytes = dice.choice((0, dice.randrange(case.size), case.size - 1))
    elif kind in PROCESS and dice.random() < SHARE_DIRECT:
        case.is_direct = True
        case.share = dice.choice((0, dice.random(), 1, 1, 2))
        case.seconds = delay(dice)
    else:
        choose_place(dice, case)
    return case


def choose_size(dice):
    low, high = dice.choices(((0, 1), (1, 4096), (4096, 1 << 18), (1 << 18, 2 * CHUNK), (2 * CHUNK, 6 * CHUNK)),
                             (6, 26, 30, 26, 12))[0]
    if dice.random() < 0.05:
        return CHUNK * dice.randrange(1, 4) + dice.choice((-1, 0, 1))
    return dice.randrange(low, high)


def delay(dice):
    return dice.choice((0, 10 ** dice.uniform(-4, -2)))


def choose_place(dice, case):
    frames = {THERE: frames_there(case.name, case.size), BACK: frames_back()}
    case.flow = dice.choices((THERE, BACK), (7, 3))[0]
    case.total = sum(frames[case.flow])
    case.anchor = "byte"
    altered = case.kind in ALTERATIONS
    case.at = choose_byte(dice, frames[case.flow], case.total - 1 if altered else case.total)
    if altered:
        case.bit, case.count = dice.randrange(8), dice.choice((1, 1, 1, dice.randrange(2, 40)))
        case.count = min(case.count, case.total - case.at)
    elif case.kind == HALF_CLOSE:
        # Behind its last answer a receiver says nothing but its end: a false end there is one that nobody can tell
        # from a true one.
        if case.flow == BACK:
            case.at = dice.randrange(case.total)
    elif dice.random() < 0.3:
        case.anchor = dice.choice(("end", "after"))
    if case.kind in PROCESS:
        case.seconds = delay(dice)
        if case.kind == RECEIVER_KILLED and dice.random() < SHARE_AT_DONE:
            case.flow, case.anchor, case.total = THERE, "byte", sum(frames[THERE])
            case.at, case.seconds = case.total, dice.uniform(0, LONGEST_AFTER_DONE)
    elif case.kind == STALL:
        case.seconds = dice.uniform(0.2, LONGEST_STALL)


def choose_byte(dice, frames, last):
    """At the beginning, somewhere, where a frame begins or ends, or in the last frame."""
    where = dice.choices(("beginning", "anywhere", "border", "end"), (2, 4, 2, 3))[0]
    if where == "beginning":
        return dice.randrange(min(last, sum(frames[:3])) + 1)
    if where == "anywhere":
        return dice.randrange(last + 1)
    if where == "border":
        border = sum(frames[:dice.randrange(len(frames) + 1)])
        return min(last, max(0, border + dice.choice((-1, 0, 0, 1))))
    return last - dice.randrange(frames[-1] + 1)
