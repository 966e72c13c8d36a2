"""Another user's processes are kept out of everything, also where the system's own modes would let them in."""

import multiprocessing
import os
import stat
import subprocess
import unittest

from agent_test_case import *

NOBODY = 65534


@unittest.skipUnless(os.geteuid() == 0, "only the superuser can become another user")
class OtherUsers(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.start_agent()
        self.client = Connection(self.path)
        self.assertTrue(self.register(self.client, "a"))

    def attempt(self, action, *arguments):
        """What an action gives when another user's process tries it, or the class of the error that stops it."""
        def become_another_user():
            os.setgroups([])
            os.setresgid(NOBODY, NOBODY, NOBODY)
            os.setresuid(NOBODY, NOBODY, NOBODY)
            try:
                results.put(action(*arguments))
            except OSError as error:
                results.put(type(error))

        results = multiprocessing.SimpleQueue()
        process = multiprocessing.Process(target=become_another_user)
        process.start()
        process.join(PATIENCE)
        return results.get()

    def test_can_neither_look_into_the_runtime_directory_nor_change_it(self):
        gantrel = os.path.dirname(self.path)
        applications = os.path.join(gantrel, "applications")
        os.makedirs(applications, 0o700, exist_ok=True)
        for mode in 0o700, 0o755:  # also when the folder above lets everybody in
            os.chmod(self.folder, mode)
            for action, *arguments in [
                (os.listdir, gantrel),
                (os.rename, self.path, "/tmp/taken"),
                (os.unlink, self.path),
                (Connection, self.path),
                (open, applications + "/com.gantrel.Gantrel@forged", "w"),
                (os.symlink, "/tmp", applications + "/link"),
            ]:
                with self.subTest(action=action, mode=mode):
                    self.assertIs(self.attempt(action, *arguments), PermissionError)
        for path in gantrel, self.path:
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode) & 0o077, 0)

    def test_are_not_served_even_where_they_can_connect(self):
        os.chmod(self.folder, 0o755)
        os.chmod(os.path.dirname(self.path), 0o755)
        os.chmod(self.path, 0o666)

        def ask():
            stranger = Connection(self.path)
            stranger.send_raw(frame([CALL, 1, RETRIEVE, ["a"]]))
            return stranger.receive_to_end()

        self.assertEqual(self.attempt(ask), b"")
        self.assertEqual(self.client.retrieve("a"), self.inode)

    def test_a_hostile_runtime_directory_ends_in_a_refusal(self):
        def fresh(name, mode=0o700):
            path = os.path.join(self.folder, name)
            os.mkdir(path)
            os.chmod(path, mode)
            return path

        foreign, elsewhere, link = fresh("foreign"), fresh("elsewhere"), os.path.join(self.folder, "link")
        os.chown(foreign, NOBODY, NOBODY)
        os.symlink(elsewhere, link)
        inside, lock, taken = fresh("inside"), fresh("lock"), fresh("taken")
        os.symlink(elsewhere, f"{inside}/gantrel")
        os.mkdir(f"{lock}/gantrel", 0o700)
        os.symlink(f"{elsewhere}/made", f"{lock}/gantrel/{SERVICE}.lock")
        os.makedirs(f"{taken}/gantrel/{SERVICE}.socket", 0o700)
        for folder in fresh("wide", 0o770), foreign, link, inside, lock, taken:
            with self.subTest(folder):
                refused = subprocess.run([AGENT], env={**os.environ, "XDG_RUNTIME_DIR": folder},
                                         timeout=PATIENCE, stderr=subprocess.DEVNULL)
                self.assertEqual(refused.returncode, 69)
        self.assertEqual(os.listdir(elsewhere), [])


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # of sockets that end with the process
