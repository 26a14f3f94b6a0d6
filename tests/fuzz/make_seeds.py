#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz harnesses (corpus/<harness>/seed-*):
real telegrams, connection messages, trace requests and image files, built
here from the wire layout (length word = bytes after it + 1 ... see tel()).
Run it again after changing a seed; findings are added as corpus files of
their own (crash-*), not here."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def tel(code, msg_id, data=b""):
    """A gateway telegram or connection message: u16 length (data + 5),
    u16 code, s16 ID or number, data, and as CRC the XOR of every byte
    between the length word and the CRC."""
    body = struct.pack("<HHh", len(data) + 5, code, msg_id) + data
    crc = 0
    for b in body[2:]:
        crc ^= b
    return body + bytes([crc])


def ihex(address, record_type, data=b""):
    """One Intel hex line with its two's-complement checksum."""
    raw = bytes([len(data), address >> 8, address & 0xFF, record_type]) + data
    return ":" + (raw + bytes([-sum(raw) & 0xFF])).hex().upper() + "\n"


def srec(kind, address, data=b""):
    """One S-record line (S1/S2/S3 by kind) with its one's-complement checksum."""
    width = {"S0": 2, "S1": 2, "S2": 3, "S3": 4, "S5": 2, "S9": 2}[kind]
    raw = bytes([width + len(data) + 1]) + address.to_bytes(width, "big") + data
    return kind + (raw + bytes([~sum(raw) & 0xFF])).hex().upper() + "\n"


def write(harness, seeds):
    folder = os.path.join(HERE, "corpus", harness)
    os.makedirs(folder, exist_ok=True)
    for name in os.listdir(folder):
        if name.startswith("seed-"):
            os.remove(os.path.join(folder, name))
    for i, seed in enumerate(seeds):
        with open(os.path.join(folder, f"seed-{i:02d}"), "wb") as f:
            f.write(seed)


CONNECT_CAN = tel((2 << 8) | 0x01, 1)  # connect request of device type 2
CONNECT_AWIRE = tel((14 << 8) | 0x01, 1)
ALIVE_CAN = tel((2 << 8) | 0x0D, 5, struct.pack("<I", 100))
DISCONNECT_CAN = tel((2 << 8) | 0x02, 9)

# CAN requests and indications (device type 2).
CAN_REQUESTS = [
    tel(0x0209, 7),                                                    # INFO
    tel(0x0207, 1, struct.pack("<BIBBB", 0, 500000, 1, 0, 1)),         # SET_GLOBALS
    tel(0x0208, 2),                                                    # GET_GLOBALS
    tel(0x0203, 3, struct.pack("<iB", 0x123, 0) + b"\x11\x22"),        # WRITE
    tel(0x0203, 4, struct.pack("<iB", 0x1ABCDEF0, 1) + bytes(8)),      # WRITE, extended
    tel(0x0205, 5, b"\x01\x00"),                                       # SET_CONFIG
    tel(0x0260, 6, b"\x01"),                                           # CANOPEN_SET_CONFIG
    tel(0x0268, 7, struct.pack("<BHBH", 5, 0x1000, 1, 100)),           # SDO read
    tel(0x0267, 8, b"\x05\x01\x02\xAA\xBB"),                           # PDO
    tel(0x0220, 9, bytes(64)),                                         # SET_FILTER
]
CAN_INDICATIONS = [
    tel(0x0203, 0, struct.pack("<IB", 0x123, 0) + b"\x11\x22\x33"),                      # frame
    tel(0x0203, 0, struct.pack("<IB", 0x1FFFFFFE, 5) + bytes(8) + struct.pack("<ii", 5, 6)),  # stamped
    tel(0x0203, 0, struct.pack("<IB", 0x7FF, 2)),                                        # remote
    tel(0x0264, 0, b"\x07"),                                                             # SYNC
    tel(0x0266, 0, b"\x05\x10\x81\x01" + bytes(5)),                                      # EMCY
    tel(0x0267, 0, b"\x05\x01\x02\xAA\xBB"),                                             # PDO
    tel(0x026C, 0, struct.pack("<IB", 0x555, 0) + b"\x01\x02"),                          # undefined
    tel(0x026D, 0, b"\x05\x7F"),                                                         # GUARD
    tel(0x8208, 1, struct.pack("<BBIBBB", 0, 0, 500000, 1, 0, 1)),                       # GET_GLOBALS confirmation
]
# aWire requests (device type 14) and its write-status indication.
AWIRE_REQUESTS = [
    tel(0x0E06, 1),                                                             # GET_CONFIG
    tel(0x0E05, 2, struct.pack("<IIIIB", 0, 0, 512, 0, 3) + b"cfg"),            # SET_CONFIG
    tel(0x0EE0, 3, struct.pack("<IH", 0x100, 4) + b"\x01\x02\x03\x04"),         # WRITE BLOCK
    tel(0x0EE0, 4, struct.pack("<IH", 0x200, 2) + b"\x05\x06"),
    tel(0x0EE3, 5, struct.pack("<IH", 0x100, 8)),                               # READ
    tel(0x0EE2, 6, struct.pack("<H", 0)),                                       # ERASE
    tel(0x0EE4, 7, struct.pack("<IH", 0, 2) + b"\xAA\xBB"),                     # WRITE USER PAGE
]
AWIRE_INDICATIONS = [
    tel(0x0EE1, 0, struct.pack("<hBH", 1, 1, 16)),                               # write status: running
    tel(0x0EE1, 0, struct.pack("<hBH", 1, 0, 32)),                               # finished
    tel(0x0EE1, 0, struct.pack("<hBH", 2, 5, 0)),                                # failed
    tel(0x8E06, 1, b"\x00" + struct.pack("<IIIIB", 0, 0, 512, 0, 0)),            # GET_CONFIG confirmation
]

write("telegram_fuzz", [CONNECT_CAN, ALIVE_CAN, DISCONNECT_CAN] + CAN_REQUESTS[:4] + CAN_INDICATIONS[:3]
      + [tel(0x8209, 7, b"\x00" + bytes(20))])
write("sim_model_fuzz", [b"\x00" + b"".join(CAN_REQUESTS), b"\x00" + CAN_REQUESTS[6] + CAN_REQUESTS[7],
                         b"\x01" + b"".join(AWIRE_REQUESTS), b"\x11" + b"".join(AWIRE_REQUESTS[2:5])])
write("server_stream_fuzz", [b"\x00\x10" + CONNECT_CAN + b"".join(CAN_REQUESTS) + ALIVE_CAN + DISCONNECT_CAN,
                             b"\x00\x00" + CONNECT_CAN + CAN_REQUESTS[3] * 3,
                             b"\x01\x07" + CONNECT_AWIRE + b"".join(AWIRE_REQUESTS),
                             b"\x00\x03" + CAN_REQUESTS[0]])  # no connect request first
write("client_stream_fuzz", [b"\x00\x20" + b"".join(CAN_INDICATIONS), b"\x04\x05" + b"".join(CAN_INDICATIONS),
                             b"\x06\x01" + b"".join(CAN_INDICATIONS[3:]), b"\x01\x09" + b"".join(AWIRE_INDICATIONS),
                             b"\x00\x02" + ALIVE_CAN + tel(0x0202, 3)])
write("hex_fuzz", [
    b"\x00" + (ihex(0, 4, b"\x00\x01") + ihex(0, 0, b"\x01\x02\x03\x04") + ihex(0, 1)).encode(),
    b"\x01" + (ihex(0, 0, bytes(range(16))) + ihex(0, 4, b"\x00\xFF") + ihex(0xFFF8, 0, bytes(16))
               + ihex(0x10, 0, b"\xAA", ) + ihex(0, 1)).encode(),
    b"\x02" + (srec("S1", 0, bytes(range(16))) + srec("S2", 0x10000, b"\x0A\x0B\x0C") + srec("S9", 0)).encode(),
    b"\x00" + (srec("S0", 0) + srec("S5", 1) + srec("S3", 0x10000, bytes(range(16)))).encode(),
    b"\x01" + (ihex(0, 0, b"\x01\x02")[:-4] + "00\n" + ihex(2, 0, b"\x03")).encode(),  # a bad checksum
])


def trace_activate(levels, masks):
    body = struct.pack("<HHHBB", 4 + 2 + 4 * len(masks) + 1, 0x0001, 0, levels, len(masks))
    body += b"".join(struct.pack("<I", m) for m in masks)
    crc = 0
    for b in body:
        crc ^= b
    return body + bytes([crc])


write("trace_fuzz", [trace_activate(0x14, [0, 2, 0, 0xFFFF]), trace_activate(0x00, []),
                     bytes.fromhex("04 00 02 00 00 00 00"), bytes.fromhex("09 00 03 00 00 00 03 00 00 00 01"),
                     trace_activate(0x1F, [0xFFFFFFFF] * 32)])
