"""Whole packets into and out of the device's TUN interface, and scapy as the independent oracle of their checksums."""

import logging
import select
import socket
import struct
import time

logging.getLogger("scapy").setLevel(logging.ERROR)

from scapy.layers.inet import IP, TCP, UDP  # noqa: E402
from scapy.packet import Raw, raw  # noqa: E402

from .daemon import TUN_NAME  # noqa: E402

ETH_P_IP = 0x0800
ETH_P_IPV6 = 0x86DD
ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4


class TunPort:
    """A packet socket on the TUN interface: what is sent here the daemon reads, what the daemon writes arrives here."""

    def __init__(self, world, name=TUN_NAME):
        with world.inside("device"):
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self._socket.bind((name, ETH_P_ALL))
        self.name = name

    def close(self):
        self._socket.close()

    def send(self, packet):
        protocol = ETH_P_IPV6 if packet[0] >> 4 == 6 else ETH_P_IP
        self._socket.sendto(packet, (self.name, protocol))

    def receive(self, timeout=5, wanted=lambda packet: True):
        """The next packet that the daemon has written and that is wanted."""
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            assert left > 0 and select.select([self._socket], [], [], left)[0], "no such packet from the daemon"
            packet, address = self._socket.recvfrom(65536)
            if address[2] != PACKET_OUTGOING and wanted(packet):
                return packet

    def assert_silent(self, seconds=0.5):
        """Nothing comes from the daemon for that long."""
        deadline = time.monotonic() + seconds
        while select.select([self._socket], [], [], max(0, deadline - time.monotonic()))[0]:
            packet, address = self._socket.recvfrom(65536)
            assert address[2] == PACKET_OUTGOING, f"unexpected packet {packet.hex()}"


def with_address(packet, **address):
    """The same packet with another src or dst, every checksum computed anew by scapy. A UDP checksum of 0 stays."""
    layers = IP(packet)
    for field, value in address.items():
        setattr(layers, field, value)
    del layers.chksum
    if layers.frag == 0 and TCP in layers:
        del layers[TCP].chksum
    if layers.frag == 0 and UDP in layers and layers[UDP].chksum != 0:
        del layers[UDP].chksum
    return raw(layers)


def fragment(packet, size):
    """The two fragments of an IPv4 packet, the first with size bytes of payload, built byte by byte."""
    header_length = (packet[0] & 15) * 4
    header, payload = bytearray(packet[:header_length]), packet[header_length:]
    pieces = []
    for offset, piece, more in ((0, payload[:size], 1), (size, payload[size:], 0)):
        struct.pack_into(">H", header, 2, header_length + len(piece))
        struct.pack_into(">H", header, 6, more << 13 | offset // 8)
        struct.pack_into(">H", header, 10, 0)
        struct.pack_into(">H", header, 10, internet_checksum(bytes(header)))
        pieces.append(bytes(header) + piece)
    return pieces


def internet_checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def is_ip4(packet):
    return packet[0] >> 4 == 4


__all__ = ["IP", "TCP", "UDP", "Raw", "raw", "TunPort", "with_address", "fragment", "internet_checksum", "is_ip4"]
