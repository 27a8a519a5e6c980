"""Machines for tests and measurements on one machine: network namespaces that a bridge connects.

Each has an address, a name and a network card of its own, so that ranks on different ones talk by TCP
as ranks on different machines do. What crosses the cards is counted. It needs root.
"""
import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile

from mpirun import ENVIRONMENT

NAME = "qxmpi"
# mpirun starts its helper on another machine by `AGENT ADDRESS COMMAND`, as by ssh.
AGENT = f"""#!/bin/sh
machine={NAME}$((${{1##*.}} - 1))
shift
exec ip netns exec $machine unshare --uts sh -c "hostname $machine; $*"
"""


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True, capture_output=True, text=True)


class Machines:
    """As many machines as are asked for: to be used in a with statement, which removes them."""

    def __init__(self, count):
        self.count = count
        self.undo = contextlib.ExitStack()

    def __enter__(self):
        try:
            self.folder = self.undo.enter_context(tempfile.TemporaryDirectory())
            self.agent = pathlib.Path(self.folder) / "agent"
            self.agent.write_text(AGENT)
            self.agent.chmod(0o755)
            bridge = f"{NAME}b"
            self.add(bridge)
            ip("-n", bridge, "link", "add", "bridge", "type", "bridge")
            ip("-n", bridge, "link", "set", "bridge", "up")
            for number in range(self.count):
                machine = f"{NAME}{number}"
                self.add(machine)
                ip("-n", bridge, "link", "add", machine, "type", "veth", "peer", "name", "eth0",
                   "netns", machine)
                ip("-n", bridge, "link", "set", machine, "master", "bridge", "up")
                ip("-n", machine, "address", "add", f"10.91.0.{number + 1}/24", "dev", "eth0")
                ip("-n", machine, "link", "set", "eth0", "up")
                ip("-n", machine, "link", "set", "lo", "up")
        except (OSError, subprocess.CalledProcessError) as error:
            self.undo.close()
            sys.exit(f"machines: no namespaces can be made: {getattr(error, 'stderr', error)}")
        return self

    def add(self, name):
        ip("netns", "add", name)
        self.undo.callback(ip, "netns", "delete", name)

    def __exit__(self, *_):
        self.undo.close()

    def run(self, ranks, arguments, timeout=600):
        """Runs a program on the first machines, a rank on each; gives what it printed."""
        hosts = ",".join(f"10.91.0.{number + 1}" for number in range(ranks))
        command = ["ip", "netns", "exec", f"{NAME}0", "unshare", "--uts", "sh", "-c",
                   f'hostname {NAME}0; exec "$@"', "sh", "mpirun", "--quiet", "--bind-to", "none",
                   "--mca", "mpi_yield_when_idle", "1",
                   "--mca", "plm_rsh_agent", str(self.agent), "--mca", "btl", "tcp,self",
                   "--mca", "btl_tcp_if_include", "10.91.0.0/24",
                   "--mca", "oob_tcp_if_include", "10.91.0.0/24",
                   "--host", hosts, "-n", str(ranks), *map(str, arguments)]
        return subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True,
                              timeout=timeout, check=True).stdout

    def sent_bytes(self):
        """What all machines have sent, with the headers of TCP, IP and Ethernet."""
        total = 0
        for number in range(self.count):
            shown = subprocess.run(["ip", "-n", f"{NAME}{number}", "-stats", "-json", "link", "show",
                                    "eth0"], check=True, capture_output=True, text=True)
            total += json.loads(shown.stdout)[0]["stats64"]["tx"]["bytes"]
        return total
