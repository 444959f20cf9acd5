"""Two threads driving two units at once, and a thread watching a move that
another thread waits for: the SDK's blocking calls must not hold the GIL."""
from __future__ import annotations

import threading

import nkr
from conftest import OTHER_UNIT, UNIT

BOUND = 30.0  # seconds; every wait in here is bounded by it


def test_two_threads_move_two_units():
    start = threading.Barrier(2, timeout=BOUND)
    results: dict[int, int] = {}
    failures: list[BaseException] = []

    def drive(unit_id: int, steps: int) -> None:
        try:
            with nkr.open(unit_id) as unit:
                unit.wait(timeout=BOUND)
                target = unit.position + steps
                start.wait()
                results[unit_id] = unit.move_to(target, timeout=BOUND)
                assert results[unit_id] == target
                unit.move_by(-steps, timeout=BOUND)
        except BaseException as error:  # reported by the main thread
            failures.append(error)

    threads = [threading.Thread(target=drive, args=(UNIT, 800)),
               threading.Thread(target=drive, args=(OTHER_UNIT, -600))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(BOUND * 3)
    assert not any(thread.is_alive() for thread in threads)
    assert not failures, failures
    assert set(results) == {UNIT, OTHER_UNIT}


def test_a_thread_watches_while_another_waits_for_the_move():
    with nkr.open(UNIT) as unit:
        unit.wait(timeout=BOUND)
        home = unit.position
        target = home + 2000
        watching = threading.Event()
        stop_watching = threading.Event()
        seen: list[tuple[int, bool]] = []

        def watch() -> None:
            watching.set()
            while not stop_watching.is_set():
                seen.append((unit.position, unit.moving))
                stop_watching.wait(0.01)

        watcher = threading.Thread(target=watch)
        watcher.start()
        assert watching.wait(BOUND)
        try:
            assert unit.move_to(target, timeout=BOUND) == target
        finally:
            stop_watching.set()
            watcher.join(BOUND)
        assert any(moving for _, moving in seen), "the watcher never ran during the move"
        assert all(home <= position <= target for position, _ in seen)
        unit.move_to(home, timeout=BOUND)
