"""OrvaneBus: one CAN port of an Orvane CAN gateway as a python-can bus,
reached directly over TCP through liborvanecan.so."""
import atexit
import collections
import ctypes
import logging
import threading
import time

import can

from . import library as _library
from .library import (CAN_FLAG_EXTENDED, CAN_FLAG_REMOTE, CAN_FLAG_TIMESTAMP, CAN_NO_HANDLE, CAN_OK,
                      CAN_STATE_CONNECTED)

LOG = logging.getLogger(__name__)

# While recv waits for a frame it looks at the link this often, so that a
# lost gateway is reported instead of waiting for ever.
LINK_CHECK_S = 0.25
# Frames the gateway can carry: classic CAN, up to 8 data bytes.
MAX_DATA = 8
MAX_STANDARD_ID = 0x7FF
MAX_EXTENDED_ID = 0x1FFFFFFF
# Frames queued between the library's receive thread and recv; above this
# the oldest are kept and new ones are dropped (and counted).
DEFAULT_RECEIVE_QUEUE = 100000

# Buses still open, held here until shutdown: the library's receive thread
# calls into each one's callback, so neither may go away before the handle
# is closed, at the latest when the interpreter ends.
_open_buses = set()


@atexit.register
def _close_open_buses():
    for bus in list(_open_buses):
        bus.shutdown()


def _flag(value):
    """A boolean keyword argument, also as given in a python-can config file."""
    if isinstance(value, str):
        return value.strip().lower() in ("1", "true", "yes", "on")
    return bool(value)


class OrvaneBus(can.BusABC):
    """One CAN port of an Orvane CAN gateway.

    :param channel: the gateway's IP address (for the simulator: "127.0.0.1").
    :param port: the gateway's CAN port, 0 to 99 (TCP port 5001 + 100 * port).
    :param bitrate: bit rate in bit/s.
    :param termination: switch the port's bus termination on.
    :param high_speed: the port's high-speed mode.
    :param timestamp: the gateway stamps every frame it receives; the stamps
        become Message.timestamp (else the host's receive time is used).
    :param set_time: set the gateway's clock to this host's time on opening,
        so that its time stamps are comparable with the host's.
    :param open_timeout: seconds allowed for the TCP connection.
    :param alive: seconds between the link's alive checks.
    :param receive_queue: frames held for recv; newer ones are dropped.
    :param library: path of liborvanecan.so (default: ORVANE_CAN_LIBRARY,
        then the installed one).

    A lost gateway makes recv and send raise can.CanOperationError with the
    library's text; the next call of either opens the port again.
    """

    def __init__(self, channel=None, can_filters=None, port=0, bitrate=500000, termination=False,
                 high_speed=False, timestamp=False, set_time=False, open_timeout=5.0, alive=5,
                 receive_queue=DEFAULT_RECEIVE_QUEUE, library=None, **kwargs):
        if not channel:
            raise can.CanInitializationError("channel: the gateway's IP address is needed, e.g. 127.0.0.1")
        self.channel = str(channel)
        self._port = int(port)
        self._bitrate = int(bitrate)
        self._termination = _flag(termination)
        self._high_speed = _flag(high_speed)
        self._timestamp = _flag(timestamp)
        self._set_time = _flag(set_time)
        self._open_timeout_ms = int(float(open_timeout) * 1000)
        self._alive = int(alive)
        try:
            self._lib = _library.load(library)
        except OSError as error:
            raise can.CanInterfaceNotImplementedError(f"cannot load liborvanecan: {error}") from None
        # Frames from the library's receive thread to recv: a deque (appending
        # and taking need no lock of their own), and a condition that recv
        # waits on only when the deque is empty.
        self._frames = collections.deque()
        self._receive_queue = int(receive_queue)
        self._arrived = threading.Condition(threading.Lock())
        self._waiting = False
        self.dropped = 0
        self._lock = threading.Lock()
        self._handle = CAN_NO_HANDLE
        self._closed = False
        # One C callback for the bus's whole life: the library may hold it
        # until its receive thread has ended.
        self._callback = _library.CANCallbackEx(self._on_frame)
        self.channel_info = (f"Orvane CAN gateway {self.channel}, CAN port {self._port} "
                             f"(TCP {5001 + 100 * self._port}), {self._bitrate} bit/s")
        with self._lock:
            self._open(can.CanInitializationError)
        _open_buses.add(self)
        super().__init__(channel=channel, can_filters=can_filters, **kwargs)

    # -- opening and the link ------------------------------------------------

    def _error(self, error_class, what, code):
        text = _library.error_text(self._lib, code)
        return error_class(f"{self.channel_info}: {what}: {text}", error_code=code)

    def _open(self, error_class):
        """The bridge's chain: open, configure, callback, alive. Under _lock."""
        lib = self._lib
        handle = ctypes.c_int(CAN_NO_HANDLE)
        what = "cannot open"
        code = lib.CANOpenDevice(ctypes.byref(handle), 0, 1, self._port, self.channel.encode(),
                                 self._open_timeout_ms)
        if code == CAN_OK:
            what = "cannot configure"
            code = lib.CANSetGlobals(handle, self._bitrate, 0, self._termination, self._high_speed,
                                     self._timestamp)
        if code == CAN_OK and self._set_time:
            now = time.time()
            code = lib.CANSetTime(handle, int(now), int((now % 1) * 1e6))
        if code == CAN_OK:
            code = lib.CANSetCallbackEx(handle, self._callback)
        if code == CAN_OK:
            what = "cannot start the alive check"
            code = lib.CANStartAlive(handle, self._alive)
        if code != CAN_OK:
            if handle.value != CAN_NO_HANDLE:
                lib.CANCloseDevice(handle)
            raise self._error(error_class, what, code)
        self._handle = handle.value

    def _current_handle(self):
        """The open handle; after a lost link the port is opened again here."""
        handle = self._handle
        if handle != CAN_NO_HANDLE:
            return handle
        with self._lock:
            if self._closed:
                raise can.CanOperationError(f"{self.channel_info}: the bus is shut down")
            if self._handle == CAN_NO_HANDLE:
                self._open(can.CanOperationError)
            return self._handle

    def _lost(self, handle, what, code):
        """Closes a handle whose link failed and raises the error; the next
        call opens the port again."""
        with self._lock:
            if self._handle == handle:
                self._lib.CANCloseDevice(handle)
                self._handle = CAN_NO_HANDLE
        raise self._error(can.CanOperationError, what, code)

    def _check_link(self, handle):
        state = self._lib.CANDeviceConnectState(handle)
        if state != CAN_STATE_CONNECTED and not self._closed:
            self._lost(handle, "gateway link lost", _library.CAN_ERROR_TCP_NOT_CONNECTED)

    @property
    def state(self):
        handle = self._handle
        if handle != CAN_NO_HANDLE and self._lib.CANDeviceConnectState(handle) == CAN_STATE_CONNECTED:
            return can.BusState.ACTIVE
        return can.BusState.ERROR

    # -- frames ----------------------------------------------------------------

    def send(self, msg, timeout=None):
        """Writes a frame to the gateway (which does not confirm it, so the
        call does not wait and timeout is not used)."""
        if msg.is_fd:
            raise can.CanOperationError("the gateway cannot send CAN FD frames")
        if msg.is_error_frame:
            raise can.CanOperationError("the gateway cannot send error frames")
        if msg.is_remote_frame:
            length = msg.dlc
            data = bytes(length)  # the length travels as that many bytes
        else:
            data = bytes(msg.data)
            length = len(data)
        if length > MAX_DATA:
            raise can.CanOperationError(f"the gateway cannot send more than {MAX_DATA} data bytes, not {length}")
        if msg.arbitration_id > (MAX_EXTENDED_ID if msg.is_extended_id else MAX_STANDARD_ID) or msg.arbitration_id < 0:
            raise can.CanOperationError(f"identifier 0x{msg.arbitration_id:X} does not fit a "
                                        f"{'29' if msg.is_extended_id else '11'}-bit identifier")
        flags = (CAN_FLAG_EXTENDED if msg.is_extended_id else 0) | (CAN_FLAG_REMOTE if msg.is_remote_frame else 0)
        handle = self._current_handle()
        code = self._lib.CANWrite(handle, msg.arbitration_id, data, length, flags)
        if code != CAN_OK:
            if self._lib.CANDeviceConnectState(handle) != CAN_STATE_CONNECTED:
                self._lost(handle, "cannot send", code)
            raise self._error(can.CanOperationError, "cannot send", code)

    def _on_frame(self, identifier, data, length, flags, handle, seconds, microseconds):
        """On the library's receive thread: queue the frame, wake recv if it
        waits."""
        if len(self._frames) >= self._receive_queue:
            self.dropped += 1
            return
        self._frames.append((identifier, ctypes.string_at(data, length) if length > 0 else b"", length, flags,
                             seconds, microseconds, time.time()))
        if self._waiting:
            with self._arrived:
                self._arrived.notify()

    def _recv_internal(self, timeout):
        handle = self._current_handle()
        try:
            item = self._frames.popleft()
        except IndexError:
            item = self._wait(handle, timeout)
            if item is None:
                return None, False
        identifier, data, length, flags, seconds, microseconds, host_time = item
        remote = bool(flags & CAN_FLAG_REMOTE)
        stamp = seconds + microseconds * 1e-6 if flags & CAN_FLAG_TIMESTAMP else host_time
        return can.Message(timestamp=stamp, arbitration_id=identifier, is_extended_id=bool(flags & CAN_FLAG_EXTENDED),
                           is_remote_frame=remote, dlc=length, data=None if remote else data,
                           channel=self.channel), False

    def _wait(self, handle, timeout):
        """Waits for a frame; None when the time is up or the bus was shut
        down meanwhile."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            self._check_link(handle)
            wait = LINK_CHECK_S
            if deadline is not None:
                wait = min(wait, deadline - time.monotonic())
                if wait <= 0:
                    return None
            with self._arrived:
                # Set before looking, so that a frame appended after the look
                # finds it set and notifies.
                self._waiting = True
                try:
                    if not self._frames and not self._closed:
                        self._arrived.wait(wait)
                finally:
                    self._waiting = False
            if self._closed:
                return None
            if self._frames:
                return self._frames.popleft()

    def shutdown(self):
        """Closes the gateway port; a recv still waiting returns None."""
        with self._lock:
            if self._closed:
                return
            self._closed = True
            handle, self._handle = self._handle, CAN_NO_HANDLE
            if handle != CAN_NO_HANDLE:
                self._lib.CANCloseDevice(handle)
        _open_buses.discard(self)
        with self._arrived:
            self._arrived.notify_all()
        super().shutdown()
