#!/usr/bin/python3
"""The application interface from Python through liborvanecan.so (ctypes):
two handles on one simulated CAN port, a frame written on one is polled from
the other's queue, and one reaches a Python callback.

Usage: dll_can_ctypes.py <path of liborvanecan.so> <path of orvane-gateway-sim>
"""
import ctypes
import os
import subprocess
import sys
import threading
import time

# The header's named values, as the python-can interface package carries them.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "python"))
from orvane_can.library import CAN_ERROR_INVALID_HANDLE  # noqa: E402

HOST = b"127.0.0.1"
TIMEOUT_S = 5.0


def start_simulator(program):
    """Runs the simulator on the first free CAN port P (TCP port 5001 + 100 * P)
    from a start that differs between processes; returns (process, P)."""
    for i in range(90):
        port = 10 + (os.getpid() + 45 + i) % 90
        sim = subprocess.Popen([program, "--bind", "127.0.0.1", str(port)], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True)
        for line in sim.stdout:
            if "listening on 127.0.0.1:" in line:
                # Keep reading its output so that it never blocks on a full pipe.
                threading.Thread(target=sim.stdout.read, daemon=True).start()
                return sim, port
        sim.wait()
    raise RuntimeError("no free CAN port for the simulator")


def wait_for(condition):
    deadline = time.monotonic() + TIMEOUT_S
    while not condition():
        if time.monotonic() > deadline:
            return condition()
        time.sleep(0.002)
    return True


def main():
    lib = ctypes.CDLL(sys.argv[1])
    c_int_p = ctypes.POINTER(ctypes.c_int)
    lib.CANOpenDevice.argtypes = [c_int_p, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_int]
    lib.CANWrite.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_int, ctypes.c_int]
    lib.CANSetMaxSizePerQueue.argtypes = [ctypes.c_int, ctypes.c_uint]
    lib.CANGetMessage.argtypes = [ctypes.c_int, c_int_p, c_int_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_ubyte),
                                  c_int_p, c_int_p, c_int_p]
    callback_type = ctypes.CFUNCTYPE(None, ctypes.c_uint, ctypes.POINTER(ctypes.c_char), ctypes.c_int, ctypes.c_int,
                                     ctypes.c_int, ctypes.c_int, ctypes.c_int)
    lib.CANSetCallbackEx.argtypes = [ctypes.c_int, callback_type]
    lib.CANErrorMessage.argtypes = [ctypes.c_int, ctypes.c_char_p, ctypes.c_int]

    text = ctypes.create_string_buffer(64)
    assert lib.CANErrorMessage(CAN_ERROR_INVALID_HANDLE, text, 64) == 25, text.value
    assert text.value == b"Device handle is invalid", text.value

    sim, can_port = start_simulator(sys.argv[2])
    try:
        writer, reader, listener = ctypes.c_int(-1), ctypes.c_int(-1), ctypes.c_int(-1)
        for handle in (writer, reader, listener):
            rc = lib.CANOpenDevice(ctypes.byref(handle), 0, 0, can_port, HOST, 5000)
            assert rc == 0, hex(rc)
        assert lib.CANSetMaxSizePerQueue(reader, 10) == 0

        received = []

        def on_frame(identifier, data, length, flags, handle, seconds, microseconds):
            received.append((identifier, ctypes.string_at(data, length), handle))

        keep_alive = callback_type(on_frame)
        assert lib.CANSetCallbackEx(listener, keep_alive) == 0

        assert lib.CANWrite(writer, 0x123, b"\x11\x22\x33", 3, 0) == 0

        available, identifier, flags = ctypes.c_int(-1), ctypes.c_int(0), ctypes.c_int(-1)
        seconds, microseconds, length = ctypes.c_int(0), ctypes.c_int(0), ctypes.c_ubyte(0)
        data = ctypes.create_string_buffer(72)

        def poll():
            lib.CANGetMessage(reader, ctypes.byref(available), ctypes.byref(identifier), data, ctypes.byref(length),
                              ctypes.byref(flags), ctypes.byref(seconds), ctypes.byref(microseconds))
            return available.value != -1

        assert wait_for(poll), "no frame polled"
        assert available.value == 0, available.value
        assert identifier.value == 0x123, hex(identifier.value)
        assert data.raw[:length.value] == b"\x11\x22\x33", data.raw[:length.value]
        assert flags.value == 0, flags.value
        assert wait_for(lambda: len(received) == 1), "no frame at the callback"
        assert received[0] == (0x123, b"\x11\x22\x33", listener.value), received

        for handle in (writer, reader, listener):
            assert lib.CANCloseDevice(handle) == 0
        assert lib.CANWrite(writer, 0x123, b"", 0, 0) == CAN_ERROR_INVALID_HANDLE
    finally:
        sim.terminate()
        sim.wait(timeout=TIMEOUT_S)
    print("ok")
    return 0


if __name__ == "__main__":
    sys.exit(main())
