#!/usr/bin/env python3
"""Polls several gateways side by side and prints what changed, with rates and failures.

usage: poll_gateways.py [--every SECONDS] [--rounds N] [--timeout SECONDS] [--group GROUP]...
                        HOST[:PORT]...

Each gateway has a thread, which connects it and polls it, so a slow one delays no other. A gateway
that fails is connected again at its next round. Exits with 1 if a gateway failed in its last round,
with 130 after Ctrl-C.
"""

import argparse
import sys
import threading
import time
from typing import Dict, List, Optional

import zebstats


class Poller:
    """One gateway, and its numbers in the round before."""

    def __init__(self, address: str, arguments: argparse.Namespace) -> None:
        self.has_failed = False  # in the latest round
        self._address = address
        self._arguments = arguments
        self._gateway: Optional[zebstats.Gateway] = None
        self._known: Dict[str, float] = {}
        self._asked = 0.0

    def run(self) -> None:
        for number in range(self._arguments.rounds):
            if number > 0:
                time.sleep(self._arguments.every)
            try:
                lines = self._poll()
            except zebstats.Error as failure:
                self.has_failed = True
                sys.stderr.write(f"poll_gateways: {failure}\n")
            else:
                self.has_failed = False
                # In one piece, so that the lines of several threads do not mix.
                sys.stdout.write("".join(line + "\n" for line in lines))
                sys.stdout.flush()
        if self._gateway is not None:
            self._gateway.close()

    def _poll(self) -> List[str]:
        """Returns a line for each number that is new or has changed."""
        if self._gateway is None or not self._gateway.is_open:
            self._known = {}
            self._gateway = zebstats.connect(self._address, timeout=self._arguments.timeout)
        stats = self._gateway.stats(groups=self._arguments.group)
        now = time.monotonic()
        lines = [line for line in (self._describe(stat, now) for stat in stats) if line]
        self._known = {stat.id: stat.number for stat in stats if stat.number is not None}
        self._asked = now
        return lines

    def _describe(self, stat: zebstats.Stat, now: float) -> Optional[str]:
        before = self._known.get(stat.id)
        if stat.number is None or stat.number == before:
            return None
        line = f"{self._address} {stat.id} = {stat.value}"
        if before is None:
            return line
        return f"{line} ({(stat.number - before) / (now - self._asked):+.1f}/s)"


def main() -> int:
    parser = argparse.ArgumentParser(description="Polls several gateways side by side.")
    parser.add_argument("gateways", nargs="+", metavar="HOST[:PORT]")
    parser.add_argument("--every", type=float, default=1, metavar="SECONDS")
    parser.add_argument("--rounds", type=int, default=3, metavar="N")
    parser.add_argument("--timeout", type=float, default=5, metavar="SECONDS")
    parser.add_argument("--group", action="append", metavar="GROUP")
    arguments = parser.parse_args()

    pollers = [Poller(address, arguments) for address in arguments.gateways]
    # Daemon threads, because Ctrl-C is not to wait for gateways.
    threads = [threading.Thread(target=poller.run, daemon=True) for poller in pollers]
    for thread in threads:
        thread.start()
    try:
        for thread in threads:
            thread.join()
    except KeyboardInterrupt:
        return 130
    return 1 if any(poller.has_failed for poller in pollers) else 0


if __name__ == "__main__":
    sys.exit(main())
