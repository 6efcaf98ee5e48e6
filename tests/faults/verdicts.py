"""What came of one fault: from what was seen to what is counted."""

import dataclasses

AT_ONCE, AFTER_RETRY, NOT_DELIVERED = "at once", "after retry", "not delivered"


@dataclasses.dataclass
class Seen:
    """Of one file. "There" is: under a final name in the receiver's folder, with the right content."""

    was_called_sent: bool = False       # the disturbed attempt said that it was sent
    was_there: bool = False             # at that very moment
    came_later: bool = False            # without another attempt
    was_in_window: bool = False         # the receiver was killed between reading Done and the rename
    was_tried_again: bool = False
    was_again_called_sent: bool = False
    was_there_again: bool = False       # when that was said
    right: int = 0                      # files with the right content, in the end
    wrong: int = 0                      # files with another content, at any time
    unfinished: int = 0                 # partial files that are left and not empty, in the end


@dataclasses.dataclass
class Verdict:
    outcome: str
    is_wrong: bool = False
    is_lost: bool = False
    is_doubled: bool = False
    is_believed: bool = False
    is_believed_in_window: bool = False
    is_stuck: bool = False

    @property
    def faults(self):
        """The names of what must not be."""
        named = {"wrong": self.is_wrong, "lost": self.is_lost, "doubled": self.is_doubled,
                 "believed": self.is_believed, "stuck": self.is_stuck}
        return [name for name, holds in named.items() if holds]


def judge(seen):
    is_false = seen.was_called_sent and not seen.was_there
    is_excused = is_false and seen.was_in_window
    is_false_again = seen.was_again_called_sent and not seen.was_there_again
    last_word = seen.was_again_called_sent if seen.was_tried_again else seen.was_called_sent
    if seen.right:
        outcome = AFTER_RETRY if seen.was_tried_again else AT_ONCE
    else:
        outcome = NOT_DELIVERED
    return Verdict(outcome=outcome, is_wrong=seen.wrong > 0, is_doubled=seen.right > 1,
                   is_believed=(is_false and not is_excused) or is_false_again, is_believed_in_window=is_excused,
                   is_lost=(is_false and not is_excused and not seen.came_later) or (not seen.right and last_word),
                   is_stuck=not seen.right and not last_word)
