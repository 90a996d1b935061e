"""Talks to ``corvelle-helper``, the process that holds Corvelle's grooming engine.

    import numpy as np
    from corvelle_client import Helper

    with Helper("build/release/bin/corvelle-helper") as helper:
        groom = helper.new_session(upAxis="Z", metersPerUnit=1.0)
        groom.set_scalp(points, faceCounts, faceIndices, uvs=uvs)
        hair = groom.evaluate(density=0.5)
        positions = hair["arrays"]["positions"]   # (n, 3) float32, in shared memory

Numpy arrays in a request travel through shared memory, and so do the arrays of answers: they come
back as read-only views of memory that the helper writes again with its next answer of the same
kind. ``keep(answer)`` copies what is to live longer.

Python 3.9 or newer, the standard library and numpy; Linux and Windows.
"""

from .arrays import AnswerArray, keep
from .errors import (
    BadRequest,
    EvaluationFailed,
    GraphFailed,
    HelperError,
    HelperGone,
    InternalError,
    IoFailed,
    NoSession,
    NotFound,
    OutOfMemory,
    ParseFailed,
    ProtocolMismatch,
    RequestFailed,
    SharedMemoryFailed,
    TypeMismatch,
    UnknownCommand,
    Unsupported,
    WrongState,
)
from .helper import PROTOCOL, Helper
from .session import Session
from .tools import make_view

__all__ = [
    "PROTOCOL",
    "AnswerArray",
    "BadRequest",
    "EvaluationFailed",
    "GraphFailed",
    "Helper",
    "HelperError",
    "HelperGone",
    "InternalError",
    "IoFailed",
    "NoSession",
    "NotFound",
    "OutOfMemory",
    "ParseFailed",
    "ProtocolMismatch",
    "RequestFailed",
    "Session",
    "SharedMemoryFailed",
    "TypeMismatch",
    "UnknownCommand",
    "Unsupported",
    "WrongState",
    "keep",
    "make_view",
]
