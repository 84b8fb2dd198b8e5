"""Authentication by certificates, from the settings in a file to the configuration response.

The client is tests/system/certificate_client.cpp: the daemon's modules with the settings of the local configuration
file. Every case runs three times: as built, under valgrind, and built with sanitizers (TLSC_SAN_BUILD). Certificates
and revocation lists are made for each test.
"""

import re
import shutil
from dataclasses import dataclass

import pytest

from conftest import SANITIZER_BUILD
from harness.log import Log
from harness.sanitizers import FAULT_STATUS, STRICT_OPTIONS
from harness.world import BUILD, GATEWAY_IP, MANAGEMENT_IP

PKI = "/tmp/pki"
SETTINGS_FILE = "/tmp/tls_client_config.txt"
CIPHER = "ECDHE-ECDSA-AES256-GCM-SHA384"
VALGRIND = ["valgrind", "--quiet", f"--error-exitcode={FAULT_STATUS}", "--leak-check=full"]
VALGRIND += ["--errors-for-leak-kinds=definite,indirect,possible", "--num-callers=30"]

# Two authorities, root and other; mid is an intermediate below root. End certificates: leaf, revoked, expired
# (gateways) and device, banned (clients) by root, deep (a gateway) by mid. Revocation lists of root: crl, with revoked
# and banned in it, and stale, which is out of date.
MAKE_PKI = f"""
set -e
mkdir {PKI}
cd {PKI}
printf 'basicConstraints=critical,CA:TRUE\\nkeyUsage=keyCertSign,cRLSign\\n' > authority.ext
printf 'basicConstraints=critical,CA:FALSE\\nkeyUsage=digitalSignature\\n' > end.ext
request() {{
    openssl ecparam -name prime256v1 -genkey -noout -out $1.key
    openssl req -new -key $1.key -subj /CN=$1 -out $1.csr
}}
anchor() {{ request $1; openssl x509 -req -in $1.csr -signkey $1.key -extfile authority.ext -days 30 -out $1.pem; }}
sign() {{
    request $1
    openssl x509 -req -in $1.csr -CA $2.pem -CAkey $2.key -CAcreateserial -extfile $3.ext -days $4 -out $1.pem
}}
anchor root
anchor other
sign mid root authority 30
for name in leaf revoked device banned; do sign $name root end 30; done
sign expired root end -1
sign deep mid end 30
openssl genrsa -out rsa.key 2048
printf '[ca]\\ndefault_ca=d\\n[d]\\ndatabase=index\\ncrlnumber=number\\n' > ca.cnf
printf 'default_md=sha256\\ndefault_crl_days=30\\n' >> ca.cnf
: > index
echo 01 > number
by_root() {{ openssl ca -config ca.cnf -cert root.pem -keyfile root.key "$@"; }}
by_root -revoke revoked.pem
by_root -revoke banned.pem
by_root -gencrl -out crl.pem
by_root -gencrl -crl_lastupdate 20200101000000Z -crl_nextupdate 20200201000000Z -out stale.pem
: > empty.pem
cat leaf.pem root.pem > leaf-with-root.pem
cat deep.pem mid.pem > deep-chain.pem
cat root.pem mid.pem > root-first.pem
cat mid.pem root.pem > mid-first.pem
"""


def settings_text(**files):
    """The local configuration file; files name what lies in the PKI's directory (None: the key is left out)."""
    settings = {
        "server_ip_address": GATEWAY_IP,
        "server_port": "443",
        "management_ip": MANAGEMENT_IP,
        "tun_interface_name": "tlstun0",
        "ssl_authentication_mechanism": "certificate",
    }
    chosen = {
        "ssl_certificate": "device.pem",
        "ssl_private_key": "device.key",
        "ssl_rootca_bundle": "root.pem",
        "ssl_crl": "crl.pem",
        **files,
    }
    settings |= {key: f"{PKI}/{name}" for key, name in chosen.items() if name is not None}
    settings |= {
        "cipher_algo": CIPHER,
        "device_id": "dev-0001",
        "device_name": "branch-router",
        "serial_no": "SN-4711",
        "log_level": "4",
    }
    return "".join(f"{key}={value}\n" for key, value in settings.items())


@dataclass
class Outcome:
    """What the client has printed (step to result, both in order), what it has logged, and what else it said."""

    steps: dict
    log: list
    errors: str

    def lines(self, *functions):
        """Level and message of the lines of these functions, in order; the protocol trace only when it is asked for."""
        return [(entry.level, entry.message) for entry in self.log if entry.function in functions]


class Client:
    """The test program in the world, its certificates, and the gateway it talks to."""

    def __init__(self, bench, kind):
        self.bench = bench
        self.kind = kind
        self.world = bench.world
        self.world.run(["sh", "-c", MAKE_PKI])

    def start_gateway(self, certificate="leaf", key=None, asks=False):
        """A gateway that shows this file's certificates, and asks for one of root's that is not revoked, or for none."""
        files = ["--cert", f"{PKI}/{certificate}.pem", "--key", f"{PKI}/{key or certificate}.key"]
        demand = ["--client-ca", f"{PKI}/root.pem", "--crl", f"{PKI}/crl.pem"] if asks else []
        return self.bench.make_gateway(*files, *demand)

    def command(self):
        build = SANITIZER_BUILD if self.kind == "sanitizers" else BUILD
        program = build / "tests/certificate_client"
        if not program.exists():
            pytest.fail(f"{program} is missing: ninja -C {build} certificate_client", pytrace=False)
        if self.kind != "valgrind":
            return [program]
        # The random numbers of OpenSSL's 1.0 series are mixed from memory as it is found, so all its keys count as
        # uninitialised.
        tolerance = ["--undef-value-errors=no"] if b"libssl.so.1.0" in program.read_bytes() else []
        return [*VALGRIND, *tolerance, program]

    def run(self, *arguments, **files):
        """Runs the client to its end, and sees that it has neither failed nor leaked nor left a descriptor open."""
        self.world.write(SETTINGS_FILE, settings_text(**files))
        process = self.world.spawn(
            self.command() + list(arguments),
            ns="device",
            stdout="/tmp/client.out",
            stderr="/tmp/client.err",
            env=STRICT_OPTIONS,
        )
        status = process.wait(60)
        output, errors = (self.world.read(f"/tmp/client.{name}").decode() for name in ("out", "err"))
        assert status == 0, f"status {status}: {output}\n{errors}"
        steps = dict(line.split(" ", 1) for line in output.splitlines())
        assert steps.pop("left_open") == "0"
        return Outcome(steps, Log(self.world).entries(), errors)


@pytest.fixture(params=["release", "valgrind", "sanitizers"])
def client(bench, request):
    if request.param == "sanitizers" and SANITIZER_BUILD is None:
        pytest.skip("needs TLSC_SAN_BUILD")
    if request.param != "sanitizers" and request.config.getoption("--sanitized"):
        pytest.skip("not the build of TLSC_SAN_BUILD")
    if request.param == "valgrind" and not shutil.which("valgrind"):
        pytest.skip("needs valgrind")
    return Client(bench, request.param)


# ---- accepted --------------------------------------------------------------------------------------------------------


def assert_tunnel(outcome, gateway, identity=""):
    """The connection stands, and the response has brought the interface up."""
    assert outcome.steps == {
        "load": "1", "context": "1", "interface": "1", "pause": "2", "connect": "1", "up": "1", "backoff": "0",
        "read": "1", "response": "1", "tunnel": "1", "inner": gateway.events("config_resp_sent")[0]["inner"],
    }  # fmt: skip
    verdicts = outcome.lines("tlsc_verify_cert_cb")
    assert ("INFO", "tlsc_verify_cert_cb received...") in verdicts
    assert ("DEBUG", "Verification passed for cert") in verdicts
    assert {level for level, _ in verdicts} == {"INFO", "DEBUG"}
    assert ("INFO", f"Successfully enabled SSL/TLS session to: {GATEWAY_IP}.") in outcome.lines("tlsc_create_tcp_conn")
    assert ("INFO", f"Cipher set successfully for SSL-Ctx : {CIPHER}") in outcome.lines("tlsc_init_ssl_config")
    up = gateway.events("tls_up")[0]
    assert (up["version"], up["cipher"], up["identity"]) == ("TLSv1.2", CIPHER, identity)
    request = gateway.events("config_req")[0]
    assert (request["device_id"], request["name"], request["serial"]) == ("dev-0001", "branch-router", "SN-4711")
    assert outcome.errors == ""


def test_a_gateway_directly_under_the_root_is_accepted_and_the_configuration_exchanged(client):
    gateway = client.start_gateway()
    assert_tunnel(client.run(), gateway)


def test_the_client_shows_its_own_certificate_to_a_gateway_that_asks_for_one(client):
    gateway = client.start_gateway(asks=True)
    assert_tunnel(client.run(), gateway, identity="device")


def test_a_gateway_that_also_sends_the_root_is_accepted(client):
    gateway = client.start_gateway("leaf-with-root", "leaf")
    assert_tunnel(client.run(), gateway)


def test_what_stands_behind_the_first_certificate_of_the_bundle_does_no_harm(client):
    gateway = client.start_gateway()
    assert_tunnel(client.run(ssl_rootca_bundle="root-first.pem"), gateway)


def test_the_settings_are_loaded_in_the_order_of_the_keys(client):
    client.start_gateway()
    lines = [(entry.level, entry.message) for entry in client.run().log if entry.file == "tlsc_config.c"]
    assert lines[-13:] == [
        ("DEBUG", f"Server IP address set from config file:{GATEWAY_IP}"),
        ("DEBUG", "Server port set from config file"),
        ("DEBUG", "Tun Interface name set from config file"),
        ("DEBUG", "SSL auth-mech set to Certificate"),
        ("DEBUG", "SSL certificate file path set successfully"),
        ("DEBUG", "SSL private_key file path set successfully"),
        ("DEBUG", "SSL root_ca file path set successfully"),
        ("DEBUG", "SSL crl file path set successfully"),
        ("DEBUG", "Cipher-algo set from config file"),
        ("DEBUG", "Device id set from config file"),
        ("DEBUG", "Device name set from config file"),
        ("DEBUG", "Device serial no. set from config file"),
        ("DEBUG", "Log level set from config file, Log-Level = 4"),
    ]


# ---- rejected by the client ------------------------------------------------------------------------------------------


@dataclass
class Rejection:
    """A gateway that the client turns away: what it shows, the client's files, the verdict and the alert."""

    gateway: str = "leaf"
    key: str = None
    files: tuple = ()
    removed: str = None  # a file that goes away behind the loader's back
    error: int = None  # None: the callback's own complaint instead of a verdict
    text: str = ""  # OpenSSL's, with a dot where its series differ
    depth: int = 0
    alert: str = "unknown CA"

    def verdict(self):
        if self.error is None:
            return [("ERROR", self.text)]
        return [
            ("ERROR", f"SSL error in certificate = {self.error}"),
            ("ERROR", f"Verification failed for cert, error str = {self.text}"),
            ("WARNING", f"Depth of certificate where error occurred = {self.depth}"),
        ]


NO_CRL = "unable to get certificate CRL"
NO_LOCAL_ISSUER = "unable to get local issuer certificate"
NO_ISSUER = "unable to get issuer certificate"

REJECTIONS = {
    "revoked": Rejection("revoked", error=23, text="certificate revoked", alert="certificate revoked"),
    "expired": Rejection("expired", error=10, text="certificate has expired", alert="certificate expired"),
    "crl_file_gone": Rejection(removed="crl.pem", text="Could not open crl file"),
    "crl_file_empty": Rejection(files=(("ssl_crl", "empty.pem"),), error=3, text=NO_CRL),
    "crl_out_of_date": Rejection(
        files=(("ssl_crl", "stale.pem"),), error=12, text="CRL has expired", alert="certificate expired"
    ),
    "bundle_gone": Rejection(removed="root.pem", text="Could not open root certificate file"),
    "other_root": Rejection(files=(("ssl_rootca_bundle", "other.pem"),), error=20, text=NO_LOCAL_ISSUER),
    "other_root_and_its_own_sent": Rejection(
        "leaf-with-root", "leaf", (("ssl_rootca_bundle", "other.pem"),), error=18, text="self.signed certificate"
    ),
    "intermediate_root_first_in_bundle": Rejection(
        "deep-chain", "deep", (("ssl_rootca_bundle", "root-first.pem"),), error=20, text=NO_LOCAL_ISSUER
    ),
    "intermediate_first_in_bundle": Rejection(
        "deep-chain", "deep", (("ssl_rootca_bundle", "mid-first.pem"),), error=2, text=NO_ISSUER, depth=1
    ),
}


@pytest.mark.parametrize("name", REJECTIONS)
def test_a_gateway_is_rejected_with_its_verdict_alert_and_teardown(client, name):
    case = REJECTIONS[name]
    gateway = client.start_gateway(case.gateway, case.key)
    removed = [f"{PKI}/{case.removed}"] if case.removed else []
    outcome = client.run(*removed, **dict(case.files))

    assert outcome.steps == {"load": "1", "context": "1", **({"removed": "1"} if removed else {}), "interface": "1",
                             "connect": "7", "up": "0", "backoff": "1"}  # fmt: skip
    assert_lines(outcome.lines("tlsc_verify_cert_cb"), [("INFO", "tlsc_verify_cert_cb received..."), *case.verdict()])
    assert_refused_connection(outcome)
    assert ("SSL_DEBUG", f"SSL3 alert write:fatal:{case.alert}") in outcome.lines("tlsc_ssl_info_cb")
    assert gateway.wait("tls_failed", since=0)["reason"].endswith(f"alert {case.alert.lower()}")
    assert gateway.events("tls_up", "config_req") == []


def assert_lines(lines, expected):
    """The levels, and messages that match the patterns."""
    assert [level for level, _ in lines] == [level for level, _ in expected], lines
    for (_, message), (_, pattern) in zip(lines, expected):
        assert re.fullmatch(pattern, message), f"{message!r} is not {pattern!r}"


def assert_refused_connection(outcome):
    """The lines of the attempt and of its teardown; the texts of OpenSSL and the numbers of descriptors differ."""
    lines = outcome.lines("tlsc_create_tcp_conn", "tlsc_sock_error", "tlsc_ssl_cleanup")
    expected = [
        ("INFO", r"Successfully created new sock-fd for client: \d+"),
        ("INFO", rf"Server port = {0xBB01}, Server IP\({re.escape(GATEWAY_IP)}\) = {0x010200C0}"),
        ("INFO", r"TCP conn established successfully!! sockfd = \d+"),
        ("ERROR", r"ssl-connect error : 1, ssl-connect ret-value = (-1|0)"),
        ("ERROR", r"SSL connect failed!! Error = error:.+, SSL state = .{6}"),
        ("WARNING", rf"Could not build a SSL session to: {re.escape(GATEWAY_IP)}, Initiate session and ssl cleanup"),
        ("ERROR", r"Closing connection and bringing down tun interface"),
        ("DEBUG", r"Disable data transfer, new state 0"),
        ("ERROR", r"Could not delete the transport-fd\(\d+\) from epoll-list"),
        ("INFO", r"SSL-handle and Engine cleanup"),
    ]
    assert_lines(lines[: len(expected)], expected)  # the clean-up follows


# ---- rejected by the gateway -----------------------------------------------------------------------------------------


def test_a_gateway_that_refuses_the_clients_certificate_fails_the_handshake(client):
    gateway = client.start_gateway(asks=True)
    outcome = client.run(ssl_certificate="banned.pem", ssl_private_key="banned.key")
    assert outcome.steps == {"load": "1", "context": "1", "interface": "1", "connect": "7", "up": "0", "backoff": "1"}
    assert ("DEBUG", "Verification passed for cert") in outcome.lines("tlsc_verify_cert_cb")
    assert_refused_connection(outcome)
    assert ("SSL_DEBUG", "SSL3 alert read:fatal:certificate revoked") in outcome.lines("tlsc_ssl_info_cb")
    assert gateway.wait("tls_failed", since=0)["reason"] == "certificate verify failed"


# ---- files that cannot be used ---------------------------------------------------------------------------------------


def test_a_key_of_another_certificate_leaves_no_usable_context(client):
    outcome = client.run(ssl_private_key="leaf.key")
    assert outcome.steps == {"load": "1", "context": "0"}
    assert outcome.lines("tlsc_load_certs", "tlsc_init_ssl_config") == []  # OpenSSL's complaint goes to standard error
    assert "key values mismatch" in outcome.errors


def test_a_key_of_another_kind_is_reported_as_not_matching(client):
    outcome = client.run(ssl_private_key="rsa.key")
    assert outcome.steps == {"load": "1", "context": "0"}
    assert outcome.lines("tlsc_load_certs", "tlsc_init_ssl_config") == [
        ("ERROR", "Private key does not match the public certificate")
    ]


@pytest.mark.parametrize("key", ["ssl_certificate", "ssl_private_key"])
def test_a_file_without_what_it_should_hold_is_complained_of_on_standard_error_alone(client, key):
    outcome = client.run(**{key: "empty.pem"})
    assert outcome.steps == {"load": "1", "context": "0"}
    assert outcome.lines("tlsc_load_certs", "tlsc_init_ssl_config") == []
    assert "PEM lib" in outcome.errors


def test_a_bundle_without_a_certificate_is_reported(client):
    outcome = client.run(ssl_rootca_bundle="empty.pem")
    assert outcome.steps == {"load": "1", "context": "0"}
    assert outcome.lines("tlsc_load_certs", "tlsc_init_ssl_config") == [("ERROR", "Loading of ssl root chain failed")]


NOT_FOUND = {
    "ssl_certificate": "Invalid SSL certificate file. No file found with name({})!!",
    "ssl_private_key": "Invalid SSL private-key file!! No file found with name({})!!",
    "ssl_rootca_bundle": "Invalid SSL root-ca file!! No file found with name({})!!",
    "ssl_crl": "Invalid SSL crl file!! No file found with name({})!!",
}


@pytest.mark.parametrize("key", NOT_FOUND)
def test_the_loader_refuses_a_file_that_does_not_exist(client, key):
    outcome = client.run(**{key: "nowhere.pem"})
    assert outcome.steps == {"load": "0"}
    last = [entry for entry in outcome.log if entry.file == "tlsc_config.c"][-1]
    assert (last.level, last.message) == ("ERROR", NOT_FOUND[key].format(f"{PKI}/nowhere.pem"))


NOT_PROVIDED = {
    "ssl_certificate": "SSL certificate not provided!!",
    "ssl_private_key": "SSL private_key not provided!!",
    "ssl_rootca_bundle": "SSL root-ca not provided!!",
    "ssl_crl": "SSL crl not provided!!",
}


@pytest.mark.parametrize("key", NOT_PROVIDED)
def test_the_loader_refuses_a_mechanism_without_one_of_its_files(client, key):
    outcome = client.run(**{key: None})
    assert outcome.steps == {"load": "0"}
    last = [entry for entry in outcome.log if entry.file == "tlsc_config.c"][-1]
    assert (last.level, last.message) == ("ERROR", NOT_PROVIDED[key])
