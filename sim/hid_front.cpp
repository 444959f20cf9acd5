// hidapi over the simulated units: a drop-in for libhidapi-hidraw.so.0.
#include <hidapi/hidapi.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <optional>
#include <set>
#include <string>

#include "../include/NKR_focuser.h"  // the focuser's USB ids
#include "unit_checks.h"
#include "unit_model.h"
#include "world.h"

struct hid_device_ {
    nkrsim::UnitId unit = -1;
    uint64_t epoch = 0;
    std::wstring error = L"Success";
    hid_device_info* info = nullptr;
};

namespace {
using namespace nkrsim::detail;
using nkrsim::Refusal;

std::set<hid_device*>& handles()
{
    static auto* live = new std::set<hid_device*>;
    return *live;
}

std::wstring& globalError()
{
    static auto* text = new std::wstring(L"Success");
    return *text;
}

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

wchar_t* wideCopy(const std::wstring& s)
{
    auto* out = static_cast<wchar_t*>(std::calloc(s.size() + 1, sizeof(wchar_t)));
    if (out) std::wmemcpy(out, s.c_str(), s.size());
    return out;
}

std::wstring serialText(const Unit& u)
{
    std::wstring text;
    wchar_t digit[4];
    for (uint8_t b : u.st.serial) {
        std::swprintf(digit, 4, L"%02X", b);
        text += digit;
    }
    return text;
}

hid_device_info* makeInfo(const Unit& u)
{
    auto* info = static_cast<hid_device_info*>(std::calloc(1, sizeof(hid_device_info)));
    if (info == nullptr) return nullptr;
    info->path = strdup(nkrsim::usbPath(u.id).c_str());
    info->vendor_id = u.spec.usbVendorId;
    info->product_id = u.spec.usbProductId;
    info->serial_number = wideCopy(serialText(u));
    info->release_number =
        static_cast<unsigned short>(u.st.fwMajor << 8 | u.st.fwMinor << 4 | u.st.fwBuild);
    info->manufacturer_string = wideCopy(L"NKR");
    info->product_string = wideCopy(u.st.typeText.empty() ? L"NKR focuser" : widen(u.st.typeText));
    info->usage_page = 0xFF00;
    info->usage = 0x01;
    info->interface_number = 0;
    info->bus_type = HID_API_BUS_USB;
    return info;
}

void freeInfo(hid_device_info* d)
{
    std::free(d->path);
    std::free(d->serial_number);
    std::free(d->manufacturer_string);
    std::free(d->product_string);
    std::free(d);
}

bool visibleOnUsb(const Unit& u) { return u.spec.usb && u.plugged; }

// hidapi's rule: an id of 0 matches any.
bool matches(const Unit& u, unsigned short vid, unsigned short pid)
{
    return (vid == 0 || vid == u.spec.usbVendorId) && (pid == 0 || pid == u.spec.usbProductId);
}

hid_device* openUnit(Unit& u)
{
    if (!visibleOnUsb(u) || u.refuseOpen) return nullptr;
    auto* dev = new hid_device;
    dev->unit = u.id;
    dev->epoch = u.epoch;
    handles().insert(dev);
    return dev;
}

// The unit behind an open handle, or null with errno and the error text set
// (a dead handle, a stale plug, a queued transfer failure).
Unit* transferTarget(hid_device* dev, int& err)
{
    if (dev == nullptr || !handles().count(dev)) {
        err = EINVAL;
        return nullptr;
    }
    Unit* u = findUnit(dev->unit);
    if (u == nullptr || !u->plugged || u->epoch != dev->epoch) {
        err = ENODEV;
        dev->error = L"No such device";
        return nullptr;
    }
    if (u->failCount > 0) {
        --u->failCount;
        err = u->failErrno;
        dev->error = widen(std::strerror(err));
        return nullptr;
    }
    return u;
}

// A report the unit does not take stalls the transfer, as on a real bus.
int stalled(hid_device* dev)
{
    dev->error = L"Broken pipe";
    return EPIPE;
}

int sendReport(hid_device* dev, const unsigned char* data, size_t length)
{
    int err = 0;
    {
        auto guard = lockWorld();
        if (data == nullptr || length == 0) {
            err = EINVAL;
        } else if (Unit* u = transferTarget(dev, err)) {
            u->sentReports.add(std::vector<uint8_t>(data, data + length));
            u->reply.clear();
            if (std::optional<Refusal> why = checkReportFrame(*u, data, length)) {
                refuse(*u, *why, data, length);
                err = stalled(dev);
            } else {
                // A command the firmware does not take is ignored: no answer.
                std::vector<uint8_t> reply;
                if (std::optional<Refusal> why = checkCommand(data, length))
                    refuse(*u, *why, data, length);
                else if (runCommand(*u, data, length, reply))
                    u->reply = std::move(reply);
                dev->error = L"Success";
                return static_cast<int>(length);
            }
        }
    }
    errno = err;
    return -1;
}

int getReport(hid_device* dev, unsigned char* data, size_t length)
{
    int err = 0;
    {
        auto guard = lockWorld();
        if (data == nullptr || length == 0) {
            err = EINVAL;
        } else if (Unit* u = transferTarget(dev, err)) {
            if (std::optional<Refusal> why = checkReportRead(data, length)) {
                refuse(*u, *why, data, length);
                err = stalled(dev);
            } else {
                // Like hidraw: the report's own bytes, however large the buffer.
                const size_t n = kInputReportLen;
                std::memset(data, 0, n);
                data[0] = 0x01;
                if (!u->reply.empty()) std::memcpy(data + 1, u->reply.data() + 1, std::min(n, u->reply.size()) - 1);
                dev->error = L"Success";
                return static_cast<int>(n);
            }
        }
    }
    errno = err;
    return -1;
}

}  // namespace

extern "C" {

int hid_init(void) { return 0; }
int hid_exit(void) { return 0; }

hid_device_info* hid_enumerate(unsigned short vendor_id, unsigned short product_id)
{
    auto guard = lockWorld();
    hid_device_info* head = nullptr;
    hid_device_info** tail = &head;
    for (auto& [id, u] : world().units) {
        if (!visibleOnUsb(*u) || !matches(*u, vendor_id, product_id)) continue;
        advance(*u);
        if (hid_device_info* info = makeInfo(*u)) {
            *tail = info;
            tail = &info->next;
        }
    }
    return head;
}

void hid_free_enumeration(hid_device_info* devs)
{
    while (devs) {
        hid_device_info* next = devs->next;
        freeInfo(devs);
        devs = next;
    }
}

hid_device* hid_open(unsigned short vendor_id, unsigned short product_id, const wchar_t* serial_number)
{
    auto guard = lockWorld();
    for (auto& [id, u] : world().units) {
        if (!visibleOnUsb(*u) || !matches(*u, vendor_id, product_id)) continue;
        if (serial_number && serialText(*u) != serial_number) continue;
        return openUnit(*u);
    }
    return nullptr;
}

hid_device* hid_open_path(const char* path)
{
    if (path == nullptr) return nullptr;
    auto guard = lockWorld();
    for (auto& [id, u] : world().units)
        if (nkrsim::usbPath(id) == path) return openUnit(*u);
    globalError() = L"No such device";
    return nullptr;
}

void hid_close(hid_device* dev)
{
    auto guard = lockWorld();
    if (dev == nullptr || handles().erase(dev) == 0) return;
    if (dev->info) freeInfo(dev->info);
    delete dev;
}

int hid_send_feature_report(hid_device* dev, const unsigned char* data, size_t length)
{
    return sendReport(dev, data, length);
}

int hid_get_feature_report(hid_device* dev, unsigned char* data, size_t length)
{
    return getReport(dev, data, length);
}

int hid_get_input_report(hid_device* dev, unsigned char* data, size_t length)
{
    return getReport(dev, data, length);
}

// The units talk through feature reports only: writes go to the same
// firmware, and no input report ever arrives.
int hid_write(hid_device* dev, const unsigned char* data, size_t length)
{
    return sendReport(dev, data, length);
}

int hid_read_timeout(hid_device* dev, unsigned char* data, size_t length, int milliseconds)
{
    (void)data;
    (void)length;
    (void)milliseconds;
    int err = 0;
    {
        auto guard = lockWorld();
        if (transferTarget(dev, err) != nullptr) return 0;
    }
    errno = err;
    return -1;
}

int hid_read(hid_device* dev, unsigned char* data, size_t length)
{
    return hid_read_timeout(dev, data, length, -1);
}

int hid_set_nonblocking(hid_device* dev, int nonblock)
{
    (void)dev;
    (void)nonblock;
    return 0;
}

static int copyString(hid_device* dev, wchar_t* string, size_t maxlen, int which)
{
    if (string == nullptr || maxlen == 0) return -1;
    auto guard = lockWorld();
    if (dev == nullptr || !handles().count(dev)) return -1;
    Unit* u = findUnit(dev->unit);
    if (u == nullptr) return -1;
    std::wstring text = which == 0   ? std::wstring(L"NKR")
                        : which == 1 ? (u->st.typeText.empty() ? L"NKR focuser" : widen(u->st.typeText))
                                     : serialText(*u);
    std::wcsncpy(string, text.c_str(), maxlen);
    string[maxlen - 1] = L'\0';
    return 0;
}

int hid_get_manufacturer_string(hid_device* dev, wchar_t* string, size_t maxlen)
{
    return copyString(dev, string, maxlen, 0);
}

int hid_get_product_string(hid_device* dev, wchar_t* string, size_t maxlen)
{
    return copyString(dev, string, maxlen, 1);
}

int hid_get_serial_number_string(hid_device* dev, wchar_t* string, size_t maxlen)
{
    return copyString(dev, string, maxlen, 2);
}

hid_device_info* hid_get_device_info(hid_device* dev)
{
    auto guard = lockWorld();
    if (dev == nullptr || !handles().count(dev)) return nullptr;
    if (dev->info == nullptr) {
        Unit* u = findUnit(dev->unit);
        if (u) dev->info = makeInfo(*u);
    }
    return dev->info;
}

int hid_get_indexed_string(hid_device* dev, int string_index, wchar_t* string, size_t maxlen)
{
    (void)dev;
    (void)string_index;
    (void)string;
    (void)maxlen;
    return -1;
}

const wchar_t* hid_error(hid_device* dev)
{
    auto guard = lockWorld();
    if (dev == nullptr || !handles().count(dev)) return globalError().c_str();
    return dev->error.c_str();
}

const hid_api_version* hid_version(void)
{
    static const hid_api_version version = {HID_API_VERSION_MAJOR, HID_API_VERSION_MINOR,
                                            HID_API_VERSION_PATCH};
    return &version;
}

const char* hid_version_str(void) { return HID_API_VERSION_STR; }

}  // extern "C"
