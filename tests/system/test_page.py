"""The agent's page in a real browser, beside a real agent, daemon and gateway. ./run page runs it.

With TLSC_PICTURES=FOLDER the pictures of docs/images are written there.
"""

import http.server
import json
import math
import os
import random
import signal
import threading
import time
from pathlib import Path

import pytest

from browser import CONTRASTS, NEEDS, Browser
from conftest import Bench
from harness.daemon import CONF_FILE, TUN_NAME, conf_text
from harness.world import MANAGEMENT_IP, PROJECT, SITE_IP, wait_until
from test_reasons import Device

pytestmark = [pytest.mark.browser, NEEDS]

PAGE = PROJECT / "controller/page/index.html"
URL = "http://127.0.0.1:9468/"
STAND_IN = 9470
HOSTILE = '<img src=x onerror="window.hurt=1"><script>window.hurt=1</script>'
VIEWS = [(width, theme) for width in (360, 1280) for theme in ("light", "dark")]
STATES = ("up", "degraded", "connecting", "down", "stopped", "unknown")


@pytest.fixture(scope="module")
def watched(fast_clock_place):
    """A device with the tunnel up, its page in a browser on the same device. Each test leaves both as they were."""
    bench = Bench()
    device = Device(bench)
    device.serve = ("--http", "127.0.0.1:9468")
    try:
        bench.make_gateway("--dpd", "5")
        device.bring_up(*device.serve)
        with bench.world.inside("device"):
            device.browser = Browser(bench.world, "device")
            device.browser.open(URL)
            yield device
            device.browser.quit()
    finally:
        if device.agent:
            device.agent.end()
        bench.close()


@pytest.fixture
def page(watched):
    """The page as it is in the beginning, with the tunnel up, wide and light. Its console must stay silent."""
    browser = watched.browser
    browser.set_view(1280, "light")
    browser.open(URL)
    browser.console()
    browser.wait_state("up", 30)
    yield browser
    assert browser.console() == []
    assert browser.run("return window.hurt === undefined")


def network_errors_only(messages):
    return [m for m in messages if "net::ERR" not in m]


def test_the_page_is_one_file_of_at_most_60_kb_that_needs_nothing_else(page):
    content = PAGE.read_bytes()
    assert len(content) <= 60_000
    for word in (b"http://", b"https://", b"@import", b"innerHTML", b"outerHTML", b"insertAdjacentHTML", b"eval(",
                 b"document.write"):  # fmt: skip
        rest = content.replace(b"http://www.w3.org/", b"")  # the names of SVG
        assert word not in rest, word
    names = page.run("return performance.getEntriesByType('resource').map(e => new URL(e.name).pathname)")
    assert set(names) <= {"/status.json", "/conf.json", "/history.json", "/events", "/favicon.ico"}
    assert "/favicon.ico" not in names


def test_a_tunnel_that_is_up_is_shown_with_its_facts(watched, page):
    status = watched.status()
    assert page.text("state") == "Tunnel up"
    assert page.run("return document.title").startswith("Up · ")
    assert page.text("t-inner") == status["inner_ip"]["value"]
    wait_until(lambda: "branch-router" in page.text("name"), 5, "the device's name")
    facts = page.run("return Object.fromEntries([...document.querySelectorAll('#facts tr')].map(tr => "
                     "[tr.dataset.key, [...tr.children].map(td => td.textContent)]))")  # fmt: skip
    assert facts["gateway"][1] == "192.0.2.1:443"
    assert facts["interface"][1].startswith("tlstun0, up, MTU 1406")
    assert facts["tunnel"][1:3] == ["up", "daemon"] and facts["tunnel"][3].endswith(" s")
    assert facts["interface"][2] == "kernel"
    conf = page.run("return [...document.querySelectorAll('#conf tr')].map(tr => tr.textContent)")
    assert "psk_key***" in conf and not any("0f1e2d3c" in line for line in conf)
    assert not page.shown("why") and not page.shown("lost")


def test_a_killed_gateway_is_shown_within_five_seconds_with_reason_and_back_off_and_then_up_again(watched, page):
    stop = "if (agent.asking) return false; clearTimeout(agent.timer); return true"
    wait_until(lambda: page.run(stop), 5, "a moment between two looks")  # so that events alone make it look
    watched.bench.gateway.kill()
    killed = time.monotonic()
    page.wait_state("connecting", 5)
    page.wait_text("code", "g" if page.text("code").startswith("g") else "connection-reset", 5)
    page.wait_text("sub", "Backing off. Next attempt in ", 5)
    assert time.monotonic() - killed < 5
    assert page.text("code") in ("gateway-closed", "connection-reset")
    assert page.shown("why") and page.text("remedy")
    page.wait_text("spoken", "Tunnel connecting: ", 2)  # for those who hear the page
    page.wait_text("events", page.text("code"), 2)
    watched.bench.gateway.start()
    page.wait_state("up", 40)
    assert not page.shown("why")
    page.wait_text("share", "interruption", 5)  # the history has it too


def test_a_tunnel_that_was_stopped_is_shown_as_that(watched, page):
    watched.run("stop", "--wait")
    page.wait_state("stopped", 10)
    page.wait_text("code", "stopped-by-order", 5)
    assert page.text("state") == "Tunnel stopped" and page.text("remedy") == "Wlcctl start"
    watched.run("start", "--wait")
    page.wait_state("up", 10)


@pytest.mark.parametrize("how", ["killed", "frozen"])
def test_a_page_that_lost_the_agent_says_so_and_goes_on_when_it_is_back(watched, page, how):
    first = "return document.querySelector('#events li')?.textContent"
    newest = wait_until(lambda: page.run(first), 5, "events")
    if how == "killed":
        watched.agent.kill()
    else:
        watched.agent.signal(signal.SIGSTOP)
    page.wait_text("state", "No word from the agent", 7)
    assert page.shown("lost") and "Last heard at " in page.text("lost-text")
    assert page.run("return document.body.dataset.state") == "unknown"
    assert page.run("return document.title").startswith("No agent")
    page.wait_text("live", "Agent lost", 1)
    if how == "killed":
        watched.start_agent("--keep-up", *watched.serve)
    else:
        watched.agent.signal(signal.SIGCONT)
        watched.run("hello")
    page.wait_state("up", 15)
    assert not page.shown("lost") and page.text("live-text") == "Live"
    wait_until(lambda: page.run(first) != newest, 10, "new events")
    assert network_errors_only(page.console()) == []


def test_nothing_scrolls_sideways_at_any_width_in_any_theme(page):
    for width, theme in [*VIEWS, (320, "light"), (768, "dark"), (1920, "light")]:
        page.set_view(width, theme)
        for state in STATES:
            page.run("document.body.dataset.state = arguments[0]; document.querySelector('#why').hidden = false;"
                     "document.querySelectorAll('details').forEach(d => d.open = true)", state)  # fmt: skip
            wide = page.run("return [document.documentElement.scrollWidth, innerWidth]")
            assert wide[0] <= wide[1], (width, theme, state)
        cut = page.run("return [...document.querySelectorAll('main *')].filter(n => n.checkVisibility() && !n.closest("
                       "'.scroll, .unseen, svg') && n.getBoundingClientRect().right > innerWidth + 1).map(n => "
                       "n.outerHTML.slice(0, 80))")  # fmt: skip
        assert cut == [], (width, theme)


def test_every_text_has_contrast_in_every_state_and_theme(page):
    for theme in ("light", "dark"):
        page.set_view(1280, theme)
        page.run("document.querySelectorAll('details').forEach(d => d.open = true);"
                 "for (const n of ['why', 'lost', 'clock']) document.getElementById(n).hidden = false;"
                 "document.querySelector('#clock').textContent = 'words';"
                 "document.querySelector('#lost-text').textContent = 'words'")  # fmt: skip
        for state in STATES:
            page.run("document.body.dataset.state = arguments[0];"
                     "for (const n of ['code', 'cause', 'remedy', 'lines', 'detail'])"
                     "document.getElementById(n).textContent = 'words'", state)  # fmt: skip
            found = page.run(CONTRASTS)
            assert len(found) > 60
            poor = [line for line in found if line[1] < line[2]]
            assert poor == [], (theme, state)


def test_the_colours_of_bands_and_curves_stand_out_from_their_card(page):
    script = """
    const style = getComputedStyle(document.body), all = {};
    for (const name of arguments[0]) {
      const n = document.createElement('i'); n.style.color = style.getPropertyValue('--' + name);
      document.body.append(n); all[name] = getComputedStyle(n).color.match(/[\\d.]+/g).map(Number); n.remove();
    }
    return all;
    """
    names = [f"band-{state}" for state in STATES] + ["in", "out", "bad", "odd", "accent"]

    def light(colour):
        parts = [c / 255 / 12.92 if c / 255 <= 0.03928 else ((c / 255 + 0.055) / 1.055) ** 2.4 for c in colour[:3]]
        return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]

    for theme in ("light", "dark"):
        page.set_view(1280, theme)
        colours = page.run(script, ["card", *names])
        for name in names:
            high, low = sorted((light(colours[name]), light(colours["card"])), reverse=True)
            assert (high + 0.05) / (low + 0.05) >= 3, (theme, name)


def test_who_hears_the_page_gets_names_landmarks_and_headings_in_order(page):
    outline = page.outline()
    roles = [role for role, _ in outline]
    for landmark in ("banner", "main", "contentinfo"):
        assert roles.count(landmark) == 1, landmark
    for role, name in outline:
        if role in ("button", "link", "slider", "region", "table", "image", "DisclosureTriangle"):
            assert name, (role, outline)
    levels = page.run("return [...document.querySelectorAll('h1,h2,h3,h4')].filter(h => h.checkVisibility())"
                      ".map(h => Number(h.tagName[1]))")  # fmt: skip
    assert levels[0] == 1 and levels.count(1) == 1
    assert all(after - before <= 1 for before, after in zip(levels, levels[1:]))
    names = page.run("return [...document.querySelectorAll('[id]')].map(n => n.id)")
    assert len(names) == len(set(names))
    assert page.run("return document.documentElement.lang") == "en"
    assert page.run("return document.getElementById('spoken').getAttribute('aria-live')") == "polite"
    assert page.run("return [...document.querySelectorAll('svg')].every(s => s.closest('[aria-hidden=true]'))")


def test_everything_is_reached_with_the_keyboard_and_seen_to_be(page):
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.keys import Keys

    def press(key):
        ActionChains(page.driver).send_keys(key).perform()

    focused = ("const n = document.activeElement, s = getComputedStyle(n);"
               "return [n.id || n.tagName, s.outlineStyle, parseFloat(s.outlineWidth)]")  # fmt: skip
    seen = []
    for _ in range(30):
        press(Keys.TAB)
        name, style, width = page.run(focused)
        if name in ("BODY", "HTML"):
            break
        assert style != "none" and width >= 2, name
        seen.append(name)
    assert seen[0] == "A"  # leads to the state
    assert {"report", "plot", "brief", "events", "SUMMARY"} <= set(seen)
    page.run("document.getElementById('plot').focus()")
    said = "return document.getElementById('plot').getAttribute('aria-valuetext')"
    before = page.run(said)
    press(Keys.ARROW_LEFT)
    press(Keys.ARROW_LEFT)
    assert page.run(said) != before and page.shown("readout")
    press(Keys.ESCAPE)
    assert page.text("readout") == ""
    page.run("document.getElementById('brief').focus()")
    press(Keys.SPACE)
    assert page.run("return document.getElementById('brief').getAttribute('aria-pressed')") == "true"


def test_who_wants_no_motion_gets_none(page):
    moving = "return getComputedStyle(document.querySelector('.disc'), '::after').animationName"
    for motion, wanted in (("no-preference", "turn"), ("reduce", "none")):
        page.set_view(1280, "light", motion)
        page.run("document.body.dataset.state = 'connecting'")
        assert page.run(moving) == wanted


def test_the_report_is_downloaded_and_its_absence_is_a_sentence(watched, page):
    page.command("Browser.setDownloadBehavior", behavior="allow", downloadPath="/tmp/downloads")
    page.run("document.getElementById('report').click()")
    folder = Path(watched.world.path("/tmp/downloads"))
    found = wait_until(lambda: list(folder.glob("*.tar.gz")) if folder.exists() else None, 30, "the report")
    assert found[0].read_bytes()[:2] == b"\x1f\x8b"
    assert not page.shown("report-note")
    page.run("window.fetch = () => Promise.resolve(new Response('{}', {status: 503}))")
    page.run("document.getElementById('report').click()")
    page.wait_text("report-note", "Another report is being made", 5)


def test_hostile_texts_of_the_device_are_shown_and_not_run(watched):
    """A device's name, the gateway's name and what a hook says come through the real agent."""
    browser, world = watched.browser, watched.world
    watched.agent.end()
    watched.configure(system_name=HOSTILE[:50], gateway_name="<img/onerror=window.hurt=1/src=x>")
    try:
        hook = f"echo '{HOSTILE}' >&2; exit 3"
        watched.start_agent("--keep-up", *watched.serve, "--on-up", hook)
        watched.run("restart", "--wait")
        browser.open(URL)
        browser.wait_text("name", "<img src=x", 10)
        browser.wait_text("facts", "failed: <img", 20)
        assert browser.run("return document.querySelectorAll('main img, header img').length") == 0
        assert browser.run("return window.hurt === undefined")
        wait_until(lambda: "<img" in browser.run("return document.title"), 5, "the title")
        assert network_errors_only(browser.console()) == []
    finally:
        watched.agent.end()
        world.write(CONF_FILE, conf_text())
        watched.start_agent("--keep-up", *watched.serve)
        watched.run("restart", "--wait")


# ---- answers that no agent gives -------------------------------------------------------------------------------------


def every_text(value):
    """The same answer with markup in the place of each text and each name of a member's value."""
    if isinstance(value, str):
        return HOSTILE
    if isinstance(value, dict):
        return {name: every_text(member) for name, member in value.items()}
    return [every_text(member) for member in value] if isinstance(value, list) else value


def every_member(change):
    def walk(value):
        if isinstance(value, dict):
            return {name: walk(member) for name, member in value.items()}
        return [walk(member) for member in value] if isinstance(value, list) else change(value)

    return walk


ODD = {
    "markup for every text": every_text,
    "null everywhere": every_member(lambda value: None),
    "a text for every number": every_member(lambda value: HOSTILE if isinstance(value, (int, float)) else value),
    "an object for everything": every_member(lambda value: {"toString": 1, "__proto__": {"x": 1}, "length": -1}),
    "huge numbers": every_member(lambda value: 1e300 if isinstance(value, (int, float)) else value),
    "an empty object": lambda value: {},
    "a list": lambda value: [value],
    "null": lambda value: None,
}


class StandIn:
    """A server that answers as the agent, each answer changed."""

    def __init__(self, answers):
        self.change = lambda value: value
        self.refused = None
        self.asked = []
        self.over = threading.Event()
        stand_in = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def log_message(self, *words):
                pass

            def do_GET(self):
                name = self.path.split("?")[0]
                stand_in.asked.append(name)
                kind, content = "application/json", b""
                if name == "/":
                    kind, content = "text/html; charset=utf-8", PAGE.read_bytes()
                elif name == "/events":
                    kind = "text/event-stream"
                    for event in answers["events"]:
                        content += b"id: 1:1\ndata: " + json.dumps(stand_in.change(event)).encode() + b"\n\n"
                    content += b"data: {broken\n\nevent: gap\ndata: " + json.dumps(HOSTILE).encode() + b"\n\n"
                    content += b'event: gap\ndata: {"from": 3, "to": 9}\n\n'
                else:
                    content = json.dumps(stand_in.change(answers.get(name[1:], {}))).encode()
                self.send_response(503 if name == stand_in.refused else 200)
                self.send_header("Content-Type", kind)
                self.end_headers()
                self.wfile.write(content)
                if name == "/events" != stand_in.refused:
                    self.wfile.flush()
                    stand_in.over.wait()

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", STAND_IN), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.over.set()
        self.server.shutdown()
        self.server.server_close()


MINUTE, HOUR = 60, 3600
DAY = (  # a prepared day: hours ago, state, reason
    (26, "unknown", None), (23.4, "connecting", None), (23.395, "up", None), (15.8, "degraded", "dpd-timeout"),
    (15.77, "down", "dpd-timeout"), (15.76, "connecting", "gateway-unreachable"), (15.3, "up", None),
    (9.6, "stopped", "stopped-by-order"), (8.9, "connecting", None), (8.898, "up", None),
    (2.2, "connecting", "gateway-closed"), (2.19, "up", None),
)  # fmt: skip


def prepared_day(now):
    """A history as the agent would have it after a day with a fault, a stop, and a gateway that was started anew."""
    states = [{"at": now - hours * HOUR, "state": state, "reason": reason} for hours, state, reason in DAY]
    chance, samples = random.Random(3), []
    for place in range(288):
        moment = now - 24 * HOUR + place * 5 * MINUTE
        state = [s["state"] for s in states if s["at"] <= moment + 2 * MINUTE][-1]
        if state in ("unknown", "stopped"):
            continue
        load = 0 if state != "up" else 2600 + 1900 * math.sin(place / 38 + 1) + chance.random() * 800
        errors = chance.randint(1, 5) if state != "up" else 0
        samples.append({"at": moment, "packets_out": int(load), "packets_in": int(load * 1.7), "errors": errors,
                        "invalid": int(place == 210)})  # fmt: skip
    return {"schema": 1, "now": now, "span": 24 * HOUR, "step": 5 * MINUTE, "states": states, "samples": samples}


def answers_of_the_agent(watched):
    script = "fetch(arguments[0]).then(r => r.json()).then(arguments[1])"
    names = ("status.json", "conf.json", "history.json")
    answers = {name: watched.browser.driver.execute_async_script(script, URL + name) for name in names}
    return {**answers, "events": watched.events()[-50:]}


def test_answers_of_any_shape_neither_run_nor_break_the_page(watched):
    browser = watched.browser
    answers = answers_of_the_agent(watched)
    stand_in = StandIn(answers)
    try:
        for what, change in ODD.items():
            stand_in.change = change
            browser.open(f"http://127.0.0.1:{STAND_IN}/")
            wait_until(lambda: browser.text("live-text") != "Looking for the agent", 10, what)
            wait_until(lambda: browser.run("return performance.getEntriesByType('resource').length") >= 3, 10, what)
            browser.run("write_status(); write_history(); write_events(); point_at(past.begin)")
            assert browser.run("return window.hurt === undefined"), what
            assert browser.run("return document.querySelectorAll('img').length") == 0, what
            assert network_errors_only(browser.console()) == [], what
            if what != "null":  # which is no answer, so the agent is lost
                browser.wait_text("events", "Events 3 to 9 are no longer kept", 5)
    finally:
        stand_in.close()
        browser.open(URL)


def test_a_device_with_another_clock_and_one_without_events_are_told(watched):
    browser = watched.browser
    answers = answers_of_the_agent(watched)
    answers["history.json"] = prepared_day(answers["history.json"]["now"] - 2 * HOUR - 30)
    stand_in = StandIn(answers)
    stand_in.refused = "/events"
    try:
        browser.open(f"http://127.0.0.1:{STAND_IN}/")
        browser.wait_text("clock", "The device's clock is 2 h behind this browser's.", 5)
        browser.wait_text("events-note", "interrupted", 5)
        browser.wait_state("up", 5)
        wait_until(lambda: stand_in.asked.count("/events") >= 2, 10, "another attempt")
        asked = len(stand_in.asked)
        time.sleep(3)  # a stream that is refused is asked for now and then, not again and again
        assert 1 <= len(stand_in.asked) - asked <= 8
        stand_in.refused = None
        wait_until(lambda: not browser.shown("events-note"), 10, "events")
    finally:
        stand_in.close()
        browser.open(URL)


# ---- pictures --------------------------------------------------------------------------------------------------------


@pytest.mark.skipif("TLSC_PICTURES" not in os.environ, reason="writes docs/images: ./run page --pictures")
def test_pictures_of_both_themes_and_widths(watched, page):
    """What agent, daemon and gateway say, with a prepared day behind it."""
    folder = Path(os.environ["TLSC_PICTURES"])
    folder.mkdir(parents=True, exist_ok=True)
    watched.world.ip("device", f"route replace {SITE_IP}/32 dev {TUN_NAME} src {MANAGEMENT_IP}")
    for count in (40, 60):
        watched.run("stats", "--fresh")
        watched.world.run(["ping", "-q", "-f", f"-c{count}", "-I", MANAGEMENT_IP, SITE_IP], ns="device")
    watched.run("stats", "--fresh")
    answers = answers_of_the_agent(watched)
    answers["history.json"] = prepared_day(answers["history.json"]["now"])
    answers["status.json"]["tunnel"]["for"] = DAY[-1][0] * HOUR
    stand_in = StandIn(answers)
    stand_in.change = lambda value: value
    try:
        for width, theme in VIEWS:
            page.set_view(width, theme)
            page.open(f"http://127.0.0.1:{STAND_IN}/")
            page.wait_state("up", 10)
            page.wait_text("share", "2 interruptions", 10)
            page.wait_text("facts", "Inner address", 5)
            wait_until(lambda: page.run("return document.querySelectorAll('#events li').length") > 10, 5, "events")
            picture = page.picture(1180 if width > 400 else 1240)
            (folder / f"page-{theme}-{width}.png").write_bytes(picture)
            assert len(picture) < 200_000
    finally:
        page.open(URL)
        stand_in.close()
