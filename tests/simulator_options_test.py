#!/usr/bin/env python3
"""simulator_options_test.py SIMULATOR: what a client gets from a gateway in trouble."""
import random, re, socket, subprocess, sys, time, unittest
from struct import pack

def request(name, data, kind=1, word=0):
    head = b"Gate" + pack(">5I", 0x00700000, kind, 0, word, len(name)) + name
    return head + pack(">BI", 0, len(data)) + data

# The session of the first client, whose tag, authorisation words and admin id are known.
HELLO = request(b"BASE", b"\0\2en\0\2GB" + bytes(10), kind=5)
HELLO += request(b"Auth", bytes(4)) + request(
    b"Auth", bytes.fromhex("000000015EED00009E3779B9FFFFFFFE00000000"), word=1)
CLOSE = request(b"BASE", b"", kind=10, word=0xFFFFFFFF)

def query(argument):
    bean = b"DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats"
    text = lambda value: pack(">H", len(value)) + value
    call = b"".join(map(text, (b"US", b"en", b"", bean, b"GET_STATS"))) + bytes.fromhex(
        "00000001ACED000574") + text(argument) + pack(">I", 1) + text(b"java.lang.String")
    head = pack(">3I", 5, 0x101, len(call))
    return request(b"Admin", bytes(4)) + request(b"Admin", head + call, word=1)

class SimulatorOptions(unittest.TestCase):
    def start(self, *options, listen="127.0.0.1:0", lines=1, limit=1024):
        process = subprocess.Popen(["sh", "-c", f"ulimit -n {limit}; exec \"$0\" \"$@\"",
                                    sys.argv[1], "--listen", listen, *options],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        printed = "".join(process.stdout.readline() for _ in range(lines))
        self.ports = [int(port) for port in re.findall(r"listening on 127.0.0.1:(\d+)\n", printed)]

    def connect(self, seconds=10, port=None):
        client = socket.create_connection(("127.0.0.1", port or self.ports[0]), seconds)
        self.addCleanup(client.close)
        return client

    def talk(self, data, **options):
        """Returns all that the gateway sends, and how that ended."""
        client, got = self.connect(**options), b""
        client.sendall(data)
        try:
            while piece := client.recv(65536):
                got += piece
        except OSError as end:
            return got, type(end)
        return got, None

    def test_silence_begins_where_it_is_asked_for(self):
        for option, replies in (("--mute", 0), ("--mute=query", 4), ("--no-close-answer", 5)):
            self.start(option)
            got, end = self.talk(HELLO + query(b"VM_NAME") + CLOSE, seconds=0.3)
            self.assertEqual((got.count(b"Gate"), end), (replies, socket.timeout), option)

    def test_answers_drip_or_break_off(self):
        begin = time.monotonic()
        self.start("--slow", "0.6")
        whole, end = self.talk(HELLO + query(b"HOST") + CLOSE)
        self.assertEqual((whole.count(b"Gate"), end), (6, None))
        self.assertGreaterEqual(time.monotonic() - begin, 0.6)
        self.start("--reset")
        half, end = self.talk(HELLO + query(b"HOST") + CLOSE)
        self.assertEqual(end, ConnectionResetError)
        self.assertTrue(len(whole) / 3 < len(half) < len(whole) * 2 / 3, (len(half), len(whole)))

    def test_ports_are_consecutive_and_their_values_differ_and_a_taken_one_is_reported(self):
        self.ports = []
        while len(self.ports) < 3:  # until three in a row are free
            first = random.randrange(10000, 30000)
            self.start("--ports", "3", listen=f"127.0.0.1:{first}", lines=3)
        for i in range(3):
            self.assertIn(b"gateway-%d" % (i + 1),
                          self.talk(HELLO + query(b"HOST_NAME") + CLOSE, port=first + i)[0])
        taken = subprocess.run([sys.argv[1], "--listen", f"127.0.0.1:{first}"],
                               capture_output=True, text=True, timeout=10)
        self.assertRegex(taken.stderr, r"^zebgatewaysim: .*in use.*--listen.*\n$")
        self.assertEqual((taken.returncode, taken.stdout), (1, ""))

    def test_silent_clients_do_not_shut_out_others_and_odd_names_arrive_as_they_are(self):
        self.start("--odd-names", limit=64)
        monitor = self.connect()
        monitor.sendall(HELLO)
        self.assertEqual(monitor.recv(1)[:1], b"G")
        for _ in range(200):
            self.connect()
        self.assertEqual(self.talk(CLOSE), (CLOSE[:12] + pack(">2I", 202, 0) + CLOSE[20:], None))
        monitor.sendall(query(b"ODD") + CLOSE)
        got = b"".join(iter(lambda: monitor.recv(65536), b""))
        for odd in (b"\x1B[2J", b"\xC0\x80", b"\0after", b"\xE2\x80\xAE", b"\xE2\x80\x8B",
                    b"\xED\xA0\xBD\xED\xB8\x80", b"L" * 1000):
            self.assertTrue(odd in got, odd)

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
