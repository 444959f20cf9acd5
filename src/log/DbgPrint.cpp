// The exports' old debug channel: kept as an entry point for hosts and for the
// failure texts of the library, but deliberately silent.
#include "../../include/NKR_focuser.h"

extern "C" __attribute__((visibility("default"))) void NKRDbgPrint(const char* /*function*/,
                                                                    const char* /*format*/, ...)
{
}
