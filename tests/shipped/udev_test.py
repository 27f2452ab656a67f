"""Goal: the udev rule is understood, and keeps the modem manager away from the adapters that it names and no others.

Method: udev's own test run, in a room of its own (a mount namespace), where the rule is the only one and the only device
is a made-up serial adapter. It tells on standard error what it does not understand, and then what the device gets.
"""
import os
import re
import shutil
import subprocess
import unittest

from support import SOURCE

RULE = SOURCE / "packaging/78-peripheral-loader.rules"
ROOM = """
for place in /sys /run /dev /usr/lib/udev/rules.d; do mount -t tmpfs none $place; done
mknod /dev/null c 1 3
printf '%s' "$RULE" > /usr/lib/udev/rules.d/78-peripheral-loader.rules
usb=/sys/devices/usb1/1-2
port=$usb/1-2:1.0/ttyUSB0/$SUBSYSTEM/ttyUSB0
mkdir -p $port /sys/class/$SUBSYSTEM /sys/bus/usb
echo DEVTYPE=usb_device > $usb/uevent
ln -s /sys/bus/usb $usb/subsystem
echo ${ADAPTER%:*} > $usb/idVendor
echo ${ADAPTER#*:} > $usb/idProduct
printf 'MAJOR=188\\nMINOR=0\\nDEVNAME=ttyUSB0\\n' > $port/uevent
ln -s /sys/class/$SUBSYSTEM $port/subsystem
ln -s $port /sys/class/$SUBSYSTEM/ttyUSB0
udevadm test -a add $port
"""


def run(rule, adapter, subsystem="tty"):
    return subprocess.run(["unshare", "--mount", "sh", "-euc", ROOM], text=True, capture_output=True, timeout=60, check=True,
                          env={**os.environ, "RULE": rule, "ADAPTER": adapter, "SUBSYSTEM": subsystem,
                               "SYSTEMD_DEVICE_VERIFY_SYSFS": "0", "SYSTEMD_LOG_LEVEL": "debug"})


@unittest.skipIf(shutil.which("udevadm") is None,
                 "SKIPPED: there is no udev to read its rule; script/bootstrap --full installs it")
@unittest.skipIf(subprocess.run(["unshare", "--mount", "true"], check=False, capture_output=True).returncode != 0,
                 "SKIPPED: udev's test needs root, and to be allowed a mount namespace")
class Udev(unittest.TestCase):
    def complaints(self, rule):
        said = run(rule, "0403:6001").stderr
        self.assertIn(f"Reading rules file: /usr/lib/udev/rules.d/{RULE.name}", said)
        return re.findall(rf"{RULE.name}:\d+ .*", said)

    def test_understands_the_rule(self):
        self.assertEqual(self.complaints(RULE.read_text()), [])
        self.assertEqual(self.complaints('SUBSISTEM=="tty"\n'), [f"{RULE.name}:1 Invalid key 'SUBSISTEM'"])

    def exempted(self, adapter, subsystem="tty"):
        return "\nID_MM_PORT_IGNORE=1\n" in run(RULE.read_text(), adapter, subsystem).stdout

    def test_keeps_the_modem_manager_away_from_the_named_adapters(self):
        for adapter in ("0403:6001", "0403:6015", "10c4:ea60", "10c4:ea71", "1a86:7523", "1a86:55d4", "067b:2303",
                        "04d8:00dd", "0483:374b", "0483:5740", "2341:0043", "2a03:0043", "0d28:0204", "2e8a:000c"):
            self.assertTrue(self.exempted(adapter), adapter)

    def test_leaves_everything_else_alone(self):
        for adapter in ("0403:6002", "067b:6001", "1a86:2303", "1209:0001"):
            self.assertFalse(self.exempted(adapter), adapter)
        self.assertFalse(self.exempted("0403:6001", "net"))


if __name__ == "__main__":
    unittest.main()
