#include "BluetoothLEManagerLinux.h"

#include "ElfCheck.h"
#include "HelperLocation.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "../log/Log.h"
#include "ConnectStateTrampolines.h"

namespace {

constexpr int kScanCapacity = 16;
constexpr unsigned kReceiveCapacity = 512;
constexpr int kMacCapacity = 32;

template <typename Fn>
Fn resolve(void* lib, const char* name)
{
    return reinterpret_cast<Fn>(dlsym(lib, name));
}

template <typename Fn>
void* asPointer(Fn fn)
{
    return reinterpret_cast<void*>(fn);
}

// The text of a fixed-size field, up to its first NUL (or the whole field).
std::string fieldText(const char* field, size_t size)
{
    return std::string(field, strnlen(field, size));
}

}  // namespace

IBluetoothLEManager* IBluetoothLEManager::CreateBluetoothLEManager()
{
    return new (std::nothrow) BluetoothLEManagerLinux();
}

// Made when the library is loaded and kept until the process ends.
IBluetoothLEManager* g_pBleManager = IBluetoothLEManager::CreateBluetoothLEManager();

BluetoothLEManagerLinux::~BluetoothLEManagerLinux()
{
    NKR_LOG("Destruct BluetoothLEManagerLinux finished!");
    // Stop reports first: the callable points into an object being torn down.
    if (m_trampolineSlot >= 0) bletrampoline::unbind(m_trampolineSlot);
    if (m_destroy != nullptr && m_bleMgr != nullptr) m_destroy(m_bleMgr);
    m_bleMgr = nullptr;
    // Only now may another manager borrow the trampoline: the helper manager
    // that knew it is gone.
    if (m_trampolineSlot >= 0) bletrampoline::release(m_trampolineSlot);
    m_trampolineSlot = -1;
    unload();
}

int32_t BluetoothLEManagerLinux::init()
{
    if (m_hLib != nullptr) {
        NKR_LOG("Dll handle already init!");
        return 0;
    }
    // A damaged file would take the host down inside the loader; refuse it
    // with the loader's own message form instead.
    const std::string path = nkrble::chooseHelperPath();
    if (path.empty()) return -1;
    std::string why;
    if (!nkrble::elfFileIsWhole(path.c_str(), why)) {
        NKR_LOG("dlopen error: %s: %s", path.c_str(), why.c_str());
        return -1;
    }
    m_hLib = dlopen(path.c_str(), RTLD_LAZY);
    if (m_hLib == nullptr) {
        const char* error = dlerror();
        NKR_LOG("dlopen error: %s", error != nullptr ? error : "");
        return -1;
    }
    m_create = resolve<pfn_ble_manager_create>(m_hLib, "ble_manager_create");
    m_destroy = resolve<pfn_ble_manager_destroy>(m_hLib, "ble_manager_destroy");
    m_scan = resolve<pfn_ble_manager_scan>(m_hLib, "ble_manager_scan");
    m_connect = resolve<pfn_ble_manager_connect>(m_hLib, "ble_manager_connect");
    m_disconnect = resolve<pfn_ble_manager_disconnect>(m_hLib, "ble_manager_disconnect");
    m_receive = resolve<pfn_ble_manager_receive>(m_hLib, "ble_manager_receive");
    m_send = resolve<pfn_ble_manager_send>(m_hLib, "ble_manager_send");
    m_waitForData = resolve<pfn_ble_manager_wait_for_data>(m_hLib, "ble_manager_wait_for_data");
    m_getReceivedData =
        resolve<pfn_ble_manager_get_received_data>(m_hLib, "ble_manager_get_received_data");
    m_isBleSupported =
        resolve<pfn_ble_manager_is_ble_supported>(m_hLib, "ble_manager_is_ble_supported");
    m_getMac = resolve<pfn_ble_manager_get_mac>(m_hLib, "ble_manager_get_mac");
    m_setIsRead = resolve<pfn_ble_set_is_read>(m_hLib, "ble_set_is_read");
    m_setConnectStateCallback =
        resolve<pfn_ble_set_connect_state_callback>(m_hLib, "ble_set_connect_state_callback");

    if (m_create == nullptr || m_destroy == nullptr || m_scan == nullptr || m_connect == nullptr) {
        NKR_LOG("Failed to load one or more symbols!");
        unload();
        return -1;
    }
    m_bleMgr = m_create();
    if (m_bleMgr == nullptr) {
        NKR_LOG("Failed to create BLE manager!");
        unload();
        return -1;
    }
    return 0;
}

void BluetoothLEManagerLinux::unload()
{
    if (m_hLib != nullptr) dlclose(m_hLib);
    m_hLib = nullptr;
    m_bleMgr = nullptr;
    m_create = nullptr;
    m_destroy = nullptr;
    m_scan = nullptr;
    m_connect = nullptr;
    m_disconnect = nullptr;
    m_receive = nullptr;
    m_send = nullptr;
    m_waitForData = nullptr;
    m_getReceivedData = nullptr;
    m_isBleSupported = nullptr;
    m_getMac = nullptr;
    m_setIsRead = nullptr;
    m_setConnectStateCallback = nullptr;
}

bool BluetoothLEManagerLinux::ensureLoaded()
{
    if (m_hLib != nullptr) return m_bleMgr != nullptr;
    // One attempt per manager from here, so a missing helper is logged once
    // rather than on every call; the support query still retries.
    if (m_loadAttempted) return false;
    m_loadAttempted = true;
    return init() == 0;
}

void BluetoothLEManagerLinux::ScanForDevices(uint32_t timeout, std::vector<DeviceInfo>& out)
{
    out.clear();
    ensureLoaded();
    if (m_scan == nullptr || m_bleMgr == nullptr) {
        NKR_LOG("ble_manager_scan[%p] or m_bleMgr[%p] is null!", asPointer(m_scan), m_bleMgr);
        return;
    }
    std::vector<BleScanRecord> records(kScanCapacity);
    std::memset(records.data(), 0, records.size() * sizeof(BleScanRecord));
    const int32_t count = m_scan(m_bleMgr, timeout, records.data(), kScanCapacity);
    if (count < 1) return;
    const int n = std::min<int32_t>(count, kScanCapacity);
    for (int i = 0; i < n; ++i) {
        const BleScanRecord& record = records[static_cast<size_t>(i)];
        DeviceInfo info;
        info.name = fieldText(record.name, sizeof record.name);
        info.address = fieldText(record.address, sizeof record.address);
        info.extra = fieldText(record.extra, sizeof record.extra);
        // The radio's numbers are not passed on: both stay 0.
        out.push_back(std::move(info));
    }
}

int32_t BluetoothLEManagerLinux::ConnectToDevice(const std::string& id, const std::string& /*second*/)
{
    if (!ensureLoaded() || m_connect == nullptr) return -1;
    // The helper takes a single identifier; its second argument is always empty.
    return m_connect(m_bleMgr, id.c_str(), "");
}

int32_t BluetoothLEManagerLinux::DisconnectFromDevice()
{
    if (!ensureLoaded() || m_disconnect == nullptr) return -1;
    return m_disconnect(m_bleMgr);
}

bool BluetoothLEManagerLinux::SendData(const std::vector<uint8_t>& data, uint32_t a, uint32_t b)
{
    if (!ensureLoaded() || m_send == nullptr) return false;
    return m_send(m_bleMgr, data.data(), static_cast<unsigned>(data.size()), a, b);
}

bool BluetoothLEManagerLinux::SendData1(const std::vector<uint8_t>& data, uint32_t a, uint32_t b,
                                        const ConnectStateCallback& /*callable*/)
{
    return SendData(data, a, b);
}

int32_t BluetoothLEManagerLinux::ReceiveData(uint32_t a, uint32_t b)
{
    if (!ensureLoaded() || m_receive == nullptr) return -1;
    return m_receive(m_bleMgr, a, b);
}

void BluetoothLEManagerLinux::GetReceivedData(std::vector<uint8_t>& out)
{
    out.clear();
    if (!ensureLoaded() || m_getReceivedData == nullptr) return;
    uint8_t buffer[kReceiveCapacity] = {};
    const unsigned copied = m_getReceivedData(m_bleMgr, buffer, kReceiveCapacity);
    out.assign(buffer, buffer + std::min(copied, kReceiveCapacity));
}

void BluetoothLEManagerLinux::GetLocalBluetoothMacAddress(std::string& out)
{
    out.clear();
    if (!ensureLoaded() || m_getMac == nullptr) return;
    char buffer[kMacCapacity] = {};
    m_getMac(m_bleMgr, buffer, kMacCapacity);
    out = fieldText(buffer, sizeof buffer);
}

bool BluetoothLEManagerLinux::IsBluetoothLESupported()
{
    if (init() < 0) {
        NKR_LOG("init BlueShim failed!");
        return false;
    }
    if (m_isBleSupported == nullptr || m_bleMgr == nullptr) return false;
    return m_isBleSupported(m_bleMgr);
}

bool BluetoothLEManagerLinux::WaitForDataAndProcess()
{
    if (!ensureLoaded() || m_waitForData == nullptr) return false;
    return m_waitForData(m_bleMgr);
}

void BluetoothLEManagerLinux::setIsRead(bool isRead)
{
    if (!ensureLoaded() || m_setIsRead == nullptr) return;
    m_setIsRead(m_bleMgr, isRead ? 1 : 0);
}

void BluetoothLEManagerLinux::ConnectStateCallbackFunc(ConnectStateCallback callback)
{
    NKR_LOG("Enter BluetoothLEManagerLinux ConnectStateCallbackFunc!");
    if (m_trampolineSlot < 0) m_trampolineSlot = bletrampoline::acquire();
    if (m_trampolineSlot < 0) {
        NKR_LOG("no free connection state trampoline, callback not registered");
        return;
    }
    bletrampoline::bind(m_trampolineSlot, std::move(callback));
    if (!ensureLoaded() || m_setConnectStateCallback == nullptr) return;
    m_setConnectStateCallback(m_bleMgr, bletrampoline::function(m_trampolineSlot));
}
