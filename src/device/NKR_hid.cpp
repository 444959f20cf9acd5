// HID exchange: one feature-report write, optionally one read, with error
// counting and automatic reconnection; and the report-descriptor scan that
// tells open() how long the reports are.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "../log/Log.h"
#include "NKR.h"

namespace {
constexpr unsigned char kReplyReportId = 0x01;
// Consecutive failed exchanges tolerated before a reconnect is tried.
constexpr unsigned kErrorsBeforeReconnect = 3;
constexpr unsigned kMaxReconnects = 3;
// hid_error text is logged with at most this many bytes.
constexpr size_t kErrTextMax = 239;

// Converts a wide error text to the current multibyte encoding, replacing
// what cannot be converted, never writing more than cap - 1 bytes.
void narrowText(const wchar_t* wide, char* out, size_t cap)
{
    size_t used = 0;
    if (wide != nullptr) {
        std::mbstate_t state{};
        char one[MB_LEN_MAX];
        for (; *wide != L'\0'; ++wide) {
            size_t n = std::wcrtomb(one, *wide, &state);
            if (n == static_cast<size_t>(-1)) {
                one[0] = '?';
                n = 1;
                state = std::mbstate_t{};
            }
            if (used + n > cap - 1) break;
            std::memcpy(out + used, one, n);
            used += n;
        }
    }
    out[used] = '\0';
}

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }
}  // namespace

int CNKR::sendCMD(unsigned char* cmd, int len, bool read, unsigned char* reply)
{
    if (!m_bOpen || m_hDev == nullptr) return NKR_ERROR_INVALID_ID;
    if ((cmd == nullptr && len > 0) || pszOutBuf == nullptr) return NKR_ERROR_INVALID_VALUE;

    int result;
    int savedErrno = 0;
    {
        CriSecLock lock(m_mutex);
        // A reconnect on another thread may have dropped the handle meanwhile.
        if (!m_bOpen || m_hDev == nullptr) return NKR_ERROR_INVALID_ID;
        if (cmd != pszOutBuf && len > 0) {
            const int n = len < m_iOutputReportLen ? len : m_iOutputReportLen;
            std::memcpy(pszOutBuf, cmd, static_cast<size_t>(n));
        }
        result = hid_send_feature_report(m_hDev, pszOutBuf, static_cast<size_t>(m_iOutputReportLen));
        if (result >= 0 && reply != nullptr && read) {
            std::memset(reply, 0, static_cast<size_t>(m_iInputReportLen));
            reply[0] = kReplyReportId;
            result = hid_get_feature_report(m_hDev, reply, static_cast<size_t>(m_iInputReportLen));
        }
        savedErrno = errno;
    }
    // The error number belongs to the failed transfer, not to the unlock.
    errno = savedErrno;
    return handleReportErr(result);
}

int CNKR::handleReportErr(int result)
{
    if (result >= 0) {
        HIDUpdateStatus(false);
        return NKR_SUCCESS;
    }
    const int err = errno;
    char text[kErrTextMax + 1];
    {
        // Under the lock: a reconnect on another thread may replace the handle.
        CriSecLock lock(m_mutex);
        narrowText(m_hDev != nullptr ? hid_error(m_hDev) : nullptr, text, sizeof text);
    }
    NKR_LOG("HID Err: %s", text);

    // An unplugged unit is not a transfer fault worth reconnecting for.
    if (err == ENODEV) return NKR_ERROR_REMOVED;
    HIDUpdateStatus(true);
    return NKR_ERROR_GENERAL;
}

void CNKR::HIDUpdateStatus(bool error)
{
    // Calls through different slot locks count on the same device at once.
    CriSecLock lock(m_mutex);
    if (!error) {
        m_cHidErr = 0;
        m_cReconnect = 0;
        return;
    }
    if (m_cReconnect >= kMaxReconnects) return;
    ++m_cHidErr;
    // The error count is not reset by a reconnect: once past the threshold,
    // every further error reconnects until the attempts are used up.
    if (m_cHidErr > kErrorsBeforeReconnect) {
        NKR_LOG("%s try to reconnect [%u:%u]", orEmpty(m_szPath), static_cast<unsigned>(m_cHidErr),
                static_cast<unsigned>(m_cReconnect));
        HIDReconnect();
        ++m_cReconnect;
    }
}

void CNKR::HIDReconnect()
{
    bool reopened;
    {
        CriSecLock lock(m_mutex);
        if (!m_bOpen) return;
        m_bOpen = false;
        if (m_hDev != nullptr) hid_close(m_hDev);
        m_hDev = m_szPath != nullptr ? hid_open_path(m_szPath) : nullptr;
        if (m_hDev != nullptr) m_bOpen = true;
        reopened = m_bOpen;
    }
    if (!reopened) NKR_LOG("%s reconnect fail", orEmpty(m_szPath));
}

// ---- report descriptor -----------------------------------------------------

namespace {
constexpr unsigned char kItemReportSize = 0x75;
constexpr unsigned char kItemReportCount = 0x95;
constexpr unsigned char kItemReportId = 0x85;
constexpr unsigned char kItemInput = 0x81;
constexpr unsigned char kItemOutput = 0x91;
constexpr unsigned char kInputReportId = 1;
constexpr unsigned char kOutputReportId = 3;
// Longest descriptor the kernel hands out.
constexpr size_t kMaxDescriptor = 4096;
// Room the hidraw node name must fit in (with its terminator).
constexpr size_t kNodeNameRoom = 32;
// "/dev/" in front of the node name.
constexpr size_t kDevPrefixLen = 5;

// Reads <sysfs>/class/hidraw/<node>/device/report_descriptor; returns the
// byte count or -1.
long readReportDescriptor(const char* node, unsigned char* buf, size_t cap)
{
    const char* root = std::getenv("NKR_SYSFS_ROOT");
    if (root == nullptr || *root == '\0') root = "/sys";
    char file[PATH_MAX];
    const int n = std::snprintf(file, sizeof file, "%s/class/hidraw/%s/device/report_descriptor", root, node);
    if (n < 0 || static_cast<size_t>(n) >= sizeof file) return -1;

    std::FILE* f = std::fopen(file, "rb");
    if (f == nullptr) return -1;
    const size_t got = std::fread(buf, 1, cap, f);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    return failed ? -1 : static_cast<long>(got);
}
}  // namespace

// A byte scan, not an item parser: data bytes are looked at as if they were
// item prefixes too. The focuser's descriptors come out right with it.
extern "C" __attribute__((visibility("default"))) int get_hid_report_descriptor_linux_mac(
    void* /*handle*/, const char* path, int* inputLen, int* outputLen)
{
    if (path == nullptr || std::strlen(path) < kDevPrefixLen) return -1;
    const char* node = path + kDevPrefixLen;
    if (std::strlen(node) >= kNodeNameRoom) return -1;

    unsigned char desc[kMaxDescriptor];
    const long size = readReportDescriptor(node, desc, sizeof desc);
    if (size < 0) return -1;

    int reportSize = 0;
    int reportCount = 0;
    int reportId = 0;
    for (long i = 0; i < size;) {
        const unsigned char b = desc[i];
        if (b == kItemReportSize || b == kItemReportCount || b == kItemReportId) {
            if (i + 1 >= size) break;
            const int value = desc[i + 1];
            if (b == kItemReportSize) reportSize = value;
            else if (b == kItemReportCount) reportCount = value;
            else reportId = value;
            i += 2;
        } else if (b == kItemInput) {
            if (reportId == kInputReportId && inputLen != nullptr) *inputLen = reportSize / 8 * reportCount + 1;
            ++i;
        } else if (b == kItemOutput) {
            if (reportId == kOutputReportId && outputLen != nullptr) *outputLen = reportSize / 8 * reportCount + 1;
            ++i;
        } else {
            ++i;
        }
    }
    return 0;
}
