"""Splits an H.264 byte stream into access units, as it comes.

An encoder hands out a plain byte stream (Annex B: units behind start codes); the frame ring takes
one access unit, that is one coded picture with its headers, at a time.
"""

START_CODE = b"\0\0\1"
SLICES = {1, 2, 5}
# Units that stand before the first slice of a picture: SEI, SPS, PPS, delimiter, and their kin.
OPENERS = {6, 7, 8, 9, 14, 15, 16, 17, 18}


class AccessUnitSplitter:
    """Takes pieces of any size; the units it gives, put together, are its input byte for byte.

    For streams of whole frames (not of separate fields) whose slices come in order.
    """

    def __init__(self):
        self._buffer = bytearray()  # the unit that is not complete yet, and what follows it
        self._scan = 0  # where in the buffer the search for the next start code goes on
        self._slice_seen = False

    def push(self, data):
        """Takes the next piece of the stream; returns the list of units that it completes."""
        self._buffer += data
        units = []
        while (at := self._next_start_code()) is not None:
            kind = self._buffer[at + 3] & 0x1F
            is_slice = kind in SLICES
            # first_mb_in_slice is the slice's first number; 0 is written as a single 1 bit.
            is_first_slice = is_slice and self._buffer[at + 4] & 0x80 != 0
            if self._slice_seen and (is_first_slice or kind in OPENERS):
                at -= self._cut(at, units)
            self._slice_seen = self._slice_seen or is_slice
            self._scan = at + 3
        return units

    def flush(self):
        """The stream has ended: returns the list of what is left, one unit or none."""
        units = [bytes(self._buffer)] if self._buffer else []
        self.__init__()
        return units

    def _next_start_code(self):
        """Where the next start code lies whose unit can be told already, or None."""
        at = self._buffer.find(START_CODE, self._scan)
        if at < 0:
            self._scan = max(self._scan, len(self._buffer) - 2)
            return None
        if at + 5 > len(self._buffer):
            self._scan = at
            return None
        return at

    def _cut(self, at, units):
        """Ends the unit before the start code at `at`; returns by how much the buffer moved."""
        # The zero byte of a four-byte start code goes with the unit that it starts.
        end = at - 1 if self._buffer[at - 1] == 0 else at
        units.append(bytes(self._buffer[:end]))
        del self._buffer[:end]
        self._slice_seen = False
        return end
