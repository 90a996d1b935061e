"""Arrays on the wire: numpy arrays of a request become references into shared memory, references
of an answer become numpy views of the helper's."""

from __future__ import annotations

import itertools
import math
import os
import re
from typing import Any, Dict, List, Optional, Set, Tuple

import numpy as np

from .shared_memory import OwnRegion, open_view

_ALIGNMENT = 64
_MEBIBYTE = 1 << 20
_WIRE_DTYPES = ("<f4", "<i4", "<u4", "<f8", "<i8", "<u8")
_clients = itertools.count()


class AnswerArray(np.ndarray):
    """A read-only view of an array of an answer, in the helper's own memory.

    The helper writes its next answer of the same kind over it (strands over strands, guides over
    guides, within one session). ``is_current`` tells whether that has happened; ``keep`` copies.
    """

    _region: Optional["_MappedRegion"] = None
    _generation = 0

    def __array_finalize__(self, source: Any) -> None:
        # Parts and reshapes look at the same memory; what is computed from it has its own.
        if isinstance(source, AnswerArray) and self.base is not None:
            self._region = source._region
            self._generation = source._generation

    @property
    def is_current(self) -> bool:
        """False once a later answer may have been written over this memory."""
        return self._region is None or self._region.generation == self._generation

    def keep(self) -> np.ndarray:
        """A plain copy that lives as long as you like.

        Raises RuntimeError if the helper may have written over the array already.
        """
        if not self.is_current:
            raise RuntimeError("a later answer was written over this array: keep() it before")
        return np.array(self, subok=False, copy=True)


def keep(value: Any) -> Any:
    """A copy of an answer, or of any part of one, whose arrays live as long as you like."""
    if isinstance(value, AnswerArray):
        return value.keep()
    if isinstance(value, dict):
        return {key: keep(item) for key, item in value.items()}
    if isinstance(value, list):
        return [keep(item) for item in value]
    return value


def _wire_array(array: np.ndarray) -> np.ndarray:
    """The array in the nearest type that the wire has."""
    kind, size = array.dtype.kind, array.dtype.itemsize
    if kind == "f":
        dtype = "<f4" if size <= 4 else "<f8"
    elif kind in "iu":
        dtype = "<%s%d" % (kind, 4 if size <= 4 else 8)
    else:
        raise TypeError("an array of %s cannot be sent: give floats or integers" % array.dtype)
    return array if array.dtype == np.dtype(dtype) else array.astype(dtype)


class RequestArrays:
    """Places the arrays of one request after the other in a region of their own, which is used
    again for every request and made anew, with room to spare, when one needs more."""

    def __init__(self) -> None:
        # Of the helper's own pattern: a helper that starts later sweeps it if we are killed.
        self._base = "corvelle_%d_client%d" % (os.getpid(), next(_clients))
        self._serial = 0
        self._region: Optional[OwnRegion] = None

    def pack(self, fields: Dict[str, Any]) -> Dict[str, Any]:
        """``fields`` as JSON can say it. The region holds the arrays until the next call."""
        arrays: List[Tuple[np.ndarray, Dict[str, Any]]] = []
        packed = self._replace(fields, arrays)
        end = 0
        for array, reference in arrays:
            start = -(-end // _ALIGNMENT) * _ALIGNMENT
            reference["offset"] = start
            end = start + array.nbytes
        if arrays:
            region = self._room(end)
            for array, reference in arrays:
                reference["shm"] = region.name
                target = np.frombuffer(
                    region.memory, array.dtype, array.size, reference["offset"]
                ) if array.size else np.empty(0, array.dtype)
                target.reshape(array.shape)[...] = array
        return packed

    def close(self) -> None:
        if self._region is not None:
            self._region.close()
            self._region = None

    def _room(self, size: int) -> OwnRegion:
        if self._region is None or self._region.size < size:
            self.close()
            self._serial += 1
            room = -(-(size + size // 2) // _MEBIBYTE) * _MEBIBYTE
            self._region = OwnRegion("%s_%d" % (self._base, self._serial), room)
        return self._region

    def _replace(self, value: Any, arrays: List[Tuple[np.ndarray, Dict[str, Any]]]) -> Any:
        if isinstance(value, np.ndarray):
            array = _wire_array(value)
            if array.ndim == 0:
                return array.item()
            reference: Dict[str, Any] = {"dtype": array.dtype.str, "shape": list(array.shape)}
            arrays.append((array, reference))
            return reference
        if isinstance(value, np.generic):
            return value.item()
        if isinstance(value, dict):
            return {str(key): self._replace(item, arrays) for key, item in value.items()}
        if isinstance(value, (list, tuple)):
            return [self._replace(item, arrays) for item in value]
        return value


class _MappedRegion:
    """A region of one of the helper's answer pools, and how many answers it has held."""

    def __init__(self, name: str, size: int) -> None:
        self.name = name
        self.view = open_view(name, size)
        self.generation = 0


class AnswerArrays:
    """Maps the references of answers. Every region is mapped once, and let go when its pool has
    moved on to the next; arrays that are still held keep their own memory mapped, and nothing
    writes to it any more."""

    def __init__(self) -> None:
        self._regions: Dict[str, _MappedRegion] = {}  # by pool: the name without its serial

    def unpack(self, result: Any) -> Any:
        """``result`` with every array reference replaced by an ``AnswerArray``."""
        return self._replace(result, set())

    def forget(self, process: int, session: int) -> None:
        """Lets go of the regions of a closed session."""
        ours = re.compile(r"corvelle_%d_s%d\D" % (process, session))
        for pool in [name for name in self._regions if ours.match(name)]:
            del self._regions[pool]

    def close(self) -> None:
        self._regions.clear()

    def _replace(self, value: Any, answered: Set[str]) -> Any:
        if isinstance(value, dict):
            if "shm" in value and "shape" in value:
                return self._array(value, answered)
            return {key: self._replace(item, answered) for key, item in value.items()}
        if isinstance(value, list):
            return [self._replace(item, answered) for item in value]
        return value

    def _array(self, reference: Dict[str, Any], answered: Set[str]) -> Any:
        name, dtype = str(reference["shm"]), str(reference.get("dtype", "<f4"))
        if dtype not in _WIRE_DTYPES:
            raise ValueError("an array of type '%s' in an answer" % dtype)
        shape = tuple(int(size) for size in reference["shape"])
        offset, count = int(reference.get("offset", 0)), math.prod(shape)
        end = offset + count * np.dtype(dtype).itemsize

        pool = name.rpartition("_")[0]
        region = self._regions.get(pool)
        if region is None or region.name != name:
            region = self._regions[pool] = _MappedRegion(name, end)
        elif len(region.view) < end:
            region.view = open_view(name, end)
        if name not in answered:  # the first array of this answer of the pool
            answered.add(name)
            region.generation += 1

        plain = np.frombuffer(region.view, dtype, count, offset) if count else np.empty(0, dtype)
        plain.flags.writeable = False
        array = plain.reshape(shape).view(AnswerArray)
        array._region, array._generation = region, region.generation
        if "scope" in reference:  # an attribute tells whether it is of strands or of points
            return {"scope": reference["scope"], "array": array}
        return array
