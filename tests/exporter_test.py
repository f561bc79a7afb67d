#!/usr/bin/env python3
"""exporter_test.py EXPORTER SIMULATOR METADATA: what the exporter serves, to whom, and how fast."""
import contextlib, http.client, os, pathlib, re, resource, signal, socket, socketserver, subprocess
import sys, tempfile
import threading, time, unittest
from concurrent.futures import ThreadPoolExecutor

EXPORTER, SIMULATOR, METADATA = (sys.argv.pop(1) for _ in range(3))
PROBE = "/probe?target="


class Scraped:
    def __init__(self, reply):
        self.status, self.text = reply.status, reply.read().decode()

    def value(self, name, **labels):
        """The value of the one sample of that name which has these labels, or None."""
        found = [line.split()[-1] for line in re.findall(rf"^{name}[{{ ].*", self.text, re.M)
                 if all(f'{key}="{value}"' in line for key, value in labels.items())]
        return float(*found) if found else None

    def up(self, gateway):
        return self.value("zebstats_up", gateway=gateway)

    def reason(self, gateway):
        sample = rf'^zebstats_scrape_error{{gateway="{re.escape(gateway)}",reason="(\w+)"}} 1$'
        return "".join(re.findall(sample, self.text, re.M))


class NotAGateway(socketserver.BaseRequestHandler):
    def handle(self):
        self.request.recv(1000)
        self.request.sendall(self.server.answer)


class ExporterTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def start(self, *command, lines=1, errors=None):
        """A process that has printed so many addresses, and writes its errors to a file."""
        log = self.enterContext(tempfile.TemporaryFile("w+"))
        process = self.enterContext(
            subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors or log, text=True))
        self.addCleanup(process.kill)
        process.said = lambda: (log.seek(0), log.read())[1]
        process.addresses = [process.stdout.readline()[:-1].split("listening on ")[-1]
                             for _ in range(lines)]
        process.address = process.addresses[0]
        self.assertNotEqual(process.addresses[-1], "", process.said())
        return process

    def simulator(self, count=1):
        return self.start(SIMULATOR, "--listen", "127.0.0.1:0", "--ports", str(count), lines=count)

    def exporter(self, *arguments, listen="127.0.0.1:0"):
        self.served = self.start(EXPORTER, "--listen", listen, *arguments)
        return self.served.address

    def get(self, path="/metrics", timeout=None, method="GET"):
        client = http.client.HTTPConnection(self.served.address, timeout=20)
        with contextlib.closing(client) as connection:
            headers = {"X-Prometheus-Scrape-Timeout-Seconds": str(timeout)} if timeout else {}
            connection.request(method, path, headers=headers)
            return Scraped(connection.getresponse())

    def side_by_side(self, *calls):
        """What the calls return, each with how long that took."""
        begin = time.monotonic()
        with ThreadPoolExecutor(len(calls)) as pool:
            return list(pool.map(lambda call: (call(), time.monotonic() - begin), calls))

    def drip(self, client):
        """Sends a request without end until the server closes the connection. Returns how long."""
        begin = time.monotonic()
        client.settimeout(1)
        with contextlib.suppress(ConnectionError):
            while time.monotonic() < begin + 25:
                client.sendall(b"GET /metrics?")
                with contextlib.suppress(TimeoutError):
                    if client.recv(1) == b"":
                        break
        return time.monotonic() - begin

    def listener(self):
        """A peer whose connections the kernel accepts and nobody answers."""
        peer = self.enterContext(socket.create_server(("127.0.0.1", 0), backlog=300))
        return "127.0.0.1:%d" % peer.getsockname()[1]

    def wait_for(self, what, condition):
        end = time.monotonic() + 10
        while not condition():
            self.assertLess(time.monotonic(), end, what + ": " + self.served.said())
            time.sleep(0.05)

    def test_statistics_are_chosen_and_described(self):
        gateway = self.simulator().address
        self.exporter("--gateway", gateway)
        plain = self.get()
        self.assertEqual(plain.value("zebstats_host_cpus", gateway=gateway, group="HOST"), 16)
        self.assertEqual(plain.value("zebstats_build_info", gateway=gateway, protocol="2_0_0_1"), 1)
        self.exporter("--gateway", gateway, "--group", "HOST", "VM", "--include", "*_CPU*",
                      "--include", "HOST_*",
                      "--exclude", "HOST_OPEN*", "--texts", "HOST_S*", "VM_*")
        chosen = self.get()
        names = sorted(re.findall(r"^zebstats_(\w+).*group=", chosen.text, re.M))
        self.assertEqual(" ".join(names), "host_cpus host_disk_free host_interrupts host_load "
                         "host_memory host_memory_free host_site_info host_system_info vm_cpu_share")
        self.assertEqual(chosen.value("zebstats_host_site_info", value="Århus, hall 2"), 1)

        self.exporter("--gateway", gateway, "--metadata", METADATA)
        described = self.get().text
        self.assertNotRegex(described, " untyped\n|HELP .* Statistic |bytes.*bytes.*{|milli")
        self.assertRegex(described, r"(?m)^zebstats_host_memory_bytes{.*} 16777216000$")

    def test_the_reason_for_a_failure_is_named(self):
        expected = {"127.0.0.1:1": "refused", "no.such.host.invalid:2980": "unresolved",
                    self.listener(): "timed_out"}
        for answer, reason in (b"HTTP/1.1 400 Bad\r\n\r\n" * 20, "malformed"), (b"", "lost"):
            peer = self.enterContext(socketserver.ThreadingTCPServer(("127.0.0.1", 0), NotAGateway))
            peer.answer = answer
            threading.Thread(target=peer.serve_forever).start()
            self.addCleanup(peer.shutdown)
            expected["127.0.0.1:%d" % peer.server_address[1]] = reason
        expected[self.start(SIMULATOR, "--listen", "127.0.0.1:0", "--reset").address] = "lost"
        good = self.simulator().address
        self.exporter("--timeout", "1.5", "--gateway", good, *expected)
        scraped = self.get()
        self.assertEqual({gateway: scraped.reason(gateway) for gateway in expected}, expected)
        self.assertEqual((scraped.up(good), scraped.reason(good)), (1, ""))
        for said in (r"no\.such\.host.*-132", r":1: .* \(-135\): connection refused: .*\?",
                     r"no answer within 1\.5 s: it accepts connections and stays silent"):
            self.wait_for(said, lambda: re.search(said, self.served.said()))

    def test_messages_wait_for_no_reader_and_reach_no_client(self):
        read_end, full = os.pipe()
        os.set_blocking(full, False)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(full, bytes(4096))
        os.set_blocking(full, True)
        for redirection, errors in ("", full), ("<&- 2>&-", None):
            self.served = self.start(
                "sh", "-c", f'exec "$@" {redirection}', "sh", EXPORTER, "--listen", "127.0.0.1:0",
                "--timeout", "2", "--gateway", "127.0.0.1:1", errors=errors)
            self.assertEqual(self.get().reason("127.0.0.1:1"), "refused")

    def test_a_gateway_that_is_started_again_is_up_in_the_next_scrape(self):
        gateway = self.simulator()
        self.exporter("--gateway", gateway.address)
        for _ in range(2):
            self.assertEqual(self.get().up(gateway.address), 1)
            gateway.terminate()
            gateway.wait()
            gateway = self.start(SIMULATOR, "--listen", gateway.address)
        self.assertEqual(self.get().up(gateway.address), 1)

    def test_silent_gateways_cost_the_others_nothing(self):
        good, halted = self.simulator().address, self.simulator()
        silent = [self.listener() for _ in range(100)]
        self.exporter("--timeout", "0.6", "--gateway", good, halted.address, *silent)
        self.get()
        halted.send_signal(signal.SIGSTOP)
        for _ in range(20):
            scraped = self.get()
            self.assertEqual([scraped.up(good), scraped.up(halted.address)], [1, 0])
        halted.send_signal(signal.SIGCONT)
        self.wait_for("it answers again", lambda: self.get().up(halted.address) == 1)
        # The server's timeout counts, less a margin, if it is shorter.
        self.exporter("--timeout", "1.5", "--gateway", good, silent[0])
        for timeout, seconds in ((1, 0.8), (30, 1.5)):
            [(scraped, took)] = self.side_by_side(lambda: self.get(timeout=timeout))
            self.assertEqual(scraped.up(good), 1)
            self.assertAlmostEqual(took, seconds + 0.2, delta=0.3)
        self.assertEqual(self.get(timeout="soon").status, 400)

    def test_scrapes_and_clients_side_by_side(self):
        good, silent = self.simulator().address, self.listener()
        exporter = self.exporter("--timeout", "2", "--gateway", good, silent).split(":")
        rude = [self.enterContext(socket.create_connection(exporter)) for _ in range(100)]
        for each in rude[:50]:  # the first one never reads its answer
            rest = b"x\r\n\r\n" if each is rude[0] else b""
            each.sendall(b"GET /metrics HTTP/1.1\r\nHost: " + rest)
        dripping = self.enterContext(socket.create_connection(exporter))
        given_up = ThreadPoolExecutor(1).submit(self.drip, dripping)
        late = lambda i: lambda: (time.sleep(i * 0.1), self.get())[1]
        for scraped, took in self.side_by_side(*map(late, range(8))):
            self.assertLess(took, 5)
            self.assertEqual((scraped.up(good), scraped.up(silent)), (1, 0))
            self.assertLess(scraped.value("zebstats_scrape_duration_seconds", gateway=good), 1)
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        for _ in range(1100):
            self.enterContext(socket.create_connection(exporter, 5, ("127.0.0.2", 0)))
        self.assertEqual(self.get().up(good), 1)
        rude[1].settimeout(15)
        self.assertEqual(rude[1].recv(1), b"")  # an unfinished request is given up
        self.assertAlmostEqual(given_up.result(30), 11, delta=3)  # also one that goes on

    def test_paths_and_methods(self):
        gateway, other = self.simulator(2).addresses
        self.exporter("--gateway", gateway, "--allow-target",
                      f"[{other[0]}]{other[1:-1]}[{other[-1]}]", "[::1]:1")
        line = r"^[^\n]+\n$"
        for method, path, status, pattern in (
                ("GET", "/", 200, "(?s)/metrics.*/probe.*/-/healthy"),
                ("HEAD", "/metrics", 200, "^$"),
                ("GET", "/-/healthy", 200, "healthy\n$"), ("GET", "/nothing", 404, line),
                ("POST", "/metrics", 405, line), ("GET", "/probe", 400, "^give a target"),
                ("GET", PROBE + "[::1]:1", 200, "zebstats_up"), ("GET", PROBE + "a:b", 400, line),
                ("GET", PROBE + gateway, 403, line)):
            reply = self.get(path, method=method)
            self.assertEqual(reply.status, status, path)
            self.assertRegex(reply.text, pattern)
        probed = self.get(PROBE + other)
        self.assertEqual((probed.up(other), probed.up(gateway)), (1, None))
        self.assertIsNone(self.get().up(other))

    def test_many_gateways(self):
        farm = self.simulator(252).addresses
        self.exporter("--gateway", *farm[:249], "--allow-target", "*")
        for each in farm[249:251] * 3:  # the second of them has no connection that is kept
            self.assertEqual(self.get(PROBE + each).up(each), 1)
        # All are probed: silent ones do not take the connections that the others share.
        self.exporter("--allow-target", "*", "--timeout", "3")
        for each in farm[:250]:
            self.assertEqual(self.get(PROBE + each).up(each), 1)
        targets = [self.listener() for _ in range(20)] + farm[250:]
        probes = (lambda each=each: self.get(PROBE + each) for each in targets)
        for scraped, took in self.side_by_side(*probes)[20:]:
            self.assertLess(took, 2)
            self.assertIn("zebstats_req_count", scraped.text)

    def test_the_targets_file_is_followed(self):
        first, second = self.simulator(2).addresses
        path = self.folder / "targets"
        path.write_text(f"# ours\n{first} # here\n\n")
        self.exporter("--targets", str(path))
        gateways = lambda: set(re.findall(r'^zebstats_up{gateway="(.*)"}', self.get().text, re.M))
        self.assertEqual(gateways(), {first})
        path.write_text(f"{second}\r\n  {first}")
        self.wait_for("a changed file", lambda: gateways() == {first, second})
        path.write_text(f"{first}\none two\n")
        self.served.send_signal(signal.SIGHUP)
        self.wait_for("a bad file", lambda: self.get().value("zebstats_targets_valid") == 0)
        self.assertIn(f"{path}: line 2: 'one two' is not", self.served.said())
        self.assertEqual(gateways(), {first, second})
        path.write_text(second)
        self.served.send_signal(signal.SIGHUP)
        self.wait_for("a good file", lambda: gateways() == {second})
        self.assertEqual(self.get().value("zebstats_targets_valid"), 1)
        # A gateway that is removed while it is asked is not said to be down.
        slow = self.start(SIMULATOR, "--listen", "127.0.0.1:0", "--slow", "0.5").address
        path.write_text(slow)
        self.served.send_signal(signal.SIGHUP)
        self.wait_for("a slow gateway", lambda: gateways() == {slow})
        remove = lambda: (time.sleep(0.3), path.write_text(first),
                          self.served.send_signal(signal.SIGHUP))
        self.assertEqual(self.side_by_side(self.get, remove)[0][0].up(slow), 1)

    def test_addresses_to_listen_on(self):
        for listen, pattern, *hosts in (
                (":0", r"\[::\]", "::1", "127.0.0.1"), ("[::1]:0", r"\[::1\]", "::1"),
                ("0.0.0.0:0", r"0\.0\.0\.0", "127.0.0.1"), ("localhost:0", r".*1\]?", "localhost")):
            address = self.exporter("--gateway", "a", listen=listen)
            self.assertRegex(address, f"^({pattern}):\\d+$")
            for host in hosts:
                socket.create_connection((host, address.rpartition(":")[2]), 5).close()
        taken = subprocess.run([EXPORTER, "--listen", address, "--gateway", "a"],
                               capture_output=True, text=True)
        self.assertEqual(taken.returncode, 3)
        self.assertRegex(taken.stderr, r"^.*cannot listen on.*\n$")

    def test_it_ends_at_once(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            halted = self.simulator()
            self.exporter("--timeout", "20", "--gateway", halted.address, self.listener())
            self.get(timeout=0.3)
            halted.send_signal(signal.SIGSTOP)
            client = self.enterContext(socket.create_connection(self.served.address.split(":")))
            client.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
            self.get(timeout=0.3)
            begin = time.monotonic()
            self.served.send_signal(number)
            self.assertEqual(self.served.wait(timeout=20), 0)
            self.assertLess(time.monotonic() - begin, 1)  # 0.2 on an idle machine
            self.assertEqual(self.served.said(), "")
            with contextlib.suppress(ConnectionResetError):
                self.assertNotIn(b" 200 ", client.recv(99))  # no gateway is said to be down

    def test_wrong_usage(self):
        path = self.folder / "file"
        for line, content, message in (
                ("", "", "give --gateway"),
                ("--gateway a,b", "", "'a,b' is not HOST"),
                ("--check --gateway " + " ".join(map("gw:{}".format, range(1, 252))), "",
                 "more than the 250"),
                ("--gateway a --timeout 0", "", "'0' is not a number"),
                ("--gateway a --listen :http", "", "':http' is not"),
                ("--listen= --gateway a", "", "'' is not a HOST:PORT"),
                ("--gateway a --listen 29480", "", "'29480' is not a HOST:PORT"),
                ("--targets /", "", "cannot read /"),
                ("--targets FILE", "a\n\nb:c\n", "line 3: 'b:c'"),
                ("--metadata /no/such", "", "/no/such: No such file"),
                ("--metadata FILE", "{", "line 1 is not valid JSON"),
                ("--metadata FILE", '{"statistics": [{"id": "A", "unit": "inch"}]}',
                 'unit is "inch"')):
            path.write_text(content)
            line = line.replace("FILE", str(path)).replace("--metadata", "--gateway a --metadata")
            ended = subprocess.run([EXPORTER, *line.split()], capture_output=True, text=True,
                                   timeout=20)
            self.assertEqual((ended.returncode, ended.stdout), (2, ""), line)
            self.assertEqual(ended.stderr.count("\n"), 1, line)
            self.assertIn(message, ended.stderr)


if __name__ == "__main__":
    unittest.main()
