"""The daemon under test and its configuration file."""

import errno
import os

from . import records
from .controller import TO_DAEMON
from .log import Log
from .world import BUILD, GATEWAY_IP, MANAGEMENT_IP, wait_until

CONF_FILE = "/storage/application/wlc/wlc-sec-tun.conf"
TEMP_CONF_FILE = "/storage/application/wlc/wlc-sec-tun-temp.conf"
DEBUG_FLAG_FILE = "/storage/application/wlc/sectun-bootup-dbg.flag"
EARLY_LOG = "/tmp/daemon-descriptor-0"  # gets what is logged before the log file is opened

PSK_IDENTITY = "device-1"
PSK_KEY = "0f1e2d3c4b5a69788796a5b4c3d2e1f0-secret"
TUN_NAME = "tlstun0"

SETTINGS = {
    "server_ip_address": GATEWAY_IP,
    "server_port": "443",
    "management_ip": MANAGEMENT_IP,
    "tun_interface_name": TUN_NAME,
    "cipher_algo": "PSK-AES256-CBC-SHA",
    "psk_identity": PSK_IDENTITY,
    "psk_key": PSK_KEY,
    "device_id": "dev-0001",
    "serial_num": "SN-4711",
    "system_name": "branch-router",
}


def conf_text(**changes):
    """The text of a configuration file: SETTINGS, changed; a value of None leaves the key out."""
    settings = {**SETTINGS, **changes}
    return "".join(f"{key};{value};1\n" for key, value in settings.items() if value is not None)


class Daemon:
    def __init__(self, world, controller, binary=None, env=None, conf=None):
        """Starts the daemon. binary: its path, or the words of a command line that runs it (default: the build's);
        conf: text of its configuration file (None: the file is left as it is)."""
        self.world = world
        self.controller = controller
        self.log = Log(world)
        self.early_log = Log(world, EARLY_LOG)
        if conf is not None:
            world.write(CONF_FILE, conf)
        self.process = world.spawn(
            binary if isinstance(binary, (list, tuple)) else [binary or BUILD / "bin/tlsc"],
            ns="device",
            env=env or {},
            stdin=EARLY_LOG,
            stdout="/tmp/daemon.out",
            stderr="/tmp/daemon.err",
        )
        wait_until(self._reads, 5, lambda: f"the daemon at its pipe: {self.errors()}")

    def _reads(self):
        """True when the daemon has its pipe open; one left by an earlier daemon may exist before."""
        try:
            os.close(os.open(self.world.path(TO_DAEMON), os.O_WRONLY | os.O_NONBLOCK))
            return True
        except OSError as error:
            if error.errno in (errno.ENOENT, errno.ENXIO):
                return False
            raise

    def order(self, msg_id):
        self.controller.order(msg_id)

    def start(self):
        self.order(records.TUN_START)

    def bring_up(self, timeout=15):
        """Starts the tunnel and waits for the report that it is up and for the daemon's last line about it."""
        since, place = self.controller.count, self.log.position
        self.start()
        self.controller.wait_for(records.TUN_UP, timeout, since)
        self.log.wait_match(r"Started DPD Timer for", 5, place)

    def debug(self, category, value):
        """Sets the log level or destination and waits until the tunnel thread has done so."""
        place = self.log.position
        self.controller.send(records.debug_record(category, value))
        self.log.wait_match(r"Log (level|destination) (changed to:|already same)", 10, place)

    def statistics(self):
        """A fresh statistics record."""
        since = self.controller.count
        self.order(records.STATS_REQUEST)
        return self.controller.wait_for("30/33", 5, since).counters

    def exit(self, timeout=12):
        """Orders the exit and returns the status."""
        self.order(records.EXIT)
        return self.process.wait(timeout)

    def output(self):
        return self.world.read("/tmp/daemon.out").decode()

    def errors(self):
        return self.world.read("/tmp/daemon.err").decode()

    def descriptors(self):
        return self.process.descriptors()

    def interface_up(self):
        words = ["ip", "-n", "device", "link", "show", "dev", TUN_NAME]
        return "UP" in self.world.run(words, check=False)["out"].split(">")[0]

    def add_route(self, destination="10.9.0.0/24"):
        """What the system around the client does once the interface is up."""
        self.world.ip("device", f"route replace {destination} dev {TUN_NAME} src {MANAGEMENT_IP} congctl cubic")

    def is_running(self):
        return self.process.is_running()

    def conf_mode(self):
        return os.stat(self.world.path(CONF_FILE)).st_mode & 0o7777
