"""The processes of the demo, and the ports of their services."""
import json
import os
import socket
import subprocess
import threading
import time

START_TIMEOUT = 60
WORK_TIMEOUT = 600


class DemoError(Exception):
    pass


PORT_CLAIMS = []  # held until this demo ends


def claim_port(port):
    """Reserves the port among the demos of this machine, by the name of an abstract socket. Returns: whether it was free."""
    claim = socket.socket(socket.AF_UNIX)
    try:
        claim.bind(f"\0vyn-demo-port-{port}")
    except OSError:
        claim.close()
        return False
    PORT_CLAIMS.append(claim)
    return True


def free_port(taken):
    # Below the kernel's range for outgoing connections, and within the bounds that vyn.conf and the clients accept.
    for port in range(20000 + os.getpid() % 5000, 32000):
        if port in taken or not claim_port(port):
            continue
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                continue
        taken.add(port)
        return port
    raise DemoError("no free port")


class Child:
    """A process whose standard output the demo reads line by line. It ends with the demo."""

    def __init__(self, name, command, log, namespace=None):
        self.name = name
        self.log = log
        if namespace:
            command = ["ip", "netns", "exec", namespace] + command
        command = ["setpriv", "--pdeathsig", "KILL"] + command
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=open(log, "ab"),
                                        text=True, start_new_session=True)
        self.lines = []
        self.changed = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append(None)
            self.changed.notify_all()

    def tail(self):
        with open(self.log, errors="replace") as log:
            return "".join(log.readlines()[-15:])

    def wait_line(self, wanted, timeout):
        """Returns: the first result of `wanted` for a line that is not None."""
        deadline = time.monotonic() + timeout
        seen = 0
        with self.changed:
            while True:
                for line in self.lines[seen:]:
                    if line is None:
                        raise DemoError(f"{self.name} ended early\n{self.tail()}")
                    answer = wanted(line)
                    if answer is not None:
                        return answer
                seen = len(self.lines)
                if not self.changed.wait(max(0, deadline - time.monotonic())) and time.monotonic() >= deadline:
                    raise DemoError(f"{self.name} said nothing for {timeout} s\n{self.tail()}")

    def event(self, name, timeout=WORK_TIMEOUT):
        def wanted(line):
            try:
                data = json.loads(line)
            except ValueError:
                return None
            return data if isinstance(data, dict) and data.get("event") == name else None

        return self.wait_line(wanted, timeout)

    def say(self, text="go"):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def finish(self):
        """Waits for the end of the process. Raises DemoError unless its exit code is 0."""
        try:
            code = self.process.wait(WORK_TIMEOUT)
        except subprocess.TimeoutExpired:
            raise DemoError(f"{self.name} did not end within {WORK_TIMEOUT} s\n{self.tail()}") from None
        if code != 0:
            raise DemoError(f"{self.name} ended with {code}\n{self.tail()}")

    def stop(self, timeout=8):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
