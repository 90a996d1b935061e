"""Named shared memory: regions made here for the arrays of requests, and views of the helper's.

``multiprocessing.shared_memory`` is of no use here: on POSIX its resource tracker removes regions
that another process owns, and complains about those that outlive a process on purpose.
"""

from __future__ import annotations

import contextlib
import mmap
import os
import sys
import weakref
from typing import Iterator, Optional

_WINDOWS = sys.platform == "win32"
_SHM_DIRECTORY = "/dev/shm"


def _open_posix(name: str, flags: int) -> int:
    """A file descriptor of a region. Not inherited by child processes."""
    if os.path.isdir(_SHM_DIRECTORY):  # Linux: the regions are files of this directory
        return os.open(os.path.join(_SHM_DIRECTORY, name), flags | os.O_CLOEXEC, 0o600)
    import _posixshmem  # other systems; of the standard library, without the tracker

    return _posixshmem.shm_open("/" + name, flags | os.O_CLOEXEC, mode=0o600)


def _unlink_posix(name: str) -> None:
    try:
        if os.path.isdir(_SHM_DIRECTORY):
            os.unlink(os.path.join(_SHM_DIRECTORY, name))
        else:
            import _posixshmem

            _posixshmem.shm_unlink("/" + name)
    except FileNotFoundError:
        pass


@contextlib.contextmanager
def _held_windows(name: str) -> Iterator[bool]:
    """Tells whether there is a region of that name. If so, it stays there meanwhile."""
    import ctypes

    kernel = ctypes.WinDLL("kernel32", use_last_error=True)  # type: ignore[attr-defined]
    kernel.OpenFileMappingW.restype = ctypes.c_void_p
    kernel.OpenFileMappingW.argtypes = [ctypes.c_uint32, ctypes.c_int, ctypes.c_wchar_p]
    kernel.CloseHandle.argtypes = [ctypes.c_void_p]
    handle = kernel.OpenFileMappingW(0x0004, 0, name)  # FILE_MAP_READ
    if not handle:
        error = ctypes.get_last_error()  # type: ignore[attr-defined]
        if error != 2:  # ERROR_FILE_NOT_FOUND
            raise ctypes.WinError(error)  # type: ignore[attr-defined]
    try:
        yield bool(handle)
    finally:
        if handle:
            kernel.CloseHandle(handle)


def open_view(name: str, size: int) -> mmap.mmap:
    """Maps the first ``size`` bytes, or more, of another process's region for reading.

    The memory stays mapped as long as the result or any buffer made of it lives, whatever becomes
    of the region's name.

    Raises FileNotFoundError if there is no such region, ValueError if it is smaller.
    """
    if _WINDOWS:
        with _held_windows(name) as there_is:
            if not there_is:  # mmap would make it
                raise FileNotFoundError("no shared memory named '%s'" % name)
            try:
                return mmap.mmap(-1, max(size, 1), tagname=name, access=mmap.ACCESS_READ)
            except PermissionError as error:  # what the system says of a view past the end
                raise ValueError("shared memory '%s' has not %d bytes" % (name, size)) from error
    descriptor = _open_posix(name, os.O_RDONLY)
    try:
        there = os.fstat(descriptor).st_size
        if there < size:
            raise ValueError("shared memory '%s' has %d bytes, not %d" % (name, there, size))
        return mmap.mmap(descriptor, max(there, 1), mmap.MAP_SHARED, mmap.PROT_READ)
    finally:
        os.close(descriptor)


class OwnRegion:
    """A region made by this process, for a helper to read. Its name goes with ``close``, with the
    object, and with the process, whichever comes first."""

    def __init__(self, name: str, size: int) -> None:
        self.name = name
        self.size = max(size, 1)
        if _WINDOWS:
            with _held_windows(name) as there_is:
                if there_is:  # mmap would share it
                    raise FileExistsError("shared memory '%s' exists already" % name)
            self._map: Optional[mmap.mmap] = mmap.mmap(-1, self.size, tagname=name)
            self._finish = weakref.finalize(self, lambda: None)
            return
        descriptor = _open_posix(name, os.O_CREAT | os.O_EXCL | os.O_RDWR)
        # A forked child has this object too, but not the region.
        self._finish = weakref.finalize(self, _remove, name, os.getpid())
        try:
            if hasattr(os, "posix_fallocate"):
                # A full system fails here, with an OSError, and not at a write, with a signal.
                os.posix_fallocate(descriptor, 0, self.size)
            else:
                os.ftruncate(descriptor, self.size)
            self._map = mmap.mmap(descriptor, self.size)
        except BaseException:
            self._map = None
            self._finish()
            raise
        finally:
            os.close(descriptor)

    @property
    def memory(self) -> mmap.mmap:
        """The writable memory."""
        if self._map is None:
            raise ValueError("shared memory '%s' is closed" % self.name)
        return self._map

    def close(self) -> None:
        """Removes the name. The memory itself goes with the last buffer made of it."""
        self._finish()
        self._map = None


def _remove(name: str, owner: int) -> None:
    if os.getpid() == owner:
        _unlink_posix(name)
