// Driver properties for what the standard focuser set lacks: identity, alias,
// beep, motor force, step range, temperature, and on battery units the battery,
// LED and stored error codes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "NKR_focuser.h"
#include "nkr_focuser.h"

namespace {

// Feature ids of the SDK's control list.
constexpr int kControlLed = 1;
constexpr int kControlBattery = 4;
constexpr int kControlErrorCodes = 5;

constexpr auto kPowerPollInterval = std::chrono::seconds(10);
// The probe reads in steps of about 0.1 degree.
constexpr double kTemperatureResolution = 0.1;
constexpr size_t kAliasLength = 8;

enum BatteryField { kPercent, kVoltage, kChargeVoltage, kChargeCurrent, kDischargeCurrent,
                    kBatteryTemperature, kHealth };

constexpr int kOn = INDI::BaseDevice::INDI_ENABLED;
constexpr int kOff = INDI::BaseDevice::INDI_DISABLED;

std::vector<double> sentValues(const INDI::PropertyNumber& property)
{
    std::vector<double> values;
    for (const auto& element : property) values.push_back(element.getValue());
    return values;
}

void fillOnOff(INDI::PropertySwitch& property, bool on)
{
    property[kOn].setState(on ? ISS_ON : ISS_OFF);
    property[kOff].setState(on ? ISS_OFF : ISS_ON);
}

}  // namespace

void NkrFocuser::initExtraProperties()
{
    const char* dev = getDeviceName();

    m_infoTP[kFirmware].fill("FIRMWARE", "Firmware", "");
    m_infoTP[kSerial].fill("SERIAL", "Serial number", "");
    m_infoTP[kModel].fill("MODEL", "Model", "");
    m_infoTP[kLink].fill("LINK", "Link", "");
    m_infoTP.fill(dev, "NKR_INFO", "Identity", INFO_TAB, IP_RO, 0, IPS_IDLE);

    m_aliasTP[0].fill("ALIAS", "Alias (8 characters)", "");
    m_aliasTP.fill(dev, "NKR_ALIAS", "Alias", INFO_TAB, IP_RW, 60, IPS_IDLE);

    m_stepRangeNP[0].fill("RANGE", "Range (steps)", "%.0f", 0, 600000, 0, 0);
    m_stepRangeNP.fill(dev, "NKR_STEP_RANGE", "Step range", INFO_TAB, IP_RO, 0, IPS_IDLE);

    m_beepSP[kOn].fill("INDI_ENABLED", "On", ISS_OFF);
    m_beepSP[kOff].fill("INDI_DISABLED", "Off", ISS_ON);
    m_beepSP.fill(dev, "NKR_BEEP", "Beep", OPTIONS_TAB, IP_RW, ISR_1OFMANY, 60, IPS_IDLE);

    m_forceNP[0].fill("FORCE", "Force (0-15)", "%.0f", 0, 15, 1, 0);
    m_forceNP.fill(dev, "NKR_MOTOR_FORCE", "Motor force", OPTIONS_TAB, IP_RW, 60, IPS_IDLE);

    m_ledSP[kOn].fill("INDI_ENABLED", "On", ISS_OFF);
    m_ledSP[kOff].fill("INDI_DISABLED", "Off", ISS_ON);
    m_ledSP.fill(dev, "NKR_LED", "LED", OPTIONS_TAB, IP_RW, ISR_1OFMANY, 60, IPS_IDLE);

    m_batteryNP[kPercent].fill("PERCENT", "Charge (%)", "%.0f", 0, 100, 0, 0);
    m_batteryNP[kVoltage].fill("VOLTAGE", "Voltage (mV)", "%.0f", 0, 65535, 0, 0);
    m_batteryNP[kChargeVoltage].fill("CHARGE_VOLTAGE", "Charging (mV)", "%.0f", 0, 65535, 0, 0);
    m_batteryNP[kChargeCurrent].fill("CHARGE_CURRENT", "Charging (mA)", "%.0f", 0, 65535, 0, 0);
    m_batteryNP[kDischargeCurrent].fill("DISCHARGE_CURRENT", "Drawn (mA)", "%.0f", 0,
                                        65535, 0, 0);
    m_batteryNP[kBatteryTemperature].fill("TEMPERATURE", "Temperature (°C)", "%.0f", -40, 87, 0, 0);
    m_batteryNP[kHealth].fill("HEALTH", "Health (0-255)", "%.0f", 0, 255, 0, 0);
    m_batteryNP.fill(dev, "NKR_BATTERY", "Battery", INFO_TAB, IP_RO, 0, IPS_IDLE);

    m_errorCodesTP[0].fill("MOTOR", "Motor", "");
    m_errorCodesTP[1].fill("BATTERY", "Battery", "");
    m_errorCodesTP.fill(dev, "NKR_ERROR_CODES", "Error codes", INFO_TAB, IP_RO, 0, IPS_IDLE);
}

void NkrFocuser::readCapabilities()
{
    m_hasBattery = m_hasLed = m_hasErrorCodes = false;
    int count = 0;
    if (NKRGetNumOfControls(m_unit.id(), &count) != NKR_SUCCESS) return;
    for (int index = 0; index < count; ++index) {
        _NKR_CONTROL_CAPS caps{};
        if (NKRGetControlCaps(m_unit.id(), index, &caps) != NKR_SUCCESS || caps.Supported == 0)
            continue;
        m_hasLed = m_hasLed || caps.ControlType == kControlLed;
        m_hasBattery = m_hasBattery || caps.ControlType == kControlBattery;
        m_hasErrorCodes = m_hasErrorCodes || caps.ControlType == kControlErrorCodes;
    }
}

void NkrFocuser::readIdentity()
{
    // Names and numbers as every front-end shows them (the host's reads).
    m_unit.unit().refreshIdentity();
    const nkrhost::Identity& id = m_unit.unit().identity();
    const std::string firmware = id.firmware.code == NKR_SUCCESS ? id.firmware.text() : "unknown";
    const std::string serial = id.serial.empty() ? "not reported" : id.serial;
    const std::string model = id.modelOrDefault();

    m_infoTP[kFirmware].setText(firmware);
    m_infoTP[kSerial].setText(serial);
    m_infoTP[kModel].setText(model);
    m_infoTP[kLink].setText(m_unit.description());
    m_infoTP.setState(IPS_OK);
    m_aliasTP[0].setText(id.alias);
    m_aliasTP.setState(IPS_IDLE);
    m_stepRangeNP[0].setValue(id.stepRange);
    m_stepRangeNP.setState(IPS_OK);
    LOGF_INFO("Model %s, firmware %s, serial number %s, step range %d.", model.c_str(), firmware.c_str(),
              serial.c_str(), id.stepRange);
}

void NkrFocuser::readExtraSettings()
{
    const int id = m_unit.id();
    bool beep = false;
    m_beepSP.setState(NKRGetBeep(id, &beep) == NKR_SUCCESS ? IPS_OK : IPS_ALERT);
    fillOnOff(m_beepSP, beep);

    int force = 0;
    m_forceNP.setState(NKRGetMaxForce(id, &force) == NKR_SUCCESS ? IPS_OK : IPS_ALERT);
    m_forceNP[0].setValue(force);

    if (m_hasLed) {
        bool led = false;
        m_ledSP.setState(NKRGetLedState(id, &led) == NKR_SUCCESS ? IPS_OK : IPS_ALERT);
        fillOnOff(m_ledSP, led);
    }
    pollPowerState(true);
}

void NkrFocuser::defineExtraProperties()
{
    defineProperty(m_infoTP);
    defineProperty(m_aliasTP);
    defineProperty(m_stepRangeNP);
    defineProperty(m_beepSP);
    defineProperty(m_forceNP);
    if (m_hasLed) defineProperty(m_ledSP);
    if (m_hasBattery) defineProperty(m_batteryNP);
    if (m_hasErrorCodes) defineProperty(m_errorCodesTP);
}

void NkrFocuser::deleteExtraProperties()
{
    deleteProperty(m_infoTP.getName());
    deleteProperty(m_aliasTP.getName());
    deleteProperty(m_stepRangeNP.getName());
    deleteProperty(m_beepSP.getName());
    deleteProperty(m_forceNP.getName());
    if (m_hasLed) deleteProperty(m_ledSP.getName());
    if (m_hasBattery) deleteProperty(m_batteryNP.getName());
    if (m_hasErrorCodes) deleteProperty(m_errorCodesTP.getName());
}

int NkrFocuser::pollTemperature()
{
    float celsius = std::numeric_limits<float>::quiet_NaN();
    const int rc = NKRGetTemp(m_unit.id(), &celsius);
    // 7 with a value written: the probe's reading was implausible (a broken
    // or missing probe) and the SDK gave the last good one. 7 without: the
    // read itself failed.
    const bool probeError = rc == NKR_ERROR_GENERAL && !std::isnan(celsius);
    if (probeError != m_probeError) {
        if (probeError)
            LOGF_WARN("The temperature probe reports an error; the last good reading (%.2f C) is "
                      "shown, marked Alert.", celsius);
        else if (rc == NKR_SUCCESS)
            LOG_INFO("The temperature probe reads again.");
        m_probeError = probeError;
    }
    const IPState state = rc == NKR_SUCCESS ? IPS_OK : IPS_ALERT;
    const double shown = std::isnan(celsius) ? m_temperatureNP[0].getValue() : celsius;
    m_temperatureNP[0].setValue(shown);
    m_temperatureNP.setState(state);
    // Sent when it moved by the probe's resolution or its state changed, as
    // INDI clients expect; while connecting it is not defined yet.
    const bool changed = !m_sentTemperature || std::fabs(shown - *m_sentTemperature) >= kTemperatureResolution - 1e-6 ||
                         state != m_sentTemperatureState;
    if (isConnected() && changed) {
        m_temperatureNP.apply();
        m_sentTemperature = shown;
        m_sentTemperatureState = state;
    }
    return probeError ? NKR_SUCCESS : rc;
}

void NkrFocuser::pollPowerState(bool now)
{
    const auto at = std::chrono::steady_clock::now();
    if (!now && at - m_lastPowerPoll < kPowerPollInterval) return;
    m_lastPowerPoll = at;
    const int id = m_unit.id();

    if (m_hasBattery) {
        _NKR_BATTERY_INFO battery{};
        const int rc = NKRGetBatteryInfo(id, &battery);
        const std::vector<double> values = sentValues(m_batteryNP);
        if (rc == NKR_SUCCESS) {
            m_batteryNP[kPercent].setValue(battery.battery_percentage);
            m_batteryNP[kVoltage].setValue(battery.battery_vol);
            m_batteryNP[kChargeVoltage].setValue(battery.battery_charge_vol);
            m_batteryNP[kChargeCurrent].setValue(battery.battery_charge_curr);
            m_batteryNP[kDischargeCurrent].setValue(battery.battery_discharge_curr);
            m_batteryNP[kBatteryTemperature].setValue(battery.battery_temp);
            m_batteryNP[kHealth].setValue(battery.battery_health);
        }
        const IPState state = rc == NKR_SUCCESS ? IPS_OK : IPS_ALERT;
        const bool changed = state != m_batteryNP.getState() || values != sentValues(m_batteryNP);
        m_batteryNP.setState(state);
        if (!now && changed) m_batteryNP.apply();
    }
    if (m_hasErrorCodes) {
        _NKR_ERROR_MSG codes{};
        const int rc = NKRGetErrorCode(id, &codes);
        const std::string before = std::string(m_errorCodesTP[0].getText()) + '\n' + m_errorCodesTP[1].getText();
        if (rc == NKR_SUCCESS) {
            m_errorCodesTP[0].setText(std::string(codes.MotorErrCode, strnlen(codes.MotorErrCode, 3)));
            m_errorCodesTP[1].setText(
                std::string(codes.BatteryErrCode, strnlen(codes.BatteryErrCode, 3)));
        }
        const IPState state = rc == NKR_SUCCESS ? IPS_OK : IPS_ALERT;
        const bool changed = state != m_errorCodesTP.getState() ||
                             before != std::string(m_errorCodesTP[0].getText()) + '\n' + m_errorCodesTP[1].getText();
        m_errorCodesTP.setState(state);
        if (!now && changed) m_errorCodesTP.apply();
    }
}

bool NkrFocuser::handleExtraSwitch(const char* name, ISState* states, char* names[], int n)
{
    const bool beep = m_beepSP.isNameMatch(name);
    if (!beep && !m_ledSP.isNameMatch(name)) return false;
    INDI::PropertySwitch& property = beep ? m_beepSP : m_ledSP;
    const bool wasOn = property[kOn].getState() == ISS_ON;
    property.update(states, names, n);
    const bool on = property[kOn].getState() == ISS_ON;
    bool ok = false;
    if (m_unit.isOpen()) {
        ok = beep ? succeeded(NKRSetBeep(m_unit.id(), on), "Setting the beep")
                  : succeeded(NKRSetLedState(m_unit.id(), on), "Setting the LED");
    }
    if (!ok) fillOnOff(property, wasOn);
    property.setState(ok ? IPS_OK : IPS_ALERT);
    property.apply();
    return true;
}

bool NkrFocuser::handleExtraNumber(const char* name, double values[], char* names[], int n)
{
    if (!m_forceNP.isNameMatch(name)) return false;
    const double previous = m_forceNP[0].getValue();
    // Outside 0..15 libindi refuses it and says so; the unit keeps its force.
    const bool taken = m_forceNP.update(values, names, n);
    const int force = static_cast<int>(std::lround(m_forceNP[0].getValue()));
    const bool ok = taken && m_unit.isOpen() &&
                    succeeded(NKRSetMaxForce(m_unit.id(), force), "Setting the motor force");
    m_forceNP[0].setValue(ok ? force : previous);
    m_forceNP.setState(ok ? IPS_OK : IPS_ALERT);
    m_forceNP.apply();
    return true;
}

bool NkrFocuser::handleExtraText(const char* name, char* texts[], char* names[], int n)
{
    if (!m_aliasTP.isNameMatch(name)) return false;
    const std::string previous = m_aliasTP[0].getText();
    m_aliasTP.update(texts, names, n);
    const std::string alias = m_aliasTP[0].getText();
    bool ok = false;
    if (alias.size() > kAliasLength) {
        // Cut, it would name the unit other than asked.
        LOGF_ERROR("The alias '%s' has %d characters; the unit keeps at most %d characters.", alias.c_str(),
                   static_cast<int>(alias.size()), kAliasLength);
    } else {
        _NKR_ID record{};
        std::memcpy(record.id, alias.data(), alias.size());
        ok = m_unit.isOpen() && succeeded(NKRSetID(m_unit.id(), record), "Setting the alias");
    }
    m_aliasTP[0].setText(ok ? alias : previous);
    m_aliasTP.setState(ok ? IPS_OK : IPS_ALERT);
    m_aliasTP.apply();
    return true;
}
