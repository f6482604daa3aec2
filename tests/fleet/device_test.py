"""The collection's parsing of what the device prints, case by case from
device_cases.tsv (no device, no Ansible needed)."""
import importlib.util
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = importlib.util.spec_from_file_location(
    "device", os.path.join(HERE, "../../ansible/plugins/plugin_utils/device.py"))
device = importlib.util.module_from_spec(SOURCE)
SOURCE.loader.exec_module(device)


def field(text):
    return text.replace("\\n", "\n").replace("\\r", "\r")


STAND_INS = {
    "pidof": "exit 0",
    "cli": 'case "$2" in *bad*) echo "command syntax error" ;; *) printf "val %s\\n\\r" "$2" ;; esac',
}


def batch(text, _):
    with tempfile.TemporaryDirectory() as bin_dir:
        for name, body in STAND_INS.items():
            with open(os.path.join(bin_dir, name), "w") as f:
                f.write("#!/bin/sh\n%s\n" % body)
            os.chmod(os.path.join(bin_dir, name), 0o755)
        env = dict(os.environ, PATH=bin_dir + ":" + os.environ["PATH"])
        done = subprocess.run(["sh", "-c", device.command_batch(text.split(" | "))], env=env,
                              capture_output=True, text=True, check=False)
    return "rc %d: %s" % (done.returncode, " | ".join(device.replies(done.stdout)))


RUN = {
    "strip_comment": lambda a, b: device.strip_comment(a),
    "updated": lambda a, b: device.updated(a, b.split("\n")),
    "replies": lambda a, b: " | ".join(device.replies(a)),
    "took_effect": lambda a, b: str(device.took_effect(a)),
    "batch": batch,
}


class DeviceOutput(unittest.TestCase):
    def test_cases(self):
        with open(os.path.join(HERE, "device_cases.tsv"), encoding="utf-8") as f:
            rows = [l.rstrip("\n").split("\t") for l in f if l.strip() and not l.startswith("#")]
        for name, routine, first, second, expected in rows:
            with self.subTest(name):
                got = RUN[routine](field(first), field(second))
                self.assertEqual(got, field(expected))


if __name__ == "__main__":
    sys.exit(unittest.main())
