"""Tests the package against simulated gateways. The environment names their program, ZEBGATEWAYSIM,
and the library, ZEBSTATS_LIBRARY."""

import asyncio
import contextlib
import copy
import os
import pickle
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import warnings
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from unittest import mock

import zebstats
from zebstats import _library, _text, codes
from zebstats._gateway import _Questions, parse_address

ROOT = Path(__file__).resolve().parents[2]


def enter(test, context):
    """Is TestCase.enterContext, which Python 3.9 does not have."""
    entered = context.__enter__()
    test.addCleanup(context.__exit__, None, None, None)
    return entered


class Simulator:
    """A simulated gateway on a port of its own."""

    def __init__(self, test, *options):
        program = [os.environ["ZEBGATEWAYSIM"], "--listen", "127.0.0.1:0", *options]
        self.process = enter(test, subprocess.Popen(program, stdout=subprocess.PIPE, text=True))
        test.addCleanup(self.process.kill)
        self.address = self.process.stdout.readline().split()[-1]
        self.port = int(self.address.split(":")[1])


@contextlib.contextmanager
def took(test, least, most=5):
    start = time.monotonic()
    yield
    test.assertTrue(least <= time.monotonic() - start <= most, time.monotonic() - start)


def in_thread(call, *arguments):
    with ThreadPoolExecutor(1) as pool:
        return pool.submit(call, *arguments).result()


def run_soon(call):
    timer = threading.Timer(0.2, call)
    timer.start()
    return timer


class Tables(unittest.TestCase):
    def test_codes_and_version_are_those_of_the_library(self):
        header = (ROOT / "include/zebstats.h").read_text()
        expected = {name: int(value) for name, value in re.findall(r"(ZEB_\w+) = (-?\d+)", header)}
        actual = {name: value for name, value in vars(codes).items() if name.startswith("ZEB_")}
        self.assertEqual(actual, expected)
        self.assertNotIn("unknown code", {zebstats.describe(code) for code in actual.values()})
        project = (ROOT / "CMakeLists.txt").read_text()
        version = re.search(r"project\(zebstats VERSION (\S+)", project)
        self.assertEqual(zebstats.__version__, version[1])

    def test_texts_are_modified_utf8(self):
        text = "a\0\u00e4\u20ac\U0001f600!"
        data = b"a\xc0\x80\xc3\xa4\xe2\x82\xac\xed\xa0\xbd\xed\xb8\x80!"
        self.assertEqual((_text.decode(data), _text.encode(text)), (text, data))
        for data in (b"\xff", b"\xc0", b"\xed\xa0\xbd", b"\xed\xb8\x80", b"\xc3"):
            self.assertEqual(_text.decode(b"<" + data + b">"), "<\ufffd>", data)
        self.assertEqual(_text.decode(b"\xed\xa0\xbd\xed\xa0\xbd\xed\xb8\x80"), "\ufffd\U0001f600")

    def test_numbers_are_whole_decimal_texts(self):
        def stat(value):
            return zebstats.Stat("ID", value, "", b"")

        big = "12345678901234567890123"
        for value, number in (("-7", -7), (big, int(big)), ("1.5", 1.5), ("2e3", 2000.0)):
            self.assertEqual(stat(value).number, number)
            self.assertIs(type(stat(value).number), type(number))
        for value in ("", " 1", "1_0", "nan", "inf", "1e999", "0x1", "\u0661", "1\n", "007", "+1"):
            self.assertIsNone(stat(value).number, value)
            self.assertRaisesRegex(ValueError, "'ID' is not", stat(value).as_float)
        self.assertEqual((stat("3").as_int(), stat("3").as_float()), (3, 3.0))
        self.assertRaises(ValueError, stat("3.0").as_int)
        self.assertIsNone(zebstats.Stat("ID", "9" * 5000, "", b"").number)

    def test_addresses(self):
        for text, parsed in (
            ("gw", ("gw", 2980)),
            ("gw:1", ("gw", 1)),
            ("[::1]", ("::1", 2980)),
            ("::1", ("::1", 2980)),
            ("[fe80::1%lo]:65535", ("fe80::1%lo", 65535)),
        ):
            self.assertEqual(parse_address(text), parsed)
        for text in ("", ":1", "gw:", "1:2:3", "[::1", "[]:1", "gw:0", "gw:65536", "gw:\u0661"):
            self.assertRaises(ValueError, parse_address, text)

    def test_a_missing_library_says_what_to_install(self):
        environment = {**os.environ, "ZEBSTATS_LIBRARY": "/no/lib.so"}
        command = [sys.executable, "-c", "import zebstats"]
        ended = subprocess.run(command, env=environment, stderr=subprocess.PIPE, text=True)
        self.assertRegex(ended.stderr, "ImportError: .*install the package.*libzebstats1")

    def test_the_trace_goes_to_a_file(self):
        self.addCleanup(zebstats.set_trace, 0)
        path = Path(enter(self, tempfile.TemporaryDirectory())) / "tr\udcffce"  # no UTF-8
        for level, wrong in ((6, path), (-1, path), (1, f"{path}\0"), (1, path.parent)):
            self.assertRaises(zebstats.ArgumentError, zebstats.set_trace, level, wrong)
        self.assertEqual(os.listdir(path.parent), [])
        zebstats.set_trace(1, path)
        self.assertIn("ZEBSTATS", path.read_text())
        self.assertEqual(os.listdir(path.parent), [path.name])


class Answers(unittest.TestCase):
    def test_stats_ids_and_groups(self):
        simulator, open_files = Simulator(self), os.listdir("/proc/self/fd")
        with zebstats.connect(simulator.address, timeout=20) as gateway:
            groups, ids, stats = gateway.groups(), gateway.ids(), gateway.stats()
            self.assertIn("LINK", groups)
            self.assertEqual([stat.id for stat in stats], ids)
            self.assertEqual(gateway.ids(groups=groups), ids)
            link = gateway.stats(groups="LINK")
            self.assertEqual([stat.id for stat in link], gateway.ids(groups=["LINK"]))
            self.assertEqual({stat.element for stat in link}, {"LINK"})
            cpus = gateway.stats(ids=["HOST_CPUS", b"LINK_STATE"])
            self.assertEqual(cpus[0], ("HOST_CPUS", "16", "HOST_CPUS", b"16"))
            self.assertEqual(gateway.stats(ids=[]), [])
        self.assertEqual(len(stats), len(ids))  # answers outlive the connection
        self.assertFalse(gateway.is_open)
        self.assertEqual(os.listdir("/proc/self/fd"), open_files)
        self.assertRaises(zebstats.ClosedError, gateway.stats)
        gateway.close()

    def test_refused_elements_are_raised_or_listed(self):
        with zebstats.connect(Simulator(self).address) as gateway:
            with self.assertRaisesRegex(zebstats.RefusedError, "'TYPO' and 1 more") as raised:
                gateway.stats(ids=["HOST_CPUS", "TYPO", "NONE"])
            error = pickle.loads(pickle.dumps(raised.exception))
            self.assertEqual([stat.id for stat in error.answer], ["HOST_CPUS"])
            self.assertEqual([part.element for part in error.answer.refused], ["TYPO", "NONE"])
            self.assertTrue(error.code == error.answer.refused[0].code < 0)
            partial = gateway.ids(groups=["NONE", "LINK"], partial=True)
            self.assertEqual((len(partial), partial.refused[0].element), (10, "NONE"))
            for wrong in ("A:B", "", ["A", ""], b"A\0"):
                self.assertRaises(ValueError, gateway.stats, ids=wrong)
            self.assertRaises(TypeError, gateway.stats, ids="A", groups="B")
            self.assertRaises(TypeError, gateway.stats, ids=[None])
            self.assertRaises(TypeError, copy.copy, gateway)  # its end would close this one
            self.assertTrue(gateway.is_open)

    def test_answers_too_large_for_one_query_are_split(self):
        with zebstats.connect(Simulator(self, "--scale", "400").address, timeout=60) as gateway:
            groups = gateway.groups()
            stats = gateway.stats(groups=groups)
            self.assertEqual(len({stat.id for stat in stats}), 10 * 400 * len(groups))
            self.assertEqual(list(dict.fromkeys(stat.element for stat in stats)), groups)
            everything = gateway.stats()
            self.assertEqual({stat.element for stat in everything}, {""})
            for ids in (gateway.ids(), [stat.id for stat in everything]):
                self.assertEqual(ids, [stat.id for stat in stats])
            self.assertEqual([stat.id for stat in gateway.stats(ids=ids[:4000])], ids[:4000])
        with zebstats.connect(Simulator(self, "--scale", "900").address, timeout=60) as gateway:
            with self.assertRaisesRegex(zebstats.QueryError, "'LISTEN' is too large or damaged"):
                gateway.stats()  # not even the ids of one group fit
            self.assertEqual(gateway.groups(), groups)

    def test_no_part_of_a_large_answer_is_left_out(self):
        def ask(query, text, walk, element):
            asked.append(text)
            if query is _library.get_groups:
                walk.entries += groups
            return query is not _library.get_stats

        questions, asked, groups = _Questions(mock.Mock(what="gw")), [], [b"A\0B", b"C"]
        with mock.patch.object(questions, "_ask", ask):
            questions.stats(None)
            self.assertEqual(asked[-1], b"A\xc0\x80B:C")  # not up to a NUL only
            groups = []
            self.assertRaises(zebstats.QueryError, questions.stats, None)


class Failures(unittest.TestCase):
    def test_each_failed_connect_has_its_class(self):
        silent = Simulator(self, "--mute").address
        for address, family, code in (
            ("127.0.0.1:1", zebstats.ConnectError, codes.ZEB_CONNECT_REFUSED),
            ("no.such.invalid", zebstats.ConnectError, codes.ZEB_HOST_UNKNOWN),
            ("127.0.0.1:0", zebstats.ArgumentError, codes.ZEB_PORT_INVALID),
            (silent, TimeoutError, codes.ZEB_CONNECT_TIMED_OUT),
        ):
            with self.assertRaises(family) as raised, took(self, 0):
                zebstats.connect(address, timeout=0.5)
            error = pickle.loads(pickle.dumps(raised.exception))
            self.assertEqual((error.code, error.text), (code, zebstats.describe(code)))
            self.assertIn(address, str(error))
        self.assertRaises(zebstats.ArgumentError, zebstats.connect, silent, timeout=0)
        with self.assertRaises(KeyboardInterrupt), took(self, 0.1):
            run_soon(lambda: os.kill(os.getpid(), signal.SIGINT))
            zebstats.connect(silent, timeout=30)

    def test_an_interrupt_while_its_thread_starts_leaves_no_thread(self):
        def start(thread, start=threading.Thread.start):
            start(thread)
            raise KeyboardInterrupt

        with mock.patch("threading.Thread.start", start), self.assertRaises(KeyboardInterrupt):
            zebstats.connect("127.0.0.9")
        for thread in threading.enumerate():
            if thread.name == "zebstats 127.0.0.9":
                thread.join(10)
                self.assertFalse(thread.is_alive())

    def test_each_address_of_a_name_is_tried_and_gets_a_share_of_the_time(self):
        simulator = Simulator(self)
        enter(self, socket.create_server(("127.0.0.3", simulator.port)))
        resolve = enter(self, mock.patch("socket.getaddrinfo"))

        def connect(*hosts):
            resolve.return_value = [(2, 1, 6, "", (host, simulator.port)) for host in hosts]
            zebstats.connect(f"gw:{simulator.port}", timeout=2).close()

        for first, least in (("127.0.0.2", 0), ("127.0.0.3", 0.9)):
            with took(self, least, least + 2):
                connect(first, "127.0.0.1")
        with self.assertRaisesRegex(zebstats.ConnectError, "tried 127.0.0.4, 127.0.0.5"):
            connect("127.0.0.4", "127.0.0.5")

    def test_what_ends_the_wait_for_a_silent_gateway(self):
        lost = zebstats.ConnectionLostError
        for end, family in (
            (lambda gateway, simulator: None, TimeoutError),
            (lambda gateway, simulator: os.kill(os.getpid(), signal.SIGINT), KeyboardInterrupt),
            (lambda gateway, simulator: gateway.close(), lost),
            (lambda gateway, simulator: simulator.process.kill(), lost),
        ):
            simulator, other = Simulator(self, "--mute=query"), Simulator(self)
            timeout = 0.5 if family is TimeoutError else None
            with zebstats.connect(other.address, timeout=60) as witness:
                gateway = zebstats.connect(simulator.address, timeout=timeout)
                timer = run_soon(lambda: end(gateway, simulator))
                with self.assertRaises(family), took(self, 0.15):
                    gateway.stats()
                timer.join()
                self.assertFalse(gateway.is_open)
                self.assertTrue(gateway._session._ended.wait(10))  # its thread has ended
                self.assertRaises(zebstats.ClosedError, gateway.groups)
                self.assertEqual(len(witness.stats()), 60)

    def test_a_short_timeout_leaves_other_gateways_alone(self):
        simulator, other = Simulator(self, "--slow", "0.6"), Simulator(self)
        patient = enter(self, zebstats.connect(simulator.address, timeout=30))
        enter(self, zebstats.connect(other.address, timeout=0.2))
        with took(self, 0.5, 20):
            self.assertEqual(len(patient.stats()), 60)

    def test_only_the_thread_that_connected_asks_and_any_thread_closes(self):
        address = Simulator(self).address
        gateway = in_thread(zebstats.connect, address)  # the next thread may get the same id
        for ask in (gateway.stats, gateway.ids, gateway.groups, lambda: gateway.stats(ids=[])):
            for caller in (in_thread, lambda call: call()):
                with self.assertRaisesRegex(zebstats.Error, "for each thread$") as raised:
                    caller(ask)
                self.assertIs(type(raised.exception), zebstats.WrongThreadError)
                self.assertEqual(raised.exception.code, codes.ZEB_OTHER_THREAD)
        self.assertTrue(gateway.is_open)
        in_thread(gateway.__exit__, None, None, None)
        self.assertTrue(gateway._session._ended.is_set())

        async def poll(pool):
            run = asyncio.get_running_loop().run_in_executor
            gateway = await run(pool, zebstats.connect, address)
            with gateway:  # the block ends in the thread of the event loop
                return await run(pool, gateway.stats)

        with ThreadPoolExecutor(1) as pool:
            self.assertEqual(len(asyncio.run(poll(pool))), 60)

    def test_a_forked_child_connects_its_own_gateway(self):
        with zebstats.connect(Simulator(self).address) as gateway:
            child = os.fork()
            if child == 0:
                try:
                    gateway.stats()
                except zebstats.WrongProcessError:
                    gateway.close()
                    with zebstats.connect(gateway.address) as own:
                        os._exit(len(own.groups()))
                os._exit(99)
            self.assertEqual(os.WEXITSTATUS(os.waitpid(child, 0)[1]), len(gateway.groups()))

    def test_a_forgotten_gateway_is_reported_and_closed(self):
        hook = enter(self, mock.patch("sys.unraisablehook"))  # for warnings that are errors
        for action in ("always", "error"):
            gateways = [zebstats.connect(Simulator(self).address)]
            ended = gateways[0]._session._ended
            with warnings.catch_warnings(record=True) as caught:
                warnings.simplefilter(action)
                in_thread(gateways.clear)
            said = caught[0].message if caught else hook.call_args[0][0].exc_value
            self.assertRegex(str(said), "^unclosed <zebstats.Gateway 127.0.0.1:.* open>$")
            self.assertTrue(ended.wait(10))


if __name__ == "__main__":
    unittest.main()
