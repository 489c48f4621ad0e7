"""Network namespaces with a router and hosts in them, and a hostrouted on the router."""
import contextlib
import json
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

PROGRAM = os.environ.get('HOSTROUTED', 'build/release/bin/hostrouted')
REPLAY = os.environ.get('HOSTROUTE', 'build/release/bin/hostroute')
PROTOCOL = 205
TIMEOUT = 240  # seconds; generous: only a failure takes that long


def is_sanitized():
    """Whether the program was built with a sanitizer."""
    with open(PROGRAM, 'rb') as program:
        return b'__ubsan_handle' in program.read()


def why_not():
    """The reason why namespaces are not available; None when they are."""
    if os.geteuid() != 0:
        return 'only root can make network namespaces'
    if shutil.which('ip') is None:
        return 'there is no ip command'
    name = f'hr{os.getpid()}probe'
    tried = subprocess.run(['ip', 'netns', 'add', name], capture_output=True, text=True)
    if tried.returncode != 0:
        return f'no network namespaces here: {tried.stderr.strip()}'
    subprocess.run(['ip', 'netns', 'del', name], check=True)
    return None


def run(*command, check=True, **options):
    result = subprocess.run(command, capture_output=True, text=True, **options)
    if check and result.returncode != 0:
        raise AssertionError(f'{" ".join(command)}: status {result.returncode}: {result.stderr}')
    return result.stdout


class Namespace:
    """A network namespace with its loopback interface up."""

    serial = 0

    def __init__(self):
        Namespace.serial += 1
        self.name = f'hr{os.getpid()}n{Namespace.serial}'
        run('ip', 'netns', 'add', self.name)
        self.ip('link set lo up')

    def close(self):
        run('ip', 'netns', 'del', self.name, check=False)

    def command(self, *words):
        return ['ip', 'netns', 'exec', self.name, *words]

    def run(self, *words, **options):
        return run(*self.command(*words), **options)

    def ip(self, words, check=True):
        return run('ip', '-n', self.name, *words.split(), check=check)

    def ip_json(self, words):
        found = subprocess.run(['ip', '-n', self.name, '-j', *words.split()], capture_output=True,
                               text=True, check=False)
        # For `ip`, a table without routes since the boot is an error.
        return json.loads(found.stdout or '[]') if found.returncode == 0 else []

    def batch(self, lines):
        """Runs ip commands, one on each line. Continues after a failed command."""
        subprocess.run(['ip', '-n', self.name, '-force', '-batch', '-'], input='\n'.join(lines),
                       text=True, check=False, capture_output=True)

    @contextlib.contextmanager
    def started_batch(self, lines):
        """The same while the block runs; waits for its end after it."""
        with tempfile.NamedTemporaryFile('w') as file:
            file.write('\n'.join(lines) + '\n')
            file.flush()
            with subprocess.Popen(['ip', '-n', self.name, '-force', '-batch', file.name],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL):
                yield

    def sysctl(self, key, value):
        self.run('sysctl', '-qw', f'{key}={value}')

    def host_routes(self, family=4, table=10):
        """The routes of hostrouted in a table: prefix to "DEV" or "DEV DEV"."""
        routes = {}
        for row in self.ip_json(f'-{family} route show table {table} proto {PROTOCOL}'):
            devices = [hop['dev'] for hop in row.get('nexthops', [])] or [row.get('dev', '-')]
            routes[row['dst']] = ' '.join(sorted(devices))
        return routes


class Monitor:
    """Records the output of `ip monitor route` for one family during the block, in `lines`."""

    MARKS = {4: '192.0.2.%d/32', 6: '2001:db8:ffff::%d/128'}

    def __init__(self, namespace, family=4):
        self.namespace, self.family = namespace, family
        self.lines = []

    def __enter__(self):
        self.process = subprocess.Popen(
            self.namespace.command('stdbuf', '-oL', 'ip', f'-{self.family}', 'monitor', 'route'),
            stdout=subprocess.PIPE, text=True)
        self.reader = threading.Thread(target=self.read)
        self.reader.start()
        try:
            self.hear(1)
        except BaseException:
            self.end()
            raise
        return self

    def read(self):
        for line in self.process.stdout:
            self.lines.append(line)

    def hear(self, number):
        """Waits until the monitor shows a route that is added and deleted now."""
        mark = self.MARKS[self.family] % number
        end = time.time() + TIMEOUT
        while not self.about(f'{mark.split("/")[0]} '):
            if time.time() > end:
                raise AssertionError(f'the monitor shows {self.lines}, not {mark}')
            for verb in ('add', 'del'):
                self.namespace.ip(f'-{self.family} route {verb} blackhole {mark} table 4242')
            time.sleep(0.02)

    def about(self, text):
        return [line for line in self.lines if text in line]

    def __exit__(self, *error):
        try:
            self.hear(2)
        finally:
            self.end()

    def end(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()


class Daemon:
    """A hostrouted in a namespace, with its own directories."""

    def __init__(self, namespace, config='', arguments=(), wrapper=()):
        self.namespace = namespace
        self.directory = tempfile.mkdtemp(prefix='hostrouted-test-')
        self.config_file = os.path.join(self.directory, 'hostrouted.toml')
        self.arguments = list(arguments)
        self.wrapper = list(wrapper)  # the command that starts the program
        self.process = None
        self.set_config(config)

    def set_config(self, text):
        self.append_config(text, 'w')

    def append_config(self, text, mode='a'):
        with open(self.config_file, mode, encoding='utf-8') as file:
            file.write(text)

    def start(self, wait=True):
        with open(os.path.join(self.directory, 'log'), 'a', encoding='utf-8') as log:
            self.process = subprocess.Popen(
                self.namespace.command(*self.wrapper, PROGRAM, '--config', self.config_file,
                                       '--run-dir', os.path.join(self.directory, 'run'),
                                       '--state-dir', os.path.join(self.directory, 'state'),
                                       *self.arguments),
                stdout=log, stderr=log)
        if wait:
            self.wait_until_ready()

    def wait_until_ready(self):
        self.wait_for(lambda: self.status().get('phase') == 'ready', 'is ready')

    def status(self):
        """The last status that this process wrote."""
        path = os.path.join(self.directory, 'run', 'status.json')
        try:
            with open(path, encoding='utf-8') as file:
                status = json.load(file)
        except (FileNotFoundError, json.JSONDecodeError):
            return {}
        return status if status['pid'] == self.process.pid else {}

    def fresh_status(self):
        """The current status."""
        path = os.path.join(self.directory, 'run', 'status.json')
        def version():
            file = os.stat(path)
            return file.st_ino, file.st_mtime_ns
        before = version()
        self.send(signal.SIGUSR1)
        self.wait_for(lambda: version() != before, 'writes its status')
        return self.status()

    def wait_for(self, condition, what):
        end = time.time() + TIMEOUT
        while not condition():
            if self.process.poll() is not None:
                raise AssertionError(f'hostrouted ended with {self.process.returncode}:\n'
                                     + self.log_text())
            if time.time() > end:
                raise AssertionError(f'hostrouted never {what}:\n' + self.log_text())
            time.sleep(0.02)

    def ask(self, *words):
        """Runs `hostroute` on this daemon and returns its output."""
        return run(REPLAY, *words, '--socket', os.path.join(self.directory, 'run', 'control.sock'))

    def log_text(self):
        with open(os.path.join(self.directory, 'log'), encoding='utf-8') as file:
            return file.read()

    def send(self, number):
        self.process.send_signal(number)

    def end(self, number=signal.SIGTERM):
        """Ends the process and returns its exit status."""
        if self.process is None:
            return None
        self.process.send_signal(number)
        status = self.process.wait(TIMEOUT)
        self.process = None
        return status

    def close(self):
        if self.process is not None and self.process.poll() is None:
            self.end(signal.SIGKILL)
        shutil.rmtree(self.directory, ignore_errors=True)


class Lab(unittest.TestCase):
    """A test that removes its namespaces and daemons at its end."""

    def namespace(self):
        namespace = Namespace()
        self.addCleanup(namespace.close)
        return namespace

    def daemon(self, namespace, config='', arguments=(), start=True):
        daemon = Daemon(namespace, config, arguments)
        self.addCleanup(daemon.close)
        if start:
            daemon.start()
        return daemon

    def cable(self, a, a_name, b, b_name):
        """Connects two namespaces by a pair of interfaces with these names."""
        run('ip', '-n', a.name, 'link', 'add', a_name, 'type', 'veth', 'peer', 'name', b_name,
            'netns', b.name)
        for namespace, name in ((a, a_name), (b, b_name)):
            namespace.run('sh', '-c', f'echo 0 > /proc/sys/net/ipv6/conf/{name}/accept_dad')
            namespace.ip(f'link set {name} up')

    def ping(self, host, addr):
        """Lets a host send to an address until an answer comes."""
        self.assertEventually(lambda: subprocess.run(
            host.command('ping', '-c1', '-W1', addr), capture_output=True,
            check=False).returncode == 0, f'an answer from {addr}')

    def assertRoutes(self, namespace, expected, family=4, table=10):
        """Waits until the daemon's routes in a table equal `expected`."""
        end = time.time() + TIMEOUT
        while (found := namespace.host_routes(family, table)) != expected:
            if time.time() > end:
                self.assertEqual(found, expected)
            time.sleep(0.02)

    def assertEventually(self, condition, what):
        end = time.time() + TIMEOUT
        while not condition():
            if time.time() > end:
                self.fail(f'never: {what() if callable(what) else what}')
            time.sleep(0.02)


def main():
    reason = why_not()
    if reason:
        print(f'skipped: {reason}')
        raise SystemExit(77)
    unittest.main(verbosity=2)
