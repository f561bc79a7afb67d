#!/usr/bin/env python3
"""Polls several gateways side by side and prints what changed, with rates and failures.

usage: poll_gateways.py [--every SECONDS] [--rounds N] [--timeout SECONDS] [--group GROUP]...
                        HOST[:PORT]...

A gateway that fails is connected again at the next round; the others do not wait for it. Exits with
1 if a gateway failed in the last round, with 130 after Ctrl-C.
"""

import argparse
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Dict, List, Optional

import zebstats


class Poller:
    """One gateway, and its numbers in the round before."""

    def __init__(self, address: str, arguments: argparse.Namespace) -> None:
        self.address = address
        self._arguments = arguments
        self._gateway: Optional[zebstats.Gateway] = None
        self._known: Dict[str, float] = {}
        self._asked = 0.0

    def poll(self) -> List[str]:
        """Returns a line for each statistic that is new or has changed; raises zebstats.Error."""
        if self._gateway is None or not self._gateway.is_open:
            self._gateway = None
            self._gateway = zebstats.connect(self.address, timeout=self._arguments.timeout)
            self._known = {}
        stats = self._gateway.stats(groups=self._arguments.group or None)
        now = time.monotonic()
        lines = [line for line in (self._describe(stat, now) for stat in stats) if line]
        self._known = {stat.id: float(stat.number) for stat in stats if stat.number is not None}
        self._asked = now
        return lines

    def _describe(self, stat: zebstats.Stat, now: float) -> Optional[str]:
        before = self._known.get(stat.id)
        if stat.number is None or stat.number == before:
            return None
        line = f"{self.address} {stat.id} = {stat.value}"
        if before is None:
            return line
        return f"{line} ({(stat.number - before) / (now - self._asked):+.1f}/s)"

    def close(self) -> None:
        if self._gateway is not None:
            self._gateway.close()


def poll_all(pollers: List[Poller], pool: ThreadPoolExecutor) -> bool:
    """Polls once; prints results to standard output, failures to standard error. Returns whether
    all gateways answered."""
    all_answered = True
    for poller, answer in [(poller, pool.submit(poller.poll)) for poller in pollers]:
        try:
            lines = answer.result()
        except zebstats.Error as failure:
            all_answered = False
            print(f"poll_gateways: {failure}", file=sys.stderr)
        else:
            print("\n".join(lines) if lines else f"{poller.address}: nothing changed", flush=True)
    return all_answered


def main() -> int:
    parser = argparse.ArgumentParser(description="Polls several gateways side by side.")
    parser.add_argument("gateways", nargs="+", metavar="HOST[:PORT]")
    parser.add_argument("--every", type=float, default=1, metavar="SECONDS")
    parser.add_argument("--rounds", type=int, default=3, metavar="N")
    parser.add_argument("--timeout", type=float, default=5, metavar="SECONDS")
    parser.add_argument("--group", action="append", metavar="GROUP")
    arguments = parser.parse_args()

    pollers = [Poller(address, arguments) for address in arguments.gateways]
    all_answered = False
    with ThreadPoolExecutor(len(pollers)) as pool:
        try:
            for number in range(arguments.rounds):
                if number > 0:
                    time.sleep(arguments.every)
                all_answered = poll_all(pollers, pool)
        except KeyboardInterrupt:
            return 130
        finally:
            for poller in pollers:
                poller.close()
    return 0 if all_answered else 1


if __name__ == "__main__":
    sys.exit(main())
