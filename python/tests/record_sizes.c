/* Prints the size of every public record, for the Python package's tests. */
#include <stdio.h>

#include "NKR_focuser.h"

#define SIZE(record) printf("%s %zu\n", #record, sizeof(record))

int main(void)
{
    SIZE(_NKR_CONTROL_CAPS);
    SIZE(_NKR_BATTERY_INFO);
    SIZE(_NKR_BLE_FILE_BUF);
    SIZE(_NKR_TYPE);
    SIZE(_NKR_INFO);
    SIZE(_NKR_ERROR_MSG);
    SIZE(_NKR_ALL_INFO);
    SIZE(_BLE_DEVICE_INFO);
    SIZE(_NKR_HID_FILE_BUF);
    SIZE(_NKR_SN);
    SIZE(_NKR_ID);
    SIZE(_NKR_BLE_NAME);
    return 0;
}
