// Process-wide slot tables of the C layer: USB paths bound to slots 0..127,
// the device objects, and one lock record per slot.
#pragma once
#include "../../include/NKR_focuser.h"
#include "../common/CriSec.h"

#include <atomic>

class CNKR;

inline constexpr int NKR_LOCK_COUNT = 64;
inline constexpr int NKR_PATH_LEN = 256;

struct SlotLockRecord {
    S_MUTEX_UNIX locks[NKR_LOCK_COUNT];
    std::atomic<unsigned char> busy[NKR_LOCK_COUNT];
    std::atomic<unsigned char> locksReady;
};

extern char DevPathArray[NKR_MAX_SLOTS][NKR_PATH_LEN];
extern char DevPathScan[NKR_MAX_SLOTS][NKR_PATH_LEN];
extern int iConnectedNKR;
// Device objects; atomic because BLE slots and scans read them without a slot lock.
extern std::atomic<CNKR*> pNKR[NKR_MAX_SLOTS];
extern SlotLockRecord MutexCamPt[NKR_MAX_SLOTS];
extern int g_BleStartId;

// Guards a BLE slot's object against being destroyed by NKRBLEDisconnect while
// another host thread is inside a call on it: calls share it, connect and
// disconnect take it exclusively.
#include <shared_mutex>
extern std::shared_mutex g_bleSlotGuard[NKR_MAX_SLOTS];

// True when id names a slot of the tables.
inline bool slotInRange(int id) { return id >= 0 && id < NKR_MAX_SLOTS; }
