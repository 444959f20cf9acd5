/*
 * NKR_focuser.h - public interface of the NKR focuser SDK.
 *
 * A host program finds, opens and drives electronic focuser units through
 * the flat functions below. Every per-device function takes an integer slot
 * id and returns an error code from _NKR_ERROR_CODE (as an int).
 *
 *   Slot ids 0..49   USB HID units, found with NKRGetNum / NKRGetID.
 *   Slot ids 50..127 Bluetooth LE units, handed out by NKRBLEConnect.
 *
 * USB calling order:
 *   n = NKRGetNum();                       scan the bus
 *   NKRGetID(i, &id) for i in 0..n-1       scan index -> stable slot id
 *   NKROpen(id);                           open (restores a saved position)
 *   NKRMove(id, 12000); NKRIsMoving(...)   drive the unit
 *   NKRClose(id);                          close (saves position and settings)
 *
 * Bluetooth calling order:
 *   NKRBLEScan -> NKRBLEConnect(name, address, &id) -> optional callback
 *   registrations -> NKRBLEPair(id) on first use -> any per-device function
 *   with that id -> NKRBLEDisconnect(id).
 *
 * Firmware update over USB: NKRHidStartUpdate, then NKRHidWriteUpdateFile for
 * every block of the image in order (1..55 bytes each), then NKRHidEndUpdate.
 * Over Bluetooth: NKRBLEStartUpdate(id, image size), then
 * NKRBLEWriteUpdateFile for every block in order (1..480 bytes each); the
 * unit finishes on its own once it has received the announced size.
 *
 * No function keeps a pointer the host passed in after it returns.
 * Functions are safe to call from several threads; NKRGetNum, NKRGetID and
 * NKROpen must be called from one thread at a time.
 */
#ifndef NKR_FOCUSER_H
#define NKR_FOCUSER_H

#include <stdbool.h>

#if defined(NKR_BUILDING_LIBRARY)
#define NKR_API __attribute__((visibility("default")))
#else
#define NKR_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* USB identifiers of the focuser (pid.codes open-source vendor id). */
#define FOCUSER_USB_VID 0x1209
#define FOCUSER_USB_PID 0x4E4B

#define NKR_MAX_SLOTS 128
#define NKR_BLE_FIRST_ID 50

/* Result of every function. Values are part of the ABI and never change. */
typedef enum _NKR_ERROR_CODE {
    NKR_SUCCESS = 0,                    /* the operation succeeded */
    NKR_ERROR_INVALID_INDEX = 1,        /* scan index out of range / no slot for it */
    NKR_ERROR_INVALID_ID = 2,           /* bad slot id, or the unit's link is not up */
    NKR_ERROR_INVALID_VALUE = 3,        /* argument out of range (or a null pointer) */
    NKR_ERROR_REMOVED = 4,              /* the unit is gone (unplugged, or open failed) */
    NKR_ERROR_MOVING = 5,               /* refused: the motor is moving */
    NKR_ERROR_BAD_STATE = 6,            /* the unit refused to enter the needed state */
    NKR_ERROR_GENERAL = 7,              /* any other failure (transfer, bad answer) */
    NKR_ERROR_NOT_SUPPORTED = 8,        /* the unit's firmware lacks the operation */
    NKR_ERROR_CLOSED = 9,               /* the slot is known but not open */
    NKR_ERROR_BATTERY_RANGE = 10,       /* battery temperature out of range; fields are -1 */
    NKR_ERROR_BAD_LENGTH = 11,          /* a data length is out of bounds */
    NKR_ERROR_BLE_CHECKSUM = 50,        /* a BLE answer failed its checksum */
    NKR_ERROR_BLE_SEND = 51,            /* the Bluetooth helper refused to send */
    NKR_ERROR_BLE_CONNECT = 52,         /* the BLE connection could not be made */
    NKR_ERROR_BLE_NOT_OPEN = 53,        /* no Bluetooth unit in that slot */
    NKR_ERROR_BLE_PAIR = 54,            /* pairing failed / no adapter address */
    NKR_ERROR_BLE_PAIR_REFUSED = 56,    /* the unit refused the pairing */
    NKR_ERROR_BLE_NO_ANSWER = 57,       /* the unit did not answer in time */
    NKR_ERROR_BLE_UNSUPPORTED = 58,     /* this computer has no Bluetooth LE */
    NKR_ERROR_NULL_CALLBACK = 59,       /* a null callback was registered */
    NKR_ERROR_BLE_NEW_CONNECTION = 60,  /* (pair-state callback) new, unpaired connection */
    NKR_ERROR_BLE_LENGTH_MISMATCH = 62  /* the unit took a different block length */
} _NKR_ERROR_CODE;

/* Property record filled by NKRGetProperty. */
typedef struct _NKR_INFO {
    int ID;         /* the slot id asked for */
    char Name[64];  /* "NKR", or "NKR(alias)" */
    int MaxStep;    /* step range of the unit, 0 when unknown */
} _NKR_INFO;

/* Model type text of the unit, NUL-terminated. */
typedef struct _NKR_TYPE {
    char Type[16];
} _NKR_TYPE;

/* Battery block of the battery-powered model. Units are the firmware's. */
typedef struct _NKR_BATTERY_INFO {
    int battery_temp;           /* degrees Celsius, -40..87 */
    int battery_vol;            /* voltage */
    int battery_charge_curr;    /* charge current */
    int battery_percentage;     /* charge state, percent */
    int battery_discharge_curr; /* discharge current */
    int battery_health;         /* health figure */
    int battery_charge_vol;     /* charge voltage */
    int reserved;               /* always 0 */
} _NKR_BATTERY_INFO;

/* One entry of the list of optional features (NKRGetControlCaps). */
typedef struct _NKR_CONTROL_CAPS {
    char Name[32];
    char Description[128];
    unsigned char Supported; /* 1 when the unit has the feature */
    unsigned char Writable;  /* 1 when the host may change it */
    int Reserved1[3];
    int ControlType;         /* feature id, 0..7 (8 = unknown) */
    unsigned char Reserved2[32];
} _NKR_CONTROL_CAPS;

/* Stored error codes of the unit, two characters and a NUL each. */
typedef struct _NKR_ERROR_MSG {
    char MotorErrCode[3];
    char BatteryErrCode[3];
} _NKR_ERROR_MSG;

/* Everything a Bluetooth unit reports in one request (NKRBLEgetAllInfo). */
typedef struct _NKR_ALL_INFO {
    int MoveState;      /* 1 while moving */
    int Backlash;
    int Step;           /* current position */
    float Temperature;  /* degrees Celsius */
    int Beep;           /* 0 or 1 */
    int Reverse;        /* 0 or 1 */
    int HandMoving;     /* 0 or 1 */
    int HandControl;    /* 0 or 1 */
    int MaxStep;
    int BleControl;     /* 1 when the unit is driven over Bluetooth */
    char MotorErrCode[2];
    char BatteryErrCode[2];
    _NKR_BATTERY_INFO Battery;
} _NKR_ALL_INFO;

/* One unit found by NKRBLEScan. */
typedef struct _BLE_DEVICE_INFO {
    char Name[64];
    char Address[64];         /* the text NKRBLEConnect accepts */
    short SignalStrength;     /* not reported by the radio layer: 0 */
    long long BluetoothAddress; /* not reported by the radio layer: 0 */
} _BLE_DEVICE_INFO;

/* One block of a USB firmware image (1..55 bytes). */
typedef struct _NKR_HID_FILE_BUF {
    int len;
    unsigned char buf[55];
} _NKR_HID_FILE_BUF;

/* One block of a Bluetooth firmware image (1..480 bytes). */
typedef struct _NKR_BLE_FILE_BUF {
    int length;
    unsigned char data[480];
} _NKR_BLE_FILE_BUF;

/* Serial number (8 bytes), alias/id (8 bytes) and Bluetooth name records. */
typedef struct _NKR_SN {
    unsigned char SN[8];
} _NKR_SN;

typedef struct _NKR_ID {
    unsigned char id[8];
} _NKR_ID;

typedef struct _NKR_BLE_NAME {
    char name[16];
} _NKR_BLE_NAME;

/* Pairing events: 0 paired, 56 refused, 60 new unpaired connection. */
typedef void (*NKR_PAIR_STATE_CALLBACK)(_NKR_ERROR_CODE state);
/* Connection changes (true = connected); called on the Bluetooth helper's thread. */
typedef void (*NKR_CONN_STATE_CALLBACK)(bool connected);

#ifdef __cplusplus
#define NKR_STATIC_ASSERT static_assert
#else
#define NKR_STATIC_ASSERT _Static_assert
#endif
NKR_STATIC_ASSERT(sizeof(_NKR_CONTROL_CAPS) == 212, "_NKR_CONTROL_CAPS is 212 bytes");
NKR_STATIC_ASSERT(sizeof(_NKR_BATTERY_INFO) == 32, "_NKR_BATTERY_INFO is 32 bytes");
NKR_STATIC_ASSERT(sizeof(_NKR_BLE_FILE_BUF) == 484, "_NKR_BLE_FILE_BUF is 484 bytes");
NKR_STATIC_ASSERT(sizeof(_NKR_TYPE) == 16, "_NKR_TYPE is 16 bytes");
#undef NKR_STATIC_ASSERT

/* ---- Version and identification ---------------------------------------- */

/* Returns the SDK version "1, 7, 7, 0" (static storage). */
NKR_API const char* get_NKR_SDK_Ver(void);
/* Same as get_NKR_SDK_Ver. */
NKR_API const char* NKRGetSDKVersion(void);
/* Returns 1 when vid/pid are the focuser's USB ids, else 0. */
NKR_API int NKRCheck(int vid, int pid);
/* Writes the focuser's product id to pids[0] (when not null); returns 1. */
NKR_API int NKRGetProductIDs(int* pids);
/* Debug print hook of the C layer: prints nothing. */
NKR_API void NKRDbgPrint(const char* function, const char* format, ...);
/* Reads report lengths from a hidraw node's descriptor; 0 ok, -1 unreadable. */
NKR_API int get_hid_report_descriptor_linux_mac(void* handle, const char* path, int* inputLen,
                                                int* outputLen);

/* ---- Registry ------------------------------------------------------------ */

/* Scans the USB bus; returns the number of focusers found. */
NKR_API int NKRGetNum(void);
/* Maps a scan index (0..count-1) to its slot id; 0, or 1 for a bad index. */
NKR_API int NKRGetID(int index, int* id);
/* Opens the unit in a USB slot; 0, 2 unknown slot, 4 could not be opened. */
NKR_API int NKROpen(int id);
/* Closes a USB slot, saving position and settings; 0, or 2 unknown slot. */
NKR_API int NKRClose(int id);
/* Fills the property record (name with alias, step range); 0, 2 or 53. */
NKR_API int NKRGetProperty(int id, _NKR_INFO* info);
/* Sets the repeat count of a USB unit; 0, 2 or 9. */
NKR_API int NKRSetRepeatTime(int id, int n);
/* Enables automatic clearing of the unit's error state; 0, 2 or 9. */
NKR_API int NKRSetClearErr(int id, bool on);
/* Sends a raw HID report (and reads the reply when read is true). */
NKR_API int NKRSendCMD(int id, unsigned char* buf, int len, bool read, unsigned char* reply);

/* ---- Motion -------------------------------------------------------------- */

/* Starts a move to an absolute step (clamped to the step range); 5 while moving. */
NKR_API int NKRMove(int id, int step);
/* Stops the motor. */
NKR_API int NKRStop(int id);
/* Reads whether the motor moves; handMoving (may be null) gets the hand-controller move flag. */
NKR_API int NKRIsMoving(int id, bool* moving, bool* handMoving);
/* Sets the motor speed (USB only; ignored by firmware 3.3.6 and later). */
NKR_API int NKRSetSpeed(int id, int speed);
/* Reads the motor speed. */
NKR_API int NKRGetSpeed(int id, int* speed);
/* Reads the current position in steps. */
NKR_API int NKRGetPosition(int id, int* step);
/* Declares the current position to be step, without moving. */
NKR_API int NKRResetPostion(int id, int step);

/* ---- Motor settings and temperature ------------------------------------- */

/* Reads the temperature in degrees Celsius; 7 with the last good value on a bad reading. */
NKR_API int NKRGetTemp(int id, float* temp);
/* Turns the beeper on or off. */
NKR_API int NKRSetBeep(int id, bool on);
/* Reads the beeper state. */
NKR_API int NKRGetBeep(int id, bool* on);
/* Sets the user's maximum position (clamped to the step range). */
NKR_API int NKRSetMaxStep(int id, int maxStep);
/* Reads the user's maximum position. */
NKR_API int NKRGetMaxStep(int id, int* maxStep);
/* Reads the largest position the firmware accepts (no traffic). */
NKR_API int NKRStepRange(int id, int* range);
/* Sets the backlash compensation, 0..255 steps; 3 outside. */
NKR_API int NKRSetBacklash(int id, int backlash);
/* Reads the backlash compensation. */
NKR_API int NKRGetBacklash(int id, int* backlash);
/* Reverses the motor direction. */
NKR_API int NKRSetReverse(int id, bool on);
/* Reads the direction reversal. */
NKR_API int NKRGetReverse(int id, bool* on);
/* Sets the motor force, 0..15 (low four bits are used). */
NKR_API int NKRSetMaxForce(int id, int force);
/* Reads the motor force. */
NKR_API int NKRGetMaxForce(int id, int* force);

/* ---- Identity ------------------------------------------------------------ */

/* Reads the firmware version. */
NKR_API int NKRGetFirmwareVersion(int id, unsigned char* major, unsigned char* minor,
                                  unsigned char* build);
/* Reads the 8-byte serial number; 8 on firmware before 3.2.2. */
NKR_API int NKRGetSerialNumber(int id, _NKR_SN* sn);
/* Writes the 8-byte alias (shown as NKR(alias) by NKRGetProperty). */
NKR_API int NKRSetID(int id, _NKR_ID alias);
/* Reads the model type text. */
NKR_API int NKRGetType(int id, _NKR_TYPE* type);
/* Reads the Bluetooth advertising name (USB slots only) into 16 bytes of name:
   at most 15 characters, NUL-terminated; a longer name is cut. */
NKR_API int NKRGetBLEName(int id, char* name);
/* Writes the Bluetooth name, at most 11 characters (Bluetooth slots). */
NKR_API int NKRSetBLEName(int id, _NKR_BLE_NAME name);

/* ---- Status, errors and power (battery model) --------------------------- */

/* Reads the battery block; 10 when its temperature is out of range. */
NKR_API int NKRGetBatteryInfo(int id, _NKR_BATTERY_INFO* info);
/* Puts the unit in shipping mode (it powers off). */
NKR_API int NKRSetShippingMode(int id);
/* Reads the LED state. */
NKR_API int NKRGetLedState(int id, bool* on);
/* Turns the LED on or off. */
NKR_API int NKRSetLedState(int id, bool on);
/* Reads the stored motor and battery error codes. */
NKR_API int NKRGetErrorCode(int id, _NKR_ERROR_MSG* msg);
/* Reads the reason of the last power-off (0 normal). */
NKR_API int NKRGetReason(int id, int* reason);

/* ---- Controls and capabilities ------------------------------------------ */

/* Writes the number of optional-feature entries of the unit. */
NKR_API int NKRGetNumOfControls(int id, int* count);
/* Fills the record of entry index; 1 for a bad index or a null record. */
NKR_API int NKRGetControlCaps(int id, int index, _NKR_CONTROL_CAPS* caps);

/* ---- Firmware update ----------------------------------------------------- */

/* Puts a USB unit in update mode; 8 before firmware 3.7.0, 6 when refused. */
NKR_API int NKRHidStartUpdate(int id);
/* Writes one block (1..55 bytes) of the image; 11 for a bad length. */
NKR_API int NKRHidWriteUpdateFile(int id, _NKR_HID_FILE_BUF block);
/* Ends the USB update; the unit restarts with the new firmware. */
NKR_API int NKRHidEndUpdate(int id);
/* Starts a Bluetooth update of size bytes; 8 up to firmware 3.8.1. */
NKR_API int NKRBLEStartUpdate(int id, int size);
/* Writes one block (1..480 bytes); 62 when the unit took another length. */
NKR_API int NKRBLEWriteUpdateFile(int id, _NKR_BLE_FILE_BUF block);

/* ---- Bluetooth sessions -------------------------------------------------- */

/* Scans for timeout (helper's units) and fills up to capacity records; 58 without BLE. */
NKR_API int NKRBLEScan(int timeout, _BLE_DEVICE_INFO* devices, int capacity, int* count);
/* Connects a scanned unit; writes its slot id (50 and up); 52 on failure. */
NKR_API int NKRBLEConnect(const char* name, const char* address, int* id);
/* Disconnects and frees a Bluetooth slot; 2 for an empty slot. */
NKR_API int NKRBLEDisconnect(int id);
/* Pairs the unit with this computer; 54 on failure (the unit is then disconnected). */
NKR_API int NKRBLEPair(int id);
/* Clears the unit's pairing with this computer. */
NKR_API int NKRBLEClearPair(int id);
/* Registers the pairing-event callback; 2 empty slot, 59 null callback. */
NKR_API int NKRBLERegPairStateCallback(int id, NKR_PAIR_STATE_CALLBACK callback);
/* Registers the connection-change callback; 2 empty slot, 59 null callback. */
NKR_API int NKRBLERegConnStateCallback(int id, NKR_CONN_STATE_CALLBACK callback);
/* Reads status, settings, errors and battery in one request; 8 up to firmware 3.6.6. */
NKR_API int NKRBLEgetAllInfo(int id, _NKR_ALL_INFO* info);
/* Sends raw bytes; output (as large as data) receives the answer. Returns 0 once the slot is used. */
NKR_API int NKRBLESendData(int id, int unused, unsigned char* data, int length, bool wait,
                           unsigned char* output);

#ifdef __cplusplus
}
#endif

#endif /* NKR_FOCUSER_H */
