// A fixed pool of plain functions that route the helper library's
// connection reports (void(*)(bool), no context pointer) to the callable of
// the manager that borrowed the function.
//
// A report runs the callable without any pool lock held, so the callable may
// take locks of its own. unbind() stops new reports and waits for running ones
// to leave the callable, except for one running on the calling thread (a host
// callback that tears its own device down must not wait for itself).
#pragma once

#include "BlueShimApi.h"
#include "IBluetoothLEManager.h"

namespace bletrampoline {

inline constexpr int kSlotCount = 128;

// Takes a free slot; -1 when every slot is taken.
int acquire();
// The plain function bound to slot.
BleConnectStateFn function(int slot);
// Stores (or replaces) the callable that reports on slot reach.
void bind(int slot, IBluetoothLEManager::ConnectStateCallback callable);
// Drops the callable and waits until no other thread runs it.
void unbind(int slot);
// True inside a report whose slot was unbound meanwhile by this very thread
// (a host callback that destroyed the device): the callable must not touch
// its object any more.
bool reportCancelled();
// Returns the slot to the pool (after unbind).
void release(int slot);

}  // namespace bletrampoline
