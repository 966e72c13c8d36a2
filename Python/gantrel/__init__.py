"""Applications of one user that find each other through the Gantrel agent, and then talk directly.

One offers something: functions, by the names that others call them by. It registers where it listens with the
agent, under an identifier of its choosing.

    import gantrel

    listener = gantrel.Listener({"greet:reply:": lambda name: f"Hello, {name}"})
    gantrel.Agent().register(listener.endpoint, "org.example.greeter")
    listener.serve_forever()

Another one asks the agent for the identifier, connects, and calls.

    endpoint = gantrel.Agent().retrieve("org.example.greeter")
    if endpoint:
        with gantrel.connect(endpoint) as greeter:
            print(*greeter.call("greet:reply:", "Ada", timeout=5))

`call` gives the list of the answer's values; `send` waits for no answer. A function answers with a value, or with a
tuple of several or none. A value is None, a bool, an int of 64 bits,
a float, a str, bytes, a Date, an Endpoint, a list of values or a dict of them by texts. An answer that cannot be had
is an Error: Gone (nobody is there, or no longer), Refused (the peer does not know the call, or not with such
arguments) or TimedOut. An agent that has ended remembers nothing: register again. Objects belong to one thread at a
time; each connection to a listener is served on a thread of its own, where the functions must expect to be called.
"""

from __future__ import annotations

import contextlib
import errno
import fcntl
import inspect
import itertools
import logging
import math
import os
import secrets
import socket
import stat
import struct
import threading
import time
from typing import Callable, Mapping, Optional, Sequence, Union

from . import wire
from .wire import Date

__all__ = ["AGENT", "Agent", "Connection", "Date", "Endpoint", "Error", "Exports", "Gone", "Listener", "Refused",
           "Sendable", "TimedOut", "Value", "connect"]

AGENT = "com.gantrel.Gantrel.agent"  # the name of the agent's service

_logger = logging.getLogger(__name__)
_LONGEST = 365 * 86400.0  # seconds, of a time limit
_FULL = 0.1  # seconds, after which a listener without room for a connection looks again


class Error(Exception):
    """The answer cannot be had."""


class Gone(Error, ConnectionError):
    """Nobody is there, or the connection ended first."""


class Refused(Error):
    """The peer does not know the message, or not with such arguments, or gave no answer. To be raised by functions
    that are exported, too."""


class TimedOut(Error, TimeoutError):
    """The answer did not come in time. When it comes, it is nothing to anybody."""


class Endpoint:
    """Where a listener can be reached: a descriptor (O_PATH, of its socket) that others can be sent."""

    def __init__(self, descriptor: int) -> None:
        """Takes the descriptor over. ValueError, and it is closed, when it is of anything else."""
        self._descriptor = -1
        is_path = fcntl.fcntl(descriptor, fcntl.F_GETFL) & os.O_PATH
        self._descriptor = descriptor
        if not (is_path and stat.S_ISSOCK(os.fstat(descriptor).st_mode)):
            self.close()
            raise ValueError("the descriptor is no endpoint")

    def fileno(self) -> int:
        return self._descriptor

    def close(self) -> None:
        if self._descriptor >= 0:
            os.close(self._descriptor)
        self._descriptor = -1

    __del__ = close


Value = Union[None, bool, int, float, str, bytes, Date, Endpoint, list["Value"], dict[str, "Value"]]
Sendable = Union[None, bool, int, float, str, bytes, Date, Endpoint, Sequence["Sendable"], Mapping[str, "Sendable"]]
# Functions by selector: the name, with a colon for each argument and one for the reply, if there is one; not the empty
# one, which others count on nobody to know. What a function gives is the answer's value, or its values where that is a
# tuple.
Exports = Mapping[str, Callable[..., "Sendable | tuple[Sendable, ...]"]]


class Connection:
    """A connection to a listener, or of one. The peer's messages, too, are carried out while something waits here."""

    def __init__(self, connected: socket.socket, exports: Optional[Exports] = None) -> None:
        self._channel = wire.Channel(connected)
        self._exports = exports or {}
        self._serials = itertools.count(1)
        self._answers: dict[int, Union[None, Refused, list[Value]]] = {}  # to the calls under way; none yet
        self._is_open = True

    def call(self, selector: str, *arguments: Sendable, timeout: Optional[float] = None) -> list[Value]:
        """The answer's values. `timeout` is in seconds."""
        deadline = _deadline(timeout)
        serial = next(self._serials)
        self._answers[serial] = None
        try:
            self._transmit([wire.CALL, serial, _selector(selector)], arguments, deadline)
            while (answer := self._answers[serial]) is None:
                self._take(deadline)
        finally:
            del self._answers[serial]
        if isinstance(answer, Refused):
            raise answer
        return answer

    def send(self, selector: str, *arguments: Sendable, timeout: Optional[float] = None) -> None:
        """Sends a message that has no answer."""
        self._transmit([wire.MESSAGE, _selector(selector)], arguments, _deadline(timeout))

    def serve(self) -> None:
        """Carries out what the peer sends, until the connection ends."""
        try:
            while True:
                self._take(None)
        except Gone:
            pass

    def close(self) -> None:
        self._is_open = False
        self._channel.close()

    def __enter__(self) -> Connection:
        return self

    def __exit__(self, *reason: object) -> None:
        self.close()

    __del__ = close

    def _transmit(self, message: list[wire.Item], values: Optional[Sequence[Sendable]] = None,
                  deadline: Optional[float] = None) -> None:
        descriptors: list[int] = []

        def item(value: Sendable, depth: int = 0) -> wire.Item:
            if depth > wire.DEEPEST:  # or it holds itself
                raise ValueError("too deep for a message")
            if isinstance(value, Endpoint):
                if value.fileno() < 0:
                    raise ValueError("the endpoint is closed")
                descriptors.append(value.fileno())
                return wire.Index(len(descriptors) - 1)
            if isinstance(value, Mapping):
                return {key: item(each, depth + 1) for key, each in value.items()}
            if isinstance(value, Sequence) and not isinstance(value, (str, bytes, bytearray)):
                return [item(each, depth + 1) for each in value]
            return value

        if values is not None:
            message = [*message, [item(value) for value in values]]
        if not self._is_open:
            raise Gone("the connection has ended")
        try:
            self._channel.send(message, descriptors, deadline)
        except TimeoutError:
            if self._channel.is_cut_off:
                self.close()
            raise TimedOut("the peer did not read in time") from None
        except OSError as error:
            self.close()
            raise Gone("the connection has ended") from error

    def _take(self, deadline: Optional[float]) -> None:
        """Waits for one message of the peer, and does what it says."""
        received = None
        try:
            if self._is_open:
                received = self._channel.receive(deadline)
        except TimeoutError:
            raise TimedOut("no answer came in time") from None
        except (OSError, wire.Malformed):
            pass
        if received is None:
            self.close()
            raise Gone("the connection has ended")
        (_, *message), descriptors = received
        try:
            match message:
                case [str(selector), list(items)]:
                    self._carry_out(selector, items, descriptors)
                case [int(serial), str(selector), list(items)]:
                    self._answer(serial, self._carry_out(selector, items, descriptors))
                case [int(serial)] if serial in self._answers:
                    self._answers[serial] = Refused("the call was refused")
                case [int(serial), list(items)] if serial in self._answers:
                    try:
                        self._answers[serial] = _values(items, descriptors)
                    except ValueError:
                        self._answers[serial] = Refused("the answer holds a descriptor that is no endpoint")
        finally:
            for descriptor in descriptors:
                if descriptor >= 0:
                    os.close(descriptor)

    def _carry_out(self, selector: str, items: list[wire.Item],
                   descriptors: list[int]) -> Optional[tuple[Sendable, ...]]:
        """What the function gives; none when there is no such function, or it fails."""
        function = self._exports.get(selector) if selector else None
        try:
            arguments = _values(items, descriptors)
            if function is None or not _takes(function, arguments):
                return None
        except ValueError:
            return None
        try:
            result = function(*arguments)
        except Refused:
            return None
        except BaseException:  # an exit, too, is of the function, and not of who has called it
            _logger.exception("%s failed", selector)
            return None
        return result if isinstance(result, tuple) else (result,)

    def _answer(self, serial: int, values: Optional[tuple[Sendable, ...]]) -> None:
        if values is not None:
            try:
                return self._transmit([wire.REPLY, serial], values)
            except (TypeError, ValueError):
                _logger.exception("an answer that no message can hold")
        self._transmit([wire.REFUSAL, serial])


class Listener:
    """Where others can connect. What it serves are functions, by selector."""

    def __init__(self, exports: Exports) -> None:
        """OSError when there is no runtime directory of the user's own to listen in."""
        self._exports = exports
        self._socket = socket.socket(socket.AF_UNIX)
        self.endpoint = _listen(self._socket)

    def serve_forever(self) -> None:
        """Accepts connections, each of which is then served on a thread of its own, until `close` is called, which
        any thread may do."""
        while True:
            try:
                connected, _ = self._socket.accept()
            except OSError as error:
                if error.errno not in (errno.EMFILE, errno.ENFILE, errno.ENOBUFS, errno.ENOMEM):
                    return
                time.sleep(_FULL)
                continue
            credentials = connected.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
            if struct.unpack("3i", credentials)[1] != os.geteuid():
                connected.close()
                continue
            connection = Connection(connected, self._exports)
            try:
                threading.Thread(target=connection.serve, daemon=True).start()
            except RuntimeError:  # the system has no more threads
                connection.close()

    def close(self) -> None:
        """Nobody can connect any more. Connections that there are go on."""
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)  # wakes `serve_forever`
        self._socket.close()


class Agent:
    """The agent. It is connected to when it is first asked something, and anew when it has ended since."""

    def __init__(self, service: str = AGENT) -> None:
        self._service = service
        self._connection: Optional[Connection] = None

    def register(self, endpoint: Endpoint, identifier: str, timeout: Optional[float] = None) -> None:
        """From now on the identifier stands for the endpoint, and no longer for another one."""
        self._ask("registerListenerEndpoint:forIdentifier:completionHandler:", endpoint, identifier, timeout=timeout)

    def retrieve(self, identifier: str, timeout: Optional[float] = None) -> Optional[Endpoint]:
        """The endpoint that is registered under the identifier; none when there is none."""
        [found] = self._ask("retrieveListenerEndpoint:completionHandler:", identifier, timeout=timeout)
        return found if isinstance(found, Endpoint) else None

    def remove(self, identifier: str, timeout: Optional[float] = None) -> None:
        """The identifier stands for nothing any more, for whatever is asked here next and soon for everybody."""
        self.retrieve(identifier, timeout)  # there is no answer: this shows that the agent is there
        if self._connection:
            self._connection.send("removeListenerEndpoint:", identifier, timeout=timeout)

    def close(self) -> None:
        if self._connection:
            self._connection.close()
        self._connection = None

    def _ask(self, selector: str, *arguments: Sendable, timeout: Optional[float]) -> list[Value]:
        if self._connection:
            try:
                return self._connection.call(selector, *arguments, timeout=timeout)
            except Gone:
                pass  # the agent has ended since; to be asked twice does no harm
        self._connection = connect(self._service)
        return self._connection.call(selector, *arguments, timeout=timeout)


def connect(to: Union[Endpoint, str], exports: Optional[Exports] = None) -> Connection:
    """A connection to an endpoint's listener, or to a service by its name. The peer may call the `exports` while
    something waits on the connection. Gone when nobody is there."""
    path = f"/proc/self/fd/{to.fileno()}" if isinstance(to, Endpoint) else f"{_folder()}/{to}.socket"
    connected = socket.socket(socket.AF_UNIX)
    try:
        connected.connect(path)
    except OSError as error:
        connected.close()
        who = "behind the endpoint" if isinstance(to, Endpoint) else f"as {to}"
        raise Gone(f"nobody is there {who}") from error
    return Connection(connected, exports)


def _folder() -> str:
    runtime_directory = os.environ.get("XDG_RUNTIME_DIR", "")
    return (runtime_directory if runtime_directory.startswith("/") else f"/run/user/{os.geteuid()}") + "/gantrel"


def _listen(listening: socket.socket) -> Endpoint:
    folder = _folder()
    with contextlib.suppress(FileExistsError):
        os.mkdir(folder, 0o700)
    for each in os.path.dirname(folder), folder:
        status = os.lstat(each)
        if not stat.S_ISDIR(status.st_mode) or status.st_uid != os.geteuid() or status.st_mode & 0o077:
            raise PermissionError(f"{each} is not a folder of this user's alone")
    lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        # While it is held, nobody takes the name for one that a process left behind when it crashed.
        fcntl.flock(lock, fcntl.LOCK_SH)
        name = f"{folder}/.{secrets.token_hex(16)}"
        listening.bind(name)
        try:
            endpoint = Endpoint(os.open(name, os.O_PATH | os.O_CLOEXEC | os.O_NOFOLLOW))
        finally:
            os.unlink(name)
    finally:
        os.close(lock)
    listening.listen(socket.SOMAXCONN)
    return endpoint


def _selector(selector: str) -> str:
    if not isinstance(selector, str):
        raise TypeError("a selector is a str")
    return selector


def _deadline(timeout: Optional[float]) -> Optional[float]:
    if timeout is None:
        return None
    if math.isnan(timeout):
        raise ValueError("the time limit is no number")
    return time.monotonic() + min(timeout, _LONGEST)


def _values(items: list[wire.Item], descriptors: list[int]) -> list[Value]:
    """The items with their endpoints, which take their descriptors out of the list. ValueError when one is none."""

    def value(item: wire.Item) -> Value:
        if isinstance(item, wire.Index):
            descriptor, descriptors[item] = descriptors[item], -1
            return Endpoint(descriptor)
        if isinstance(item, list):
            return [value(each) for each in item]
        if isinstance(item, dict):
            return {key: value(each) for key, each in item.items()}
        assert isinstance(item, (type(None), bool, int, float, str, bytes))
        return item

    return [value(item) for item in items]


def _takes(function: Callable[..., object], arguments: list[Value]) -> bool:
    try:
        inspect.signature(function).bind(*arguments)
    except TypeError:
        return False
    except ValueError:
        pass  # a built-in one, which does not tell
    return True
