"""Temporary clusters of PostgreSQL with the extension of a build, for tests, demo and bench.

A server looks for its files beside its program, wherever that is. So each cluster has a program of its
own, links to the rest, and the extension, and nothing is installed. As root it runs as the user
postgres.
"""
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import tempfile
import time

import psycopg2

SOURCES = pathlib.Path(__file__).resolve().parent
ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILT = pathlib.Path(os.environ.get("QX_POSTGRESQL", ROOT / "build/postgresql/hosts/postgresql"))


def ask_server(option):
    return pathlib.Path(subprocess.run(["pg_config", f"--{option}"], capture_output=True, text=True,
                                       check=True).stdout.strip())


BIN, LIBRARIES, SHARE = map(ask_server, ("bindir", "pkglibdir", "sharedir"))
# Without fsync: processes are killed, machines are not.
SETTINGS = """
fsync = off
unix_socket_directories = '{folder}'
listen_addresses = ''
max_worker_processes = 16
shared_buffers = 32MB
max_prepared_transactions = 4
log_min_messages = warning
"""


def as_user(command, **options):
    """Runs a command of the server, as an ordinary user also when called by root."""
    if os.geteuid() == 0:
        user = pwd.getpwnam("postgres")
        options |= {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": []}
    options.setdefault("check", True)
    return subprocess.run([str(part) for part in command], cwd="/", stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)


class Cluster:
    """Starts when made; close() leaves nothing."""

    def __init__(self, base=None, settings=""):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qx-pg-"))
        self.data = self.folder / "data"
        self._install()
        if os.geteuid() == 0:
            for path in [self.folder, *self.folder.rglob("*")]:
                if not path.is_symlink():
                    shutil.chown(path, "postgres", "postgres")
        if base is None:
            self.run("initdb", "-D", self.data, "-U", "postgres", "--no-sync", "-E", "UTF8",
                     "--locale=C")
        else:
            self.run("pg_basebackup", "-h", base.folder, "-U", "postgres", "-D", self.data,
                     "--checkpoint=fast", "-R")
        with open(self.data / "postgresql.conf", "a", encoding="utf-8") as file:
            file.write(SETTINGS.format(folder=self.folder) + settings)
        self.start()

    def _install(self):
        for real in (LIBRARIES, SHARE, SHARE / "extension"):
            here = self._own(real)
            here.mkdir(parents=True, exist_ok=True)
            for file in real.iterdir():
                if file.name != "extension" and not file.name.startswith("qx"):  # which may be installed
                    (here / file.name).symlink_to(file)
        shutil.copytree(BIN, self._own(BIN))
        for name in ("qx.so", "qx-postgresql"):
            shutil.copy(BUILT / name, self._own(LIBRARIES) / name)
        for file in [*SOURCES.glob("qx--*.sql"), SOURCES / "qx.control"]:
            shutil.copy(file, self._own(SHARE) / "extension" / file.name)

    def _own(self, real):
        return self.folder / real.relative_to("/")

    def run(self, program, *arguments, **options):
        """A program of the server; gives what it printed."""
        return as_user([self._own(BIN) / program, *arguments], **options).stdout

    def start(self):
        self.run("pg_ctl", "-D", self.data, "-w", "-l", self.folder / "log", "start")

    def stop(self, mode="fast"):
        self.run("pg_ctl", "-D", self.data, "-w", "-m", mode, "stop", check=False)

    def connect(self, database="postgres", user="postgres", autocommit=True):
        connection = psycopg2.connect(host=str(self.folder), dbname=database, user=user)
        connection.autocommit = autocommit
        return connection

    def postmaster(self):
        return int((self.data / "postmaster.pid").read_text().split()[0])

    def programs(self):
        """The processes that hold vectors, of this cluster alone."""
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                line = (process / "cmdline").read_bytes().split(b"\0")
                if os.fsdecode(line[0]) == str(self._own(LIBRARIES) / "qx-postgresql"):
                    found.append(int(process.name))
            except OSError:
                pass
        return found

    def kill_program(self):
        for process in self.programs():
            os.kill(process, signal.SIGKILL)

    def kill(self):
        """The postmaster and all its children at once."""
        postmaster = self.postmaster()
        children = pathlib.Path(f"/proc/{postmaster}/task/{postmaster}/children").read_text().split()
        for process in [postmaster, *map(int, children), *self.programs()]:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        wait_until(lambda: not any(pathlib.Path(f"/proc/{p}").exists() for p in children))

    def kill_everything(self):
        """And a start over what is left."""
        self.kill()
        self.start()

    def close(self):
        self.stop("immediate")
        wait_until(lambda: not self.programs())
        shutil.rmtree(self.folder)


def wait_until(condition, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "it does not come"
        time.sleep(0.01)
