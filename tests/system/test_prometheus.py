"""Debian's Prometheus with the shipped configuration and rules: it scrapes agent and gateway, and tells what happened.

The names and labels that rules and dashboard use are held against the real pages of both.
"""

import http.client
import itertools
import json
import re
import shutil
import subprocess
import urllib.parse

import pytest

from harness.daemon import PSK_IDENTITY
from harness.world import DEVICE_IP, GATEWAY_IP, PROJECT, wait_until
from test_reasons import Device

RULES = PROJECT / "packaging/prometheus"
DASHBOARD = PROJECT / "packaging/grafana/tlsc-fleet.json"
PLACE = "/tmp/prometheus"
AGENT, GATEWAY = f"{DEVICE_IP}:9468", f"{GATEWAY_IP}:9469"

needs_prometheus = pytest.mark.skipif(
    not (shutil.which("prometheus") and shutil.which("promtool")),
    reason="needs Debian's prometheus",
)


def dashboard():
    return json.loads(DASHBOARD.read_text())


def panels(of):
    for panel in of["panels"]:
        yield panel
        yield from panel.get("panels", [])


def dashboard_expressions():
    """Every query of the dashboard, as Grafana would send it."""
    words = {"$__rate_interval": "1m", "$__range": "1h", "$device": ".*", "$gateway": ".*"}
    found = []
    for panel in panels(dashboard()):
        for target in panel.get("targets", []):
            expression = target["expr"]
            for name, value in words.items():
                expression = expression.replace(name, value)
            found.append(expression)
    return found


def rule_expressions():
    """Every expression of the rules, in one line each."""
    text = (RULES / "tlsc.rules.yml").read_text()
    found = re.findall(r"^ +expr: (?:\|\n((?: {10}.*\n)+)|(.*)\n)", text, re.M)
    assert len(found) == text.count("- alert:")
    return [" ".join((block or line).split()) for block, line in found]


@needs_prometheus
def test_every_rule_does_what_its_tests_say():
    done = subprocess.run(
        ["promtool", "test", "rules", "tlsc.rules.test.yml"], cwd=RULES, capture_output=True, text=True
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_every_rule_has_a_test_and_is_documented():
    rules = re.findall(r"alert: (\w+)", (RULES / "tlsc.rules.yml").read_text())
    tests = (RULES / "tlsc.rules.test.yml").read_text()
    document = (PROJECT / "docs/monitoring.md").read_text()
    assert len(rules) == len(set(rules)) > 15
    for rule in rules:
        assert f'alertname="{rule}",alertstate="firing",' in tests or f"alertname: {rule}\n" in tests, rule
        assert f"`{rule}`" in document, rule


def test_the_dashboards_panels_have_numbers_and_places_of_their_own():
    found = list(panels(dashboard()))
    assert len({panel["id"] for panel in found}) == len(found) > 20
    taken = set()
    for panel in found:
        place = panel["gridPos"]
        assert place["x"] + place["w"] <= 24
        cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                 for y in range(place["y"], place["y"] + place["h"])}  # fmt: skip
        assert not cells & taken, panel["title"]
        taken |= cells


# ---- the real thing --------------------------------------------------------------------------------------------------


class Prometheus:
    """Debian's Prometheus in the gateway's namespace, with the shipped files; it looks every second."""

    def __init__(self, world):
        self.world = world
        world.run(["mkdir", "-p", PLACE])
        main = (RULES / "prometheus.yml").read_text()
        main, changed = re.subn(r"(scrape_interval|scrape_timeout|evaluation_interval): \d+s", r"\1: 1s", main)
        assert changed == 3
        world.write(f"{PLACE}/prometheus.yml", main)
        world.write(f"{PLACE}/tlsc.rules.yml", (RULES / "tlsc.rules.yml").read_text())
        world.write(f"{PLACE}/devices.yml", f"- targets: ['{AGENT}']\n")
        world.write(f"{PLACE}/gateways.yml", f"- targets: ['{GATEWAY}']\n")
        words = [f"--config.file={PLACE}/prometheus.yml", f"--storage.tsdb.path={PLACE}/data"]
        words += ["--web.listen-address=127.0.0.1:9090"]
        world.spawn(["prometheus", *words], ns="gateway", stdout="/tmp/prometheus.out", stderr="/tmp/prometheus.err")
        wait_until(self._is_ready, 40, lambda: world.read("/tmp/prometheus.err").decode()[-2000:], pause=0.2)

    def get(self, path):
        with self.world.inside("gateway"):
            connection = http.client.HTTPConnection("127.0.0.1", 9090, timeout=20)
            connection.connect()
        connection.request("GET", path)
        answer = connection.getresponse()
        return answer.status, answer.read()

    def _is_ready(self):
        try:
            return self.get("/-/ready")[0] == 200
        except OSError:
            return False

    def result(self, query):
        status, body = self.get("/api/v1/query?" + urllib.parse.urlencode({"query": query}))
        answer = json.loads(body)
        assert status == 200 and answer["status"] == "success", (query, answer)
        return answer["data"]["result"]

    def ask(self, query):
        """The result of an instant query: (labels, value) of each series."""
        return [(series["metric"], float(series["value"][1])) for series in self.result(query)]

    def values(self, query):
        """The samples of a range of one series, oldest first."""
        return [float(value) for _, value in self.result(query)[0]["values"]]

    def wait(self, query, timeout=20):
        """Waits until a query has a result; returns its value."""
        return wait_until(lambda: self.ask(query), timeout, query, pause=0.2)[0][1]


def page_of(world, address):
    """(name, labels) of every sample on a metrics page."""
    host, port = address.split(":")
    with world.inside("gateway"):
        connection = http.client.HTTPConnection(host, int(port), timeout=10)
        connection.connect()
    connection.request("GET", "/metrics")
    text = connection.getresponse().read().decode()
    found = {}
    for name, labels in re.findall(r"^(\w+)(?:\{(.*)\})? \S+$", text, re.M):
        for label, value in re.findall(r'(\w+)="((?:[^"\\]|\\.)*)"', labels):
            found.setdefault(name, {}).setdefault(label, set()).add(value)
        found.setdefault(name, {})
    return found


@pytest.fixture
def watched(bench):
    """A device and its gateway under Prometheus, the tunnel up, one hook that fails."""
    device = Device(bench)
    device.serve = ("--http", AGENT, "--http-anywhere", "--on-dns", "exit 3")
    bench.make_gateway("--dpd", "5", "--http", GATEWAY, "--http-anywhere")
    device.prometheus = Prometheus(bench.world)
    device.bring_up(*device.serve)
    yield device
    device.agent.end()


@needs_prometheus
def test_prometheus_tells_a_killed_gateway_and_the_tunnels_return(watched):
    prometheus, gateway = watched.prometheus, watched.bench.gateway
    assert prometheus.wait('tlsc_tunnel_up{job="tlsc"} == 1') == 1
    assert prometheus.wait('tlsc_gateway_clients{state="active"} == 1') == 1
    assert prometheus.wait('tlsc_gateway_handshakes_total{result="success"} == 1') == 1
    assert prometheus.ask("tlsc_tunnel_state == 1")[0][0]["state"] == "up"

    gateway.kill()
    prometheus.wait("tlsc_tunnel_up == 0")
    prometheus.wait('up{job="tlsc-gateway"} == 0')
    prometheus.wait('ALERTS{alertname="TlscTunnelDown", alertstate="pending"}')
    prometheus.wait('ALERTS{alertname="TlscGatewayAbsent", alertstate="pending"}')
    prometheus.wait('sum(tlsc_down_total{reason=~"gateway-closed|connection-reset"}) == 1')

    gateway.start()
    prometheus.wait("tlsc_tunnel_up == 1", 40)
    prometheus.wait('up{job="tlsc-gateway"} == 1')
    prometheus.wait('absent(ALERTS{alertname=~"TlscTunnelDown|TlscGatewayAbsent"})')
    values = prometheus.values("tlsc_tunnel_up[5m]")
    assert [value for value, _ in itertools.groupby(values)][-3:] == [1, 0, 1]
    prometheus.wait('tlsc_gateway_handshakes_total{result="success"} == 1')  # of the new process
    check_agent_restart(watched)
    check_names(watched)


def check_agent_restart(watched):
    """What is counted outlives the agent, and no counter goes back; a failed hook has its alert."""
    prometheus = watched.prometheus
    before = prometheus.wait("sum(tlsc_down_total)"), prometheus.wait("sum(tlsc_hook_failures_total) > 0")
    watched.agent.kill()
    prometheus.wait('up{job="tlsc"} == 0')
    assert prometheus.ask("tlsc_tunnel_up") == []  # nobody knows
    watched.start_agent("--keep-up", *watched.serve)
    prometheus.wait("tlsc_tunnel_up == 1", 20)
    assert prometheus.ask("sum(tlsc_down_total)")[0][1] == before[0]
    assert prometheus.ask("sum(tlsc_hook_failures_total)")[0][1] >= before[1]
    counters = '{__name__=~"tlsc_.*_total", __name__!~"tlsc_gateway_.*"}'
    names = {labels["__name__"] for labels, _ in prometheus.ask(counters)}
    assert len(names) > 8
    assert [name for name in names if prometheus.ask(f"resets({name}[5m]) > 0")] == []


def check_names(watched):
    """What rules and dashboard ask for exists, with labels and values that exist, and Prometheus understands it."""
    assert watched.run("stats", "--fresh")["status"] == 0
    watched.prometheus.wait("tlsc_stats_age_seconds")
    known = {**page_of(watched.world, AGENT), **page_of(watched.world, GATEWAY)}
    own = {"job", "instance"}  # added by Prometheus
    expressions = rule_expressions() + dashboard_expressions()
    used = set()
    for expression in expressions:
        watched.prometheus.ask(expression)
        for name, labels in re.findall(r"\b(tlsc_\w+)(?:\{([^}]*)\})?", expression):
            used.add(name)
            assert name in known, (name, expression)
            for label, sign, value in re.findall(r'(\w+)(=~|!~|!=|=)"([^"]*)"', labels):
                assert label in own or label in known[name], (label, expression)
                if label not in own and sign == "=":
                    assert value in known[name][label], (value, expression)
                if label not in own and sign == "=~":
                    assert set(value.split("|")) <= known[name][label], (value, expression)
        for words in re.findall(r"\b(?:by|without) \(([^)]*)\)", expression):
            names = set(re.findall(r"\btlsc_\w+", expression))
            for label in words.split(", "):
                assert label in own or any(label in known[name] for name in names), (label, expression)
    assert len(used) > 15
    secrets = " ".join(str(labels) for labels in known.values())
    assert PSK_IDENTITY not in secrets
