"""Calls of libqx_collection: what they own, how they fail, and how long ones are interrupted."""

from __future__ import annotations

import _thread
import contextlib
import ctypes
import errno
import functools
import importlib
import operator
import os
import sys
import threading
from collections.abc import Iterator
from typing import Any, Callable, Optional

from . import _library

Report = Callable[[int, int], object]

_INTERVAL = 0.05  # seconds between two reports
_nobody = _library.Progress(0)
_local = threading.local()  # .called_back: whether the thread runs a callable of the caller


class Cancelled(Exception):
    """A call was cancelled, and has changed nothing. A progress callable may raise it."""


class CorruptFile(ValueError):
    """A file is not one that a collection was saved to, or is not whole."""


# Releasing runs C functions alone: inside of a finalizer in Python a signal would be handled, and what
# its handler raises would be lost.
_releases = property(operator.attrgetter("_release"))


class Address:
    """A pointer that the library has given out. Nobody holding this, it is released, then its base."""

    def __init__(self, free: str, base: Optional[Address] = None) -> None:
        self.pointer, self._base = ctypes.c_void_p(), base
        self.out = ctypes.byref(self.pointer)
        self._release = functools.partial(getattr(_library.collection(), free), self.pointer)

    __del__ = _releases


class Holder:
    """Holds an address. It is seen to be held from elsewhere too, for as long as this lives: where all
    that is left is garbage in a cycle, finalizers are called in no order, and before they are all
    called no address is released."""

    _all: dict[int, Address] = {}

    def __init__(self, address: Address) -> None:
        self.address = address
        self._release = functools.partial(self._all.pop, id(self), None)
        self._all[id(self)] = address

    __del__ = _releases


@contextlib.contextmanager
def result(struct: Any, free: str) -> Iterator[tuple[Any, Callable[[], Any]]]:
    """Where a call writes the pointer to its result, and a function that gives the struct; it is
    released at the end."""
    pointer = ctypes.c_void_p()
    try:
        yield ctypes.byref(pointer), lambda: struct.from_address(pointer.value)
    finally:
        getattr(_library.collection(), free)(pointer)


def enter() -> None:
    """Refuses calls from inside of a callback, which the library does not allow."""
    if getattr(_local, "called_back", False):
        raise RuntimeError("accept and progress must not use a collection")


def _call_back(callback: Callable[..., object], *arguments: object) -> object:
    try:
        _local.called_back = True
        return callback(*arguments)
    finally:
        _local.called_back = False


def failure(status: int) -> Optional[Exception]:
    """What is wrong, of the latest call of this thread; None if nothing is."""
    if status == _library.OK:
        return None
    message = _library.collection().qx_collection_message().decode(errors="replace")
    if status == _library.IO_ERROR:
        for code in errno.errorcode:
            if message.endswith(os.strerror(code)):
                return OSError(code, message)
        return OSError(message)
    kinds = {_library.INVALID: ValueError, _library.OUT_OF_MEMORY: MemoryError,
             _library.CORRUPT: CorruptFile}
    return kinds.get(status, Cancelled)(message)


def check(status: int) -> None:
    wrong = failure(status)
    if wrong is not None:
        raise wrong


class Work:
    """One long call. It runs on a thread of its own, while the calling one reports and listens to
    signals: a handler that raises there cancels the call, and so does a report that raises. A signal
    can then meet no callback of the library, which could not pass the exception on.
    """

    def __init__(self, call: Callable[[Work], int]) -> None:
        self.failure: Optional[BaseException] = None
        self._stop = self._over = False
        self._latest: Optional[tuple[int, int]] = None
        self._call = call
        self._turn, self._ended = _thread.allocate_lock(), _thread.allocate_lock()
        self._ended.acquire()
        self.progress = _nobody

    def _note(self, _: object, done: int, total: int) -> int:
        self._latest = done, total
        return self._stop

    def release(self) -> None:
        """Lets go of what holds this in turn."""
        del self.progress, self._call

    def fail(self, error: BaseException) -> None:
        """Notes what went wrong, of which the first counts, and cancels the call."""
        if self.failure is None:
            self.failure = error
        self._stop = True

    def acceptance(self, accept: Callable[[Any], object]) -> Any:
        """The callable, as the library calls it on any of its threads."""
        def call(_: object, number: int, text: Optional[int]) -> int:
            if self._stop:
                return 0
            try:
                return bool(_call_back(accept, number if text is None else text_at(text)))
            except BaseException as error:
                self.fail(error)
                return 0
        return _library.Accept(call)

    def _work(self) -> None:
        if not self._turn.acquire(False):
            return  # an interrupt made it begin twice
        try:
            wrong = failure(self._call(self))
            if wrong is not None:
                self.fail(wrong)
        except BaseException as error:
            self.fail(error)
        finally:
            self._over = True
            self._ended.release()

    def _begin(self) -> None:
        try:
            _thread.start_new_thread(self._work, ())
        except (RuntimeError, MemoryError):  # no thread can be had
            self._work()

    def run(self, report: Optional[Report]) -> None:
        """Returns when the call has ended: what it reads and writes is used by nobody then."""
        begun = False
        while True:
            try:
                if self.progress is _nobody:
                    self.progress = _library.Progress(self._note)
                if not begun:
                    self._begin()
                    begun = True
                while not self._over:
                    self._ended.acquire(timeout=_INTERVAL if report else -1)
                    if report and self._latest and not self._stop and not self._over:
                        _call_back(report, *self._latest)
                break
            except BaseException as error:  # nothing is called here, so that no signal is handled
                self._stop = True
                if self.failure is None:
                    self.failure = error
        if self.failure is not None:
            raise self.failure
        if report:
            total = self._latest[1] if self._latest else 1
            _call_back(report, total, total)


def run(call: Callable[[Work], int], report: Optional[Report], is_long: bool) -> None:
    """Makes a call that takes the progress callback of its argument, a null one where nobody wants
    to know of it and no signal can come."""
    work = Work(call)
    try:
        if report or (is_long and threading.current_thread() is threading.main_thread()):
            work.run(report)
        else:
            check(call(work))
            if work.failure is not None:
                raise work.failure
    finally:
        work.release()
        if isinstance(report, _Bar):
            report.close()


def text_at(address: int) -> str:
    text = _library.Text.from_address(address)
    return ctypes.string_at(text.data, text.size).decode(errors="surrogateescape")


class _Bar:
    """Reports to what has update() and total, as a bar of tqdm."""

    def __init__(self, bar: Any, is_own: bool) -> None:
        self._bar, self._is_own, self._seen = bar, is_own, 0

    def __call__(self, done: int, total: int) -> None:
        self._bar.total = total
        self._bar.update(done - self._seen)
        self._seen = done

    def close(self) -> None:
        if self._is_own:
            self._bar.close()


def report_of(progress: Any) -> Optional[Report]:
    """What a caller gave as `progress`, as a callable."""
    if progress is None or progress is False:
        return None
    if progress is True:
        try:
            return _Bar(importlib.import_module("tqdm.auto").tqdm(), True)
        except ImportError:
            return _print
    if hasattr(progress, "update") and hasattr(progress, "total"):
        return _Bar(progress, False)
    if callable(progress):
        return progress  # type: ignore[no-any-return]
    raise TypeError("progress must be True, a callable of done and total, or have update() and "
                    f"total as a tqdm bar has; not {type(progress).__name__}")


def _print(done: int, total: int) -> None:
    percent = 100 if done == total else 100 * done // total
    print(f"\r{percent:3d} %", end="\n" if done == total else "", file=sys.stderr, flush=True)
