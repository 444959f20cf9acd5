#!/usr/bin/env python3
"""Minimal move: open the first focuser, move it 500 steps out and back.

    python3 minimal_move.py              # real units
    python3 minimal_move.py --simulate   # simulated units, no hardware needed
"""
import argparse
import sys

import nkr

# The whole first paragraph, not a line cut mid-sentence.
parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--simulate", action="store_true", help="run against simulated units")
parser.add_argument("--unit", default="0", help="slot id, serial number or alias (default 0)")
args = parser.parse_args()

if args.simulate:
    # The simulated units every simulated front-end shares (nkr --simulate
    # sees the same), with their settings apart from yours.
    nkr.simulate()



def main() -> None:
    unit = int(args.unit) if args.unit.isdigit() else args.unit
    with nkr.open(unit) as focuser:  # closed (position saved) however the block ends
        start = focuser.position
        print(f"unit {focuser.id}: firmware {focuser.firmware}, at {start}, {focuser.temperature:.2f} °C")
        target = start + 500 if start + 500 <= focuser.max_step else start - 500
        focuser.move_to(target, timeout=60)
        print(f"moved to {focuser.position}")
        focuser.move_to(start, timeout=60)
        print(f"back at {focuser.position}")


try:
    main()
except KeyboardInterrupt:  # the motor was stopped before this reached here
    sys.exit(130)
except (nkr.NKRError, nkr.LibraryNotFoundError) as error:
    sys.exit(f"minimal_move.py: {error}\n(no focuser connected? add --simulate to try it on simulated units)")
