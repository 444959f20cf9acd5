// Exports that reach the device object's plumbing: raw reports, repeat count,
// automatic error clearing. USB slots only.
#include "CallFrame.h"
#include "Export.h"

using nkrapi::framed;
using nkrapi::Link;

NKR_EXPORT int NKRSendCMD(int id, unsigned char* buf, int len, bool read, unsigned char* reply)
{
    NKR_NONNULL(buf);
    if (len < 0) return NKR_ERROR_INVALID_VALUE;
    return framed(id, 5, Link::UsbOnly, "NKRSendCMD", nullptr,
                  [=](CNKR* d, bool) { return d->sendCMD(buf, len, read, reply); });
}

NKR_EXPORT int NKRSetRepeatTime(int id, int n)
{
    return framed(id, 6, Link::UsbOnly, "NKRSetRepeatTime", nullptr, [=](CNKR* d, bool) {
        d->m_iRepeat = n;
        return NKR_SUCCESS;
    });
}

NKR_EXPORT int NKRSetClearErr(int id, bool on)
{
    return framed(id, 8, Link::UsbOnly, "NKRSetClearErr", nullptr, [=](CNKR* d, bool) {
        d->m_bClearErr = on;
        return NKR_SUCCESS;
    });
}
