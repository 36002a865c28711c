"""What can go wrong. Every exception of this package is a TrelanError."""

from __future__ import annotations

INCORRECT_SIZE = 1
INCORRECT_DATA = 2
UNREGISTERED_CLIENT = 3
UNSUPPORTED_REQUEST = 4
INVALID_STORAGE = 256
STORAGE_ACCESS = 512


class TrelanError(Exception):
    """The base of all exceptions of this package."""


class ProtocolError(TrelanError):
    """The peer has sent bytes that are no frame, or a frame that is no envelope."""


class Refused(TrelanError):
    """The bus has refused a request, and nothing of it was done."""

    def __init__(self, code: int, description: str) -> None:
        super().__init__(code, description)
        self.code = code
        self.description = description

    def __str__(self) -> str:
        return f"{self.description} (code {self.code})"


class NobodyThere(Refused):
    """The receiver has no message connection, so that the message went nowhere."""


class NotConnected(TrelanError):
    """There is no bus at the moment.

    ``sent`` tells whether the request had left when the connection was lost. Nobody knows then
    whether it was carried out.
    """

    def __init__(self, reason: str, sent: bool = False) -> None:
        super().__init__(reason, sent)
        self.sent = sent

    def __str__(self) -> str:
        return str(self.args[0])


class ClosedByBus(NotConnected):
    """The bus has closed a connection, or has ended."""


class WrongPort(NotConnected):
    """The port belongs to the other channel of the bus."""


class TimedOut(TrelanError):
    """The bus, or whoever was called, has not answered in time. What was asked may still be
    done."""


class AnswerError(TrelanError):
    """Whoever was called has answered with the parameter ``error``, or with no object.

    ``params`` are all parameters of the answer.
    """

    def __init__(self, error: str, params: object = None) -> None:
        super().__init__(error, params)
        self.error = error
        self.params = params

    def __str__(self) -> str:
        return self.error


class TooSlow(TrelanError):
    """The reader of a watch has taken nothing for so long that its changes fit nowhere any more."""
