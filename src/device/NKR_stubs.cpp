// Temporary weak stand-ins so the tree links while the parts are written.
// Real definitions override them; this file goes away when all exist.
#include "NKR.h"
#include "../log/Log.h"
#include "../ble/IBluetoothLEManager.h"

#define NKR_WEAK __attribute__((weak))
NKR_WEAK bool CNKR::open(const char*) { return false; }
NKR_WEAK void CNKR::close() {  }
NKR_WEAK int CNKR::sendCMD(unsigned char*, int, bool, unsigned char*) { return 7; }
NKR_WEAK int CNKR::handleReportErr(int) { return 7; }
NKR_WEAK void CNKR::HIDUpdateStatus(bool) {  }
NKR_WEAK void CNKR::HIDReconnect() {  }
NKR_WEAK int CNKR::getParams(bool) { return 7; }
NKR_WEAK int CNKR::getSpeed(int*, bool) { return 7; }
NKR_WEAK int CNKR::getStep(int*, bool) { return 7; }
NKR_WEAK int CNKR::getBeep(bool*, bool) { return 7; }
NKR_WEAK int CNKR::getReverse(bool*, bool) { return 7; }
NKR_WEAK int CNKR::getBacklash(int*, bool) { return 7; }
NKR_WEAK int CNKR::getMaxStep(int*, bool) { return 7; }
NKR_WEAK int CNKR::getMaxForce(int*, bool) { return 7; }
NKR_WEAK int CNKR::isHandControl(bool*, bool) { return 7; }
NKR_WEAK int CNKR::isMoving(bool*, bool*, bool) { return 7; }
NKR_WEAK int CNKR::sendControl(int, bool) { return 7; }
NKR_WEAK int CNKR::SetStep(int, bool) { return 7; }
NKR_WEAK int CNKR::resetStep(int, bool) { return 7; }
NKR_WEAK int CNKR::SetSpeed(int) { return 7; }
NKR_WEAK int CNKR::stopMove(bool) { return 7; }
NKR_WEAK int CNKR::setBacklash(int, bool) { return 7; }
NKR_WEAK int CNKR::setMaxStep(int, bool) { return 7; }
NKR_WEAK int CNKR::setBeep(bool, bool) { return 7; }
NKR_WEAK int CNKR::setReverse(bool, bool) { return 7; }
NKR_WEAK int CNKR::setMaxForce(int, bool) { return 7; }
NKR_WEAK int CNKR::saveFWConf() { return 7; }
NKR_WEAK int CNKR::getStepRange(int*, bool) { return 7; }
NKR_WEAK int CNKR::getTemp(float*, bool) { return 7; }
NKR_WEAK float CNKR::CalculTempuature(int) { return 0.0f; }
NKR_WEAK int CNKR::getNumOfControls(int*, bool) { return 7; }
NKR_WEAK int CNKR::getControlCaps(int, _NKR_CONTROL_CAPS*, bool) { return 7; }
NKR_WEAK int CNKR::getSerialNumber(unsigned char*, int, bool) { return 7; }
NKR_WEAK int CNKR::getAlias(char*, int, bool) { return 7; }
NKR_WEAK int CNKR::setAlias(const unsigned char*, int, bool) { return 7; }
NKR_WEAK int CNKR::getFwVer(unsigned char*, unsigned char*, unsigned char*, bool) { return 7; }
NKR_WEAK int CNKR::getType(_NKR_TYPE*, bool) { return 7; }
NKR_WEAK int CNKR::getBLEName(char*, int) { return 7; }
NKR_WEAK int CNKR::setBLEName(const char*, int, bool) { return 7; }
NKR_WEAK int CNKR::setSerialNumber(const unsigned char*, int) { return 7; }
NKR_WEAK int CNKR::setFactoryMode() { return 7; }
NKR_WEAK int CNKR::getLEDState(bool*, bool) { return 7; }
NKR_WEAK int CNKR::setLEDState(bool, bool) { return 7; }
NKR_WEAK int CNKR::setShippingMode(bool) { return 7; }
NKR_WEAK int CNKR::getErrorCode(_NKR_ERROR_MSG*, bool) { return 7; }
NKR_WEAK int CNKR::getPowerOffReason(int*, bool) { return 7; }
NKR_WEAK int CNKR::getBatteryInfo(_NKR_BATTERY_INFO*, bool) { return 7; }
NKR_WEAK int CNKR::parseBatteryInfo(const unsigned char*, int, _NKR_BATTERY_INFO*) { return 7; }
NKR_WEAK int CNKR::clearError() { return 7; }
NKR_WEAK int CNKR::bleSendData(BLEProtocol::CommandType, std::vector<uint8_t>, bool, std::vector<uint8_t>&) { return 7; }
NKR_WEAK int CNKR::BLEScan(int, _BLE_DEVICE_INFO*, int, int*) { return 7; }
NKR_WEAK int CNKR::BLEConnect(const char*, const char*) { return 7; }
NKR_WEAK int CNKR::BLEDisconnect() { return 7; }
NKR_WEAK int CNKR::BLEPair() { return 7; }
NKR_WEAK int CNKR::BLEClearPair() { return 7; }
NKR_WEAK int CNKR::BLERegPairStateCallback(NKR_PAIR_STATE_CALLBACK) { return 7; }
NKR_WEAK int CNKR::BLERegConnStateCallback(NKR_CONN_STATE_CALLBACK) { return 7; }
NKR_WEAK int CNKR::BLEGetAllInfo(_NKR_ALL_INFO*) { return 7; }
NKR_WEAK int CNKR::BLESendData(int, const unsigned char*, int, bool, unsigned char*) { return 7; }
NKR_WEAK int CNKR::HIDStartUpdate() { return 7; }
NKR_WEAK int CNKR::HIDWriteUpdateFile(const _NKR_HID_FILE_BUF&) { return 7; }
NKR_WEAK int CNKR::HIDEndUpdate() { return 7; }
NKR_WEAK int CNKR::BLEStartUpdate(int) { return 7; }
NKR_WEAK int CNKR::BLEWriteUpdateFile(const _NKR_BLE_FILE_BUF&) { return 7; }
NKR_WEAK void CNKR::InitSubKey() {  }
NKR_WEAK void CNKR::SaveSetting() {  }
NKR_WEAK void CNKR::LoadSetting() {  }
NKR_WEAK CNKR::CNKR() {}
NKR_WEAK CNKR::~CNKR() {}
NKR_WEAK void InitLogger() {}
NKR_WEAK void LogInfo(const std::string&, const char*, int, const char*) {}
NKR_WEAK void LogDebug(const std::string&, const char*, int, const char*) {}
NKR_WEAK IBluetoothLEManager* IBluetoothLEManager::CreateBluetoothLEManager() { return nullptr; }
extern "C" NKR_WEAK int get_hid_report_descriptor_linux_mac(void*, const char*, int*, int*) { return -1; }
NKR_WEAK IBluetoothLEManager* g_pBleManager = nullptr;
