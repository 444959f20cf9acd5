// Process-wide slot tables of the C layer: USB paths bound to slots 0..127,
// the device objects, and one lock record per slot.
#pragma once
#include "../../include/NKR_focuser.h"
#include "CriSec.h"

class CNKR;

inline constexpr int NKR_LOCK_COUNT = 64;
inline constexpr int NKR_PATH_LEN = 256;

struct SlotLockRecord {
    S_MUTEX_UNIX locks[NKR_LOCK_COUNT];
    volatile unsigned char busy[NKR_LOCK_COUNT];
    volatile unsigned char locksReady;
};

extern char DevPathArray[NKR_MAX_SLOTS][NKR_PATH_LEN];
extern char DevPathScan[NKR_MAX_SLOTS][NKR_PATH_LEN];
extern int iConnectedNKR;
extern CNKR* pNKR[NKR_MAX_SLOTS];
extern SlotLockRecord MutexCamPt[NKR_MAX_SLOTS];
extern int g_BleStartId;
