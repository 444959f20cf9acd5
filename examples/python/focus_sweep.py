#!/usr/bin/env python3
"""Focus sweep: step through a range of positions around the current one,
record position, temperature and the time each step took as CSV, then
return to the start.

At each step a real autofocus script would take an exposure and measure the
star size; the CSV is the frame for that.

    python3 focus_sweep.py --simulate --half-width 1000 --step 250 --output sweep.csv
"""
import argparse
import csv
import sys
import time

import nkr

# The whole first paragraph, not a line cut mid-sentence.
parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--simulate", action="store_true", help="run against simulated units")
parser.add_argument("--unit", default="0", help="slot id, serial number or alias (default 0)")
parser.add_argument("--half-width", type=int, default=1000, help="steps either side of the start (1000)")
parser.add_argument("--step", type=int, default=250, help="steps between positions (250)")
parser.add_argument("--output", help="CSV file (default: standard output)")
parser.add_argument("--timeout", type=float, default=60, help="longest move in seconds (60)")
args = parser.parse_args()
if args.step <= 0 or args.half_width < 0:
    parser.error("--step must be positive and --half-width 0 or more")

if args.simulate:
    # The simulated units every simulated front-end shares (nkr --simulate
    # sees the same), with their settings apart from yours.
    nkr.simulate()



def sweep(out) -> None:
    unit = int(args.unit) if args.unit.isdigit() else args.unit
    with nkr.open(unit) as focuser:
        start = focuser.position
        low = max(0, start - args.half_width)
        high = min(focuser.max_step, start + args.half_width)
        writer = csv.writer(out)
        writer.writerow(["position", "temperature_c", "seconds"])
        try:
            for target in range(low, high + 1, args.step):
                began = time.monotonic()
                position = focuser.move_to(target, timeout=args.timeout)
                took = time.monotonic() - began
                writer.writerow([position, f"{focuser.temperature:.2f}", f"{took:.3f}"])
                out.flush()
        except KeyboardInterrupt:  # move_to stopped the motor; now back to the start
            focuser.move_to(start, timeout=args.timeout)
            print(f"interrupted; back at {focuser.position}", file=sys.stderr)
            raise
        except BaseException:  # back to the start after any error too
            focuser.move_to(start, timeout=args.timeout)
            raise
        focuser.move_to(start, timeout=args.timeout)
        print(f"sweep {low}..{high} done, back at {focuser.position}", file=sys.stderr)


out = open(args.output, "w", newline="") if args.output else sys.stdout
try:
    sweep(out)
except KeyboardInterrupt:
    sys.exit(130)
except (nkr.NKRError, nkr.LibraryNotFoundError) as error:
    sys.exit(f"focus_sweep.py: {error}\n(no focuser connected? add --simulate to try it on simulated units)")
finally:
    if out is not sys.stdout:
        out.close()
