// Which unit this instance drives: the list of units found by a scan (for
// people with a GUI client) and the unit-choice texts (for scripts).
#include <string>

#include "NKR_focuser.h"
#include "nkr_focuser.h"

namespace {

// INDI keeps 63 characters of a label.
constexpr size_t kLabelLength = 63;

// Cut at the last space that leaves room for "...", never inside a word.
std::string cutAtWord(const std::string& text, size_t room)
{
    if (text.size() <= room) return text;
    if (room < 4) return {};
    const size_t space = text.rfind(' ', room - 3);
    return text.substr(0, space == std::string::npos ? 0 : space) + "...";
}

// What tells the unit apart (serial number, or Bluetooth name and address)
// and its link stay whole; the rest gives way, in order: the alias, the
// model, the holder's process id, then the holder's name at a word.
std::string unitLabel(const nkrindi::FoundUnit& unit)
{
    const nkrhost::SeenUnit& s = unit.seen;
    const bool ble = s.link == nkrhost::Link::Ble;
    const std::string id = ble ? s.bleName + " " + s.bleAddress : s.serial.empty() ? "(no serial)" : s.serial;
    const std::string link = ble ? " (Bluetooth)" : " (USB)";
    const std::string model = ble ? "" : (s.model.empty() ? std::string("NKR") : s.model) + " ";
    const std::string alias = s.alias.empty() || ble ? "" : " '" + s.alias + "'";
    std::string holder = unit.own || unit.holder.empty() ? "" : unit.holder;
    const std::string state = unit.own ? ", connected here" : holder.empty() ? "" : ", held by ";
    for (const std::string& label : {model + id + alias + link, model + id + link, id + link}) {
        if (label.size() + state.size() + holder.size() <= kLabelLength) return label + state + holder;
    }
    const std::string base = id + link + state;
    if (const size_t pid = holder.rfind(" (pid "); pid != std::string::npos) holder.erase(pid);
    return base + cutAtWord(holder, kLabelLength > base.size() ? kLabelLength - base.size() : 0);
}

}  // namespace

void NkrFocuser::initUnitProperties()
{
    const char* dev = getDeviceName();
    m_unitSelectTP[kUsbSelector].fill("USB", "USB serial or alias", "");
    m_unitSelectTP[kBleSelector].fill("BLE", "Bluetooth name or address", "");
    m_unitSelectTP.fill(dev, "NKR_UNIT", "Unit choice", CONNECTION_TAB, IP_RW, 60, IPS_IDLE);

    m_unitListSP.fill(dev, "NKR_UNITS", "Units found", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60,
                      IPS_IDLE);
    m_unitScanSP[0].fill("SCAN", "Refresh", ISS_OFF);
    m_unitScanSP.fill(dev, "NKR_UNITS_SCAN", "Unit list", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60,
                      IPS_IDLE);
}

void NkrFocuser::defineUnitProperties()
{
    defineProperty(m_unitSelectTP);
    defineProperty(m_unitScanSP);
    // Once, at the first request: the saved choice is read and the units are
    // listed. Bluetooth units are listed on a refresh (a scan takes seconds).
    m_unitChoiceLoaded = true;
    loadConfig(true, m_unitSelectTP.getName());
    scanUnits(false);
}

void NkrFocuser::scanUnits(bool withBluetooth)
{
    std::string problem;
    // Identifying a unit leaves it open (a close would stop another
    // instance's motor), so a scan never disturbs a unit in use.
    m_found = nkrindi::scanUnits(withBluetooth, problem);
    showUnitList(problem.empty() ? IPS_OK : IPS_ALERT);
    if (!problem.empty()) LOGF_WARN("%s.", problem.c_str());
    else LOGF_INFO("%d unit(s) found.", static_cast<int>(m_found.size()));
}

void NkrFocuser::showUnitList(IPState state)
{
    // The unit open here is marked, and its switch is on.
    for (nkrindi::FoundUnit& unit : m_found) unit.own = false;
    if (m_unit.isOpen()) {
        const nkrhost::SeenUnit mine = nkrhost::seenFrom(m_unit.unit().identity());
        for (nkrindi::FoundUnit& unit : m_found)
            unit.own = unit.seen.link == mine.link &&
                       (mine.link == nkrhost::Link::Ble ? unit.seen.bleAddress == mine.bleAddress
                                                        : !mine.serial.empty() ? unit.seen.serial == mine.serial
                                                                               : unit.seen.slot == mine.slot);
    }

    // Labels change: the list is defined anew (only when it was defined).
    if (getProperty(m_unitListSP.getName()).isValid()) deleteProperty(m_unitListSP.getName());
    m_unitListSP.resize(m_found.size());
    const std::string chosenUsb = nkrhost::trimmed(m_unitSelectTP[kUsbSelector].getText());
    const std::string chosenBle = nkrhost::trimmed(m_unitSelectTP[kBleSelector].getText());
    for (size_t i = 0; i < m_found.size(); ++i) {
        const nkrindi::FoundUnit& unit = m_found[i];
        const bool ble = unit.seen.link == nkrhost::Link::Ble;
        const std::string& chosenText = ble ? chosenBle : chosenUsb;
        const bool chosen = !m_unit.isOpen() && (ble || chosenBle.empty()) && !chosenText.empty() &&
                            nkrhost::resolveUnit(chosenText, {unit.seen}).status.ok();
        const std::string name = "UNIT_" + std::to_string(i);
        m_unitListSP[i].fill(name.c_str(), unitLabel(unit).c_str(), chosen || unit.own ? ISS_ON : ISS_OFF);
    }
    if (m_found.empty()) {
        // A vector needs an element; this one chooses nothing.
        m_unitListSP.resize(1);
        m_unitListSP[0].fill("NONE", "No unit found", ISS_OFF);
    }
    m_unitListSP.setState(state);
    defineProperty(m_unitListSP);
}

bool NkrFocuser::handleUnitSwitch(const char* name, ISState* states, char* names[], int n)
{
    if (m_unitScanSP.isNameMatch(name)) {
        m_unitScanSP[0].setState(ISS_OFF);
        m_unitScanSP.setState(IPS_BUSY);
        m_unitScanSP.apply("Scanning for units...");
        scanUnits(true);
        m_unitScanSP.setState(IPS_OK);
        m_unitScanSP.apply();
        return true;
    }
    if (!m_unitListSP.isNameMatch(name)) return false;
    m_unitListSP.update(states, names, n);
    const int index = m_unitListSP.findOnSwitchIndex();
    if (index < 0 || index >= static_cast<int>(m_found.size())) {
        m_unitListSP.apply();
        return true;
    }
    const nkrindi::FoundUnit& unit = m_found[index];
    const std::string before = unitChoice();
    if (unit.seen.link == nkrhost::Link::Ble) {
        m_unitSelectTP[kUsbSelector].setText("");
        m_unitSelectTP[kBleSelector].setText(unit.seen.bleName);
    } else {
        m_unitSelectTP[kUsbSelector].setText(unit.seen.serial.empty() ? unit.seen.alias : unit.seen.serial);
        m_unitSelectTP[kBleSelector].setText("");
    }
    m_unitSelectTP.setState(IPS_OK);
    m_unitSelectTP.apply();
    saveConfig(true, m_unitSelectTP.getName());
    m_unitListSP.setState(IPS_OK);
    m_unitListSP.apply();
    if (!unit.holder.empty() && !unit.own)
        LOGF_WARN("That unit is held by %s; connecting will be refused while it is.", unit.holder.c_str());
    if (isConnected() && unitChoice() != before)
        LOG_INFO("The new unit choice takes effect at the next connect.");
    return true;
}
