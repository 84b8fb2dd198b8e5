"""The 520-byte records of the controller pipes, as bytes. Nothing here is taken from the daemon's sources."""

import socket
import struct
from dataclasses import dataclass

RECORD_SIZE = 520
PAYLOAD_SIZE = 512

HELLO = 1
TUN_START = 20
TUN_STOP = 21
TUN_RESTART = 22
TUN_IN_PROG = 23
TUN_UP = 24
TUN_DOWN = 25
NAME_REQUEST = 27
NAME_ANSWER = 28
DEBUG_SET = 29
INFO_UPDATE = 30
EXIT_NAMED = 31  # carries the exit's name, but is not the exit
STATS_REQUEST = 32
STATS_CLEAR = 34
PROCESS_REQUEST = 35
PROCESS_INFO = 36
EXIT = 37

INFO_DNS = 0
INFO_INNER_ADDRESS = 1
INFO_STATISTICS = 33

COUNTERS = (
    "data_rx data_tx ctrl_rx ctrl_tx invalid_rx tun_rx tun_tx dpd_req_tx dpd_rsp_rx rekey_attempts rekey_success tun_alloc tun_freed "
    "ssl_read_errors ssl_read_want_read ssl_read_want_write ssl_read_others ssl_write_errors ssl_write_want_read ssl_write_want_write "
    "ssl_write_others tun_read_errors tun_read_einval tun_read_ebadf tun_read_efault tun_read_others tun_write_errors tun_write_einval "
    "tun_write_ebadf tun_write_efault tun_write_others"
).split()
assert len(COUNTERS) == 31


def record(msg_id, payload=b""):
    """A whole record: identifier in host order, four zero bytes, payload filled up with zeros."""
    assert len(payload) <= PAYLOAD_SIZE
    return struct.pack("=II", msg_id, 0) + payload.ljust(PAYLOAD_SIZE, b"\0")


def text_record(msg_id, text):
    return record(msg_id, text.encode() + b"\0")


def debug_record(category, value):
    """Two texts of 64 bytes each."""
    return record(DEBUG_SET, category.encode().ljust(64, b"\0") + value.encode().ljust(64, b"\0"))


def inner_address_record(address):
    return record(INFO_UPDATE, struct.pack("=II", INFO_INNER_ADDRESS, 0) + address.encode())


def dns_record(addresses):
    """Count, two zero bytes, four entries: type 0 (IPv4) and 16 bytes that begin with the address."""
    body = struct.pack("=HH", len(addresses), 0)
    for address in addresses[:4]:
        body += struct.pack("=I", 0) + socket.inet_aton(address).ljust(16, b"\0")
    return record(INFO_UPDATE, struct.pack("=II", INFO_DNS, 0) + body)


def statistics_record(counters):
    values = [counters.get(name, 0) for name in COUNTERS]
    return record(INFO_UPDATE, struct.pack("=II", INFO_STATISTICS, 0) + struct.pack("<31Q", *values))


@dataclass(frozen=True)
class Received:
    """A record that the daemon has written, and when it was read (CLOCK_MONOTONIC)."""

    data: bytes
    at: float

    @property
    def id(self):
        return struct.unpack_from("=I", self.data)[0]

    @property
    def info_type(self):
        return struct.unpack_from("=I", self.data, 8)[0] if self.id == INFO_UPDATE else None

    @property
    def kind(self):
        """What a reader calls it: "24", or "30/33" for an information record."""
        return str(self.id) if self.info_type is None else f"{self.id}/{self.info_type}"

    @property
    def text(self):
        """The text of a DOWN record or of an inner-address record."""
        start = 16 if self.id == INFO_UPDATE else 8
        return self.data[start:].split(b"\0", 1)[0].decode()

    @property
    def counters(self):
        assert self.kind == "30/33"
        return dict(zip(COUNTERS, struct.unpack_from("<31Q", self.data, 16)))
