#!/usr/bin/env python3
"""Minimal move: open the first focuser, move it 500 steps out and back.

    python3 minimal_move.py              # real units
    python3 minimal_move.py --simulate   # simulated units, no hardware needed
"""
import argparse
import os

import nkr

parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("--simulate", action="store_true", help="run against simulated units")
parser.add_argument("--unit", default="0", help="slot id, serial number or alias (default 0)")
args = parser.parse_args()

if args.simulate:
    # The SDK saves the last position in $HOME/.HTX: keep the simulated
    # units' record apart from the real one (the nkr tool uses this folder too).
    nkr.simulate(state_dir=os.path.expanduser("~/.local/state/nkr-sim"))

unit = int(args.unit) if args.unit.isdigit() else args.unit
with nkr.open(unit) as focuser:  # closed (position saved) however the block ends
    start = focuser.position
    print(f"unit {focuser.id}: firmware {focuser.firmware}, at {start}, {focuser.temperature:.2f} °C")
    target = start + 500 if start + 500 <= focuser.step_range else start - 500
    focuser.move_to(target, timeout=60)
    print(f"moved to {focuser.position}")
    focuser.move_to(start, timeout=60)
    print(f"back at {focuser.position}")
