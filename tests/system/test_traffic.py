"""Packets through the tunnel: each is compared byte for byte with what scapy makes of it with the other address."""

import hashlib
import random
import socket
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import records
from harness.packets import IP, TCP, UDP, Raw, TunPort, fragment, raw, with_address
from harness.world import MANAGEMENT_IP, SITE_IP, wait_until
from scapy.layers.inet import ICMP, IPOption_NOP
from scapy.layers.inet6 import ICMPv6EchoRequest, IPv6

MAX_PACKET = 1436


class Crossing:
    """The tunnel seen as two ends at which packets go in and come out."""

    def __init__(self, tunnel):
        self.gateway = tunnel.gateway
        self.inner = tunnel.gateway.inner()
        self.tun = TunPort(tunnel.world)
        tunnel.world.ip("device", f"route del 10.9.0.0/24 dev {self.tun.name}")  # the stack's own answers stay away
        self.gateway.ask("data_events", on=True)

    def up(self, packets):
        """Puts packets into the device's interface; what reached the gateway."""
        since = self.gateway.last
        for packet in packets:
            self.tun.send(packet)

        def arrived():
            found = [bytes.fromhex(e["hex"]) for e in self.gateway.events("data", since=since) if e["dir"] == "up"]
            found = [p for p in found if not is_router_solicitation(p)]
            return found if len(found) >= len(packets) else None

        return wait_until(arrived, 10, f"{len(packets)} packets at the gateway")

    def down(self, packets):
        """Has the gateway send packets; what the daemon wrote to its interface."""
        for packet in packets:
            self.gateway.ask("send_packet", client=self.gateway.client(), hex=packet.hex())
        return [self.tun.receive() for _ in packets]


def is_router_solicitation(packet):
    return packet[0] >> 4 == 6 and packet[6] == 58 and packet[40] == 133


def random_payload(rng):
    return rng.randbytes(rng.choice([0, 1, 2, 7, 20, 333, 1000, 1300]))


def random_packet(rng, source, destination):
    header = IP(src=source, dst=destination, id=rng.randrange(65536), ttl=rng.randrange(1, 256), tos=rng.randrange(256))
    if rng.random() < 0.2:
        header.options = [IPOption_NOP()] * 4
    kind = rng.choice(["tcp", "udp", "icmp"])
    ports = {"sport": rng.randrange(1, 65536), "dport": 9}
    if kind == "tcp":
        options = [("NOP", None)] * rng.choice([0, 4])
        transport = TCP(**ports, seq=rng.randrange(1 << 32), ack=rng.randrange(1 << 32), flags="A", options=options)
    elif kind == "udp":
        transport = UDP(**ports)
    else:
        transport = ICMP(type=0, id=rng.randrange(65536), seq=rng.randrange(65536))
    return raw(header / transport / Raw(random_payload(rng)))


def special_packets(source, destination):
    """The cases in which the checksum repair decides something, by name."""

    def header(**more):
        return IP(src=source, dst=destination, **more)

    whole_tcp = raw(header(id=7) / TCP(sport=1, dport=9, flags="A") / Raw(bytes(range(200))))
    first, second = fragment(whole_tcp, 64)
    no_checksum = raw(header() / UDP(sport=1, dport=9, chksum=0) / Raw(b"no checksum"))
    longest = raw(header() / UDP(sport=1, dport=9) / Raw(b"x" * (MAX_PACKET - 28)))
    assert len(longest) == MAX_PACKET
    return (
        {
            "icmp": raw(header() / ICMP(type=0, id=3, seq=4) / Raw(b"ping")),
            "udp without checksum": no_checksum,
            "first fragment": first,
            "later fragment": second,
            "other protocol": raw(header(proto=47) / Raw(b"\0\0\x08\0generic")),
        },
        (whole_tcp, first),
        longest,
    )


def expected_first_fragment(whole, first, **address):
    """A first fragment carries the checksum of the whole segment."""
    whole_after = with_address(whole, **address)
    return fragment(whole_after, len(first) - 20)[0]


@pytest.mark.sanitizer
def test_outbound_packets_carry_the_inner_address_and_right_checksums(tunnel):
    crossing = Crossing(tunnel)
    rng = random.Random(20)
    packets = [random_packet(rng, MANAGEMENT_IP, SITE_IP) for _ in range(150)]
    assert crossing.up(packets) == [with_address(p, src=crossing.inner) for p in packets]


@pytest.mark.sanitizer
def test_inbound_packets_carry_the_management_address_and_right_checksums(tunnel):
    crossing = Crossing(tunnel)
    rng = random.Random(21)
    packets = [random_packet(rng, SITE_IP, crossing.inner) for _ in range(150)]
    assert crossing.down(packets) == [with_address(p, dst=MANAGEMENT_IP) for p in packets]


def test_special_packets_outbound(tunnel):
    crossing = Crossing(tunnel)
    packets, (whole, first), _ = special_packets(MANAGEMENT_IP, SITE_IP)
    place = tunnel.daemon.log.position
    for name, packet in packets.items():
        expected = with_address(packet, src=crossing.inner)
        if name == "first fragment":
            expected = expected_first_fragment(whole, first, src=crossing.inner)
        assert crossing.up([packet]) == [expected], name
    message = "Got a packet(Non TCP/UDP/ICMP) whose checksum is not handled from tun"
    assert [e.level for e in tunnel.daemon.log.entries(place) if e.message == message] == ["ERROR"]


def test_special_packets_inbound(tunnel):
    crossing = Crossing(tunnel)
    packets, (whole, first), longest = special_packets(SITE_IP, crossing.inner)
    for name, packet in packets.items():
        expected = with_address(packet, dst=MANAGEMENT_IP)
        if name == "first fragment":
            expected = expected_first_fragment(whole, first, dst=MANAGEMENT_IP)
        assert crossing.down([packet]) == [expected], name
    assert crossing.down([longest]) == [with_address(longest, dst=MANAGEMENT_IP)]


def test_a_packet_of_1437_bytes_from_the_gateway_is_refused(tunnel):
    crossing = Crossing(tunnel)
    packet = raw(IP(src=SITE_IP, dst=crossing.inner) / UDP(sport=1, dport=9) / Raw(b"x" * (MAX_PACKET + 1 - 28)))
    place = tunnel.daemon.log.position
    tunnel.gateway.ask("send_frame", type=0, payload=packet.hex())
    tunnel.daemon.log.wait_match(
        r"Frame too big to write to tun intf for conn 0x\w+\. len received = 1437, Max-limit = 1436", 5, place
    )
    tunnel.daemon.log.wait_for("Processing CSTP frame failed due to error TLSC_CSTP_FRAME_SIZE_TOO_BIG\n", 5, place)
    tunnel.daemon.log.wait_match(r"Could not write data-frame on tun-intf, for conn 0x", 5, place)
    crossing.tun.assert_silent()
    assert tunnel.daemon.is_running()


def test_version_6_passes_both_ways_untouched(tunnel):
    crossing = Crossing(tunnel)
    packet = raw(IPv6(src="fe80::1", dst="fe80::2") / ICMPv6EchoRequest(id=9, seq=1, data=b"sixes"))
    assert crossing.up([packet]) == [packet]
    assert crossing.down([packet]) == [packet]


def test_the_counters_count_what_crossed(tunnel):
    crossing = Crossing(tunnel)
    before = tunnel.daemon.statistics()
    # Echo replies that nobody asked for: no stack answers them.
    up = [raw(IP(src=MANAGEMENT_IP, dst=SITE_IP) / ICMP(type=0) / Raw(b"up")) for _ in range(7)]
    down = [raw(IP(src=SITE_IP, dst=crossing.inner) / ICMP(type=0) / Raw(b"down")) for _ in range(5)]
    crossing.up(up)
    crossing.down(down)
    after = tunnel.daemon.statistics()
    # The kernel's own version-6 packets count too; they come in from the interface, never out of it.
    extra = after["tun_rx"] - before["tun_rx"] - 7
    assert extra >= 0
    assert after["data_tx"] - before["data_tx"] == 7 + extra
    assert after["data_rx"] - before["data_rx"] == 5
    assert after["tun_tx"] - before["tun_tx"] == 5


def test_clearing_the_statistics_reports_zeros(tunnel):
    since = tunnel.controller.count
    tunnel.daemon.order(records.STATS_CLEAR)
    assert tunnel.controller.wait_for("30/33", 5, since).data == records.statistics_record({})


def test_idle_ping_loses_nothing(tunnel):
    answer = tunnel.world.run(["ping", "-c", "100", "-i", "0.02", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device")
    assert "100 packets transmitted, 100 received, 0% packet loss" in answer["out"]


def send_and_close(connection, data):
    connection.sendall(data)
    connection.shutdown(socket.SHUT_WR)


def receive_all(connection):
    digest = hashlib.sha256()
    while chunk := connection.recv(1 << 16):
        digest.update(chunk)
    return digest.hexdigest()


def transfer(world, data, server_ns, server_address, client_ns, bind_to=None):
    """Sends data from the client to the server and back at once; both hashes."""
    with world.inside(server_ns):
        listener = socket.create_server((server_address[0], 0))
    with world.inside(client_ns):
        client = socket.socket()
    client.settimeout(30)
    if bind_to:
        client.bind((bind_to, 0))
    client.connect((server_address[1], listener.getsockname()[1]))
    served, _ = listener.accept()
    served.settimeout(30)
    senders = [threading.Thread(target=send_and_close, args=(s, data)) for s in (client, served)]
    for sender in senders:
        sender.start()
    hashes = []
    receiver = threading.Thread(target=lambda: hashes.append(receive_all(served)))
    receiver.start()
    hashes.append(receive_all(client))
    for thread in senders + [receiver]:
        thread.join()
    for connection in (client, served, listener):
        connection.close()
    return hashes


@pytest.mark.sanitizer
def test_tcp_in_both_directions_at_once_and_from_both_sides(tunnel):
    data = random.Random(22).randbytes(4 << 20)
    expected = hashlib.sha256(data).hexdigest()
    inner = tunnel.gateway.inner()
    assert transfer(tunnel.world, data, "gateway", (SITE_IP, SITE_IP), "device", MANAGEMENT_IP) == [expected] * 2
    assert transfer(tunnel.world, data, "device", (MANAGEMENT_IP, inner), "gateway") == [expected] * 2


@pytest.mark.sanitizer
def test_64_streams_at_once_each_arrive_whole_in_both_directions(tunnel):
    """Half of the connections begin on either side; each carries bytes of its own both ways."""
    inner = tunnel.gateway.inner()

    def cross(number):
        data = random.Random(number).randbytes(200_000 + number)
        ways = (
            (data, "gateway", (SITE_IP, SITE_IP), "device", MANAGEMENT_IP),
            (data, "device", (MANAGEMENT_IP, inner), "gateway"),
        )
        return transfer(tunnel.world, *ways[number % 2]) == [hashlib.sha256(data).hexdigest()] * 2

    with ThreadPoolExecutor(64) as pool:
        assert list(pool.map(cross, range(64))) == [True] * 64
