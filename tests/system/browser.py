"""Debian's chromium in a namespace of a world, driven by python3-selenium, and what tests ask a page."""

import base64
import importlib.util
import shutil
import socket

import pytest

from harness.world import wait_until

HAS_SELENIUM = importlib.util.find_spec("selenium") is not None
if HAS_SELENIUM:
    from selenium import webdriver
    from selenium.webdriver.chromium.remote_connection import ChromiumRemoteConnection

PORT = 9515
NEEDS = pytest.mark.skipif(
    not HAS_SELENIUM or not shutil.which("chromedriver"),
    reason="needs Debian's chromium-driver and python3-selenium: ./run page installs them",
)
OPTIONS = (
    "--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--hide-scrollbars", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-extensions",
    "--user-data-dir=/tmp/chromium",
)  # fmt: skip

# The texts that are shown, each with the worst contrast against what lies behind it; a gradient counts with all its
# colours. Large text needs 3, other text 4.5.
CONTRASTS = r"""
const parse = c => {
  const n = (c.match(/[\d.]+/g) || []).map(Number);
  return n.length < 3 ? null : [n[0], n[1], n[2], n.length > 3 ? n[3] : 1];
};
const over = (a, b) => [0, 1, 2].map(i => a[i] * a[3] + b[i] * (1 - a[3])).concat(1);
const linear = v => v <= .03928 ? v / 12.92 : ((v + .055) / 1.055) ** 2.4;
const light = c => [.2126, .7152, .0722].reduce((sum, part, i) => sum + part * linear(c[i] / 255), 0);
const ratio = (a, b) => { const [x, y] = [light(a), light(b)].sort((p, q) => q - p); return (x + .05) / (y + .05); };
function grounds(node) {
  const style = getComputedStyle(node), image = style.backgroundImage, own = parse(style.backgroundColor);
  const below = node.parentElement ? grounds(node.parentElement) : [[255, 255, 255, 1]];
  let all = own && own[3] ? below.map(b => over(own, b)) : below;
  if (image !== 'none') all = (image.match(/rgba?\([^)]*\)/g) || []).map(parse).flatMap(c => all.map(b => over(c, b)));
  return all;
}
const found = [], walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walk.nextNode()) {
  const words = walk.currentNode.textContent.trim(), node = walk.currentNode.parentElement;
  if (!words || !node.checkVisibility() || node.closest('.unseen, .skip, script, style, noscript')) continue;
  const style = getComputedStyle(node), size = parseFloat(style.fontSize), bold = Number(style.fontWeight) >= 700;
  const colour = parse(node instanceof SVGElement ? style.fill : style.color);
  const worst = Math.min(...grounds(node).map(g => ratio(over(colour, g), g)));
  found.push([words.slice(0, 40), worst, size >= 24 || (bold && size >= 18.66) ? 3 : 4.5]);
}
return found;
"""


class Browser:
    """A headless browser. Every call must be made inside the namespace `ns` (World.inside): its driver listens there."""

    def __init__(self, world, ns):
        self.world = world
        self.driver_process = world.spawn(
            ["chromedriver", f"--port={PORT}"], ns=ns, env={"HOME": "/tmp"}, stdout="/tmp/chromedriver.out"
        )
        options = webdriver.ChromeOptions()
        for word in OPTIONS:
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        wait_until(self._listens, 30, lambda: world.read("/tmp/chromedriver.out").decode())
        connection = ChromiumRemoteConnection(
            f"http://127.0.0.1:{PORT}", vendor_prefix="goog", browser_name="chrome", keep_alive=True
        )
        self.driver = webdriver.Remote(command_executor=connection, options=options)
        self.driver.set_script_timeout(20)

    @staticmethod
    def _listens():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", PORT)) == 0

    def quit(self):
        self.driver.quit()
        self.driver_process.end()

    # Looking.

    def open(self, url):
        self.driver.get(url)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def text(self, name):
        return self.run("return document.getElementById(arguments[0]).textContent", name)

    def shown(self, name):
        return self.run("return document.getElementById(arguments[0]).checkVisibility()", name)

    def wait_text(self, name, words, timeout):
        """Waits until the element holds the words."""
        return wait_until(lambda: words in self.text(name), timeout, lambda: f"{words!r}; {name}: {self.text(name)!r}")

    def wait_state(self, state, timeout):
        seen = "return document.body.dataset.state"
        return wait_until(lambda: self.run(seen) == state, timeout, lambda: f"{state}; seen: {self.run(seen)}")

    def console(self):
        """What the console has got since the last look, errors and warnings alone."""
        return [e["message"] for e in self.driver.get_log("browser") if e["level"] in ("SEVERE", "WARNING")]

    # Setting.

    def command(self, name, **members):
        return self.driver.execute("executeCdpCommand", {"cmd": name, "params": members})["value"]

    def set_view(self, width, theme, motion="no-preference", height=900):
        """The window's width in CSS pixels, "light" or "dark", and whether motion is to be "reduce"d."""
        size = {"width": width, "height": height}
        self.command("Emulation.setDeviceMetricsOverride", **size, deviceScaleFactor=1, mobile=False)
        wishes = {"prefers-color-scheme": theme, "prefers-reduced-motion": motion}
        features = [{"name": name, "value": value} for name, value in wishes.items()]
        self.command("Emulation.setEmulatedMedia", features=features)

    def picture(self, height=None):
        """PNG of the page, of its upper `height` pixels when given."""
        width, whole = self.run("return [innerWidth, document.documentElement.scrollHeight]")
        clip = {"x": 0, "y": 0, "width": width, "height": min(whole, height or whole), "scale": 1}
        return base64.b64decode(self.command("Page.captureScreenshot", captureBeyondViewport=True, clip=clip)["data"])

    def outline(self):
        """The page as assistive technology gets it: (role, name) of every node that is not ignored."""
        self.command("Accessibility.enable")
        nodes = self.command("Accessibility.getFullAXTree")["nodes"]
        return [
            (node["role"]["value"], node.get("name", {}).get("value", "").strip())
            for node in nodes
            if not node["ignored"] and "role" in node
        ]
