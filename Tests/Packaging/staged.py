"""What the tests of the installation have in common. The installed files lie in a staging folder, as they
would in the root of a machine: $GANTREL_STAGE/usr/..."""

import os
import pathlib
import re
import subprocess
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
STAGE = pathlib.Path(os.environ.get("GANTREL_STAGE", "/"))
PATIENCE = 60  # seconds, after which a test gives up


def run(*command, **options):
    """The command's output; when it fails, that is shown."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=5 * PATIENCE, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
    return done.stdout


def eventually(condition):
    """What `condition` answers, once that is something. It looks again and again, without rest."""
    end = time.monotonic() + PATIENCE
    while not (result := condition()):
        if time.monotonic() > end:
            raise AssertionError("waited in vain")
    return result


def socket_path(runtime_directory):
    """Where the installed socket unit has the service manager listen."""
    unit = (STAGE / "usr/lib/systemd/user/gantrel-agent.socket").read_text()
    return re.search("^ListenStream=(.*)$", unit, re.M)[1].replace("%t", str(runtime_directory))
