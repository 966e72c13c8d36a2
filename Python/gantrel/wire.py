"""The wire itself: messages, as CBOR (RFC 8949) of a few types, in frames with descriptors on a stream socket.

`import gantrel` is what applications want. This is for whoever looks at messages or makes them by hand; what they
mean is in Documentation/wire-protocol.md.
"""

from __future__ import annotations

import array
import errno
import itertools
import os
import socket
import struct
import time
import unicodedata
from typing import Mapping, Optional, Sequence, Union

MESSAGE, CALL, REPLY, REFUSAL = range(4)

MOST_BYTES = 1 << 28  # of a payload
MOST_DESCRIPTORS = 253  # of a frame
MOST_ITEMS = 1 << 20  # in all arrays and maps of the arguments or values
DEEPEST = 32  # arrays and maps within an argument or value

_DATE, _ENDPOINT = 1, 18245  # tags
_AROUND_ARGUMENTS = 2  # arrays
_READ = 1 << 20  # bytes at once: memory grows with what has arrived, not with what was promised
_ROOM_AGAIN = 0.01  # seconds; nothing tells when the kernel takes descriptors again
_SHAPES = {MESSAGE: (str, list), CALL: (int, str, list), REPLY: (int, list), REFUSAL: (int,)}


class Malformed(Exception):
    """What was received breaks a rule of the wire: the connection is over."""


class Date(float):
    """A date: seconds since 1970-01-01 00:00:00 UTC, as `datetime.timestamp()` has them."""

    def __repr__(self) -> str:
        return f"Date({super().__repr__()})"


class Index(int):
    """In a message, an endpoint: the place of its descriptor among those of the frame."""


Item = Union[None, bool, int, float, str, bytes, "Sequence[Item]", "Mapping[str, Item]"]


class _Encoder:
    def __init__(self) -> None:
        self.out = bytearray()
        self.items = 0

    def head(self, major: int, number: int) -> None:
        if number < 24:
            self.out.append(major << 5 | number)
            return
        code = next(code for code in range(4) if number < 1 << (8 << code))
        self.out.append(major << 5 | 24 + code)
        self.out += number.to_bytes(1 << code, "big")

    def item(self, item: Item, depth: int) -> None:
        self.items += depth > 0
        if depth > DEEPEST or self.items > MOST_ITEMS:
            raise ValueError("too deep, or too many items, for a message")
        if item is None or isinstance(item, bool):
            self.out.append({False: 0xF4, True: 0xF5, None: 0xF6}[item])
        elif isinstance(item, Index):
            self.head(6, _ENDPOINT)
            self.head(0, item)
        elif isinstance(item, int):
            if not -1 << 63 <= item < 1 << 64:
                raise ValueError(f"{item} is out of an integer's range")
            self.head(*((0, item) if item >= 0 else (1, ~item)))
        elif isinstance(item, float):
            if isinstance(item, Date):
                self.head(6, _DATE)
            self.out += struct.pack(">Bd", 0xFB, item)
        elif isinstance(item, str):
            self.content(3, item.encode())
        elif isinstance(item, (bytes, bytearray)):
            self.content(2, item)
        elif isinstance(item, Mapping):
            for key in item:
                if not isinstance(key, str):
                    raise TypeError(f"a key of a dict is a str in a message, not {key!r}")
            if len(set(map(_canonical, item))) != len(item):
                raise ValueError("two keys are the same text")
            self.head(5, len(item))
            for key, value in item.items():
                self.item(key, depth + 1)
                self.item(value, depth + 1)
        elif isinstance(item, Sequence):
            self.head(4, len(item))
            for value in item:
                self.item(value, depth + 1)
        else:
            raise TypeError(f"a {type(item).__name__} has no place in a message")

    def content(self, major: int, content: bytes) -> None:
        self.head(major, len(content))
        self.out += content


class _Decoder:
    def __init__(self, data: bytes, descriptors: int) -> None:
        self.data, self.at, self.items, self.descriptors = data, 0, 0, descriptors

    def take(self, size: int) -> bytes:
        end = self.at + size
        if end > len(self.data):
            raise Malformed("an item is cut off")
        taken, self.at = self.data[self.at:end], end
        return taken

    def head(self) -> tuple[int, int]:
        """The first byte and the number that it begins."""
        first = self.take(1)[0]
        low = first & 31
        if low < 24:
            return first, low
        if low > 27:
            raise Malformed("no definite length")
        width = 1 << low - 24
        number = int.from_bytes(self.take(width), "big")
        if first < 0xE0 and number < (24 if width == 1 else 1 << 4 * width):
            raise Malformed("not the shortest form")
        return first, number

    def item(self, depth: int) -> Item:
        self.items += depth > 0
        if depth > DEEPEST or self.items > MOST_ITEMS:
            raise Malformed("too deep, or too many items")
        first, number = self.head()
        major = first >> 5
        if major == 0:
            return number
        if major == 1 and number < 1 << 63:
            return ~number
        if major == 2:
            return self.take(number)
        if major == 3:
            return str(self.take(number), "utf-8")
        if major == 4:
            return [self.item(depth + 1) for _ in range(number)]
        if major == 5:
            return self.entries(number, depth + 1)
        if major == 6:
            return self.tagged(number)
        if first == 0xFB:
            return float(struct.unpack(">d", number.to_bytes(8, "big"))[0])
        if first in (0xF4, 0xF5, 0xF6):
            return {0xF4: False, 0xF5: True, 0xF6: None}[first]
        raise Malformed("an item of another kind")

    def entries(self, count: int, depth: int) -> dict[str, Item]:
        entries: dict[str, Item] = {}
        for _ in range(count):
            key = self.item(depth)
            if not isinstance(key, str):
                raise Malformed("a key that is no text")
            entries[key] = self.item(depth)
        if len(set(map(_canonical, entries))) != count:
            raise Malformed("a key twice")
        return entries

    def tagged(self, tag: int) -> Item:
        first, number = self.head()
        if tag == _DATE and first == 0xFB:
            return Date(struct.unpack(">d", number.to_bytes(8, "big"))[0])
        if tag == _ENDPOINT and first >> 5 == 0 and number < self.descriptors:
            return Index(number)
        raise Malformed("another tag")


def _canonical(text: str) -> str:
    """The same for texts that are canonically equivalent. Not by one call for all of it: that takes quadratic time
    when a long run of marks is out of order, and no other thread could run meanwhile."""
    if text.isascii():
        return text
    decomposed = (part for letter in text for part in unicodedata.normalize("NFD", letter))
    runs = itertools.groupby(decomposed, lambda part: unicodedata.combining(part) != 0)
    return "".join(part for are_marks, run in runs
                   for part in (sorted(run, key=unicodedata.combining) if are_marks else run))


def encode(item: Item) -> bytes:
    """A message's payload. ValueError or TypeError when the item has no place in one."""
    encoder = _Encoder()
    encoder.item(item, -_AROUND_ARGUMENTS)
    if len(encoder.out) > MOST_BYTES:
        raise ValueError("too large for a message")
    return bytes(encoder.out)


def decode(payload: bytes, descriptors: int = 0) -> Item:
    """The item that a frame with so many descriptors holds. Malformed when it holds anything else."""
    decoder = _Decoder(payload, descriptors)
    try:
        item = decoder.item(-_AROUND_ARGUMENTS)
    except UnicodeDecodeError:
        raise Malformed("a text that is not UTF-8") from None
    if decoder.at != len(payload):
        raise Malformed("more than an item")
    return item


class Channel:
    """Messages on a connected socket, which it owns. One thread at a time.

    Deadlines are of `time.monotonic()`; TimeoutError when one has passed. A message that was cut off by that goes
    on to be received by the next call, but nothing can be sent after one that was cut off.
    """

    def __init__(self, connected: socket.socket) -> None:
        self.socket = connected
        self.is_cut_off = False  # a message that was to be sent
        self._received = bytearray()
        self._descriptors = array.array("i")  # received, and not yet taken by a frame

    def close(self) -> None:
        self.socket.close()
        while self._descriptors:
            os.close(self._descriptors.pop())

    def send(self, message: Item, descriptors: Sequence[int] = (), deadline: Optional[float] = None) -> None:
        if len(descriptors) > MOST_DESCRIPTORS:
            raise ValueError("too many endpoints for a message")
        payload = encode(message)
        frame = struct.pack("<II", len(payload), len(descriptors)) + payload
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
        self._limit(deadline)
        while True:
            try:
                sent = self.socket.sendmsg([frame], rights)
                break
            except OSError as error:
                if error.errno != errno.ETOOMANYREFS:
                    raise
            time.sleep(_ROOM_AGAIN)
            self._limit(deadline)
        if sent < len(frame):
            self.is_cut_off = True
            self._limit(deadline)
            self.socket.sendall(memoryview(frame)[sent:])
            self.is_cut_off = False

    def receive(self, deadline: Optional[float] = None) -> Optional[tuple[list[Item], list[int]]]:
        """The next message, and its descriptors, which are the caller's from then on; none at the end of the
        connection."""
        while missing := self._missing():
            self._limit(deadline)
            data, rights, flags, _ = self.socket.recvmsg(
                min(missing, _READ), socket.CMSG_SPACE(MOST_DESCRIPTORS * 4), socket.MSG_CMSG_CLOEXEC)
            for _, _, content in rights:
                self._descriptors.frombytes(content[:len(content) // 4 * 4])
            if flags & socket.MSG_CTRUNC or len(self._descriptors) > 3 * MOST_DESCRIPTORS:
                raise Malformed("too many descriptors, or no room for them")
            if not data:
                return None
            self._received += data
        declared = int.from_bytes(self._received[4:8], "little")
        if declared > len(self._descriptors):
            raise Malformed("a descriptor is missing")
        message = decode(bytes(self._received[8:]), declared)
        if not (isinstance(message, list) and message and type(message[0]) is int
                and tuple(map(type, message[1:])) == _SHAPES.get(message[0])
                and (isinstance(message[1], str) or message[1] >= 0)):
            raise Malformed("not a message")
        self._received.clear()
        own, self._descriptors = self._descriptors[:declared].tolist(), self._descriptors[declared:]
        return message, own

    def _missing(self) -> int:
        """How many bytes are missing to the header, or to the frame."""
        if len(self._received) < 8:
            return 8 - len(self._received)
        length, declared = struct.unpack("<II", self._received[:8])
        if length > MOST_BYTES or declared > MOST_DESCRIPTORS:
            raise Malformed("a frame beyond the limits")
        return 8 + int(length) - len(self._received)

    def _limit(self, deadline: Optional[float]) -> None:
        left = None if deadline is None else deadline - time.monotonic()
        if left is not None and left <= 0:
            raise TimeoutError
        self.socket.settimeout(left)
