"""The Wireshark dissector on captures of a tunnel: frames of every type, headers, inner packets, malformed input."""

import json
import os
import re
import shutil
import signal
import struct
import subprocess
import time

import pytest

from harness.daemon import CONF_FILE, PSK_KEY, conf_text
from harness.packets import IP, UDP, Raw, raw
from harness.schema import check_controller_answer
from harness.world import BUILD, PROJECT, SITE_IP, wait_until

LUA = PROJECT / "packaging/wireshark/cstp.lua"
CAPTURE = "/tmp/capture.pcapng"
KEYLOG = "/tmp/keylog.txt"

pytestmark = pytest.mark.skipif(shutil.which("tshark") is None, reason="needs tshark")


def frame(kind, payload=b"", length=None, magic=b"STF", version=1, reserved=0):
    return magic + struct.pack(">BHBB", version, len(payload) if length is None else length, kind, reserved) + payload


class Capture:
    """What crosses the device's wire, until it is read."""

    def __init__(self, world):
        self.world = world
        words = ["dumpcap", "-q", "-i", "wan0", "-s", "0", "-w", CAPTURE]
        self.process = world.spawn(words, ns="device", stderr="/tmp/dumpcap.err")
        wait_until(lambda: b"File:" in world.read("/tmp/dumpcap.err"), 10, "dumpcap")

    def end(self):
        if self.process.is_running():
            time.sleep(0.5)  # it hands packets over a few times a second
            self.process.signal(signal.SIGINT)
            assert self.process.wait(10) == 0

    def read(self, place, **preferences):
        """What tshark tells of each packet with CSTP in it, in their order: a dictionary of field to list of texts."""
        self.end()
        lines = [f"{name.replace('__', '.')}: {value}\n" for name, value in preferences.items()]
        (place / "preferences").write_text("".join(lines))
        shutil.copy(self.world.path(CAPTURE), place / "capture.pcapng")
        words = ["tshark", "-X", f"lua_script:{LUA}", "-r", place / "capture.pcapng", "-Y", "cstp", "-T", "fields"]
        words += ["-E", "separator=/t", "-E", "aggregator=;"] + [word for name in FIELDS for word in ("-e", name)]
        environment = {**os.environ, "WIRESHARK_CONFIG_DIR": str(place)}
        done = subprocess.run(words, env=environment, capture_output=True, text=True, timeout=60)
        assert done.returncode == 0 and "Lua" not in done.stderr, done.stderr
        cells = [[cell.split(";") if cell else [] for cell in line.split("\t")] for line in done.stdout.splitlines()]
        rows = [dict(zip(FIELDS, row)) for row in cells]
        print(*rows, sep="\n")
        return rows


FIELDS = ["cstp.type", "cstp.direction", "cstp.header", "cstp.address_client", "cstp.dns", "cstp.dpd", "cstp.stray"]
FIELDS += ["ip.src", "ip.dst", "icmp.type", "udp.dstport", "_ws.expert.message", "_ws.col.Protocol", "_ws.col.Info"]

KEY = {"tls__psk": PSK_KEY.encode().hex()}
COALESCED = "Another frame in the same TLS record: the client ignores all but the first"
SPLIT = "A frame in more than one TLS record: the client takes each part for a frame"
DATA, REQUEST, RESPONSE, DPD_REQUEST, DPD_RESPONSE = "01234"


def types(rows):
    return [kind for row in rows for kind in row["cstp.type"]]


def of_type(rows, kind):
    return [row for row in rows if kind in row["cstp.type"]]


def complaints(row):
    """What the dissector found wrong; TCP's and IP's own remarks do not count."""
    return [text for text in row["_ws.expert.message"] if any(text == known for known in KNOWN)]


KNOWN = re.findall(r'^finding\("\w+", "([^"]*)"', LUA.read_text(), re.M)


def live_through(bench, **settings):
    """A tunnel's life: up, an echo, a DPD exchange."""
    bench.make_daemon(env=bench.preload_fast_clock(4), conf=conf_text(**settings))
    bench.daemon.bring_up()
    bench.daemon.add_route()
    bench.world.run(["ping", "-c", "1", "-W", "3", SITE_IP], ns="device")
    bench.gateway.wait("dpd_resp_sent", since=0, timeout=10)


def assert_life(rows, inner):
    assert set(types(rows)) == {DATA, REQUEST, RESPONSE, DPD_REQUEST, DPD_RESPONSE}
    assert types(rows)[:2] == [REQUEST, RESPONSE]
    request, response = of_type(rows, REQUEST)[0], of_type(rows, RESPONSE)[0]
    lines = ["X-CSTP-Device-ID:dev-0001", "X-CSTP-Device-Name:branch-router", "X-CSTP-Device-SerialNo:SN-4711"]
    assert request["cstp.header"] == lines
    assert request["cstp.direction"] == ["to the gateway"] and response["cstp.direction"] == ["to the client"]
    assert response["cstp.address_client"] == [inner] and response["cstp.dpd"] == ["5"]
    assert response["cstp.dns"] == [SITE_IP, "10.9.0.53"]
    echoes = [row for row in of_type(rows, DATA) if row["icmp.type"]]
    assert [row["icmp.type"] for row in echoes] == [["8"], ["0"]]
    assert echoes[0]["ip.src"][1:] == [inner] and echoes[0]["ip.dst"][1:] == [SITE_IP]
    assert [complaints(row) for row in rows if complaints(row)] == []


def test_dissector_shows_every_frame_of_a_tunnels_life(bench, tmp_path):
    bench.make_gateway("--dpd", "5", "--dns", "10.9.0.53")
    capture = Capture(bench.world)
    live_through(bench)
    assert_life(capture.read(tmp_path, **KEY), bench.gateway.inner())
    assert capture.read(tmp_path) == []  # without the key there is nothing to see


def test_dissector_reads_dhe_sessions_with_the_gateways_key_log(bench, tmp_path):
    bench.make_gateway("--dpd", "5", "--dns", "10.9.0.53", "--keylog", KEYLOG)
    capture = Capture(bench.world)
    live_through(bench, cipher_algo="DHE-PSK-AES256-CBC-SHA")
    inner = bench.gateway.inner()
    assert capture.read(tmp_path, **KEY) == []  # the pre-shared key alone does not open it
    assert_life(capture.read(tmp_path, tls__keylog_file=bench.world.path(KEYLOG)), inner)


def up_and_halted(bench):
    """A tunnel whose daemon stands still: what the gateway sends is for the capture alone."""
    bench.make_gateway("--allow-fatal")
    capture = Capture(bench.world)
    bench.make_daemon(env=bench.preload_fast_clock(4))
    bench.daemon.bring_up()
    inner = bench.gateway.inner()
    bench.daemon.process.signal(signal.SIGSTOP)
    return capture, inner


def behind_the_response(bench, capture, place, records):
    """Has each list of records sent, and reads what came behind the configuration response."""
    for parts in records:
        bench.gateway.ask("send_record", client=1, hex=[part.hex() for part in parts])
        time.sleep(0.1)  # acknowledged: TCP would put the next one into the same packet
    rows = capture.read(place, cstp__tls_port="443", **KEY)
    rows = [row for row in rows if "to the client" in row["cstp.direction"] or row["cstp.stray"]]
    assert rows[0]["cstp.type"] == [RESPONSE]
    return rows[1:]


def test_dissector_names_what_is_malformed(bench, tmp_path):
    capture, inner = up_and_halted(bench)
    packet = raw(IP(src=SITE_IP, dst=inner) / UDP(sport=1, dport=4711) / Raw(b"x" * 40))
    response = b"X-CSTP-DPD:3\nX-CSTP-Address-Client: 10.9.0.9\nno colon\n"
    response += b"X-CSTP-DNS:10.9.0.1\r\nX-CSTP-Retry-Time:soon\n"

    # Name, bytes of the records, what is found in their frames.
    cases = [
        ("good", [frame(0, packet)], []),
        ("version", [frame(0, packet, version=2)], ["Version is not 1"]),
        ("reserved", [frame(0, packet, reserved=7)], ["Reserved byte is not 0"]),
        ("type", [frame(9)], ["Unknown type: the client drops it"]),
        ("direction", [frame(3)], ["A type of the other direction"]),
        ("DPD payload", [frame(4, b"abc")], ["DPD frames have no payload"]),
        ("empty", [frame(0)], ["Data frame without a packet"]),
        ("no packet", [frame(0, b"\x45" + b"x" * 30)], ["Not an IP packet of the announced length"]),
        (
            "long packet",
            [frame(0, b"\x45" + b"x" * 1440)],
            ["Packet above 1436 bytes: the client drops it", "Not an IP packet of the announced length"],
        ),
        (
            "too long",
            [frame(9, b"x" * 1493)],
            ["Longer than the client's one read of 1500 bytes", "Unknown type: the client drops it"],
        ),
        ("magic", [b"XYZ" + frame(0, packet)[3:]], ["No CSTP frame: the magic is not STF"]),
        ("coalesced", [frame(0, packet) + frame(4)], [COALESCED]),
        ("split", [frame(0, packet)[:20], frame(0, packet)[20:]], [SPLIT]),
        ("split header", [frame(0, packet)[:5], frame(0, packet)[5:]], [SPLIT]),
        (
            "response",
            [frame(2, response)],
            [
                "A DPD interval of 0 to 4 ends the client",
                "Not a dotted IPv4 address",
                "Header line without a colon",
                "Carriage return: an address with it is not accepted",
                "Not a dotted IPv4 address",
                "Not a number",
                "No valid X-CSTP-Address-Client: the client rejects the response",
            ],
        ),
    ]
    rows = behind_the_response(bench, capture, tmp_path, [parts for _, parts, _ in cases])
    assert [(name, found) for name, _, found in cases] == [(case[0], complaints(row)) for case, row in zip(cases, rows)]
    assert {text for _, _, found in cases for text in found} == set(KNOWN)


def test_dissector_finds_the_inner_packet_of_split_and_coalesced_records(bench, tmp_path):
    capture, inner = up_and_halted(bench)
    packets = [IP(src=SITE_IP, dst=inner) / UDP(sport=1, dport=port) / Raw(b"x" * 40) for port in (4711, 4712)]
    one, two = (frame(0, raw(packet)) for packet in packets)
    records = [[one + two], [one[:20], one[20:]], [one[:5], one[5:30], one[30:]], [one + two[:30], two[30:]], [one]]
    rows = behind_the_response(bench, capture, tmp_path, records)
    assert [row["udp.dstport"] for row in rows] == [["4711", "4712"], ["4711"], ["4711"], ["4711", "4712"], ["4711"]]
    assert [complaints(row) for row in rows] == [[COALESCED], [SPLIT], [SPLIT], [SPLIT], []]


# wlcctl decode.


def decode(bench, *words, path=""):
    arguments = [str(BUILD / "bin/wlcctl"), "decode", CAPTURE, "--dissector", str(LUA), *words]
    return bench.world.run(["env", f"PATH={path}/usr/bin:/bin", "TMPDIR=/run"] + arguments, check=False)


def leftovers(bench):
    return bench.world.run(["sh", "-c", "ls -d /run/wlcctl-decode.* 2>/dev/null || true"])["out"]


def test_decode_shows_the_frames_with_the_key_of_the_configuration_file(bench):
    bench.make_gateway("--dpd", "5")
    capture = Capture(bench.world)
    live_through(bench)
    capture.end()
    answer = decode(bench)
    assert (answer["status"], answer["err"]) == (0, "")
    texts = "Configuration request", "inner address 10.9.0.2", "Echo (ping) request", "DPD request", "DPD response"
    for text in texts:
        assert text in answer["out"]
    assert "X-CSTP-Device-ID:dev-0001" in decode(bench, "--verbose")["out"]
    answer = check_controller_answer(json.loads(decode(bench, "--json")["out"]))
    assert answer["ok"] and len(answer["frames"]) >= 4 and "layers" in answer["frames"][0]["_source"]
    assert leftovers(bench) == ""


def test_decode_opens_dhe_sessions_with_the_key_log_and_says_so_without(bench):
    bench.make_gateway("--dpd", "5", "--keylog", KEYLOG)
    capture = Capture(bench.world)
    live_through(bench, cipher_algo="DHE-PSK-AES256-CBC-SHA")
    capture.end()
    answer = decode(bench)
    assert answer["status"] == 1 and "no frame could be opened" in answer["err"] and "--keylog" in answer["err"]
    assert "inner address 10.9.0.2" in decode(bench, "--keylog", KEYLOG)["out"]
    assert leftovers(bench) == ""


def test_decode_gives_the_key_through_a_private_file_and_never_through_an_argument(bench):
    world = bench.world
    world.write(CONF_FILE, conf_text())
    world.write(CAPTURE, "x")
    world.run(["mkdir", "/run/bin"])
    script = 'echo "$@" > /run/arguments; env > /run/environment\n'
    script += 'cd "$WIRESHARK_CONFIG_DIR" && cp preferences /run/copy\n'
    script += "stat -c %a . preferences > /run/modes; echo line\n"
    world.write("/run/bin/tshark", f"#!/bin/sh\n{script}", 0o755)
    assert decode(bench, "--port", "4433", path="/run/bin:")["status"] == 0
    hexadecimal = PSK_KEY.encode().hex()
    for name in ("/run/arguments", "/run/environment"):
        seen = world.read(name).decode()
        assert hexadecimal not in seen and PSK_KEY not in seen
    copy = world.read("/run/copy").decode()
    assert f"tls.psk: {hexadecimal}\n" in copy and "cstp.tls_port: 4433\n" in copy
    assert world.read("/run/modes").split() == [b"700", b"600"]
    assert leftovers(bench) == ""


def test_decode_says_in_one_line_what_is_wrong(bench):
    world = bench.world
    for prepare, text in (
        (lambda: None, f"cannot read {CAPTURE}"),
        (lambda: world.write(CAPTURE, "no capture"), f"cannot read {CONF_FILE}"),
        (lambda: world.write(CONF_FILE, conf_text(psk_key=None)), "holds no psk_key"),
        (lambda: world.write(CONF_FILE, conf_text()), "tshark failed: "),
    ):
        prepare()
        answer = decode(bench)
        assert answer["status"] == 1 and text in answer["err"] and answer["err"].count("\n") == 1
        told = check_controller_answer(json.loads(decode(bench, "--json")["out"]))
        assert text in told["error"] and told["frames"] == []
    world.write("/run/empty", "")
    answer = bench.world.run(["env", "PATH=/nonexistent", str(BUILD / "bin/wlcctl"), "decode", CAPTURE], check=False)
    assert answer["status"] == 1 and "tshark is missing" in answer["err"]
