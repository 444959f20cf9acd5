// Delivers the helper's connection reports on a thread of the simulator's
// own, as the real helper does, and never under the world lock.
#pragma once

#include "ble/BlueShimApi.h"

namespace nkrsim::detail {

// Queues callback(connected) for the manager; starts the thread when needed.
void postConnectionEvent(void* manager, BleConnectStateFn callback, bool connected);
// Waits until every event queued so far has been delivered.
void flushConnectionEvents();
// Drops the manager's queued events and waits for one being delivered
// (unless called from that very delivery).
void forgetConnectionEvents(void* manager);
// Discards queued events and joins the thread.
void stopConnectionEvents();

}  // namespace nkrsim::detail
