"""OrvaneBus, python-can's interface "orvane", against orvane-gateway-sim on
127.0.0.1. The other end of the bus is a plain client of liborvanecan.so
(the peer), so that the frame mapping is checked against the library's own
flags and not against OrvaneBus itself.

Environment: ORVANE_CAN_LIBRARY (the build's liborvanecan.so),
ORVANE_GATEWAY_SIM (the build's orvane-gateway-sim), PYTHONPATH with the
package and its build-tree metadata.
"""
import ctypes
import os
import queue
import re
import signal
import subprocess
import sys
import threading
import time

import can
import pytest

import orvane_can
from orvane_can import library

HOST = "127.0.0.1"
WAIT_S = 10.0  # limit of every wait for an event; never reached when all is well
HEADER = os.path.join(os.path.dirname(__file__), "..", "..", "OrvaneAPI", "source", "OrvaneDllCan.h")


class Simulator:
    """orvane-gateway-sim on one CAN port P (TCP 5001 + 100 * P) that was free."""

    def __init__(self, *options):
        self.options = list(options)
        self.process = None
        for i in range(90):
            self.port = 10 + (os.getpid() + 7 * i) % 90
            if self.start():
                return
        raise RuntimeError("no free CAN port for the simulator")

    def start(self):
        self.process = subprocess.Popen([os.environ["ORVANE_GATEWAY_SIM"], "--bind", HOST, *self.options,
                                         str(self.port)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        for line in self.process.stdout:
            if "listening on 127.0.0.1:" in line:
                # Drained so that it never blocks on a full pipe.
                threading.Thread(target=self.process.stdout.read, daemon=True).start()
                return True
        self.process.wait()
        return False

    def kill(self):
        self.process.kill()
        self.process.wait()


class Peer:
    """A second client of the simulator's port, straight on the library."""

    def __init__(self, port):
        self.lib = library.load()
        self.frames = queue.Queue()
        handle = ctypes.c_int(-1)
        assert self.lib.CANOpenDevice(ctypes.byref(handle), 0, 1, port, HOST.encode(), 5000) == 0
        self.handle = handle.value
        self.callback = library.CANCallbackEx(self._on_frame)
        assert self.lib.CANSetCallbackEx(self.handle, self.callback) == 0

    def _on_frame(self, identifier, data, length, flags, handle, seconds, microseconds):
        self.frames.put((identifier, ctypes.string_at(data, length) if length else b"", flags))

    def write(self, identifier, data, flags):
        assert self.lib.CANWrite(self.handle, identifier, data, len(data), flags) == 0

    def next(self):
        return self.frames.get(timeout=WAIT_S)

    def close(self):
        self.lib.CANCloseDevice(self.handle)


@pytest.fixture
def sim():
    simulator = Simulator()
    yield simulator
    simulator.kill()


@pytest.fixture
def peer(sim):
    client = Peer(sim.port)
    yield client
    client.close()


def open_bus(sim, **options):
    return can.Bus(interface="orvane", channel=HOST, port=sim.port, bitrate=500000, **options)


def test_python_values_are_the_headers():
    with open(HEADER) as header:
        defined = dict(re.findall(r"^#define (CAN_\w+) \(?(-?(?:0x)?[0-9A-Fa-f]+)\)?", header.read(), re.M))
    assert len(defined) >= 19
    for name, text in defined.items():
        assert getattr(library, name) == int(text, 0), name


# Every frame kind, both ends of the length range, both identifier widths
# with their highest values: (identifier, data or remote length, flags).
FRAMES = [(0x000, b"", 0), (0x7FF, bytes(range(1, 9)), 0), (0x123, b"\xAA", 0),
          (0x1FFFFFFF, bytes(range(8, 0, -1)), 1), (0x800, b"", 1),
          (0x321, 4, 2), (0x7FF, 0, 2), (0x12345, 8, 3)]


def as_message(identifier, data, flags, channel=None):
    remote = bool(flags & 2)
    return can.Message(arbitration_id=identifier, is_extended_id=bool(flags & 1), is_remote_frame=remote,
                       dlc=data if remote else len(data), data=None if remote else data, channel=channel)


def test_frames_both_ways(sim, peer):
    with open_bus(sim) as bus:
        assert bus.state == can.BusState.ACTIVE
        assert f"CAN port {sim.port}" in bus.channel_info
        for identifier, data, flags in FRAMES:
            bus.send(as_message(identifier, data, flags))
            wire = bytes(data) if flags & 2 else data  # a remote frame's length travels as zero bytes
            assert peer.next() == (identifier, wire, flags)

        # Received through a Notifier, as python-can's tools do.
        reader = can.BufferedReader()
        notifier = can.Notifier(bus, [reader], timeout=0.1)
        try:
            before = time.time()
            for identifier, data, flags in FRAMES:
                peer.write(identifier, bytes(data) if flags & 2 else data, flags)
            for identifier, data, flags in FRAMES:
                msg = reader.get_message(WAIT_S)
                assert msg is not None, hex(identifier)
                assert msg.equals(as_message(identifier, data, flags, HOST), timestamp_delta=None), msg
                # No gateway time stamps asked for: the host's receive time.
                assert before <= msg.timestamp <= time.time()
        finally:
            notifier.stop()


def test_gateway_time_stamps(sim, peer):
    with open_bus(sim, timestamp=True) as bus:
        # The gateway's clock, set far from the host's, stamps the frame.
        assert peer.lib.CANSetTime(peer.handle, 1000, 250000) == 0
        peer.write(0x10, b"\x01", 0)
        msg = bus.recv(WAIT_S)
        assert msg is not None and msg.data == b"\x01" and not msg.is_extended_id
        assert 1000.25 <= msg.timestamp < 1000.25 + WAIT_S
    # set_time puts the host's time on the gateway's clock.
    with open_bus(sim, timestamp=True, set_time=True) as bus:
        before = time.time()
        peer.write(0x11, b"", 0)
        msg = bus.recv(WAIT_S)
        assert msg is not None and msg.arbitration_id == 0x11
        assert before - 1 <= msg.timestamp <= time.time() + 1


def test_frames_the_gateway_cannot_carry_are_refused(sim, peer):
    refused = [can.Message(arbitration_id=1, data=b"\x01", is_fd=True),
               can.Message(arbitration_id=1, is_error_frame=True),
               can.Message(arbitration_id=1, data=bytes(9)),
               can.Message(arbitration_id=1, is_remote_frame=True, dlc=9),
               can.Message(arbitration_id=0x800, is_extended_id=False),
               can.Message(arbitration_id=0x20000000, is_extended_id=True)]
    with open_bus(sim) as bus:
        for msg in refused:
            with pytest.raises(can.CanOperationError):
                bus.send(msg)
        bus.send(can.Message(arbitration_id=0x42, is_extended_id=False, data=b"ok"))
        assert peer.next() == (0x42, b"ok", 0)  # nothing went out before it


def test_recv_timeouts(sim, peer):
    with open_bus(sim, can_filters=[{"can_id": 0x50, "can_mask": 0x7FF, "extended": False}]) as bus:
        start, cpu = time.monotonic(), time.process_time()
        assert bus.recv(0) is None
        assert bus.recv(0.5) is None
        assert time.monotonic() - start >= 0.5
        assert time.process_time() - cpu < 0.1  # waited, not polled

        received = []
        waiter = threading.Thread(target=lambda: received.append(bus.recv(None)))
        waiter.start()
        peer.write(0x51, b"\x00", 0)  # filtered out by python-can
        peer.write(0x50, b"\x07", 0)
        waiter.join(WAIT_S)
        assert not waiter.is_alive()
        assert received[0].arbitration_id == 0x50 and received[0].data == b"\x07"


def test_lost_gateway_raises_and_the_next_call_reconnects(sim):
    bus = open_bus(sim)
    try:
        outcome = []

        def receive():
            try:
                outcome.append(bus.recv(None))
            except can.CanOperationError as error:
                outcome.append(error)

        waiter = threading.Thread(target=receive)
        waiter.start()
        sim.kill()
        waiter.join(WAIT_S)
        assert not waiter.is_alive(), "recv hangs on a lost gateway"
        assert isinstance(outcome[0], can.CanOperationError)
        assert "Not connected to TCP/IP partner" in str(outcome[0])
        assert bus.state == can.BusState.ERROR
        # While the gateway is away, every call fails with the library's text.
        with pytest.raises(can.CanOperationError, match="cannot open"):
            bus.send(can.Message(arbitration_id=1))

        assert sim.start()
        peer = Peer(sim.port)
        try:
            bus.send(can.Message(arbitration_id=0x77, is_extended_id=False, data=b"\x01\x02"))
            assert peer.next() == (0x77, b"\x01\x02", 0)
            assert bus.state == can.BusState.ACTIVE
            peer.write(0x78, b"", 0)
            assert bus.recv(WAIT_S).arbitration_id == 0x78
        finally:
            peer.close()
    finally:
        bus.shutdown()
    assert bus.state == can.BusState.ERROR
    with pytest.raises(can.CanOperationError):
        bus.send(can.Message(arbitration_id=1))


def test_logger_records_the_load_and_player_replays_it(tmp_path):
    simulator = Simulator("--load", "1000", "--load-id", "0x1ABCDE")
    try:
        log = tmp_path / "frames.log"
        watcher = Peer(simulator.port)
        logger = subprocess.Popen([sys.executable, "-u", "-B", "-m", "can.logger", "-i", "orvane", "-c", HOST,
                                   f"--port={simulator.port}", "-f", str(log)], stdout=subprocess.PIPE, text=True)
        try:
            for line in logger.stdout:
                if line.startswith("Connected to OrvaneBus"):
                    break
            # Once the watcher has seen 50 more generated frames, so has the logger.
            while watcher.frames.qsize():
                watcher.frames.get_nowait()
            for _ in range(50):
                watcher.next()
        finally:
            logger.send_signal(signal.SIGINT)
            assert logger.wait(WAIT_S) == 0
        watcher.close()

        frames = list(can.LogReader(str(log)))
        assert len(frames) >= 20
        counters = []
        for msg in frames:
            assert msg.arbitration_id == 0x1ABCDE and msg.is_extended_id and msg.dlc == 8
            counters.append(int.from_bytes(msg.data, "little"))
        assert counters == list(range(counters[0], counters[0] + len(counters)))  # none lost, none repeated
    finally:
        simulator.kill()

    # The log back onto a gateway, through the player.
    target = Simulator()
    try:
        peer = Peer(target.port)
        subprocess.run([sys.executable, "-B", "-m", "can.player", "-i", "orvane", "-c", HOST, f"--port={target.port}",
                        "--ignore-timestamps", str(log)], check=True, stdout=subprocess.DEVNULL, timeout=60)
        for msg in frames:
            assert peer.next() == (0x1ABCDE, bytes(msg.data), 1)
        peer.close()
    finally:
        target.kill()


def test_a_missing_gateway_fails_the_opening_with_the_librarys_text():
    nobody = Simulator()
    nobody.kill()  # its port is now closed: nothing listens there
    with pytest.raises(can.CanInitializationError, match="cannot open: "):
        can.Bus(interface="orvane", channel=HOST, port=nobody.port, bitrate=500000)
    with pytest.raises(can.CanInitializationError):
        can.Bus(interface="orvane", channel=None)
    assert orvane_can.OrvaneBus is can.interface._get_class_for_interface("orvane")
