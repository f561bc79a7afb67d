#!/usr/bin/env python3
"""Makes one table of the results of the benchmark programs.

usage: table.py [--check] OUTPUT.json RESULT.json...

Prints the machine and the table, and writes both to OUTPUT.json. With --check the exit code is 1 if
a quantity misses its target by more than a fifth."""

import json
import re
import sys

TOLERANCE = 1.2
DETAILS = r" ns$|bytes$|^rounds$|^shared$"


def number(value):
    return f"{value:.2f}".rstrip("0").rstrip(".")


def read_row(result):
    row = {"quantity": result["name"].split("/iterations:")[0]}
    if result.get("error_occurred"):
        return row | {"not measured": result["error_message"]}
    at_least = result["atLeast"] == 1
    value, target = result["value"], result["target"]
    met = value >= target if at_least else value <= target
    missed_by = target / value if at_least else value / max(target, 0.5)
    known = ("value", "target", "aim", "spread")
    row |= {key: result[key] for key in known if key in result}
    aim = result["aim"]
    row |= {
        "met": met,
        "aim met": None if aim == 0 and target != 0 else value <= aim,
        "badly missed": missed_by > TOLERANCE,
        "atLeast": at_least,
        "details": {key: result[key] for key in result if re.search(DETAILS, key)},
    }
    return row


def print_row(row):
    if "not measured" in row:
        print(f"| {row['quantity']} | not measured: {row['not measured']} | | | | |")
        return
    limit = "at least " if row["atLeast"] else ""
    aim = "" if row["aim met"] is None else number(row["aim"])
    spread = f"± {row['spread']:.2f}" if "spread" in row else "counted"
    met = "no" if not row["met"] else "yes, aim too" if row["aim met"] else "yes"
    cells = (number(row["value"]), spread, limit + number(row["target"]), aim, met)
    print(f"| {row['quantity']} | {' | '.join(cells)} |")


def main():
    arguments = sys.argv[1:]
    check = "--check" in arguments
    output, *inputs = [argument for argument in arguments if argument != "--check"]
    rows = []
    machine = {}
    for path in inputs:
        with open(path, encoding="utf-8") as file:
            results = json.load(file)
        machine |= results["context"]
        rows += [read_row(result) for result in results["benchmarks"]]
    rows.sort(key=lambda row: (row["quantity"][0], int(re.match(r".(\d+)", row["quantity"])[1])))

    with open(output, "w", encoding="utf-8") as file:
        json.dump({"machine": machine, "rows": rows}, file, indent=1)
    rounds = [int(row["details"]["rounds"]) for row in rows if "rounds" in row.get("details", {})]
    shared = [row["details"]["shared"] for row in rows if "shared" in row.get("details", {})]
    print(f"{machine['processor']}, {machine['num_cpus']} cores, {machine['system']}, compiler "
          f"{machine['compiler']}; on one core; load {max(machine['load_avg']):.1f}; medians of "
          f"{min(rounds)} to {max(rounds)} rounds; {sum(shared) / max(len(shared), 1):.0%} of all "
          f"rounds shared the core and count only in rows with hardly any others\n")
    print("| quantity / floor | measured | spread | target | aim | met |")
    print("|---|---|---|---|---|---|")
    for row in rows:
        print_row(row)
    bad = [row["quantity"] for row in rows if row.get("badly missed")]
    for quantity in bad:
        print(f"missed by more than a fifth: {quantity}", file=sys.stderr)
    sys.exit(1 if check and bad else 0)


if __name__ == "__main__":
    main()
