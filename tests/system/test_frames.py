"""What a gateway may send that it should not: frames and TLS records of every shape. The daemon stays up, and the TUN
interface gets nothing but bytes that the gateway sent, and zeros."""

import random
import struct

import pytest

from harness import records
from harness.packets import IP, UDP, Raw, TunPort, is_ip4, raw, with_address
from harness.world import MANAGEMENT_IP, SITE_IP

MAX_READ = 1500  # bytes that one read of the TLS stream takes at most


def frame(kind, payload=b"", length=None, magic=b"STF", version=1, reserved=0):
    announced = len(payload) if length is None else length
    return magic + struct.pack(">BHBB", version, announced, kind, reserved) + payload


class Laboratory:
    def __init__(self, tunnel):
        self.daemon = tunnel.daemon
        self.gateway = tunnel.gateway
        self.client = tunnel.gateway.client()
        self.inner = tunnel.gateway.inner()
        self.tun = TunPort(tunnel.world)
        tunnel.world.ip("device", f"route del 10.9.0.0/24 dev {self.tun.name}")
        self.marker = 0

    def packet(self, text=b"", size=None):
        payload = text if size is None else bytes(i % 251 + 1 for i in range(size - 28))  # no zero byte in it
        return raw(IP(src=SITE_IP, dst=self.inner, id=self.marker) / UDP(sport=1, dport=9) / Raw(payload))

    def records(self, *texts, **more):
        self.gateway.ask("send_record", client=self.client, hex=[t.hex() for t in texts], **more)

    def arrived(self, packet):
        """The packet as the device must see it."""
        return with_address(packet, dst=MANAGEMENT_IP)

    def next(self, timeout=5):
        return self.tun.receive(timeout, is_ip4)

    def assert_alive(self):
        """A packet that nobody has seen before crosses the tunnel, on the same connection."""
        self.marker += 1
        packet = self.packet(b"alive %d" % self.marker)
        self.records(frame(0, packet))
        expected = self.arrived(packet)
        self.tun.receive(5, lambda seen: seen == expected)
        assert self.gateway.client() == self.client


@pytest.fixture
def laboratory(tunnel):
    return Laboratory(tunnel)


def test_of_two_frames_in_one_record_the_first_counts(laboratory):
    first, second = laboratory.packet(b"first"), laboratory.packet(b"second")
    laboratory.records(frame(0, first) + frame(0, second))
    assert laboratory.next() == laboratory.arrived(first)
    laboratory.assert_alive()


def test_two_records_in_one_segment_are_two_frames(laboratory):
    first, second = laboratory.packet(b"first"), laboratory.packet(b"second")
    laboratory.records(frame(0, first), frame(0, second))
    assert laboratory.next() == laboratory.arrived(first)
    assert laboratory.next() == laboratory.arrived(second)
    laboratory.assert_alive()


def test_a_frame_that_spans_two_records_is_cut_and_filled_with_zeros(laboratory):
    packet = laboratory.packet(size=400)
    whole = frame(0, packet)
    # The rest is read as a frame of its own: its bytes stand where the header is expected, and name an unknown type.
    assert whole[208 + 6] not in (0, 2, 4)
    before = laboratory.daemon.statistics()["invalid_rx"]
    laboratory.records(whole[:208], whole[208:])
    seen = laboratory.next()
    assert len(seen) == 400
    assert seen[28:200] == packet[28:200]
    assert seen[200:] == bytes(200)
    laboratory.assert_alive()
    assert laboratory.daemon.statistics()["invalid_rx"] == before + 1


def test_a_record_that_arrives_in_two_pieces_is_one_frame(laboratory):
    packet = laboratory.packet(size=700)
    laboratory.records(frame(0, packet), cut=300, gap_ms=400)
    assert laboratory.next() == laboratory.arrived(packet)
    laboratory.assert_alive()


def test_an_empty_record_is_passed_over(laboratory):
    packet = laboratory.packet(b"behind nothing")
    laboratory.records(b"", frame(0, packet))
    assert laboratory.next() == laboratory.arrived(packet)
    laboratory.assert_alive()


@pytest.mark.sanitizer
def test_a_record_of_more_than_one_read_is_taken_in_pieces(laboratory):
    first = frame(0, laboratory.packet(b"first")).ljust(MAX_READ, b"\0")
    second = laboratory.packet(b"second")
    laboratory.records(first + frame(0, second))
    assert laboratory.next() == laboratory.arrived(laboratory.packet(b"first"))
    # The rest waits inside TLS until the socket becomes readable again.
    laboratory.records(frame(0, laboratory.packet(b"push")))
    assert laboratory.next() == laboratory.arrived(second)


@pytest.mark.sanitizer
def test_an_oversized_record_ends_the_connection_and_the_client_comes_back(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(5))
    daemon.bring_up()
    since, place = bench.controller.count, daemon.log.position
    bench.gateway.ask(
        "send_record", hex="00" * 40000
    )  # the 1.0 series of OpenSSL takes twice the 16384 bytes of the standard
    daemon.log.wait_for("SSL Read error received = 1, translated-ssl-error = 0", 5, place)
    daemon.log.wait_for("SSL returned error = 0, while trying to read data", 5, place)
    bench.controller.wait_for(records.TUN_DOWN, 5, since)
    bench.controller.wait_for(records.TUN_UP, 15, since)


def test_a_frame_of_unknown_type_is_counted_and_dropped(laboratory):
    kinds = [1, 3, 5, 127, 255]
    before = laboratory.daemon.statistics()
    for kind in kinds:
        place = laboratory.daemon.log.position
        laboratory.records(frame(kind, laboratory.packet(b"unknown")))
        laboratory.daemon.log.wait_match(
            rf"Receieved invalid cstp frame\({kind}\) for conn 0x\w+\.\. dropping\.\.", 5, place
        )
        laboratory.daemon.log.wait_for(
            "Processing CSTP frame failed due to error TLSC_CSTP_INVALID_FRAME_RECVD\n", 5, place
        )
        laboratory.assert_alive()
    assert laboratory.daemon.statistics()["invalid_rx"] == before["invalid_rx"] + len(kinds)


def test_magic_version_and_reserved_byte_are_not_looked_at(laboratory):
    packet = laboratory.packet(b"strange header")
    laboratory.records(frame(0, packet, magic=b"XYZ", version=7, reserved=9))
    assert laboratory.next() == laboratory.arrived(packet)
    laboratory.assert_alive()


@pytest.mark.sanitizer
def test_what_a_length_promises_and_the_record_lacks_is_zero(laboratory):
    for sent in (28, 29, 64, 500, 1000):
        # Other bytes have been where the missing ones belong.
        laboratory.records(frame(0, laboratory.packet(size=1436)))
        laboratory.next()
        packet = laboratory.packet(size=1200)
        laboratory.records(frame(0, packet[:sent], length=1200))
        seen = laboratory.next()
        assert len(seen) == 1200
        assert seen[28:sent] == packet[28:sent]
        assert seen[sent:] == bytes(1200 - sent)
    laboratory.assert_alive()


@pytest.mark.sanitizer
def test_a_length_beyond_1436_is_refused(laboratory):
    for length in (1437, 1492, 1493, 1500, 1501, 32768, 65535):
        place = laboratory.daemon.log.position
        laboratory.records(frame(0, laboratory.packet(b"liar"), length=length))
        laboratory.daemon.log.wait_for(f"len received = {length}, Max-limit = 1436", 5, place)
        laboratory.tun.assert_silent(0.1)
        laboratory.assert_alive()


@pytest.mark.sanitizer
def test_records_shorter_than_a_header(laboratory):
    for size in range(1, 8):
        laboratory.records(b"STF\x01\x00\x08\x00"[:size])
    laboratory.assert_alive()


def test_an_empty_data_frame_is_a_write_error_and_no_more(laboratory):
    before = laboratory.daemon.statistics()
    laboratory.records(frame(0))
    laboratory.assert_alive()
    after = laboratory.daemon.statistics()
    assert after["data_rx"] - before["data_rx"] == 2
    assert after["tun_write_errors"] - before["tun_write_errors"] == 1
    assert after["tun_write_einval"] - before["tun_write_einval"] == 1


def test_a_packet_of_no_known_version_is_a_write_error_and_no_more(laboratory):
    before = laboratory.daemon.statistics()
    laboratory.records(frame(0, b"\x75" + b"?" * 60))
    laboratory.assert_alive()
    assert laboratory.daemon.statistics()["tun_write_errors"] == before["tun_write_errors"] + 1


@pytest.mark.sanitizer
def test_tiny_packets_with_a_large_header_length_do_no_harm(laboratory):
    for size in (1, 12, 19, 20, 21, 27):
        laboratory.records(frame(0, (b"\x4f" + bytes(8) + b"\x06" + bytes(60))[:size]))
    laboratory.assert_alive()


def test_a_dpd_response_that_nobody_asked_for_postpones_nothing(laboratory):
    place = laboratory.daemon.log.position
    laboratory.gateway.ask("send_frame", client=laboratory.client, type=4, payload="")
    laboratory.daemon.log.wait_match(r"Got CSTP dpd resp frame \[Req Retry Ref #0\] for conn 0x", 5, place)
    laboratory.daemon.log.wait_match(r"Timer is already running with fd = \d+", 5, place)
    laboratory.daemon.log.wait_for("Invalid timer-fd received in stop-timer", 5, place)
    assert laboratory.daemon.log.count("Started DPD Timer", place) == 0
    laboratory.assert_alive()


def test_a_second_configuration_response_is_taken(tunnel):
    laboratory = Laboratory(tunnel)
    since = tunnel.controller.count
    text = b"X-CSTP-Address-Client:10.9.0.99\nX-CSTP-DNS:10.9.0.7\n"
    laboratory.gateway.ask("set", header="X-CSTP-Address-Client", value="10.9.0.99")
    laboratory.records(frame(2, text))
    assert tunnel.controller.wait_for("30/1", 5, since).data == records.inner_address_record("10.9.0.99")
    assert tunnel.controller.wait_for("30/0", 5, since).data == records.dns_record(["10.9.0.7"])
    assert tunnel.controller.all(records.TUN_UP, since) == []


@pytest.mark.sanitizer
def test_random_records_do_not_end_the_daemon(laboratory):
    rng = random.Random(5)
    for _ in range(300):
        kind = rng.choice([0, 0, 4, 1, 3, 9, rng.randrange(256)])
        if kind == 2:
            continue  # a configuration response sets intervals; those are tested elsewhere
        body = rng.randbytes(rng.choice([0, 1, 5, 20, 60, 500, 1492]))
        laboratory.records(frame(kind, body, length=rng.choice([None, rng.randrange(65536)])))
    laboratory.daemon.log.wait_quiet(0.5)
    assert laboratory.daemon.is_running()
    assert laboratory.daemon.statistics()["invalid_rx"] > 0
