"""The installed units in a real user manager, and the agent's lines in a real journal.

Neither needs a machine that systemd booted: namespaces with a /run of their own and a control group are
enough. These need the superuser; where they cannot be had, the test says so and counts as skipped."""

import json
import os
import re
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from staged import PATIENCE, STAGE, eventually, run, socket_path

SKIPPED = 77  # as told to ctest
USER = 47110  # nobody's
RUNTIME = Path("/run/user", str(USER))
JOURNAL = Path("/run/systemd/journal.gantrel")
AS_USER = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--inh-caps=-all"]
ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": str(RUNTIME), "XDG_RUNTIME_DIR": str(RUNTIME),
               "SYSTEMD_UNIT_PATH": "/run/units", "LC_ALL": "C.UTF-8"}


def start(*command, ready):
    """Starts a daemon, and returns when this socket of its own is there."""
    subprocess.Popen([*AS_USER, *command], env=ENVIRONMENT, stderr=subprocess.DEVNULL)
    eventually(ready.exists)


def prepare():
    """Makes the namespace a machine with the installed files and an empty /run, and starts the daemons."""
    run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/run")
    run("mount", "-t", "overlay", "-o", f"lowerdir={STAGE}/usr:/usr", "overlay", "/usr")
    for folder in "systemd/system", "systemd/unit-root", "units":
        Path("/run", folder).mkdir(parents=True)
    for folder in RUNTIME, JOURNAL, Path("/run/log/journal"):
        folder.mkdir(parents=True, mode=0o700)
        os.chown(folder, USER, USER)
    Path("/run/systemd/journal").symlink_to(JOURNAL)
    Path("/run/systemd/journald@gantrel.conf").write_text("[Journal]\nStorage=volatile\n")
    Path("/etc/machine-id").read_bytes()  # a journal needs it
    units = Path("/usr/lib/systemd/user")
    for unit in [*units.glob("gantrel-*"), *(units / name for name in (
            "basic.target", "sockets.target", "timers.target", "paths.target", "shutdown.target"))]:
        Path("/run/units", unit.name).symlink_to(unit)
    Path("/run/units/default.target").symlink_to(units / "basic.target")
    start("/usr/lib/systemd/systemd-journald", "gantrel", ready=JOURNAL / "socket")
    start("/usr/lib/systemd/systemd", "--user", ready=RUNTIME / "systemd/private")


def systemctl(*arguments):
    return run(*AS_USER, "systemctl", "--user", *arguments, env=ENVIRONMENT)


def agent():
    """The process that the service manager takes for the agent; 0 for none."""
    return int(systemctl("show", "--property=MainPID", "--value", "gantrel-agent.service"))


def journal(*matches):
    """The lines in the journal with these fields."""
    lines = run("journalctl", "--file=/run/log/journal/*/*.journal", "--output=json", *matches).splitlines()
    return [json.loads(line) for line in lines if line.startswith("{")]


class InstalledUnits(unittest.TestCase):
    def main_app_registers(self):
        """A client that gets an answer from the agent."""
        application = self.enterContext(
            subprocess.Popen([*AS_USER, "MainApp", "/usr/share/gantrel/Meetings.plist"],
                             env=ENVIRONMENT, stdout=subprocess.PIPE, text=True))
        self.addCleanup(application.kill)
        self.assertRegex(application.stdout.readline(), "^offers")

    def test_start_and_confine_the_agent_whenever_somebody_connects(self):
        systemctl("start", "gantrel-agent.socket")
        self.addCleanup(systemctl, "stop", "gantrel-agent.socket", "gantrel-agent.service")
        for unit in "gantrel-agent.socket", "gantrel-agent.service":
            self.assertEqual(run("systemd-analyze", "--user", "verify", "--man=no", unit, env=ENVIRONMENT), "")
        path = socket_path(RUNTIME)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        self.assertEqual(os.stat(os.path.dirname(path)).st_mode & 0o777, 0o700)
        self.main_app_registers()
        first = agent()
        status = dict(re.findall("(.*):\t(.*)", Path("/proc", str(first), "status").read_text()))
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"], status["Umask"]), ("1", "2", "0077"))
        self.assertIn("/session.slice/", Path("/proc", str(first), "cgroup").read_text())
        run("systemd-analyze", "--user", "security", "--offline=true", "--threshold=61",
            "/usr/lib/systemd/user/gantrel-agent.service", env=ENVIRONMENT)
        self.assertIn("Weekly planning", run(*AS_USER, "MenuApp", "upcoming", env=ENVIRONMENT))
        # The command sees in the journal who is registered, and what happens next.
        [journal_folder] = map(str, Path("/run/log/journal").iterdir())
        self.assertRegex(
            eventually(lambda: run(*AS_USER, "gantrel", "list", "--log", journal_folder, env=ENVIRONMENT)),
            r"^(com\.\S+)\tserved\t\d+\tMainApp\t\1\n$")
        clock = subprocess.Popen([*AS_USER, "gantrel", "wait", "clock", "--log", journal_folder], env=ENVIRONMENT)
        self.addCleanup(clock.kill)
        server = subprocess.Popen([*AS_USER, "gantrel", "serve", "clock", "date"], env=ENVIRONMENT)
        self.addCleanup(server.kill)
        self.assertEqual(clock.wait(PATIENCE), 0)
        os.kill(first, signal.SIGKILL)
        self.main_app_registers()
        second = eventually(agent)
        self.assertNotEqual(second, first)

        # A stop leaves the socket. The applications that live connect again by themselves.
        systemctl("stop", "gantrel-agent.service")
        self.main_app_registers()
        self.assertNotIn(eventually(agent), (first, second))

        # Where the user's log lands, with the places that its readers look for.
        [resumed] = eventually(lambda: journal(f"_PID={first}", "CODE_FUNC=resume()"))
        self.assertTrue(resumed["MESSAGE"].startswith("Agent resume"))
        self.assertEqual((resumed["CODE_FILE"], resumed["CODE_LINE"]), ("GantrelAgent/Agent", "34"))

        systemctl("stop", "gantrel-agent.socket", "gantrel-agent.service")
        self.assertFalse(os.path.exists(path))


def inside():
    try:
        prepare()
    except AssertionError as reason:
        raise OSError(reason) from None
    unittest.main(argv=[__file__])


def outside():
    """Runs the test in a control group, a mount and a process namespace of its own."""
    if os.geteuid() != 0:
        raise PermissionError("only the superuser can make a user manager's surroundings")
    hierarchy = re.search(r"^\S+ (\S+) cgroup2 ", Path("/proc/self/mounts").read_text(), re.M)
    if not hierarchy:
        raise FileNotFoundError("no unified control group hierarchy is mounted")
    own = re.search("^0::/(.*)$", Path("/proc/self/cgroup").read_text(), re.M)[1]
    group = Path(hierarchy[1], own, f"gantrel-test-{os.getpid()}")
    group.mkdir()
    try:
        os.chown(group, USER, USER)
        os.chown(group / "cgroup.procs", USER, USER)
        # Whatever the test starts ends with its process namespace.
        return subprocess.call(
            ["unshare", "--mount", "--propagation=private", "--pid", "--fork", "--mount-proc",
             sys.executable, __file__, "inside"],
            preexec_fn=lambda: (group / "cgroup.procs").write_text(str(os.getpid())))
    finally:
        for folder, _, _ in os.walk(group, topdown=False):
            os.rmdir(folder)


if __name__ == "__main__":
    try:
        sys.exit(inside() if sys.argv[1:] == ["inside"] else outside())
    except OSError as reason:
        print(f"skipped, since this machine does not allow it: {reason}")
        sys.exit(SKIPPED)
