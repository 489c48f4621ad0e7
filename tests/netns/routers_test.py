#!/usr/bin/env python3
"""hostrouted with FRR and BIRD: two leaves and a spine in namespaces, speaking BGP."""
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

import lab
from lab import run

TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HOST4, HOST6 = '10.0.1.11', '2001:db8:1::11'


class Routing:
    """A routing daemon in a namespace, with its own directory of files."""

    def __init__(self, namespace, config):
        self.namespace = namespace
        self.directory = tempfile.mkdtemp(prefix='hostroute-routing-')
        os.chmod(self.directory, 0o755)
        self.config = os.path.join(self.directory, 'daemon.conf')
        shutil.copy(config, self.config)
        self.processes = []

    def path(self, name):
        return os.path.join(self.directory, name)

    def launch(self, *command):
        with open(self.path('log'), 'a', encoding='utf-8') as log:
            self.processes.append(subprocess.Popen(self.namespace.command(*command), stdout=log,
                                                   stderr=log))

    def stop(self, number=signal.SIGTERM):
        for process in reversed(self.processes):
            process.send_signal(number)
        for process in self.processes:
            process.wait(lab.TIMEOUT)
        self.processes = []

    def close(self):
        self.stop(signal.SIGKILL)
        shutil.rmtree(self.directory, ignore_errors=True)


class Frr(Routing):
    def start(self):
        shutil.chown(self.directory, 'frr', 'frr')
        for name in ('zebra', 'bgpd'):
            self.launch(f'/usr/lib/frr/{name}', '-f', self.config, '-i', self.path(f'{name}.pid'),
                        '-z', self.path('zserv.api'), '--vty_socket', self.directory,
                        '-u', 'frr', '-g', 'frr', '-P', '0')
            time.sleep(0.5)


class Bird(Routing):
    def start(self):
        self.launch('bird', '-f', '-c', self.config, '-s', self.path('bird.ctl'),
                    '-P', self.path('bird.pid'))

    def ask(self, *words):
        return run('birdc', '-s', self.path('bird.ctl'), *words, check=False)


class RoutersTest(lab.Lab):
    @classmethod
    def setUpClass(cls):
        missing = [name for name in ('/usr/lib/frr/bgpd', 'bird', 'birdc')
                   if shutil.which(name) is None]
        if missing:
            print(f'skipped: {", ".join(missing)} is missing')
            raise SystemExit(77)

    def setUp(self):
        self.spine_ns, self.leaf_ns = self.namespace(), [self.namespace(), self.namespace()]
        self.hosts = [self.namespace(), self.namespace()]
        for i, leaf in enumerate(self.leaf_ns):
            self.cable(leaf, 'up0', self.spine_ns, f'down{i + 1}')
            for namespace, name, last in ((leaf, 'up0', 2 * i + 1),
                                          (self.spine_ns, f'down{i + 1}', 2 * i)):
                namespace.ip(f'addr add 192.0.2.{last}/31 dev {name}')
                namespace.ip(f'addr add 2001:db8:ffff::{last}/127 dev {name} nodad')
            leaf.ip('link add br0 type bridge')
            leaf.ip('link set br0 up')
            leaf.ip('addr add 10.0.1.1/24 dev br0')
            leaf.ip('addr add 2001:db8:1::1/64 dev br0 nodad')
            self.cable(leaf, 'p1', self.hosts[i], 'eth0')
            leaf.ip('link set p1 master br0')
            self.hosts[i].ip('link set eth0 address 02:00:00:00:00:11')
        self.spine = Bird(self.spine_ns, os.path.join(TREE, 'tests/netns/spine.conf'))
        self.routing = [Frr(self.leaf_ns[0], os.path.join(TREE, 'examples/frr/frr.conf')),
                        Bird(self.leaf_ns[1], os.path.join(TREE, 'examples/bird/bird.conf'))]
        for daemon in (self.spine, *self.routing):
            self.addCleanup(daemon.close)
            daemon.start()
        self.hostrouted = []
        for leaf, kind in zip(self.leaf_ns, ('frr', 'bird')):
            with open(os.path.join(TREE, f'examples/{kind}/hostrouted.toml'),
                      encoding='utf-8') as file:
                self.hostrouted.append(self.daemon(leaf, file.read()))

    def seen(self, addr):
        """The spine's next hops to a host, and the second of the day of the last change."""
        length = 128 if ':' in addr else 32
        shown = self.spine.ask('show', 'route', f'{addr}/{length}')
        leaves = {}
        for match in re.finditer(r'\[leaf(\d)_[46] (\d+):(\d+):([\d.]+)', shown):
            hours, minutes, seconds = int(match[2]), int(match[3]), float(match[4])
            leaves[int(match[1])] = (hours * 60 + minutes) * 60 + seconds
        return leaves

    def assertSeen(self, leaves):
        for addr in (HOST4, HOST6):
            self.assertEventually(lambda: sorted(self.seen(addr)) == leaves,
                                  f'{addr} through {leaves}, now {self.seen(addr)}')

    def arrive(self, leaf):
        """Gives the host its addresses behind a leaf and lets it send."""
        host = self.hosts[leaf - 1]
        host.ip(f'addr replace {HOST4}/24 dev eth0')
        host.ip(f'addr replace {HOST6}/64 dev eth0 nodad')
        self.ping(host, '10.0.1.1')
        self.ping(host, '2001:db8:1::1')

    def arrive_at_both(self):
        self.arrive(1)
        self.arrive(2)
        self.assertSeen([1, 2])

    def leave(self, leaf):
        """Removes the host's addresses and its neighbour entries on the leaf."""
        self.hosts[leaf - 1].ip('addr flush dev eth0')
        for addr in (HOST4, HOST6):
            self.leaf_ns[leaf - 1].ip(f'neigh del {addr} dev br0', check=False)

    def test_the_spine_follows_a_host_that_moves_and_leaves(self):
        self.arrive(1)
        self.assertSeen([1])
        self.leave(1)
        self.arrive(2)
        self.assertSeen([2])
        self.leave(2)
        self.assertSeen([])
        self.arrive(1)
        self.assertSeen([1])

    def test_a_restart_of_hostrouted_changes_nothing_at_the_spine(self):
        self.arrive_at_both()
        before = [self.seen(addr) for addr in (HOST4, HOST6)]
        for daemon in self.hostrouted:
            daemon.end(signal.SIGKILL)
        time.sleep(0.5)
        for daemon in self.hostrouted:
            daemon.start()
        time.sleep(2)
        # The router derives the time from a clock since its start, so it may differ by some
        # milliseconds each time. Routes that changed would be half a second younger.
        for addr, times in zip((HOST4, HOST6), before):
            now = self.seen(addr)
            self.assertEqual(sorted(now), sorted(times), addr)
            for leaf, then in times.items():
                self.assertAlmostEqual(now[leaf], then, delta=0.1, msg=f'{addr} through {leaf}')

    def test_hosts_come_back_after_a_restart_of_the_routing_daemon(self):
        self.arrive_at_both()
        for routing in self.routing:
            routing.stop()
        self.assertSeen([])
        for routing in self.routing:
            routing.start()
        self.assertSeen([1, 2])

    def test_routes_that_the_kernel_drops_without_notification_are_withdrawn(self):
        for was_dead in (False, True):
            with self.subTest(was_dead=was_dead):
                self.arrive_at_both()
                for leaf, daemon in zip(self.leaf_ns, self.hostrouted):
                    if was_dead:
                        daemon.end(signal.SIGKILL)
                    leaf.ip('link set br0 down')
                    if was_dead:
                        daemon.start()
                self.assertSeen([])
                for leaf in self.leaf_ns:
                    leaf.ip('link set br0 up')
                    leaf.ip('addr replace 2001:db8:1::1/64 dev br0 nodad')


if __name__ == '__main__':
    lab.main()
