"""What can go wrong between a host and its helper, one class per code of the protocol."""

from __future__ import annotations

from typing import Any, Dict, Optional, Type


class HelperError(Exception):
    """Any failure of the helper or of the way to it."""


class HelperGone(HelperError):
    """The process has ended or could not be started; sessions and answers are lost.

    ``exit_code`` is its exit code where there is one; ``log`` is the end of what it wrote to
    standard error, where it was collected.
    """

    def __init__(self, message: str, exit_code: Optional[int] = None, log: str = "") -> None:
        super().__init__(message + (": " + log.strip() if log.strip() else ""))
        self.exit_code = exit_code
        self.log = log


class RequestFailed(HelperError):
    """The helper refused a request or failed at it. The process and its sessions go on.

    ``code`` is the protocol's, ``message`` the helper's text for the user, ``command`` what was
    asked for.
    """

    code = ""

    def __init__(self, code: str, message: str, command: str = "") -> None:
        super().__init__(message)
        self.code = code
        self.message = message
        self.command = command


class BadRequest(RequestFailed):
    """A field is missing, of the wrong type or out of its range; the message names it."""


class ParseFailed(RequestFailed):
    """A file, graph or other text does not read."""


class GraphFailed(RequestFailed):
    """A graph, a node or a param is not as it should be."""


class NotFound(RequestFailed):
    """There is no node, param, file or preset of that name."""


class WrongState(RequestFailed):
    """The session is not in a state for this: it has no scalp, say."""


class TypeMismatch(RequestFailed):
    """A param was given a value of another kind."""


class Unsupported(RequestFailed):
    """A command that this helper does not offer."""


class UnknownCommand(RequestFailed):
    """No command of the protocol."""


class NoSession(RequestFailed):
    """The session is closed, or never was."""


class ProtocolMismatch(RequestFailed):
    """The helper speaks another version of the protocol."""


class SharedMemoryFailed(RequestFailed):
    """The helper cannot open an array's shared memory."""


class EvaluationFailed(RequestFailed):
    """There are no strands, and the command cannot go on without."""


class IoFailed(RequestFailed):
    """A groom or a painted picture cannot be written."""


class OutOfMemory(RequestFailed):
    """The helper has no memory for this."""


class InternalError(RequestFailed):
    """Anything else: an Alembic or USD file that cannot be read or written, or a fault of the
    helper's own."""


_BY_CODE: Dict[str, Type[RequestFailed]] = {
    "bad_request": BadRequest,
    "parse": ParseFailed,
    "graph": GraphFailed,
    "not_found": NotFound,
    "state": WrongState,
    "type_mismatch": TypeMismatch,
    "unsupported": Unsupported,
    "unknown_command": UnknownCommand,
    "no_session": NoSession,
    "protocol": ProtocolMismatch,
    "shared_memory": SharedMemoryFailed,
    "evaluation": EvaluationFailed,
    "io": IoFailed,
    "out_of_memory": OutOfMemory,
    "internal": InternalError,
}


def error_of(reply: Any, command: str) -> RequestFailed:
    """The exception for a reply whose ``ok`` is false. A code of a newer helper gives the base."""
    error = reply.get("error") or {}
    code = str(error.get("code", "internal"))
    return _BY_CODE.get(code, RequestFailed)(code, str(error.get("message", "")), command)
