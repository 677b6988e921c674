"""A Ceph cluster of three object daemons: one dies in the middle of a backup; two machines share one bucket."""

import os
import re
import shutil
import signal
import time
import unittest

import backup2_test
from storage_case import MONDAY, PASSWORD, TUESDAY, USER, StorageCase, s3, server

MIB = 1 << 20


def is_archive(name):
    return re.search(r"\.tgz\.aes\.part\d+$", name)


class OneDaemonDies(StorageCase):
    def slices(self):
        return [name for name in self.stored(MONDAY) if is_archive(name)]

    def run_and_kill(self, pid, after):
        """The slices that were stored when the process was killed, and how long the backup took."""
        began = time.monotonic()
        job = backup2_test.start(["backup2", "run", USER, "--date", MONDAY], **self.env)
        self.addCleanup(lambda: job.poll() is None and os.killpg(job.pid, signal.SIGKILL))
        while len(stored := self.slices()) < after:
            self.assertIsNone(job.poll(), "it ended before its time")
            time.sleep(0.05)
        os.kill(pid, signal.SIGKILL)
        self.assertIsNone(job.poll(), "nothing was left to do")
        said = job.communicate(timeout=400)
        self.assertEqual(job.returncode, 0, said)
        return len(stored), time.monotonic() - began

    def test_a_backup_goes_through_and_comes_back(self):
        cluster = self.serve("s3_ceph", CEPH_OSDS="3")
        self.add(s3(cluster, "store"), "--slice-size", "8M", password=PASSWORD)
        for number in range(20):
            (self.home / f"data/big{number}").write_bytes(self.dice.randbytes(8 * MIB))
        states = {MONDAY: self.change()}
        killed_at, seconds = self.run_and_kill(int(cluster["osd_pids"].split()[0]), after=4)
        slices = self.slices()
        self.assertGreater(len(slices), killed_at + 4, "it was killed near the end")
        print(f"\nslices stored when the daemon was killed: {killed_at}; in all: {len(slices)}; {seconds:.1f} s")
        states[TUESDAY] = self.change()
        self.backup2("run", USER, "--date", TUESDAY)
        self.backup2("verify", USER, "--deep")
        for date, state in states.items():
            self.assert_restores(date, state)
        self.assert_tidy()


class OneBucket(unittest.TestCase):
    def machine(self, cluster, path):
        """A machine whose backups lie below the path, encrypted."""
        made = StorageCase()
        self.addCleanup(made.doCleanups)
        made.setUp()
        (made.home / "data/own").write_text(path)
        made.add(s3(cluster, path), "--slice-size", "256K", password=PASSWORD)
        return made

    def run_together(self, machines, date):
        states = [machine.change() for machine in machines]
        jobs = [backup2_test.start(["backup2", "run", USER, "--date", date], **machine.env)
                for machine in machines]
        for job in jobs:
            said = job.communicate(timeout=200)
            self.assertEqual(job.returncode, 0, said)
        return states

    def test_machines_with_paths_of_their_own_do_not_meet(self):
        with server("s3_ceph", CEPH_OSDS="3") as cluster:
            web1, web2 = machines = [self.machine(cluster, path) for path in ("web1", "web2")]
            self.run_together(machines, MONDAY)
            states = self.run_together(machines, TUESDAY)
            web1.backup2("cleanup")
            for machine, state in zip(machines, states):
                machine.backup2("verify", USER, "--deep")
                machine.assert_restores(TUESDAY, state)
            web1.backup2("delete", USER, MONDAY, "--force")
            self.assertEqual(web1.stored(MONDAY) + web1.stored(TUESDAY), [])
            web2.backup2("verify", USER, "--deep")
            self.take_over(cluster, web2, web1, states[1])

    def take_over(self, cluster, dead, alive, state):
        """What docs/operations.md says of restoring what another machine saved."""
        shutil.rmtree(alive.local / USER, ignore_errors=True)
        shutil.copytree(dead.local / USER, alive.local / USER)
        alive.add(s3(cluster, "web2"), "--replace", password=PASSWORD)
        alive.assert_restores(TUESDAY, state)


if __name__ == "__main__":
    unittest.main()
