// What astronomers ask of a focuser beyond the unit: temperature
// compensation, the step size, a final approach from one side and named
// positions. The rules are the host layer's and the values are kept per unit
// in the host settings, so the tool, the Alpaca server and Python see the
// same; this file is their INDI face. The values are also saved with the
// driver's configuration, but read back from the host settings at connect,
// which always hold the latest (another front-end may have changed them).
#include <cmath>
#include <memory>
#include <cstdio>
#include <cstring>
#include <string>

#include "NKR_focuser.h"
#include "nkr_focuser.h"

namespace {

constexpr int kOn = INDI::BaseDevice::INDI_ENABLED;
constexpr int kOff = INDI::BaseDevice::INDI_DISABLED;
enum TempCompField { kCoefficient, kDeadband };
enum Approach { kApproachOff, kApproachOut, kApproachIn };
constexpr const char* kFocusTab = "Focus model";

// A value outside the property's limits: libindi has said so and kept the
// old values; the property shows them, Alert.
bool refuseNumber(INDI::PropertyNumber& property)
{
    property.setState(IPS_ALERT);
    property.apply();
    return true;
}

std::string presetName(int k)
{
    return "Preset " + std::to_string(k + 1);
}

std::string number(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", v);
    return text;
}

}  // namespace

void NkrFocuser::initFocusProperties()
{
    const char* dev = getDeviceName();
    m_tempCompSP[kOn].fill("INDI_ENABLED", "On", ISS_OFF);
    m_tempCompSP[kOff].fill("INDI_DISABLED", "Off", ISS_ON);
    m_tempCompSP.fill(dev, "FOCUS_TEMPERATURE_COMPENSATION", "Temp. comp", kFocusTab, IP_RW, ISR_1OFMANY, 60,
                      IPS_IDLE);
    m_tempCompNP[kCoefficient].fill("COEFFICIENT", "Steps per °C", "%.2f", -10000, 10000, 0.5, 0);
    m_tempCompNP[kDeadband].fill("DEADBAND", "Dead band (°C)", "%.2f", 0, 100, 0.1, 0.5);
    m_tempCompNP.fill(dev, "FOCUS_TEMPERATURE_COMPENSATION_SETTINGS", "Comp. model", kFocusTab, IP_RW, 60, IPS_IDLE);
    m_tempCompStateTP[0].fill("STATE", "State", "");
    m_tempCompStateTP.fill(dev, "FOCUS_TEMPERATURE_COMPENSATION_STATE", "Comp. state", kFocusTab, IP_RO, 0,
                           IPS_IDLE);
    m_stepSizeNP[0].fill("MICRONS", "µm per step", "%.3f", 0, 10000, 0.01, 0);
    m_stepSizeNP.fill(dev, "FOCUS_STEP_SIZE", "Step size", kFocusTab, IP_RW, 60, IPS_IDLE);
    m_approachSP[kApproachOff].fill("OFF", "Off", ISS_ON);
    m_approachSP[kApproachOut].fill("OUTWARD", "End moving outward", ISS_OFF);
    m_approachSP[kApproachIn].fill("INWARD", "End moving inward", ISS_OFF);
    m_approachSP.fill(dev, "FOCUS_FINAL_APPROACH", "Approach", kFocusTab, IP_RW, ISR_1OFMANY, 60, IPS_IDLE);
    m_approachNP[0].fill("OVERSHOOT", "Overshoot (steps)", "%.0f", 0, 100000, 10, 0);
    m_approachNP.fill(dev, "FOCUS_FINAL_APPROACH_OVERSHOOT", "Overshoot", kFocusTab, IP_RW, 60, IPS_IDLE);
    m_positionsSP.fill(dev, "NKR_POSITIONS", "Go to", kFocusTab, IP_RW, ISR_ATMOST1, 60, IPS_IDLE);
    m_positionSaveTP[0].fill("NAME", "Name of here", "");
    m_positionSaveTP.fill(dev, "NKR_POSITION_SAVE", "Save as", kFocusTab, IP_RW, 60, IPS_IDLE);
}

void NkrFocuser::defineFocusProperties()
{
    defineProperty(m_tempCompSP);
    defineProperty(m_tempCompNP);
    defineProperty(m_tempCompStateTP);
    defineProperty(m_stepSizeNP);
    defineProperty(m_approachSP);
    defineProperty(m_approachNP);
    defineProperty(m_positionSaveTP);
    listPositions();
}

void NkrFocuser::deleteFocusProperties()
{
    for (const char* name : {m_tempCompSP.getName(), m_tempCompNP.getName(), m_tempCompStateTP.getName(),
                             m_stepSizeNP.getName(), m_approachSP.getName(), m_approachNP.getName(),
                             m_positionsSP.getName(), m_positionSaveTP.getName()})
        deleteProperty(name);
}

void NkrFocuser::readFocusSettings()
{
    nkrhost::UnitSettings s;
    if (!succeeded(m_unit.unit().settings(s))) return;
    m_tempCompSP[kOn].setState(s.tempComp.enabled ? ISS_ON : ISS_OFF);
    m_tempCompSP[kOff].setState(s.tempComp.enabled ? ISS_OFF : ISS_ON);
    m_tempCompNP[kCoefficient].setValue(s.tempComp.coefficient);
    m_tempCompNP[kDeadband].setValue(s.tempComp.deadband);
    m_stepSizeNP[0].setValue(s.stepSizeMicrons.value_or(0));
    m_stepSizeNP.setState(s.stepSizeMicrons ? IPS_OK : IPS_IDLE);
    const int approach = !s.approach.enabled ? kApproachOff : s.approach.direction > 0 ? kApproachOut : kApproachIn;
    for (int k = 0; k < 3; ++k) m_approachSP[k].setState(k == approach ? ISS_ON : ISS_OFF);
    m_approachNP[0].setValue(s.approach.overshoot);
    // The standard presets are the named positions "Preset 1" to "Preset 3"
    // (0: empty). Set, not sent: at connect they are not defined yet.
    for (int k = 0; k < 3; ++k) {
        auto it = s.positions.find(presetName(k));
        PresetN[k].value = it != s.positions.end() ? it->second : 0;
    }
}

void NkrFocuser::listPositions()
{
    std::map<std::string, int> all;
    m_unit.unit().namedPositions(all);
    deleteProperty(m_positionsSP.getName());
    m_positionNames.clear();
    m_positionsSP.resize(std::max<size_t>(all.size(), 1));
    size_t i = 0;
    for (const auto& [name, position] : all) {
        m_positionNames.push_back(name);
        const std::string element = "POSITION_" + std::to_string(i);
        m_positionsSP[i++].fill(element.c_str(), (name + " (" + std::to_string(position) + ")").c_str(), ISS_OFF);
    }
    if (all.empty()) m_positionsSP[0].fill("NONE", "No named position yet", ISS_OFF);
    defineProperty(m_positionsSP);
}

void NkrFocuser::tickTempComp()
{
    if (!m_tempComp) return;
    std::vector<std::string> log;
    const bool wasCorrecting = m_tempComp->correcting();
    m_tempComp->tick(log);
    for (const std::string& line : log) LOGF_INFO("%s.", line.c_str());
    // A correction is a move like any other: Busy until the motor stops, so
    // a client can tell the focuser moved during an exposure (once, as it begins).
    if (!wasCorrecting && m_tempComp->correcting() && m_mover == Mover::None && isConnected()) {
        m_mover = Mover::Compensation;
        m_lastProgress = std::chrono::steady_clock::now();
        FocusAbsPosNP.s = IPS_BUSY;
        IDSetNumber(&FocusAbsPosNP, nullptr);
        schedulePoll();
    }
    const std::string state = m_tempComp->describe();
    if (state != m_tempCompStateTP[0].getText()) {
        m_tempCompStateTP[0].setText(state);
        m_tempCompStateTP.setState(m_tempComp->state() == nkrhost::TempCompRunner::State::Paused ? IPS_ALERT : IPS_OK);
        if (isConnected()) m_tempCompStateTP.apply();  // while connecting it is not defined yet
    }
}

bool NkrFocuser::handleFocusSwitch(const char* name, ISState* states, char* names[], int n)
{
    if (m_tempCompSP.isNameMatch(name)) {
        m_tempCompSP.update(states, names, n);
        const bool on = m_tempCompSP[kOn].getState() == ISS_ON;
        const bool ok = m_unit.isOpen() &&
                        succeeded(m_unit.unit().hostSettings().mergeJson(
                            m_unit.unit().key(), std::string(R"({"temp_comp": {"enabled": )") + (on ? "true" : "false") + "}}"));
        m_tempCompSP.setState(ok ? IPS_OK : IPS_ALERT);
        m_tempCompSP.apply();
        tickTempComp();
        return true;
    }
    if (m_approachSP.isNameMatch(name)) {
        m_approachSP.update(states, names, n);
        const int k = m_approachSP.findOnSwitchIndex();
        const std::string patch = k == kApproachOff ? R"({"approach": {"enabled": false}})"
                                                    : std::string(R"({"approach": {"enabled": true, "direction": )") +
                                                          (k == kApproachOut ? "1" : "-1") + "}}";
        const bool ok = m_unit.isOpen() && succeeded(m_unit.unit().hostSettings().mergeJson(m_unit.unit().key(), patch));
        m_approachSP.setState(ok ? IPS_OK : IPS_ALERT);
        m_approachSP.apply();
        return true;
    }
    if (m_positionsSP.isNameMatch(name)) {
        m_positionsSP.update(states, names, n);
        const int k = m_positionsSP.findOnSwitchIndex();
        for (size_t i = 0; i < m_positionsSP.size(); ++i) m_positionsSP[i].setState(ISS_OFF);
        int target = 0;
        IPState state = IPS_ALERT;
        if (k >= 0 && static_cast<size_t>(k) < m_positionNames.size() &&
            succeeded(m_unit.unit().namedPosition(m_positionNames[static_cast<size_t>(k)], target)))
            state = startMove(target);
        m_positionsSP.setState(state == IPS_ALERT ? IPS_ALERT : IPS_OK);
        m_positionsSP.apply();
        return true;
    }
    if (std::strcmp(name, PresetGotoSP.name) == 0) return gotoPreset(states, names, n);
    return false;
}

bool NkrFocuser::gotoPreset(ISState* states, char* names[], int n)
{
    IUUpdateSwitch(&PresetGotoSP, states, names, n);
    const int k = IUFindOnSwitchIndex(&PresetGotoSP);
    IUResetSwitch(&PresetGotoSP);
    IPState state = IPS_ALERT;
    if (k < 0 || k > 2 || !isConnected()) {
        // Nothing chosen, or nothing to move.
    } else if (PresetN[k].value <= 0) {
        LOGF_ERROR("%s is empty: store a position in it first.", presetName(k).c_str());
    } else {
        state = startMove(std::llround(PresetN[k].value));
    }
    PresetGotoSP.s = state == IPS_ALERT ? IPS_ALERT : IPS_OK;
    IDSetSwitch(&PresetGotoSP, nullptr);
    return true;
}

bool NkrFocuser::handlePresets(double values[], char* names[], int n)
{
    // The configuration's copy is not applied: the presets are kept in the
    // host settings, which hold the latest (another program may have changed
    // them), and a 0 there is an unused slot, not a request to empty it.
    if (m_loadingConfig || !isConnected()) return true;
    bool ok = true;
    bool changed = false;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            if (std::strcmp(names[i], PresetN[k].name) != 0) continue;
            const long long wanted = std::llround(values[i]);
            if (wanted == std::llround(PresetN[k].value)) continue;
            if (wanted < 0 || wanted > PresetN[k].max) {
                LOGF_ERROR("%s: %lld is outside 0..%.0f (0 empties it).", presetName(k).c_str(), wanted,
                           PresetN[k].max);
                ok = false;
                continue;
            }
            const nkrhost::Status done = wanted == 0 ? m_unit.unit().removePosition(presetName(k))
                                                     : m_unit.unit().savePosition(presetName(k), wanted);
            if (!succeeded(done)) {
                ok = false;
                continue;
            }
            PresetN[k].value = static_cast<double>(wanted);
            changed = true;
        }
    PresetNP.s = ok ? IPS_OK : IPS_ALERT;
    IDSetNumber(&PresetNP, nullptr);
    if (changed) listPositions();
    return true;
}

bool NkrFocuser::handleFocusNumber(const char* name, double values[], char* names[], int n)
{
    std::string patch;
    INDI::PropertyNumber* property = nullptr;
    if (m_tempCompNP.isNameMatch(name)) {
        if (!m_tempCompNP.update(values, names, n)) return refuseNumber(m_tempCompNP);
        property = std::addressof(m_tempCompNP);
        patch = R"({"temp_comp": {"coefficient": )" + number(m_tempCompNP[kCoefficient].getValue()) +
                R"(, "deadband": )" + number(m_tempCompNP[kDeadband].getValue()) + "}}";
    } else if (m_stepSizeNP.isNameMatch(name)) {
        if (!m_stepSizeNP.update(values, names, n)) return refuseNumber(m_stepSizeNP);
        property = std::addressof(m_stepSizeNP);
        const double v = m_stepSizeNP[0].getValue();
        patch = v > 0 ? R"({"step_size_um": )" + number(v) + "}" : R"({"step_size_um": null})";
    } else if (m_approachNP.isNameMatch(name)) {
        if (!m_approachNP.update(values, names, n)) return refuseNumber(m_approachNP);
        property = std::addressof(m_approachNP);
        patch = R"({"approach": {"overshoot": )" + std::to_string(std::lround(m_approachNP[0].getValue())) + "}}";
    } else {
        return false;
    }
    const bool ok = m_unit.isOpen() && succeeded(m_unit.unit().hostSettings().mergeJson(m_unit.unit().key(), patch));
    if (!ok && m_unit.isOpen()) readFocusSettings();
    property->setState(ok ? IPS_OK : IPS_ALERT);
    property->apply();
    return true;
}

bool NkrFocuser::handleFocusText(const char* name, char* texts[], char* names[], int n)
{
    if (!m_positionSaveTP.isNameMatch(name)) return false;
    m_positionSaveTP.update(texts, names, n);
    const std::string label = nkrhost::trimmed(m_positionSaveTP[0].getText());
    int position = 0;
    const bool ok = m_unit.isOpen() && succeeded(m_unit.unit().position(position)) &&
                    succeeded(m_unit.unit().savePosition(label, position));
    if (ok) LOGF_INFO("Position %d saved as '%s'.", position, label.c_str());
    m_positionSaveTP.setState(ok ? IPS_OK : IPS_ALERT);
    m_positionSaveTP.apply();
    if (ok) listPositions();
    return true;
}
