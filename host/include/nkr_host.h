/*
 * nkr_host.h - the C interface of the host layer, for programs that cannot
 * use its C++ interface (the Python package reaches it through ctypes).
 *
 * The host layer sits over the SDK (NKR_focuser.h) and decides what the SDK
 * leaves to each program, once for all of them: how a unit is named, what
 * an error means, the user's maximum position, how a move is followed, when
 * a unit is gone, and the settings kept per unit.
 *
 * Conventions: functions that can fail return 0 or an error code of the
 * catalogue (the SDK's codes, and the host's own from 1001), and write one
 * sentence for the user into (message, size) when message is not null; the
 * text is cut to fit and always NUL-terminated. Functions that fill a text
 * buffer with JSON return its full length (like snprintf): a result of size
 * or more means the buffer was too small and nothing usable was written.
 * No function keeps a pointer it was given. Nothing throws.
 */
#ifndef NKR_HOST_H
#define NKR_HOST_H

#include <stddef.h>

#if defined(NKR_BUILDING_HOST)
#define NKR_HOST_API __attribute__((visibility("default")))
#else
#define NKR_HOST_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Start-up ---------------------------------------------------------- */

/* Chooses the library's saved record for this process (one record per unit
 * unless the host settings ask for the shared one). Call before the first
 * unit is opened. */
NKR_HOST_API void nkr_host_init(void);

/* ---- Error catalogue ----------------------------------------------------- */

/* Kinds of failure; each front-end maps them to its own convention. */
enum {
    NKR_HOST_KIND_NONE = 0,
    NKR_HOST_KIND_BAD_ARGUMENT = 1,
    NKR_HOST_KIND_NOT_SUPPORTED = 2,
    NKR_HOST_KIND_BUSY = 3,
    NKR_HOST_KIND_LINK_LOST = 4,
    NKR_HOST_KIND_REFUSED = 5,
    NKR_HOST_KIND_INTERNAL = 6
};

/* ---- Names and numbers --------------------------------------------------------- */

/* The 8 serial bytes as 16 upper-case hex digits (out: 17 bytes or more). */
NKR_HOST_API void nkr_host_serial_text(const unsigned char serial[8], char* out, size_t size);
/* The alias inside a unit name such as "NKR(scope1)" ("" for "NKR"); reads
 * at most capacity bytes of name. */
NKR_HOST_API void nkr_host_alias_of(const char* name, size_t capacity, char* out, size_t size);

/* ---- Units ----------------------------------------------------------------- */

typedef struct nkr_host_unit nkr_host_unit;

/* Finds and opens the unit name means: a USB slot id, serial number, alias,
 * Bluetooth name, address or unique beginning of a Bluetooth name ("" = the
 * first USB unit). bluetooth: 0 looks on USB only, 1 also scans for
 * Bluetooth units when no USB unit answers, 2 looks among Bluetooth units
 * only; a scan lasts scan_ms (0 = the host's usual scan time). A Bluetooth
 * unit is connected and paired. *unit receives the unit, to be freed with
 * nkr_host_free. */
NKR_HOST_API int nkr_host_open(const char* name, int bluetooth, int scan_ms, nkr_host_unit** unit, char* message,
                               size_t size);
/* A slot the program opened or connected itself (ble: 1 for a Bluetooth slot). */
NKR_HOST_API nkr_host_unit* nkr_host_adopt(int slot, int ble);
/* Frees the unit; close: 1 closes it (USB: saves its position) or
 * disconnects it, 0 leaves it open. */
NKR_HOST_API void nkr_host_free(nkr_host_unit* unit, int close);
/* One try to get a unit that went away back (the same serial number, or
 * Bluetooth address); 0 when it is back, with a new slot id. */
NKR_HOST_API int nkr_host_reconnect(nkr_host_unit* unit, char* message, size_t size);
/* SDK slot id of the unit (it changes when a gone unit is reconnected). */
NKR_HOST_API int nkr_host_slot(nkr_host_unit* unit);
/* The unit's identity as a JSON object: slot, link ("usb"/"ble"), key,
 * label, display_name, serial, alias, name, model, firmware, step_range,
 * ble_name, ble_address (null where the unit cannot say). */
NKR_HOST_API int nkr_host_identity_json(nkr_host_unit* unit, char* json, size_t size);
/* Every unit in reach as a JSON array of {link, slot, name, serial, alias,
 * model, firmware, ble_name, ble_address}: USB units identified (each is
 * opened, and left open), and with ble_scan_ms > 0 the Bluetooth units a
 * scan of that long finds. */
NKR_HOST_API int nkr_host_inventory_json(int ble_scan_ms, char* json, size_t size);

/* ---- The user's limits and motion --------------------------------------------- */

/* The user's maximum position as every host program enforces it. */
NKR_HOST_API int nkr_host_maximum(nkr_host_unit* unit, int* maximum, char* message, size_t size);
/* Stops the motor; never refused, whoever holds the unit. */
NKR_HOST_API int nkr_host_stop(nkr_host_unit* unit, char* message, size_t size);

/* Commands that drive the unit (move, sync, the unit's own settings) take
 * hold of it first, as "Python nkr (<program>)": at most one program holds
 * a unit at a time. While another program holds it they are refused (1006,
 * naming the holder) and nothing is sent. */
/* Declares the current position (0 .. maximum) without moving. */
NKR_HOST_API int nkr_host_sync(nkr_host_unit* unit, long long position, char* message, size_t size);
/* Sets a setting of the catalogue by name from its text ("backlash", "20"):
 * refused (1007) with the setting's range when the value is outside it. */
NKR_HOST_API int nkr_host_set_setting(nkr_host_unit* unit, const char* name, const char* value, char* message,
                                      size_t size);

/* How a move ended. */
enum {
    NKR_HOST_MOVE_REACHED = 0,
    NKR_HOST_MOVE_STOPPED = 1,
    NKR_HOST_MOVE_INTERRUPTED = 2,
    NKR_HOST_MOVE_GONE = 3,
    NKR_HOST_MOVE_TIMED_OUT = 4,
    NKR_HOST_MOVE_STALLED = 5
};

/* Starts a move as the user asked for it, with the unit's final approach
 * (one leg, or two: past the target, then back from the chosen side),
 * checked against the maximum. The host library carries it to its end on a
 * thread of its own, whether or not the caller looks (timeout_ms 0: no limit). */
NKR_HOST_API int nkr_host_move(nkr_host_unit* unit, long long target, int timeout_ms, char* message, size_t size);
/* One look at the move. Returns 0 while it goes on, 1 once it has ended
 * (*end tells how; *code is 0 only when it arrived, else 1010 or the failure,
 * with the sentence in message), -1 for a null unit or when this program
 * started no move. Every pointer may be null. */
NKR_HOST_API int nkr_host_move_poll(nkr_host_unit* unit, int* position, int* percent, int* end, int* code,
                                    char* message, size_t size);
/* Stops the move at once (also between legs). Returns the result of the
 * stop: 0, or the code of a stop that failed (the motor may still run). */
NKR_HOST_API int nkr_host_move_interrupt(nkr_host_unit* unit, int* position, char* message, size_t size);

/* ---- Host settings ----------------------------------------------------------------- */

/* The unit's host settings as a JSON object: name, max_position,
 * step_size_um, temp_comp {enabled, coefficient, deadband}, positions
 * {name: position}, approach {enabled, direction, overshoot}. */
NKR_HOST_API int nkr_host_settings_json(nkr_host_unit* unit, char* json, size_t size);
/* Merges a JSON object of settings into the unit's (null removes a value);
 * refused as a whole (1007) when a key or value is wrong. */
NKR_HOST_API int nkr_host_settings_merge(nkr_host_unit* unit, const char* json, char* message, size_t size);

/* ---- Named positions and the final approach ---------------------------------- */

/* Saves a name for a position (0 .. maximum); a name is 1 to 32 plain
 * characters. */
NKR_HOST_API int nkr_host_save_position(nkr_host_unit* unit, const char* name, long long position, char* message,
                                        size_t size);
NKR_HOST_API int nkr_host_remove_position(nkr_host_unit* unit, const char* name, char* message, size_t size);
/* The position a name stands for (1007 with the known names when unknown). */
NKR_HOST_API int nkr_host_named_position(nkr_host_unit* unit, const char* name, int* position, char* message,
                                         size_t size);
/* Fits the temperature coefficient to focus runs: count pairs of
 * temperatures (degrees Celsius) and best-focus positions. Writes the
 * coefficient (steps per degree), R^2, the runs used and rejected, and for
 * each run whether it was kept (kept may be null). */
NKR_HOST_API int nkr_host_fit_temperature(const double* temperatures, const double* positions, int count,
                                          double* coefficient, double* r2, int* used, int* rejected,
                                          unsigned char* kept, char* message, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* NKR_HOST_H */
