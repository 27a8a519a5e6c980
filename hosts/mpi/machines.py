"""Machines for measurements on one machine: network namespaces that a bridge connects.

Each has an address, a name and a network card of its own, so that ranks on different ones talk by TCP
as ranks on different machines do. What crosses the cards is counted. It needs root.
"""
import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile

from mpirun import mpirun

NAME = "qxmpi"
# mpirun starts its helper on another machine by `AGENT ADDRESS COMMAND`, as by ssh.
AGENT = f"""#!/bin/sh
machine={NAME}$((${{1##*.}} - 1))
shift
exec ip netns exec $machine unshare --uts sh -c "hostname $machine; $*"
"""
FIRST = ["ip", "netns", "exec", f"{NAME}0", "unshare", "--uts", "sh", "-c",
         f'hostname {NAME}0; exec "$@"', "sh"]
BY_TCP = {"mpi_yield_when_idle": "1", "btl": "tcp,self", "btl_tcp_if_include": "10.91.0.0/24",
          "oob_tcp_if_include": "10.91.0.0/24"}


def ip(command):
    return subprocess.run(["ip", *command.split()], check=True, capture_output=True, text=True).stdout


class Machines(contextlib.ExitStack):
    """As many machines as are asked for: to be used in a with statement, which removes them."""

    def __init__(self, count):
        super().__init__()
        self.names = [f"{NAME}{number}" for number in range(count)]
        self.agent = pathlib.Path(self.enter_context(tempfile.TemporaryDirectory())) / "agent"
        self.agent.write_text(AGENT)
        self.agent.chmod(0o755)
        try:
            self.connect()
        except (OSError, subprocess.CalledProcessError) as error:
            self.close()
            sys.exit(f"machines: no namespaces can be made: {getattr(error, 'stderr', error)}")

    def connect(self):
        bridge = f"{NAME}b"
        for name in (bridge, *self.names):
            ip(f"netns add {name}")
            self.callback(ip, f"netns delete {name}")
        ip(f"-n {bridge} link add bridge type bridge")
        ip(f"-n {bridge} link set bridge up")
        for number, name in enumerate(self.names, 1):
            ip(f"-n {bridge} link add {name} type veth peer name eth0 netns {name}")
            ip(f"-n {bridge} link set {name} master bridge up")
            ip(f"-n {name} address add 10.91.0.{number}/24 dev eth0")
            ip(f"-n {name} link set eth0 up")
            ip(f"-n {name} link set lo up")

    def run(self, ranks, command):
        """Runs a program on the first machines, a rank on each; gives what it printed."""
        hosts = ",".join(f"10.91.0.{number + 1}" for number in range(ranks))
        settings = BY_TCP | {"plm_rsh_agent": str(self.agent)}
        options = [word for name, value in settings.items() for word in ("--mca", name, value)]
        return mpirun(ranks, ["--bind-to", "none", "--host", hosts, *options, *command],
                      before=FIRST, timeout=600, check=True).stdout

    def sent_bytes(self):
        """What all machines have sent, with the headers of TCP, IP and Ethernet."""
        shown = (ip(f"-n {name} -stats -json link show eth0") for name in self.names)
        return sum(json.loads(cards)[0]["stats64"]["tx"]["bytes"] for cards in shown)
