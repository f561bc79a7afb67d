#!/usr/bin/env python3
"""exporter_test.py EXPORTER ZEBSTAT SIMULATOR METADATA: what the exporter serves, to whom, and how long that takes."""
import contextlib
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

EXPORTER, ZEBSTAT, SIMULATOR, METADATA = (sys.argv.pop(1) for _ in range(4))


class Program:
    """A started program that has printed its address."""

    def __init__(self, *command):
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=self.errors, text=True)
        line = self.process.stdout.readline()
        assert line.startswith("listening on "), (command, line, self.said())
        self.address = line.split()[-1]

    def said(self):
        self.errors.seek(0)
        return self.errors.read()

    def end(self, number=signal.SIGTERM):
        """Returns the exit code and how long the end took."""
        begin = time.monotonic()
        self.process.send_signal(number)
        return self.process.wait(timeout=20), time.monotonic() - begin


class Scraped:
    def __init__(self, status, text):
        self.status = status
        self.text = text

    def value(self, name, **labels):
        """The value of the one sample of that name which has these labels, or None."""
        found = [line for line in self.text.splitlines() if re.match(re.escape(name) + r"[{ ]", line)
                 and all(f'{key}="{value}"' in line for key, value in labels.items())]
        assert len(found) < 2, found
        return float(found[0].split()[-1]) if found else None

    def up(self, gateway):
        return self.value("zebstats_up", gateway=gateway)

    def reasons(self, gateway):
        return re.findall(rf'^zebstats_scrape_error{{gateway="{re.escape(gateway)}",reason="(\w+)"}} 1$', self.text, re.M)


class ExporterTest(unittest.TestCase):
    def setUp(self):
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.folder = self.stack.enter_context(tempfile.TemporaryDirectory())

    def start(self, *command):
        program = Program(*command)
        self.stack.callback(program.errors.close)
        self.stack.callback(program.process.stdout.close)
        self.stack.callback(lambda: (program.process.kill(), program.process.wait()))
        return program

    def simulator(self, *arguments):
        return self.start(SIMULATOR, "--listen", "127.0.0.1:0", *arguments)

    def exporter(self, *arguments, listen="127.0.0.1:0"):
        self.served = self.start(EXPORTER, "--listen", listen, *arguments)
        return self.served

    def get(self, path="/metrics", timeout=None, method="GET", patience=20):
        headers = {"X-Prometheus-Scrape-Timeout-Seconds": str(timeout)} if timeout else {}
        port = self.served.address.rpartition(":")[2]
        request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", headers=headers, method=method)
        try:
            with urllib.request.urlopen(request, timeout=patience) as reply:
                return Scraped(reply.status, reply.read().decode())
        except urllib.error.HTTPError as reply:
            with reply:
                return Scraped(reply.code, reply.read().decode())

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def listener(self, backlog=300):
        """A peer whose connections are accepted by the kernel and never answered, or refused if it has no backlog."""
        listener = self.stack.enter_context(socket.socket())
        listener.bind(("127.0.0.1", 0))
        if backlog:
            listener.listen(backlog)
        return listener, "127.0.0.1:%d" % listener.getsockname()[1]

    def answering(self, reply):
        """A peer that sends these bytes to each client and closes."""
        listener, address = self.listener()

        def serve():
            with contextlib.suppress(OSError):
                while True:
                    client, _ = listener.accept()
                    with client, contextlib.suppress(OSError):
                        client.recv(1)
                        client.sendall(reply)

        threading.Thread(target=serve, daemon=True).start()
        self.stack.callback(lambda: listener.shutdown(socket.SHUT_RDWR))
        return address

    def wait_for(self, what, condition):
        end = time.monotonic() + 10
        while not condition():
            self.assertLess(time.monotonic(), end, what + ": " + self.served.said())
            time.sleep(0.05)

    def test_statistics_are_chosen_and_described(self):
        gateway = self.simulator().address
        name = {"gateway": gateway}
        self.exporter("--gateway", gateway)
        plain = self.get()
        self.assertEqual(plain.value("zebstats_host_cpus", group="HOST", **name), 16)
        self.assertEqual(plain.value("zebstats_build_info", protocol="2_0_0_1", **name), 1)
        self.assertEqual(plain.up(gateway), 1)
        self.assertNotIn("_info", plain.text.replace("zebstats_build_info", ""))
        self.assertIn("# TYPE zebstats_req_count untyped\n", plain.text)

        self.exporter("--gateway", gateway, "--group", "HOST", "VM", "--include", "*_CPU*", "--include", "HOST_*",
                      "--exclude", "HOST_OPEN*", "--texts", "HOST_S*", "VM_*")
        chosen = self.get()
        self.assertEqual(set(re.findall(r'^zebstats_(\w+).*group=', chosen.text, re.M)),
                         {"host_cpus", "host_load", "host_memory_free", "host_memory", "host_disk_free",
                          "host_interrupts", "vm_cpu_share", "host_site_info", "host_system_info"})
        self.assertEqual(chosen.value("zebstats_host_site_info", value="Århus, hall 2"), 1)

        self.exporter("--gateway", gateway, "--metadata", METADATA)
        described = self.get().text
        self.assertNotIn(" untyped\n", described)
        self.assertNotRegex(described, "HELP .* Statistic ")
        self.assertIn("# HELP zebstats_req_count_total Requests.\n# TYPE zebstats_req_count_total counter\n", described)
        self.assertRegex(described, r"(?m)^zebstats_host_memory_bytes{.*} 16777216000$")

    def test_the_reason_for_a_failure_is_named(self):
        expected = {self.listener(0)[1]: "refused", "no.such.host.invalid:2980": "unresolved",
                    self.listener()[1]: "timed_out", self.answering(b"HTTP/1.1 400 Bad\r\n\r\n" * 20): "malformed"}
        good = self.simulator()
        self.exporter("--timeout", "1.5", "--gateway", good.address, *expected)
        scraped = self.get()
        self.assertEqual({gateway: scraped.reasons(gateway) for gateway in expected},
                         {gateway: [reason] for gateway, reason in expected.items()})
        self.assertEqual((scraped.up(good.address), scraped.reasons(good.address)), (1, []))
        self.assertRegex(self.served.said(), r"no\.such\.host.*-132")

    def test_a_gateway_that_is_started_again_is_up_in_the_next_scrape(self):
        gateway = self.simulator()
        self.exporter("--gateway", gateway.address)
        for is_seen_down in (False, True, False):
            self.assertEqual(self.get().up(gateway.address), 1)
            gateway.end()
            if is_seen_down:
                self.assertEqual(self.get().up(gateway.address), 0)
            gateway = self.start(SIMULATOR, "--listen", gateway.address)
        self.assertEqual(self.get().up(gateway.address), 1)

    def test_silent_gateways_cost_the_others_nothing(self):
        good = self.simulator().address
        halted = self.simulator()
        silent = [self.listener()[1] for _ in range(100)]
        self.exporter("--timeout", "0.6", "--gateway", good, halted.address, *silent)
        self.get()
        halted.process.send_signal(signal.SIGSTOP)
        for _ in range(20):
            scraped = self.get()
            self.assertEqual([scraped.up(good), scraped.up(halted.address), scraped.reasons(silent[-1])],
                             [1, 0, ["timed_out"]])
        halted.process.send_signal(signal.SIGCONT)
        self.wait_for("it answers again", lambda: self.get().up(halted.address) == 1)
        # The server's timeout counts, less a margin, if it is shorter.
        self.exporter("--timeout", "1.5", "--gateway", good, silent[0])
        for timeout, seconds in ((1, 0.8), (30, 1.5)):
            begin = time.monotonic()
            self.assertEqual(self.get(timeout=timeout).up(good), 1)
            self.assertAlmostEqual(time.monotonic() - begin, seconds + 0.2, delta=0.3)
        self.assertEqual(self.get(timeout="soon").status, 400)

    def test_scrapes_and_clients_side_by_side(self):
        good, silent = self.simulator().address, self.listener()[1]
        self.exporter("--timeout", "2", "--gateway", good, silent)
        host, port = self.served.address.split(":")
        rude = [self.stack.enter_context(socket.create_connection((host, int(port)))) for _ in range(100)]
        for each in rude[:50]:
            each.sendall(b"GET /metrics HTTP/1.1\r\nHost: ")
        rude[0].sendall(b"x\r\n\r\n")  # never reads its answer
        results = []
        threads = [threading.Thread(target=lambda: results.append(self.get())) for _ in range(8)]
        begin = time.monotonic()
        for each in threads:
            each.start()
            time.sleep(0.1)
        for each in threads:
            each.join()
        self.assertLess(time.monotonic() - begin, 5)
        self.assertEqual([(each.up(good), each.up(silent)) for each in results], [(1, 0)] * 8)
        self.assertLess(max(each.value("zebstats_scrape_duration_seconds", gateway=good) for each in results), 1)
        rude[1].settimeout(15)
        self.assertEqual(rude[1].recv(1), b"")  # an unfinished request is given up

    def test_paths_and_methods(self):
        gateway, other = self.simulator().address, self.simulator().address
        self.exporter("--gateway", gateway, "--allow-target", other[:-1] + "?", "no.such.host.invalid:*")
        probe = "/probe?target="
        for method, path, status, pattern in (
                ("GET", "/", 200, r"[^\0]*/metrics[^\0]*/probe[^\0]*/-/healthy"), ("HEAD", "/", 200, "$"),
                ("GET", "/-/healthy", 200, r".*healthy\n$"), ("HEAD", "/metrics", 200, "$"),
                ("GET", "/nothing", 404, r"[^\n]+\n$"), ("POST", "/metrics", 405, r"[^\n]+\n$"),
                ("GET", "/probe", 400, r"give a target.*\n$"), ("GET", probe + "a:b", 400, r"[^\n]+\n$"),
                ("GET", probe + "%0A", 400, r"[^\n]+\n$"), ("GET", probe + gateway, 403, r"[^\n]+\n$"),
                ("GET", probe + "127.0.0.1", 403, r"[^\n]+\n$"), ("GET", probe + other, 200, r"[^\0]*\nzebstats_req_count{")):
            with self.subTest(method=method, path=path):
                reply = self.get(path, method=method)
                self.assertEqual(reply.status, status)
                self.assertRegex(reply.text, "^" + pattern)
        probed = self.get(probe + other)
        self.assertEqual((probed.up(other), probed.up(gateway)), (1, None))
        self.assertEqual(self.get().up(other), None)
        self.assertEqual(self.get(probe + "no.such.host.invalid").reasons("no.such.host.invalid:2980"), ["unresolved"])

    def test_probes_beyond_the_standing_connections(self):
        gateways = [self.listener(1)[1] for _ in range(249)]
        good = [self.simulator().address for _ in range(2)]
        self.exporter("--gateway", *gateways, "--allow-target", "*", "--timeout", "1")
        for _ in range(3):
            for each in good:
                self.assertEqual(self.get("/probe?target=" + each).up(each), 1)
        self.assertEqual(self.served.said().count("answers"), 0)
        self.assertIn("more than the 250", subprocess.run(
            [EXPORTER, "--gateway", *(f"gateway-{i}" for i in range(251))], capture_output=True, text=True).stderr)

    def test_the_targets_file_is_followed(self):
        first, second = self.simulator().address, self.simulator().address
        path = self.write("targets", f"# ours\n{first} # here\n\n")
        self.exporter("--targets", path)
        gateways = lambda: re.findall(r'^zebstats_up{gateway="(.*)"}', self.get().text, re.M)
        self.assertEqual(gateways(), [first])
        self.write("targets", f"{second}\r\n  {first}")
        self.wait_for("a changed file", lambda: set(gateways()) == {first, second})
        os.replace(self.write("new", f"{first}\none two\n"), path)
        self.served.process.send_signal(signal.SIGHUP)
        self.wait_for("a bad file", lambda: self.get().value("zebstats_targets_valid") == 0)
        self.assertIn(f"{path}: line 2: 'one two' is not", self.served.said())
        self.assertEqual(set(gateways()), {first, second})
        self.write("targets", second)
        self.served.process.send_signal(signal.SIGHUP)
        self.wait_for("a good file", lambda: gateways() == [second])
        self.assertEqual(self.get().value("zebstats_targets_valid"), 1)

    def test_addresses_to_listen_on(self):
        gateway = self.simulator().address
        for listen, pattern in ((":0", r"\[::\]:\d+"), ("[::]:0", r"\[::\]:\d+"), ("[::1]:0", r"\[::1\]:\d+"),
                                ("localhost:0", r"(127\.0\.0\.1|\[::1\]):\d+"), ("0.0.0.0:0", r"0\.0\.0\.0:\d+")):
            with self.subTest(listen=listen):
                address = self.exporter("--gateway", gateway, listen=listen).address
                self.assertRegex(address, f"^{pattern}$")
                host = address.rpartition(":")[0].strip("[]").replace("0.0.0.0", "127.0.0.1")
                port = int(address.rpartition(":")[2])
                for host in {"::": ("::1", "127.0.0.1")}.get(host, (host,)):
                    socket.create_connection((host, port), 5).close()
        taken = subprocess.run([EXPORTER, "--listen", address, "--gateway", gateway], capture_output=True, text=True)
        self.assertEqual((taken.returncode, taken.stderr.count("\n")), (3, 1))
        self.assertIn("cannot listen on", taken.stderr)

    def test_it_ends_at_once(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            gateway, halted = self.simulator(), self.simulator()
            self.exporter("--timeout", "20", "--gateway", gateway.address, halted.address, self.listener()[1])
            self.get(timeout=0.3)
            halted.process.send_signal(signal.SIGSTOP)
            client = self.stack.enter_context(socket.create_connection(self.served.address.split(":")))
            client.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
            self.get(timeout=0.3)
            code, seconds = self.served.end(number)
            self.assertEqual(code, 0)
            self.assertLess(seconds, 1)  # 0.2 on an idle machine

    def test_wrong_usage(self):
        bad = {"{": "line 1 is not valid JSON", "[]": "the document is not an object", "{}": 'the document has no "statistics"',
               '{"statistics": [{"id": "A"}, {"idd": "B"}]}': 'statistics[1] has an unknown key "idd"',
               '{"statistics": [{"type": "gauge"}]}': 'statistics[0] has no "id"',
               '{"statistics": [{"id": "A", "type": "rate"}]}': 'statistics[0].type is "rate"',
               '{"statistics": [{"id": "A", "unit": "furlongs"}]}': 'statistics[0].unit is "furlongs"',
               '{"statistics": [{"id": "A", "help": 1}]}': "statistics[0].help is not a text"}
        calls = [(["--gateway", "a", "--metadata", self.write(f"{i}.json", text)], f"/{i}.json: " + pattern)
                 for i, (text, pattern) in enumerate(bad.items())]
        calls += [([], "give --gateway"), (["--gateway", "a b"], "'a b' is not HOST"), (["--gateway", ""], "is not"),
                  (["--gateway", "a", "--timeout", "0"], "'0' is not a number of seconds"),
                  (["--gateway", "a", "--listen", ":http"], "':http' is not"), (["--nonsense"], "nonsense"),
                  (["--targets", self.folder], "cannot read"), (["--targets", "/no/such"], "cannot read /no/such"),
                  (["--targets", self.write("bad", "a\n\nb:c\n")], "line 3: 'b:c'"),
                  (["--gateway", "a", "--metadata", "/no/such"], "/no/such: No such file")]
        for arguments, pattern in calls:
            with self.subTest(arguments=arguments):
                ended = subprocess.run([EXPORTER, *arguments], capture_output=True, text=True, timeout=20)
                self.assertEqual((ended.returncode, ended.stdout, ended.stderr.count("\n")), (2, "", 1), ended.stderr)
                self.assertIn(pattern, ended.stderr)

    def test_zebstat_executes_it(self):
        for program in ([EXPORTER], [ZEBSTAT, "exporter"]):
            lines = subprocess.check_output([*program, "--help"], text=True).splitlines()
            self.assertEqual(lines[0].split()[:2], ["Usage:", "zebstats-exporter"])
            self.assertTrue(len(lines) <= 24 and max(map(len, lines)) <= 80 and lines[-3] == "Examples:", lines)
        alone = os.path.join(self.folder, "zebstat")
        os.symlink(ZEBSTAT, alone)  # the folder of a link does not count
        self.assertIn("Usage", subprocess.check_output([alone, "exporter", "--help"], text=True))
        os.remove(alone)
        subprocess.check_call(["cp", ZEBSTAT, alone])
        ended = subprocess.run([alone, "exporter"], capture_output=True, text=True)
        self.assertEqual((ended.returncode, ended.stderr.count("\n")), (2, 1))
        self.assertIn("install the package zebstats-exporter", ended.stderr)


if __name__ == "__main__":
    unittest.main()
