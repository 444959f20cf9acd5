#!/usr/bin/env python3
"""Temperature logger: print the focuser's temperature and position as CSV
at a fixed interval, until Ctrl-C (or --count readings).

    python3 temperature_logger.py --simulate --interval 2 --count 5
"""
import argparse
import csv
import datetime
import sys
import time

import nkr

# The whole first paragraph, not a line cut mid-sentence.
parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--simulate", action="store_true", help="run against simulated units")
parser.add_argument("--unit", default="0", help="slot id, serial number or alias (default 0)")
parser.add_argument("--interval", type=float, default=60, help="seconds between readings (60)")
parser.add_argument("--count", type=int, default=0, help="stop after this many readings (0: never)")
args = parser.parse_args()
if args.interval <= 0 or args.count < 0:
    parser.error("--interval must be positive and --count 0 or more")

if args.simulate:
    # The simulated units every simulated front-end shares (nkr --simulate
    # sees the same), with their settings apart from yours.
    nkr.simulate()

unit = int(args.unit) if args.unit.isdigit() else args.unit
writer = csv.writer(sys.stdout)
try:
    with nkr.open(unit) as focuser:
        # The header only once there is a unit to read: no half a CSV on failure.
        writer.writerow(["time_utc", "position", "temperature_c"])
        taken = 0
        next_reading = time.monotonic()
        while args.count == 0 or taken < args.count:
            now = datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds")
            try:
                writer.writerow([now, focuser.position, f"{focuser.temperature:.2f}"])
            except nkr.GeneralError as error:  # one bad reading: note it and go on
                print(f"{now}: {error}", file=sys.stderr)
            sys.stdout.flush()
            taken += 1
            next_reading += args.interval
            if args.count == 0 or taken < args.count:
                time.sleep(max(0.0, next_reading - time.monotonic()))
except KeyboardInterrupt:
    pass
except (nkr.NKRError, nkr.LibraryNotFoundError) as error:
    sys.exit(f"temperature_logger.py: {error}\n(no focuser connected? add --simulate to try it on simulated units)")
