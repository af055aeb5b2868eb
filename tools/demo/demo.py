#!/usr/bin/env python3
"""Broadcasts a file from a driver process to executor processes through real services. Starts and ends all processes.

Default: one node on loopback with ZooKeeper, vynd, a driver and executors. With --outside: three network namespaces; two
are nodes of the fabric with one executor each, and the driver runs in the third, outside the fabric.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # write no __pycache__ into the source tree
from processes import START_TIMEOUT, Child, DemoError, free_port  # noqa: E402
from table import human, print_table  # noqa: E402


def size(text):
    match = re.fullmatch(r"(\d+)([kKmMgG]?)i?[bB]?", text)
    if not match or int(match[1]) == 0:
        raise argparse.ArgumentTypeError(f"'{text}' is no size like 4M")
    return int(match[1]) << {"": 0, "k": 10, "m": 20, "g": 30}[match[2].lower()]


class Demo:
    def __init__(self, options):
        self.options = options
        self.stage = options.stage
        self.children = []
        self.namespaces = []
        self.pools = []
        self.ports = set()
        self.folder = tempfile.mkdtemp(prefix="vyn-demo-")
        os.chmod(self.folder, 0o755)

    # --- parts -----------------------------------------------------------------------------------------------------

    def start(self, name, command, namespace=None):
        child = Child(name, command, os.path.join(self.folder, name + ".log"), namespace)
        self.children.append(child)
        return child

    def make_namespaces(self):
        """Creates a switch and three hosts as network namespaces. Returns: name and address of each host."""
        mark = f"vyn{os.getpid()}"  # unique, so that names with it belong to this demo

        def run(*command):
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

        def add(name):
            self.namespaces.append(name)  # before the creation, so that an interrupt during it still cleans up
            try:
                run("ip", "netns", "add", name)
            except subprocess.CalledProcessError:
                self.namespaces.remove(name)  # it belongs to another program, or could not be created
                raise

        switch = mark + "s"
        add(switch)
        run("ip", "-n", switch, "link", "add", "bridge", "type", "bridge")
        run("ip", "-n", switch, "link", "set", "bridge", "up")
        hosts = []
        for i in range(3):
            host = f"{mark}h{i}"
            add(host)
            run("ip", "-n", switch, "link", "add", f"port{i}", "type", "veth", "peer", "name", "eth0", "netns", host)
            run("ip", "-n", switch, "link", "set", f"port{i}", "master", "bridge", "up")
            run("ip", "-n", host, "address", "add", f"10.77.0.{i + 1}/24", "dev", "eth0")
            run("ip", "-n", host, "link", "set", "eth0", "up")
            run("ip", "-n", host, "link", "set", "lo", "up")
            hosts.append((host, f"10.77.0.{i + 1}"))
        return hosts

    def start_zookeeper(self, namespace, address):
        port = free_port(self.ports)
        data = os.path.join(self.folder, "zookeeper")
        os.mkdir(data)
        config = os.path.join(self.folder, "zoo.cfg")
        with open(config, "w") as file:
            file.write(f"tickTime=500\nminSessionTimeout=1000\nmaxSessionTimeout=60000\ndataDir={data}\n"
                       f"clientPort={port}\nclientPortAddress={address}\n4lw.commands.whitelist=ruok\n"
                       "admin.enableServer=false\n")
        self.start("zookeeper", ["java", "-Xmx256m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                                 "-Dzookeeper.admin.enableServer=false", "-cp",
                                 "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar",
                                 "org.apache.zookeeper.server.quorum.QuorumPeerMain", config], namespace)
        ask = [sys.executable, "-c",
               "import socket,sys;s=socket.create_connection((sys.argv[1],int(sys.argv[2])),1);s.sendall(b'ruok');"
               "sys.exit(0 if s.recv(4)==b'imok' else 1)", address, str(port)]
        if namespace:
            ask = ["ip", "netns", "exec", namespace] + ask
        deadline = time.monotonic() + START_TIMEOUT
        while subprocess.run(ask, stderr=subprocess.DEVNULL).returncode != 0:
            if time.monotonic() > deadline:
                raise DemoError("ZooKeeper does not answer\n" + self.children[-1].tail())
            time.sleep(0.05)
        return f"{address}:{port}"

    def make_home(self, name, settings):
        home = os.path.join(self.folder, name)
        os.makedirs(os.path.join(home, "conf"))
        os.makedirs(os.path.join(home, "logs"))
        os.symlink(os.path.join(self.stage, "home", "tessel"), os.path.join(home, "tessel"))
        with open(os.path.join(home, "conf", "vyn.conf"), "w") as file:
            file.write("".join(f"{key}={value}\n" for key, value in settings.items()))
        return home

    def settings(self, zookeeper, nodes, ports):
        # Names without a folder: the dynamic loader finds the libraries of the machine.
        values = {
            "vyn.log.level": "INFO",
            "vyn.zookeeper.server.url": zookeeper,
            "vyn.zookeeper.session.timeout": "10000",
            "vyn.zookeeper.security.enable": "false",
            "vyn.tessel.meta.node_lists": ",".join(nodes),
            "vyn.tessel.server.swap.path": "${VYN_HOME}/swap",
            "vyn.tessel.rpc.shuffle_server.port": ports[0],
            "vyn.tessel.rpc.shuffle_meta.port": ports[1],
            "vyn.tessel.rpc.manager.port": ports[2],
            "vyn.tessel.rpc.transport.protocol": "tcp",
            "vyn.tessel.rpc.enableAuthentication": "false",
            "vyn.tessel.rpc.enableAuthorization": "false",
            "vyn.tessel.rpc.enableTLS": "false",
            "vyn.tessel.rpc.openssl.path": "libssl.so.3",
            "vyn.tessel.rpc.crypto.path": "libcrypto.so.3",
        }
        if self.options.tls:
            values.update(self.tls_settings(nodes))
        return values

    def tls_settings(self, addresses):
        """A certificate authority and one certificate for all servers, made for this demo."""
        folder = os.path.join(self.folder, "tls")
        if not os.path.isdir(folder):
            os.mkdir(folder)

            def openssl(*arguments):
                subprocess.run(["openssl", *arguments], check=True, cwd=folder, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)

            openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days", "2",
                    "-subj", "/CN=Vyn demo authority")
            openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key", "-out", "server.csr", "-subj",
                    "/CN=vynd")
            names = ",".join(f"IP:{address}" for address in sorted(set(addresses) | {"127.0.0.1"}))
            with open(os.path.join(folder, "names"), "w") as file:
                file.write(f"subjectAltName={names}\n")
            openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days",
                    "2", "-extfile", "names", "-out", "server.pem")
            for name in ("key.pass",):
                open(os.path.join(folder, name), "w").close()
        path = lambda name: os.path.join(folder, name)
        unused = {f"vyn.tessel.{who}plx.ksf.{which}.path": path("ca.pem")
                  for who in ("", "sdk.") for which in ("primary", "standby", "backup")}
        return {**unused, "vyn.tessel.rpc.enableTLS": "true", "vyn.tessel.rpc.tls.ca.cert.path": path("ca.pem"),
                "vyn.tessel.rpc.tls.sdk.ca.cert.path": path("ca.pem"), "vyn.tessel.rpc.tls.cert.path": path("server.pem"),
                "vyn.tessel.rpc.tls.key.path": path("server.key"), "vyn.tessel.rpc.tls.key.encrypted": "false",
                "vyn.tessel.rpc.tls.key.pass.path": path("key.pass")}

    def start_vynd(self, node_id, home, address, pool_size, namespace=None):
        pool = f"/dev/shm/vyn-demo-{os.getpid()}-{node_id}"
        self.pools.append(pool)
        daemon = self.start(f"vynd-{node_id}",
                            [os.path.join(self.stage, "bin", "vynd"), "--home", home, "--node-id", str(node_id),
                             "--address", address, "--host-name", f"node-{node_id}", "--pool", pool, "--pool-size",
                             str(pool_size)], namespace)
        daemon.wait_line(lambda line: True if line == "READY" else None, START_TIMEOUT)
        return daemon

    def program(self, name):
        return os.path.join(self.stage, "bin", name)

    # --- broadcast through the fabric, and the same through sockets -------------------------------------------------

    def run_fabric(self, driver_home, executors, namespaces):
        options = self.options
        ready = []
        for i, (home, namespace) in enumerate(executors):
            ready.append(self.start(f"executor-{i}",
                                    [self.program("vyn-demo-executor"), "--home", home],
                                    namespace))
        for executor in ready:
            executor.event("ready")
        driver = self.start("driver", [self.program("vyn-demo-driver"), "--home", driver_home, "--file", options.file,
                                       "--block-size", str(options.block_size)], namespaces.get("driver"))
        published = driver.event("published")
        for executor in ready:
            executor.say()
        results = [executor.event("read") for executor in ready]
        pool = self.pool_memory()
        for executor in ready:
            executor.say()
            executor.finish()
        driver.say()
        driver.event("ended")
        driver.finish()
        return published, results, pool

    def pool_memory(self):
        """Returns: the bytes of memory of all pools' files, including pulled copies."""
        return sum(os.lstat(os.path.join(root, name)).st_blocks * 512
                   for pool in self.pools for root, _, names in os.walk(pool) for name in names)

    def run_sockets(self, namespaces, driver):
        """Sends the file to each receiver over a socket of its own, on the same network. Returns: their results, or None
        if the copies do not fit into the memory."""
        needed = len(namespaces) * self.file_size
        if needed > available_memory() * 0.7:
            print(f"\nSkipped the comparison with sockets: {len(namespaces)} copies need {human(needed)}, and this machine "
                  f"has {human(available_memory())} free.")
            return None
        options = self.options
        namespace, address = driver
        server = self.start("socket-server", [self.program("vyn-demo-driver"), "--file", options.file, "--receivers",
                                              str(len(namespaces)), "--listen", address], namespace)
        listening = server.event("listening")
        receivers = [self.start(f"receiver-{i}", [self.program("vyn-demo-executor"), "--socket",
                                                  f"{address}:{listening['port']}", "--block-size",
                                                  str(self.file_size)], where) for i, where in enumerate(namespaces)]
        for receiver in receivers:
            receiver.event("ready")
        for receiver in receivers:
            receiver.say()
        results = [receiver.event("read") for receiver in receivers]
        for receiver in receivers:
            receiver.say()
            receiver.finish()
        server.finish()
        return results

    # --- the whole demo ----------------------------------------------------------------------------------------------

    def run(self):
        options = self.options
        self.file_size = os.path.getsize(options.file)
        if self.file_size == 0:
            raise DemoError(f"{options.file} is empty")
        sum256 = subprocess.run(["sha256sum", options.file], check=True, capture_output=True, text=True).stdout.split()[0]
        print(f"Broadcasting {options.file}, {human(self.file_size)}, SHA-256 {sum256}")
        pool_size = self.file_size + (256 << 20)
        ports = [free_port(self.ports) for _ in range(3)]
        names = {}
        driver_place = (None, "127.0.0.1")
        if options.outside:
            hosts = self.make_namespaces()
            zookeeper = self.start_zookeeper(*hosts[0])
            nodes = [address for _, address in hosts[:2]]
            executors = []
            for i, (namespace, address) in enumerate(hosts[:2]):
                home = self.make_home(f"home-{i + 1}", self.settings(zookeeper, nodes, ports))
                self.start_vynd(i + 1, home, address, pool_size, namespace)
                executors.append((home, namespace))
            driver_home = self.make_home("home-driver", self.settings(zookeeper, nodes, ports))
            driver_place = hosts[2]
            names["driver"] = hosts[2][0]
        else:
            zookeeper = self.start_zookeeper(None, "127.0.0.1")
            driver_home = self.make_home("home-1", self.settings(zookeeper, ["127.0.0.1"], ports))
            self.start_vynd(1, driver_home, "127.0.0.1", pool_size)
            executors = [(driver_home, None)] * options.executors
        print(f"ZooKeeper at {zookeeper}, {len(self.pools)} vynd, {len(executors)} executors"
              + (", TLS" if options.tls else "") + (", the driver outside the fabric" if options.outside else ""))
        published, results, pool = self.run_fabric(driver_home, executors, names)
        print()
        for i, result in enumerate(results):
            state = "equal" if result["sha256"] == sum256 else "DIFFERENT"
            print(f"executor {i}: SHA-256 {result['sha256']} {state}")
        wrong = [result for result in results if result["sha256"] != sum256]
        sockets = self.run_sockets([namespace for _, namespace in executors], driver_place)
        wrong += [result for result in sockets or [] if result["sha256"] != sum256]
        print_table(self.file_size, published, results, pool, sockets)
        if wrong:
            raise DemoError(f"{len(wrong)} executors read other bytes than the driver wrote")

    def clean(self):
        for child in reversed(self.children):
            child.stop()
        for namespace in reversed(self.namespaces):
            subprocess.run(["ip", "netns", "delete", namespace], stderr=subprocess.DEVNULL)
        if self.options.keep:
            print(f"kept: {self.folder} {' '.join(self.pools)}")
            return
        for pool in self.pools:
            shutil.rmtree(pool, ignore_errors=True)
        shutil.rmtree(self.folder, ignore_errors=True)


def available_memory():
    with open("/proc/meminfo") as file:
        return next(int(line.split()[1]) << 10 for line in file if line.startswith("MemAvailable:"))


def default_file():
    """Returns: the path of a file of this machine with about 100 MB."""
    best = None
    for folder in ("/usr/lib", "/usr/bin", "/usr/local/lib"):
        for root, _, names in os.walk(folder):
            for name in names:
                path = os.path.join(root, name)
                if not os.path.isfile(path) or os.path.islink(path):
                    continue
                distance = abs(os.path.getsize(path) - 100_000_000)
                if best is None or distance < best[0]:
                    best = (distance, path)
    return best[1]


def main():
    parser = argparse.ArgumentParser(prog="./vyn demo", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False)
    parser.add_argument("file", nargs="?", metavar="FILE", help="the file to broadcast (default: one of about 100 MB of this machine)")
    parser.add_argument("--executors", type=int, default=4, help="number of executors (default 4; with --outside always one on each node)")
    parser.add_argument("--block-size", type=size, default=4 << 20, metavar="SIZE", help="default 4M")
    parser.add_argument("--outside", action="store_true", help="a driver outside the fabric and two nodes (root)")
    parser.add_argument("--tls", action="store_true", help="TLS 1.3 between clients and services, and on the links")
    parser.add_argument("--keep", action="store_true", help="keep logs and pools")
    parser.add_argument("--only-check", action="store_true", help=argparse.SUPPRESS)  # check the arguments, run nothing
    parser.add_argument("--stage", default=os.path.join(os.getcwd(), "build"), help=argparse.SUPPRESS)
    options = parser.parse_args()
    if not 1 <= options.executors <= 64:
        parser.error("--executors takes 1 to 64")
    if options.outside and os.geteuid() != 0:
        parser.error("--outside makes network namespaces and needs root")
    if options.file is None and not options.only_check:
        options.file = default_file()
    if options.file is not None and not os.path.isfile(options.file):
        parser.error(f"{options.file} is no file")
    if options.only_check:
        return 0
    options.file = os.path.abspath(options.file)
    options.stage = os.path.abspath(options.stage)

    def interrupted(number, frame):
        raise KeyboardInterrupt

    for number in (signal.SIGTERM, signal.SIGHUP):  # SIGHUP: the terminal is closed
        signal.signal(number, interrupted)
    demo = Demo(options)
    code = 1
    try:
        demo.run()
        code = 0
    except (DemoError, OSError, subprocess.CalledProcessError) as error:
        print(f"demo: {error}", file=sys.stderr)
    except KeyboardInterrupt:
        print("demo: interrupted", file=sys.stderr)
        code = 130
    finally:
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            signal.signal(number, signal.SIG_IGN)
        demo.clean()
    return code


if __name__ == "__main__":
    sys.exit(main())
