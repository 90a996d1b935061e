"""The helper process: its start, its requests and its end."""

from __future__ import annotations

import collections
import json
import os
import subprocess
import sys
import threading
import weakref
from typing import Any, Deque, Dict, Optional, Sequence, Union

from .arrays import AnswerArrays, RequestArrays
from .errors import HelperGone, ProtocolMismatch, error_of
from .session import Session

PROTOCOL = 1  #: the version of the protocol that this package speaks
_CLOSE_SECONDS = 5.0
_LOG_LINES = 200


class Helper:
    """A running ``corvelle-helper``. Use it in a ``with`` statement, or ``close`` it; a helper that
    is forgotten ends with its object, and at the latest with this process.

    One request runs at a time; calls from several threads wait for each other.

    ``program`` is the path of the executable. ``environment`` adds to the process's own, such as
    ``{"CORVELLE_THREADS": "2"}``. ``arguments`` go behind our own.

    Raises HelperGone if the program does not start or answer, ProtocolMismatch if it speaks
    another version of the protocol.
    """

    def __init__(
        self,
        program: Union[str, "os.PathLike[str]"],
        *,
        environment: Optional[Dict[str, str]] = None,
        arguments: Sequence[str] = (),
    ) -> None:
        self._lock = threading.RLock()
        self._next_id = 0
        self._request_arrays = RequestArrays()
        self._answer_arrays = AnswerArrays()
        self._log: Deque[str] = collections.deque(maxlen=_LOG_LINES)
        command = [os.fspath(program), "--parent-pid", str(os.getpid()), *arguments]
        try:
            self._process = subprocess.Popen(
                command,
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                env=None if environment is None else {**os.environ, **environment},
                # No console window beside a host that has none.
                creationflags=0x08000000 if sys.platform == "win32" else 0,
            )
        except OSError as error:
            raise HelperGone("the helper did not start: %s" % error) from error
        self._reader = threading.Thread(
            target=_collect, args=(self._process.stderr, self._log), daemon=True
        )
        self._reader.start()
        self._finish = weakref.finalize(
            self, _end, self._process, self._request_arrays, self._answer_arrays, os.getpid()
        )
        try:
            #: The answer of ``hello``: version, platform and features.
            self.hello: Dict[str, Any] = self.request("hello", protocol=PROTOCOL)
            if self.hello.get("protocol") != PROTOCOL:
                raise ProtocolMismatch(
                    "protocol",
                    "the helper speaks protocol %r, not %d" % (self.hello.get("protocol"), PROTOCOL),
                    "hello",
                )
        except BaseException:
            self.close()
            raise

    # ---- requests ------------------------------------------------------------------------------

    def request(self, command: str, /, **fields: Any) -> Dict[str, Any]:
        """Sends one request and waits for its result.

        ``fields`` are the command's own, by their names on the wire. A field that is None counts as
        not given. Numpy arrays, at any depth, travel through shared memory. The arrays of the
        result are read-only views of the helper's memory (``AnswerArray``), good until its next
        answer of the same kind; ``keep`` copies them.

        Raises a RequestFailed of the failure's own class, HelperGone if the process has ended.
        """
        with self._lock:
            self._next_id += 1
            packed = self._request_arrays.pack(
                {key: value for key, value in fields.items() if value is not None}
            )
            packed.update(cmd=command, id=self._next_id)
            line = json.dumps(packed, separators=(",", ":"), allow_nan=False).encode() + b"\n"
            reply = self._exchange(line, self._next_id)
            if not reply.get("ok"):
                raise error_of(reply, command)
            if command == "close_session":
                self._answer_arrays.forget(self.pid, fields["session"])
            result: Dict[str, Any] = self._answer_arrays.unpack(reply["result"])
            return result

    def ping(self) -> None:
        """Returns if the helper answers."""
        self.request("ping")

    def new_session(
        self,
        *,
        upAxis: Optional[str] = None,
        metersPerUnit: Optional[float] = None,
        fps: Optional[float] = None,
    ) -> Session:
        """Opens a session, for one groom. Left out, the scene is Z up, in metres, 24 frames."""
        space = {"upAxis": upAxis, "metersPerUnit": metersPerUnit}
        answer = self.request("new_session", space=space, fps=fps)
        return Session(self, int(answer["session"]))

    def operator_specs(self) -> Any:
        """Every type of node with its ports and params."""
        return self.request("operator_specs")["operators"]

    def default_graph(self) -> Any:
        """The graph that a new groom begins with."""
        return self.request("default_graph")["graph"]

    def tool_catalog(self) -> Dict[str, Any]:
        """``tools``, ``settings`` and ``categories``: what a tool shelf is built from."""
        return self.request("tool_catalog")

    # ---- the process ---------------------------------------------------------------------------

    @property
    def pid(self) -> int:
        """The process's number."""
        return self._process.pid

    @property
    def alive(self) -> bool:
        """True while the process runs."""
        return self._process.poll() is None

    @property
    def log(self) -> str:
        """The last lines that the process wrote to standard error."""
        return "".join(self._log)

    def close(self) -> Optional[int]:
        """Ends the process and its shared memory. Arrays of answers that are still held keep their
        contents. Safe to call again. Returns the exit code."""
        with self._lock:
            self._finish()
            self._reader.join(_CLOSE_SECONDS)
            return self._process.returncode

    def __enter__(self) -> "Helper":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _exchange(self, line: bytes, number: int) -> Dict[str, Any]:
        """One line there, its reply back."""
        to, back = self._process.stdin, self._process.stdout
        assert to is not None and back is not None
        while True:
            try:
                if line:
                    to.write(line)
                    to.flush()
                    line = b""
                text = back.readline()
            except (OSError, ValueError) as error:  # a broken pipe, a closed file
                raise self._gone() from error
            if not text.endswith(b"\n"):
                raise self._gone()
            reply: Dict[str, Any] = json.loads(text)
            if reply.get("id") == number:
                return reply
            # Else it is of an earlier request whose wait was interrupted.

    def _gone(self) -> HelperGone:
        try:
            code: Optional[int] = self._process.wait(_CLOSE_SECONDS)
        except subprocess.TimeoutExpired:
            code = None
        self._reader.join(1.0)
        return HelperGone("the helper has ended (exit code %s)" % code, code, self.log)


def _collect(stream: Any, log: Deque[str]) -> None:
    """Reads standard error, so that the helper never waits for someone to."""
    with stream:
        for line in stream:
            log.append(line.decode("utf-8", "replace"))


def _end(
    process: "subprocess.Popen[bytes]",
    request_arrays: RequestArrays,
    answer_arrays: AnswerArrays,
    owner: int,
) -> None:
    """Asks the process to leave, makes it leave if it does not, and lets go of all memory."""
    if os.getpid() != owner:
        return  # a forked child; the helper is its parent's
    try:
        if process.poll() is None and process.stdin is not None:
            process.stdin.close()  # the end of its input is the end of its loop
            process.wait(_CLOSE_SECONDS)
    except (OSError, subprocess.TimeoutExpired):
        pass
    if process.poll() is None:
        process.kill()
    process.wait()
    if process.stdout is not None:
        process.stdout.close()
    request_arrays.close()
    answer_arrays.close()
