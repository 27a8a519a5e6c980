"""Runs programs by mpirun, as the demo, the tests and the measurements do."""
import os
import subprocess

# mpirun wants to be told twice that root may run it.
ENVIRONMENT = os.environ | {"OMPI_ALLOW_RUN_AS_ROOT": "1", "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM": "1"}


def mpirun(ranks, command, environment=ENVIRONMENT, before=(), **options):
    """Runs a command on ranks of this machine, however few cores it has; gives how that ended."""
    line = [*before, "mpirun", "--quiet", "--oversubscribe", "-n", str(ranks), *map(str, command)]
    return subprocess.run(line, env=environment, capture_output=True, text=True, **options)
