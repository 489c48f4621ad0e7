#!/usr/bin/env python3
"""hostrouted against a real kernel: a router in a namespace, its hosts in others."""
import grp
import json
import os
import pwd
import random
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import time

import lab
from lab import run

PORTS = '[neighbors]\ninterfaces = ["p*"]\n'


class RouterLab(lab.Lab):
    """A router with two ports: p1 with 10.0.1.1 and 2001:db8:1::1, p2 with 10.0.2.1 and 2001:db8:2::1."""

    def setUp(self):
        self.router = self.namespace()
        self.hosts = [self.namespace(), self.namespace()]
        for number, host in enumerate(self.hosts, 1):
            self.connect(number)
            host.ip(f'addr add 10.0.{number}.11/24 dev eth0')
            host.ip(f'addr add 2001:db8:{number}::11/64 dev eth0')

    def connect(self, number):
        port = f'p{number}'
        self.cable(self.router, port, self.hosts[number - 1], 'eth0')
        self.router.ip(f'addr add 10.0.{number}.1/24 dev {port}')
        self.router.ip(f'addr add 2001:db8:{number}::1/64 dev {port}')

    def neighbor(self, addr, port, verb='replace', state='reachable', mac='02:00:00:00:00:11'):
        self.router.ip(f'neigh {verb} {addr} dev {port} lladdr {mac} nud {state}')

    def forget(self, addr, port):
        self.router.ip(f'neigh del {addr} dev {port}')

    def learn(self):
        """Makes a host known on p1, in both families, and one on p2."""
        self.neighbor('10.0.1.11', 'p1')
        self.neighbor('10.0.2.11', 'p2')
        self.neighbor('2001:db8:1::11', 'p1')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1', '10.0.2.11': 'p2'})
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'}, 6)

    def learn_one(self):
        self.neighbor('10.0.1.11', 'p1')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'})

    def changes(self, verb, addresses):
        """Lines for Namespace.batch() that add or delete permanent neighbours on p1."""
        suffix = ' lladdr 02:00:00:00:00:11 nud permanent' if verb == 'replace' else ''
        return [f'neigh {verb} {address} dev p1{suffix}' for address in addresses]

    def bridge(self):
        """Makes p1 a port of the bridge pbr, which gets its address."""
        for command in ('link add pbr type bridge', 'link set pbr up', 'addr flush dev p1',
                        'link set p1 master pbr', 'addr add 10.0.1.1/24 dev pbr'):
            self.router.ip(command)


class HostsTest(RouterLab):
    def test_resolved_hosts_get_routes_of_both_families_and_failed_ones_lose_them(self):
        self.daemon(self.router, PORTS)
        for number, host in enumerate(self.hosts, 1):
            self.ping(host, f'10.0.{number}.1')
            self.ping(host, f'2001:db8:{number}::1')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1', '10.0.2.11': 'p2'})
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1', '2001:db8:2::11': 'p2'}, 6)
        # From here on the hosts do not have these addresses.
        self.hosts[0].ip('addr del 10.0.1.11/24 dev eth0')
        self.hosts[1].ip('addr del 2001:db8:2::11/64 dev eth0')
        self.router.ip('neigh replace 10.0.1.11 dev p1 nud failed')
        self.forget('2001:db8:2::11', 'p2')
        self.assertRoutes(self.router, {'10.0.2.11': 'p2'})
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'}, 6)

    def test_a_neighbor_counts_only_where_it_belongs_and_in_a_usable_state(self):
        self.daemon(self.router, PORTS)
        self.neighbor('10.0.2.50', 'p1')  # in the other port's subnet
        self.neighbor('192.0.2.1', 'p1')  # in no subnet
        self.neighbor('10.0.1.51', 'p1', state='noarp')
        self.neighbor('fe80::51', 'p1')
        self.router.ip('neigh add proxy 10.0.1.52 dev p1')
        self.router.ip('neigh add 10.0.1.53 dev p1 lladdr 02:00:00:00:00:53 extern_learn')
        self.neighbor('10.0.1.54', 'p1', state='stale')
        self.assertRoutes(self.router, {'10.0.1.54': 'p1'})
        self.assertEqual(self.router.host_routes(6), {})

    def test_interfaces_that_are_not_selected_get_no_routes(self):
        self.daemon(self.router, '[neighbors]\ninterfaces = ["p*", "!p2"]\n')
        self.neighbor('10.0.2.11', 'p2')
        self.learn_one()

    def test_a_host_moves_between_ports_that_a_cover_joins(self):
        self.router.ip('addr flush dev p1')
        self.router.ip('addr flush dev p2')
        for port in ('p1', 'p2'):
            self.router.ip(f'addr add 10.9.0.1/32 dev {port}')
        self.daemon(self.router,
                    PORTS + '[[cover]]\nprefix = "10.9.0.0/24"\ninterfaces = ["p*"]\n')
        self.neighbor('10.9.0.11', 'p1')
        self.assertRoutes(self.router, {'10.9.0.11': 'p1'})
        self.neighbor('10.9.0.11', 'p2')
        self.assertRoutes(self.router, {'10.9.0.11': 'p1 p2'})
        self.forget('10.9.0.11', 'p1')
        self.assertRoutes(self.router, {'10.9.0.11': 'p2'})

    def test_a_static_host_route_wins_and_a_routing_protocols_does_not(self):
        self.daemon(self.router, PORTS)
        self.router.ip('route add 10.0.1.20/32 via 10.0.2.11 proto static')
        self.router.ip('route add 10.0.1.21/32 via 10.0.2.11 proto bgp')
        self.neighbor('10.0.1.20', 'p1')
        self.neighbor('10.0.1.21', 'p1')
        self.assertRoutes(self.router, {'10.0.1.21': 'p1'})
        self.router.ip('route del 10.0.1.20/32')
        self.assertRoutes(self.router, {'10.0.1.20': 'p1', '10.0.1.21': 'p1'})


class InterfacesTest(RouterLab):
    """Routes that the kernel drops without a notification, when an interface goes down."""

    def setUp(self):
        super().setUp()
        self.hostrouted = self.daemon(self.router, PORTS)

    def assert_only_p2(self):
        self.assertRoutes(self.router, {'10.0.2.11': 'p2'})
        self.assertRoutes(self.router, {}, 6)

    def disturbances(self):
        """Commands that remove p1's hosts, and commands that restore the port without hosts."""
        def restore_addresses():
            self.router.ip('addr replace 10.0.1.1/24 dev p1')
            self.router.ip('addr replace 2001:db8:1::1/64 dev p1')

        def rename(former, name):
            self.router.ip(f'link set {former} down')
            self.router.ip(f'link set {former} name {name}')
            self.router.ip(f'link set {name} up')

        def up():
            self.router.ip('link set p1 up')
            restore_addresses()

        def rename_back():
            rename('p9', 'p1')
            restore_addresses()

        def carrier(state):
            self.hosts[0].ip(f'link set eth0 {state}')
            self.assertEventually(
                lambda: ('LOWER_UP' in self.router.ip_json('link show p1')[0]['flags'])
                == (state == 'up'), f'the carrier is {state}')

        return {'down': (lambda: self.router.ip('link set p1 down'), up),
                'no carrier': (lambda: carrier('down'), lambda: carrier('up')),
                'renamed': (lambda: rename('p1', 'p9'), rename_back),
                'no address': (lambda: self.router.ip('addr flush dev p1'), restore_addresses),
                'deleted': (lambda: self.router.ip('link del p1'), lambda: self.connect(1))}

    def test_routes_go_with_their_interface_and_come_back(self):
        for name, (disturb, restore) in self.disturbances().items():
            with self.subTest(name):
                self.learn()
                disturb()
                self.assert_only_p2()
                restore()
                self.learn()

    def test_changes_while_no_daemon_runs_give_the_same_result(self):
        for name, (disturb, restore) in self.disturbances().items():
            for restored_first in (False, True):
                with self.subTest(name, restored_first=restored_first):
                    self.learn()
                    self.hostrouted.end(signal.SIGKILL)
                    disturb()
                    for port in ('p1', 'p9'):
                        self.router.ip(f'neigh flush dev {port} nud all', check=False)
                    if restored_first:
                        restore()
                    self.hostrouted.start()
                    self.assert_only_p2()
                    if not restored_first:
                        restore()
                    self.learn()

    def test_an_unannounced_loss_is_announced_by_adding_and_deleting_a_route(self):
        self.learn()
        with lab.Monitor(self.router) as monitor:
            self.router.ip('link set p1 down')
            self.assertEventually(
                lambda: any('Deleted' in line and 'table 10' in line
                            for line in monitor.about('10.0.1.11')), 'the loss is announced')
        self.assert_only_p2()

    def test_hosts_that_come_move_fail_or_flap_while_no_daemon_runs(self):
        self.hostrouted.set_config(PORTS + '[[cover]]\nprefix = "10.9.0.0/24"\ninterfaces = ["p*"]\n')
        self.hostrouted.send(signal.SIGHUP)
        self.learn()
        self.neighbor('10.9.0.1', 'p1')
        self.neighbor('10.9.0.2', 'p1')
        before = {'10.0.1.11': 'p1', '10.0.2.11': 'p2', '10.9.0.1': 'p1', '10.9.0.2': 'p1'}
        self.assertRoutes(self.router, before)
        self.hostrouted.end(signal.SIGKILL)
        self.neighbor('10.0.1.12', 'p1')
        self.neighbor('10.9.0.1', 'p2')
        self.forget('10.9.0.1', 'p1')
        self.neighbor('10.0.1.11', 'p1', state='failed')
        for addr in ('10.9.0.2', '10.9.0.3'):
            for _ in range(3):
                self.neighbor(addr, 'p1')
                self.forget(addr, 'p1')
        self.neighbor('10.9.0.3', 'p1')
        self.hostrouted.start()
        self.assertRoutes(self.router, {'10.0.1.12': 'p1', '10.0.2.11': 'p2', '10.9.0.1': 'p2',
                                        '10.9.0.3': 'p1'})

    def test_a_renamed_interface_keeps_its_hosts_under_its_new_name(self):
        self.learn()
        self.router.ip('link set p1 down')
        self.router.ip('link set p1 name p9')
        self.router.ip('link set p9 up')
        self.neighbor('10.0.1.11', 'p9')
        self.assertRoutes(self.router, {'10.0.1.11': 'p9', '10.0.2.11': 'p2'})

    def test_a_port_that_joins_a_bridge_loses_its_hosts_to_the_bridge(self):
        self.learn()
        self.bridge()
        self.neighbor('10.0.1.11', 'pbr')
        self.assertRoutes(self.router, {'10.0.1.11': 'pbr', '10.0.2.11': 'p2'})

    def test_hosts_on_a_port_without_carrier_are_probed_at_once(self):
        self.bridge()
        self.ping(self.hosts[0], '10.0.1.1')
        self.assertEventually(lambda: '10.0.1.11' in self.router.host_routes(), 'the host is there')
        self.hosts[0].ip('link set eth0 down')
        self.assertEventually(lambda: '10.0.1.11' not in self.router.host_routes(),
                              'the host is gone')


class ProcessTest(RouterLab):
    """Restarts, other writers, signals, lost notifications."""

    def test_a_restart_does_not_write_unchanged_routes(self):
        first = self.daemon(self.router, PORTS)
        for last in range(10, 40):
            self.neighbor(f'10.0.1.{last}', 'p1', mac=f'02:00:00:00:00:{last}')
        self.assertEventually(lambda: len(self.router.host_routes()) == 30, 'all are there')
        for end in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(end.name):
                self.assertEqual(first.end(end), 0 if end == signal.SIGTERM else -signal.SIGKILL)
                self.forget(f'10.0.1.{10 + end}', 'p1')  # lost while no daemon ran
                with lab.Monitor(self.router) as monitor:
                    first.start()
                    self.assertEventually(
                        lambda: f'10.0.1.{10 + end}' not in self.router.host_routes(), 'it went')
                told = monitor.about(f'proto {lab.PROTOCOL}')
                self.assertTrue(told)
                self.assertTrue(all(f'10.0.1.{10 + end} ' in line for line in told), told)

    def test_flushed_routes_are_restored_at_a_limited_rate(self):
        daemon = self.daemon(self.router, PORTS + '[repair]\ninterval = 0.5\n')
        self.learn_one()
        for _ in range(3):
            self.router.ip('route flush table 10')
            self.assertRoutes(self.router, {'10.0.1.11': 'p1'})
        self.assertGreaterEqual(daemon.fresh_status()['counters']['repaired'], 3)

    def test_a_conflicting_route_of_another_protocol_stays_and_is_shown(self):
        daemon = self.daemon(self.router, PORTS)
        self.neighbor('10.0.1.11', 'p1')
        self.neighbor('2001:db8:1::11', 'p1')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'})
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'}, 6)
        for family, route in ((4, '10.0.1.11/32'), (6, '2001:db8:1::11/128 metric 1024')):
            with self.subTest(family=family):
                self.router.ip(f'-{family} route replace {route} dev p2 table 10 proto static')
                self.assertEventually(
                    lambda: [row['reason'] for row in daemon.fresh_status()['problems']]
                    == ['File exists'], 'it is shown')
                self.assertIn(f'refuses {route.split()[0]} in table 10: File exists',
                              daemon.log_text())
                shown = self.router.ip(f'-{family} route show table 10')
                self.assertIn('proto static', shown)
                self.router.ip(f'-{family} route del {route} dev p2 table 10 proto static')
                self.assertRoutes(self.router, {route.split('/')[0]: 'p1'}, family)
                self.assertEventually(lambda: not daemon.fresh_status()['problems'], 'it is over')

    def test_a_replaced_route_is_deleted_and_added(self):
        self.daemon(self.router, PORTS)
        self.neighbor('2001:db8:1::11', 'p1')
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'}, 6)
        with lab.Monitor(self.router, 6) as monitor:
            # Replaced by an equal route. A routing daemon drops it all the same.
            self.router.ip('-6 route replace 2001:db8:1::11/128 dev p1 table 10 '
                           f'proto {lab.PROTOCOL}')
            self.assertEventually(lambda: len(monitor.about('2001:db8:1::11 ')) > 2, 'it is mended')
        kinds = ['Deleted' in line for line in monitor.about('2001:db8:1::11 ')]
        self.assertEqual(kinds, [False, True, False], monitor.lines)
        self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'}, 6)

    def test_an_idle_daemon_notifies_the_watchdog(self):
        daemon = self.daemon(self.router, PORTS, start=False)
        path = os.path.join(daemon.directory, 'notify')
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(path)
            manager.settimeout(lab.TIMEOUT)
            daemon.wrapper = ['env', f'NOTIFY_SOCKET={path}', 'WATCHDOG_USEC=200000']
            daemon.start(wait=False)
            told = ''
            while told.count('WATCHDOG=1') < 5:
                told += manager.recv(4096).decode()
            self.assertIn('READY=1', told)

    def test_a_second_daemon_on_the_table_refuses(self):
        self.daemon(self.router, PORTS)
        second = self.daemon(self.router, PORTS, start=False)
        second.start(wait=False)
        self.assertEqual(second.process.wait(lab.TIMEOUT), 3)
        self.assertIn('another hostrouted writes to', second.log_text())
        third = self.daemon(self.router, PORTS + '[export]\ntable = 20\ntable6 = 20\n')
        self.assertEqual(third.end(), 0)

    def test_on_exit_decides_whether_the_routes_stay(self):
        self.neighbor('10.0.1.11', 'p1')
        for on_exit, expected in (('keep', {'10.0.1.11': 'p1'}), ('flush', {})):
            daemon = self.daemon(self.router, PORTS + f'[export]\non-exit = "{on_exit}"\n')
            self.assertRoutes(self.router, {'10.0.1.11': 'p1'})
            self.assertEqual(daemon.end(), 0)
            self.assertEqual(self.router.host_routes(), expected)

    def test_sighup_changes_exactly_what_differs(self):
        daemon = self.daemon(self.router, PORTS)
        self.neighbor('10.0.1.11', 'p1')
        self.neighbor('10.0.2.11', 'p2')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1', '10.0.2.11': 'p2'})
        daemon.set_config('[neighbors]\ninterfaces = ["p1"]\n')
        daemon.send(signal.SIGHUP)
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'})
        daemon.set_config('[neighbors]\ninterfaces = ["p2"]\n[export]\ntable = 20\n')
        daemon.send(signal.SIGHUP)
        self.assertRoutes(self.router, {'10.0.2.11': 'p2'}, table=20)
        self.assertRoutes(self.router, {})
        daemon.set_config('[neighbors]\ninterfaces = 5\n')
        daemon.send(signal.SIGHUP)
        self.assertEventually(lambda: 'hostrouted.toml:2: neighbors.interfaces' in daemon.log_text(),
                              'the error is told')
        self.neighbor('10.0.2.12', 'p2')
        self.assertRoutes(self.router, {'10.0.2.11': 'p2', '10.0.2.12': 'p2'}, table=20)

    def test_a_former_table_is_emptied(self):
        for announces in ('true', 'false'):
            for restarts in (False, True):
                with self.subTest(announces=announces, restarts=restarts):
                    repair = f'[repair]\nannounce-silent-loss = {announces}\n'
                    daemon = self.daemon(self.router, PORTS + repair)
                    self.learn_one()
                    daemon.set_config(PORTS + repair + '[export]\ntable = 20\n')
                    if restarts:
                        daemon.end(signal.SIGKILL)
                        daemon.start()
                    else:
                        daemon.send(signal.SIGHUP)
                    self.assertRoutes(self.router, {'10.0.1.11': 'p1'}, table=20)
                    self.assertRoutes(self.router, {})
                    self.forget('10.0.1.11', 'p1')
                    self.assertRoutes(self.router, {}, table=20)
                    daemon.end()

    def test_a_selection_without_interfaces_is_reported(self):
        daemon = self.daemon(self.router, '[neighbors]\ninterfaces = ["swp*"]\n')
        self.assertIn('no interface that there is now is selected by "swp*"', daemon.log_text())

    def test_a_dry_run_prints_the_routes_and_writes_none(self):
        self.neighbor('10.0.1.11', 'p1')
        printed = self.router.run(lab.PROGRAM, '--interfaces', 'p*', '--dry-run')
        self.assertIn('10.0.1.11', printed)
        self.assertEqual(self.router.host_routes(), {})

    def test_a_host_that_flaps_is_damped_and_shown(self):
        daemon = self.daemon(self.router,
                             PORTS + '[damping]\nchanges = 4\nwindow = 60\nquiet = 10\n')
        damped = [('10.0.1.11/32', 'damped')]
        problems = lambda: [(row['prefix'], row['reason'])
                            for row in daemon.fresh_status()['problems']]
        def flaps():
            """On a slow machine the quiet time may end meanwhile: the daemon then counts from 0."""
            self.forget('10.0.1.11', 'p1')
            self.assertRoutes(self.router, {})
            self.neighbor('10.0.1.11', 'p1')
            self.assertEventually(lambda: self.router.host_routes() or problems(),
                                  'it comes or is damped')
            return problems() == damped
        self.learn_one()
        self.assertEventually(flaps, 'it is damped')
        routes = self.router.host_routes()
        if problems() == damped:  # on a slow machine the quiet is over
            self.assertEqual(routes, {})
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'})  # after the quiet

    def test_the_daemon_recovers_from_lost_notifications(self):
        # The buffer is so small that every burst overflows it.
        daemon = self.daemon(self.router, PORTS + '[daemon]\nreceive-buffer = 1\n')
        self.router.ip('addr add 10.64.0.1/10 dev p1')
        count = 100000
        addresses = [f'10.{64 + i // 65536}.{i // 256 % 256}.{i % 256}'
                     for i in range(256, 256 + count)]
        add = self.changes('replace', addresses)
        daemon.send(signal.SIGSTOP)  # the daemon cannot read the burst
        self.router.batch(add)
        daemon.send(signal.SIGCONT)
        self.router.batch(self.changes('del', addresses[::3]))
        self.router.batch(add[::6])
        kept = set(addresses) - set(addresses[::3]) | set(addresses[::6])
        found = lambda: set(self.router.host_routes())
        self.assertEventually(lambda: found() == kept, lambda: f'{len(found() - kept)} too many, '
                              f'{len(kept - found())} missing: {daemon.fresh_status()}')
        status = daemon.fresh_status()
        self.assertGreater(status['counters']['resynchronisations'], 0)
        self.assertEqual(status['phase'], 'ready')
        self.assertEqual(status['routes'], len(kept))

    def test_routes_stay_while_the_kernels_state_cannot_be_read(self):
        if lab.is_sanitized():
            self.skipTest('the sanitizers need descriptors themselves')
        daemon = self.daemon(self.router, PORTS + '[daemon]\nreceive-buffer = 1\n')
        self.learn_one()
        self.router.ip('addr add 10.64.0.1/10 dev p1')
        limit = resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE)
        daemon.send(signal.SIGSTOP)
        resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE, (3, limit[1]))
        self.router.batch(self.changes(
            'replace', [f'10.64.{n // 250}.{n % 250 + 2}' for n in range(20000)]))
        daemon.send(signal.SIGCONT)
        failure = "cannot read the kernel's state: opening of a netlink socket: Too many open files"
        self.assertEventually(lambda: failure in daemon.log_text(), 'the failure is reported')
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'})
        resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE, limit)
        self.assertEventually(lambda: len(self.router.host_routes()) == 20001, 'all are there')

    def test_a_restart_withdraws_nothing_before_all_notifications_are_read(self):
        daemon = self.daemon(self.router, PORTS)
        self.router.ip('addr add 10.64.0.1/10 dev p1')
        addresses = [f'10.64.{i // 256}.{i % 256}' for i in range(256, 256 + 5000)]
        add = self.changes('replace', addresses)
        self.router.batch(add)
        self.assertRoutes(self.router, {addr: 'p1' for addr in addresses})
        daemon.end(signal.SIGKILL)
        # The daemon opens its socket, locks its directory, and waits for a reader of its recording.
        lock, pipe = (os.path.join(daemon.directory, name) for name in ('run/lock', 'pipe'))
        os.unlink(lock)
        os.mkfifo(pipe)
        daemon.arguments = ['--record', pipe]
        daemon.start(wait=False)
        self.assertEventually(lambda: os.path.exists(lock), 'it receives notifications')
        with lab.Monitor(self.router) as monitor:
            self.router.batch(self.changes('del', addresses) + add)
            with subprocess.Popen(['cat', pipe], stdout=subprocess.DEVNULL) as reader:
                try:
                    daemon.wait_until_ready()
                    daemon.end()
                finally:
                    reader.kill()
        self.assertEqual(monitor.about(f'proto {lab.PROTOCOL}'), [])
        self.assertEqual(len(self.router.host_routes()), len(addresses))


class BurstTest(RouterLab):
    """Disturbances while a thread writes many routes."""

    COUNT = 20000

    def setUp(self):
        super().setUp()
        self.router.ip('addr add 10.64.0.1/10 dev p1')
        self.addresses = [f'10.64.{i // 256}.{i % 256}' for i in range(256, 256 + self.COUNT)]
        self.all = {address: 'p1' for address in self.addresses}

    def await_some(self, table=10):
        """Waits until a part of the burst has routes."""
        self.assertEventually(lambda: len(self.router.host_routes(table=table)) > 500,
                              'some routes are there')

    def advertised(self, daemon):
        keys = set()
        path = os.path.join(daemon.directory, 'state', 'advertised')
        with open(path, encoding='utf-8') as file:
            for verb, _, prefix, *_ in (line.split() for line in list(file)[1:]):
                (keys.add if verb == '+' else keys.discard)(prefix.removesuffix('/32'))
        return keys

    def test_a_restart_continues_an_interrupted_burst(self):
        daemon = self.daemon(self.router, PORTS)
        with self.router.started_batch(self.changes('replace', self.addresses)):
            self.await_some()
            self.assertEqual(daemon.end(), 0)
            self.assertLessEqual(set(self.router.host_routes()), self.advertised(daemon))
        daemon.start()
        self.assertRoutes(self.router, self.all)
        self.assertEqual(daemon.fresh_status()['counters']['silentLosses'], 0)

    def test_a_flush_on_exit_leaves_nothing_of_a_burst(self):
        daemon = self.daemon(self.router, PORTS + '[export]\non-exit = "flush"\n')
        with self.router.started_batch(self.changes('replace', self.addresses)):
            self.await_some()
            self.assertEqual(daemon.end(), 0)
        self.assertEqual(self.router.host_routes(), {})
        self.assertEqual(self.advertised(daemon), set())

    def test_another_table_by_sighup_in_a_burst_gets_all_of_it(self):
        daemon = self.daemon(self.router, PORTS)
        with self.router.started_batch(self.changes('replace', self.addresses)):
            self.await_some()
            daemon.set_config(PORTS + '[export]\ntable = 20\n')
            daemon.send(signal.SIGHUP)
        self.assertRoutes(self.router, self.all, table=20)
        self.assertRoutes(self.router, {})

    def test_an_interface_that_goes_down_in_a_burst_keeps_no_routes_and_gets_them_back(self):
        daemon = self.daemon(self.router, PORTS)
        with self.router.started_batch(self.changes('replace', self.addresses)):
            self.await_some()
            self.router.ip('link set p1 down')
        # Entries that were added after it went down are still in the kernel.
        self.router.ip('neigh flush dev p1 nud all', check=False)
        self.assertRoutes(self.router, {})
        self.router.ip('link set p1 up')
        self.router.batch(self.changes('replace', self.addresses))
        self.assertRoutes(self.router, self.all)
        self.assertEventually(lambda: not daemon.fresh_status()['problems'], 'there are no problems')

    def test_kills_in_bursts_do_not_change_the_result(self):
        random.seed(17)
        daemon = self.daemon(self.router, PORTS)
        there = set()
        for _ in range(8):
            changed = set(random.sample(self.addresses, self.COUNT // 3))
            lines = self.changes('del', changed & there) + self.changes('replace', changed - there)
            with self.router.started_batch(lines):
                time.sleep(random.random() * 0.2)  # any moment will do
                daemon.end(signal.SIGKILL)
                daemon.start(wait=False)
            there ^= changed
        self.assertRoutes(self.router, {address: 'p1' for address in there})
        self.assertEventually(lambda: self.advertised(daemon) == there, 'the list names the routes')
        self.assertEventually(lambda: not daemon.fresh_status()['problems'], 'nothing is left')
        self.assertEqual(daemon.status()['routes'], len(there))


class VrfTest(RouterLab):
    def test_hosts_of_a_vrf_have_routes_in_its_table_in_all_changes_of_the_vrf(self):
        tried = subprocess.run(['ip', '-n', self.router.name, 'link', 'add', 'blue', 'type', 'vrf',
                                'table', '100'], capture_output=True, text=True, check=False)
        if tried.returncode != 0:
            self.skipTest(f'no VRF devices in this kernel: {tried.stderr.strip()}')
        self.router.ip('link set blue up')
        daemon = self.daemon(self.router, PORTS + ''.join(
            f'[export.vrf.{name}]\ntable = {table}\ntable6 = {table}\n'
            for name, table in (('blue', 110), ('red', 120))))

        def enslave(master):
            """The kernel removes the port's IPv6 addresses and its neighbours."""
            self.router.ip(f'link set p1 {master}')
            self.router.ip('addr replace 2001:db8:1::1/64 dev p1')
            self.router.ip('neigh flush dev p1 nud all', check=False)
            self.neighbor('10.0.1.11', 'p1')
            self.neighbor('2001:db8:1::11', 'p1')

        def assert_in(table):
            self.neighbor('10.0.2.11', 'p2')
            for other in {10, 110, 120}:
                own = {'10.0.2.11': 'p2'} if other == 10 else {}
                host = {'10.0.1.11': 'p1'} if other == table else {}
                self.assertRoutes(self.router, own | host, table=other)
                self.assertRoutes(self.router, {'2001:db8:1::11': 'p1'} if host else {}, 6, other)

        enslave('nomaster')
        assert_in(10)
        enslave('master blue')
        assert_in(110)
        # The same address elsewhere is another host.
        self.router.ip('addr add 10.0.1.2/24 dev p2')
        self.neighbor('10.0.1.11', 'p2')
        self.assertRoutes(self.router, {'10.0.1.11': 'p2', '10.0.2.11': 'p2'})
        self.assertRoutes(self.router, {'10.0.1.11': 'p1'}, table=110)
        self.forget('10.0.1.11', 'p2')
        self.router.ip('addr del 10.0.1.2/24 dev p2')
        assert_in(110)
        daemon.end(signal.SIGKILL)
        enslave('nomaster')
        daemon.start()
        assert_in(10)
        enslave('master blue')
        assert_in(110)
        self.router.ip('link set blue down')
        self.router.ip('link set blue name red')
        self.router.ip('link set red up')
        assert_in(120)
        self.router.ip('link del red')
        enslave('nomaster')
        assert_in(10)


class SharedTablesTest(RouterLab):
    def test_shared_tables_are_ready_after_the_first_pass(self):
        name = f'hostrouted-test-{os.getpid()}'
        self.neighbor('10.0.1.11', 'p1')
        daemon = self.daemon(self.router, PORTS, arguments=['--shared-tables', name])
        shown = run(lab.REPLAY, 'routes', '--table', name, '--wait', str(lab.TIMEOUT), '--json', '10.0.1.11/32')
        routes = [json.loads(line) for line in shown.splitlines()]
        self.assertEqual(routes[0]['route']['type'], 'attached_', shown)
        # The tables do not disturb a dry run, and they are removed with the daemon.
        self.router.run(lab.PROGRAM, '--interfaces', 'p*', '--shared-tables', name, '--dry-run')
        daemon.end()
        left = [file for file in os.listdir('/dev/shm') if name in file]
        self.assertEqual(left, [])


    def test_routes_refused_by_full_tables_are_shown_and_added_when_there_is_room(self):
        count = 3000
        small = 'mount -t tmpfs -o size=320k none /dev/shm && exec "$@"'
        daemon = lab.Daemon(self.router, PORTS, ['--shared-tables', 'full'],
                            wrapper=['unshare', '-m', 'sh', '-c', small, 'sh'])
        self.addCleanup(daemon.close)
        self.router.ip('addr add 10.8.0.1/16 dev p1')
        daemon.start()
        self.router.batch(self.changes(
            'replace', [f'10.8.{n // 250 + 1}.{n % 250 + 1}' for n in range(count)]))
        self.assertEventually(lambda: not daemon.fresh_status()['complete'], 'the tables are full')
        refused = [row for row in daemon.status()['tables'] if row['refusals'] > 0]
        self.assertTrue(refused)
        for row in refused:
            self.assertIn('No space left on device', row['lastRefusal'])
            self.assertIn(f'{row["lastRefusal"]}: it has', daemon.log_text())
        self.assertLess(len(self.router.host_routes()), count)
        run('nsenter', '-t', str(daemon.process.pid), '-m', 'mount', '-o', 'remount,size=16m',
            '/dev/shm')
        self.assertEventually(lambda: daemon.fresh_status()['complete'], 'the tables are whole')
        self.assertEventually(lambda: len(self.router.host_routes()) == count, 'all have routes')


class RecordingTest(RouterLab):
    def test_a_recordings_replay_ends_in_the_daemons_tables(self):
        file = os.path.join('/tmp', f'hostrouted-recording-{os.getpid()}.jsonl')
        self.addCleanup(lambda: os.path.exists(file) and os.unlink(file))
        daemon = self.daemon(self.router, PORTS, arguments=['--record', file])
        random.seed(20)
        for step in range(400):
            addr = f'10.0.{random.choice("12")}.{random.randrange(10, 30)}'
            port = random.choice(['p1', 'p2'])
            action = random.randrange(10)
            if action < 6:
                self.router.ip(f'neigh replace {addr} dev {port} lladdr 02:00:00:00:00:{step % 90 + 10}'
                               ' nud reachable', check=False)
            elif action < 8:
                self.router.ip(f'neigh del {addr} dev {port}', check=False)
            elif action == 8:
                self.router.ip(f'route replace 10.0.{random.choice("12")}.16/28 via 10.0.2.11',
                               check=False)
            else:
                self.router.ip(f'route del 10.0.{random.choice("12")}.16/28', check=False)
        daemon.end()
        live = self.router.host_routes()
        shown = run(lab.REPLAY, 'replay', '--settle', '--json', file)
        replayed = {}
        for line in shown.splitlines():
            dump = json.loads(line).get('dump', {})
            if dump.get('family') != 4:
                continue
            for route in dump['routeTable']:
                if route['type'] == 'attached_':
                    replayed[route['prefix'].split('/')[0]] = ' '.join(
                        sorted(via['intf'] for via in route['vias']))
        self.assertEqual(replayed, live)
        self.assertTrue(live)


    def test_a_recording_started_later_ends_in_the_daemons_state_also_when_anonymous(self):
        daemon = self.daemon(self.router, PORTS)
        self.neighbor('10.0.1.10', 'p1')
        self.neighbor('10.0.2.10', 'p1')  # in the other port's subnet
        self.neighbor('2001:db8:1::10', 'p1')
        self.assertRoutes(self.router, {'10.0.1.10': 'p1'})
        file = daemon.ask('record', 'start', 'r.jsonl').split()[-1]
        self.neighbor('10.0.1.12', 'p1')
        self.router.ip('route add 10.0.2.0/25 dev p1')  # now covers the neighbour
        self.forget('10.0.1.10', 'p1')
        self.neighbor('2001:db8:2::12', 'p2')
        self.assertRoutes(self.router, {'10.0.1.12': 'p1', '10.0.2.10': 'p1'})
        self.assertRoutes(self.router, {'2001:db8:1::10': 'p1', '2001:db8:2::12': 'p2'}, 6)
        daemon.ask('record', 'stop')
        def tables(dumps):
            # The numbers of adjacencies depend on the order of the events.
            return re.sub(r'"fec":\d{10,}', '"fec":0', dumps)
        self.assertEqual(tables(run(lab.REPLAY, 'replay', '--settle', '--json', file)),
                         tables(daemon.ask('dump', '--json')))
        anonymous = os.path.join(daemon.directory, 'anonymous.jsonl')
        with open(anonymous, 'w', encoding='utf-8') as out:
            out.write(run(lab.REPLAY, 'anonymize', file))
        with open(anonymous, encoding='utf-8') as text:
            self.assertNotRegex(text.read(), r'p1"|10\.0\.[12]\.1|02:00:00:00:00:11')
        shown = run(lab.REPLAY, 'replay', '--settle', '--json', anonymous)
        types = [sorted(route['type'] for route in json.loads(line)['dump']['routeTable'])
                 for line in shown.splitlines()]
        live = [sorted(route['type'] for route in json.loads(line)['dump']['routeTable'])
                for line in daemon.ask('dump', '--json').splitlines()]
        self.assertEqual(types, live)


class ControlTest(RouterLab):
    """The control socket of a running daemon, used by the commands and directly."""

    def setUp(self):
        super().setUp()
        self.hostrouted = self.daemon(self.router, PORTS)
        self.path = os.path.join(self.hostrouted.directory, 'run', 'control.sock')
        self.learn_one()

    def connect_socket(self):
        client = socket.socket(socket.AF_UNIX)
        client.connect(self.path)
        client.settimeout(lab.TIMEOUT)
        self.addCleanup(client.close)
        return client

    def test_the_commands_show_the_state(self):
        ask = self.hostrouted.ask
        self.neighbor('10.0.2.50', 'p1')
        self.assertIn('ready', ask('status'))
        rows = [json.loads(line)['neighbor'] for line in ask('neighbors', '--json').splitlines()]
        routed = {row['address']: row['route'] for row in rows if row['intf'] == 'p1'}
        self.assertEqual({key: routed.get(key) for key in ('10.0.1.11', '10.0.2.50')},
                         {'10.0.1.11': True, '10.0.2.50': False})
        routes = [json.loads(line)['route'] for line in ask('routes', '--json', '10.0.1.11').splitlines()]
        self.assertEqual((routes[0]['type'], routes[0]['kernel']), ('attached_', 'installed'))
        self.assertTrue(ask('metrics').endswith('# EOF\n'))
        self.assertIn('10.0.1.11/32', ask('dump'))
        self.assertIn('p1', ask('names', 'interfaces', 'p').split())
        ask('log-level', 'debug')
        self.assertEqual(ask('log-level'), 'debug\n')
        ask('resync')
        self.assertEqual(json.loads(ask('status', '--json'))['counters']['resynchronisations'], 1)
        self.hostrouted.append_config('[export]\ntabel = 3\n')
        refused = subprocess.run([lab.REPLAY, 'reload', '--socket', self.path],
                                 capture_output=True, text=True, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn('tabel', refused.stderr)

    def test_a_monitor_shows_changes_and_a_trace_one_address(self):
        def listen(*words):
            process = subprocess.Popen([lab.REPLAY, *words, '--socket', self.path],
                                       stdout=subprocess.PIPE, text=True)
            self.addCleanup(process.stdout.close)
            self.addCleanup(process.wait)
            self.addCleanup(process.kill)
            return process.stdout
        def await_line(stream):
            """Lets two hosts come and go until there is something to read."""
            end = time.time() + lab.TIMEOUT
            while time.time() < end:
                self.neighbor('10.0.2.77', 'p2')
                self.neighbor('10.0.1.77', 'p1')
                if select.select([stream], [], [], 0.5)[0]:
                    return
                self.forget('10.0.1.77', 'p1')
            self.fail('nothing to read')
        changes = listen('monitor', '10.0.1.0/24', '--json')
        await_line(changes)
        records = listen('trace', '10.0.1.77', '--levels', 'all', '--json')
        self.forget('10.0.1.77', 'p1')
        await_line(records)
        change = json.loads(changes.readline())['change']
        while change['change'] != 'added':
            change = json.loads(changes.readline())['change']
        self.assertEqual((change['prefix'], change['change'], change['cause']['kind']),
                         ('10.0.1.77/32', 'added', 'neighborLearned'))
        record = records.readline()
        self.assertIn('trace', json.loads(record))
        self.assertNotIn('10.0.2.77', record)

    def test_only_permitted_users_may_query_and_change(self):
        nobody = pwd.getpwnam('nobody')
        os.chmod(self.hostrouted.directory, 0o755)
        program = shutil.copy(lab.REPLAY, self.hostrouted.directory)  # where anybody may run it
        ask = lambda *words: subprocess.run(
            ['setpriv', f'--reuid={nobody.pw_uid}', f'--regid={nobody.pw_gid}', '--clear-groups',
             program, *words, '--socket', self.path], capture_output=True, text=True, check=False)
        refused = ask('status')
        self.assertEqual(refused.returncode, 1)
        self.assertIn('may not ask', refused.stderr)
        self.hostrouted.end()
        group = grp.getgrgid(nobody.pw_gid).gr_name
        self.hostrouted.append_config(f'[control]\ngroup = "{group}"\n')
        self.hostrouted.start()
        self.assertEventually(lambda: ask('status').returncode == 0, 'the group may ask')
        self.assertIn('only root', ask('resync').stderr)
        self.hostrouted.end()
        self.hostrouted.append_config(f'admin-group = "{group}"\n')
        self.hostrouted.start()
        self.assertEventually(lambda: ask('resync').returncode == 0, 'the group may change it')

    def test_hostile_clients_do_not_affect_others(self):
        flood = self.connect_socket()  # sends bytes without end that are no request
        try:
            flood.sendall(b'x' * (1 << 20))
        except (BrokenPipeError, ConnectionResetError):
            pass
        self.assertFalse(json.loads(flood.makefile().readline())['ok'])
        lazy = [self.connect_socket() for _ in range(8)]  # do not read the large answers
        for client in lazy:
            client.sendall(b'{"version":1,"request":"dump"}\n' * 20)
        listeners = [self.connect_socket() for _ in range(8)]
        for client in listeners:
            client.sendall(b'{"version":1,"request":"monitor"}\n')
        half = self.connect_socket()
        half.sendall(b'{"version":1,')
        for last in range(100, 200):
            self.neighbor(f'10.0.1.{last}', 'p1')
        self.assertEventually(lambda: len(self.router.host_routes()) == 101, 'all are there')
        self.assertIn('ready', self.hostrouted.ask('status'))
        crowd = [self.connect_socket() for _ in range(40)]
        self.assertIn('too many', crowd[-1].makefile().readline())
        for client in [*crowd, *lazy, *listeners]:
            client.close()
        self.assertEventually(
            lambda: subprocess.run([lab.REPLAY, 'status', '--socket', self.path], check=False,
                                   capture_output=True).returncode == 0, 'there is room again')
        # An incomplete request is dropped. The next request of another client is answered.
        half.shutdown(socket.SHUT_WR)
        self.assertFalse(json.loads(half.makefile().readline())['ok'])

    def test_the_doctor_examines_the_running_daemon(self):
        found = self.router.run(lab.REPLAY, 'doctor', '--json', '--socket', self.path, check=False)
        by_subject = {json.loads(line)['subject']: json.loads(line) for line in found.splitlines()}
        self.assertNotIn('protocol', by_subject)
        self.assertIn('arp_accept', by_subject)
        self.router.run('sh', '-c', by_subject['arp_accept']['mend'].replace('sysctl -w', 'sysctl -qw'))
        self.router.ip('route add 10.99.0.1/32 dev p1 table 99 proto 205')
        found = self.router.run(lab.REPLAY, 'doctor', '--json', '--socket', self.path, check=False)
        subjects = [json.loads(line)['subject'] for line in found.splitlines()]
        self.assertIn('protocol', subjects)
        self.assertNotIn('arp_accept', subjects)


if __name__ == '__main__':
    lab.main()
