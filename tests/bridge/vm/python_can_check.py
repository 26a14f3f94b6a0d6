"""python-can over the bridge: frames sent with python-can on vcan0 arrive on
vcan1 (the simulated gateway's bus) unchanged, and frames sent on vcan1 arrive
on vcan0. Standard and extended identifiers, a remote frame, lengths 0 and 8."""
import sys

import can

FRAMES = [
    can.Message(arbitration_id=0x123, is_extended_id=False, data=b""),
    can.Message(arbitration_id=0x7FF, is_extended_id=False, data=bytes([0x11, 0x22, 0x33])),
    can.Message(arbitration_id=0x001, is_extended_id=False, data=bytes(range(0xF8, 0x100))),
    can.Message(arbitration_id=0x1ABCDEF0, is_extended_id=True, data=bytes([0xA5] * 8)),
    can.Message(arbitration_id=0x00000000, is_extended_id=True, data=b""),
    can.Message(arbitration_id=0x456, is_extended_id=False, is_remote_frame=True, dlc=0),
]


def same(sent, got):
    return (got is not None and got.arbitration_id == sent.arbitration_id
            and got.is_extended_id == sent.is_extended_id and got.is_remote_frame == sent.is_remote_frame
            and got.dlc == sent.dlc and bytes(got.data) == bytes(sent.data))


def cross(sender, receiver, direction):
    failures = 0
    for frame in FRAMES:
        sender.send(frame)
        got = receiver.recv(timeout=10)
        if not same(frame, got):
            print(f"{direction}: sent {frame}, received {got}")
            failures += 1
    return failures


def main():
    print(f"python-can {can.__version__}")
    with can.Bus(interface="socketcan", channel="vcan0") as bridged, \
            can.Bus(interface="socketcan", channel="vcan1") as gateway_bus:
        failures = cross(bridged, gateway_bus, "vcan0 -> vcan1")
        failures += cross(gateway_bus, bridged, "vcan1 -> vcan0")
    print("python-can over the bridge:", "FAILED" if failures else "ok")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
