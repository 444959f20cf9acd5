// Which unit this instance drives: the list of units found by a scan (for
// people with a GUI client), the unit-choice texts (for scripts), and this
// instance's own record of its unit's position.
#include <cstdlib>
#include <string>

#include "NKR_focuser.h"
#include "close_note.h"
#include "nkr_focuser.h"
#include "unit_identity.h"

namespace {

enum SavedField { kSavedSerial, kSavedPosition };

std::string unitLabel(const nkrindi::FoundUnit& unit)
{
    std::string label = unit.model;
    if (unit.ble) {
        label = unit.bleName + " " + unit.bleAddress + " (Bluetooth)";
    } else {
        label += unit.serial.empty() ? " (no serial)" : " " + unit.serial;
        if (!unit.alias.empty()) label += " '" + unit.alias + "'";
        label += " (USB)";
    }
    if (!unit.holder.empty()) label += ", in use by " + unit.holder;
    if (unit.own) label += ", connected here";
    return label;
}

}  // namespace

void NkrFocuser::initUnitProperties()
{
    const char* dev = getDeviceName();
    m_unitSelectTP[kUsbSelector].fill("USB", "USB serial or alias", "");
    m_unitSelectTP[kBleSelector].fill("BLE", "Bluetooth name or address", "");
    m_unitSelectTP.fill(dev, "NKR_UNIT", "Unit", CONNECTION_TAB, IP_RW, 60, IPS_IDLE);

    m_unitListSP.fill(dev, "NKR_UNITS", "Units found", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60,
                      IPS_IDLE);
    m_unitScanSP[0].fill("SCAN", "Refresh", ISS_OFF);
    m_unitScanSP.fill(dev, "NKR_UNITS_SCAN", "Unit list", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60,
                      IPS_IDLE);

    m_savedTP[kSavedSerial].fill("SERIAL", "Serial number", "");
    m_savedTP[kSavedPosition].fill("POSITION", "Position", "");
    m_savedTP.fill(dev, "NKR_SAVED_POSITION", "Saved at disconnect", OPTIONS_TAB, IP_RW, 0,
                   IPS_IDLE);
}

void NkrFocuser::defineUnitProperties()
{
    defineProperty(m_unitSelectTP);
    defineProperty(m_unitScanSP);
    defineProperty(m_savedTP);
    // Every client asks for the properties; the saved choice is read and the
    // units are listed once. Bluetooth units are listed on a refresh (a scan
    // takes seconds).
    if (m_unitChoiceLoaded) {
        defineProperty(m_unitListSP);
        return;
    }
    m_unitChoiceLoaded = true;
    loadConfig(true, m_unitSelectTP.getName());
    // Read-only properties are not loaded from the configuration: this one is
    // writable, but only this load may change it.
    m_loadingSaved = true;
    loadConfig(true, m_savedTP.getName());
    m_loadingSaved = false;
    scanUnits(false);
}

void NkrFocuser::scanUnits(bool withBluetooth)
{
    std::string problem;
    m_found = nkrindi::scanUsbUnits(m_unit.isOpen() && !m_unit.overBle() ? m_unit.id() : -1, problem);
    if (withBluetooth && problem.empty()) {
        auto ble = nkrindi::scanBleUnits(problem);
        m_found.insert(m_found.end(), ble.begin(), ble.end());
    }
    if (m_unit.isOpen()) {
        // This instance's own unit is not opened again; it leads the list.
        nkrindi::FoundUnit own;
        own.own = true;
        own.ble = m_unit.overBle();
        own.serial = m_unit.serial();
        own.alias = m_aliasTP[0].getText() ? m_aliasTP[0].getText() : "";
        own.model = m_infoTP[kModel].getText() ? m_infoTP[kModel].getText() : "";
        own.bleName = nkrindi::trimmed(m_unitSelectTP[kBleSelector].getText());
        if (own.ble) {
            // Already listed by the Bluetooth scan, when it ran.
            std::erase_if(m_found, [&](const nkrindi::FoundUnit& u) { return u.ble && u.bleName == own.bleName; });
        }
        m_found.insert(m_found.begin(), own);
    }

    deleteProperty(m_unitListSP.getName());
    m_unitListSP.resize(m_found.size());
    const std::string chosenUsb = nkrindi::trimmed(m_unitSelectTP[kUsbSelector].getText());
    const std::string chosenBle = nkrindi::trimmed(m_unitSelectTP[kBleSelector].getText());
    for (size_t i = 0; i < m_found.size(); ++i) {
        const nkrindi::FoundUnit& unit = m_found[i];
        const bool chosen = unit.ble ? !chosenBle.empty() && unit.bleName == chosenBle
                                     : chosenBle.empty() && !chosenUsb.empty() &&
                                           nkrindi::usbSelectorMatches(chosenUsb, unit.serial, unit.alias);
        const std::string name = "UNIT_" + std::to_string(i);
        m_unitListSP[i].fill(name.c_str(), unitLabel(unit).c_str(), chosen ? ISS_ON : ISS_OFF);
    }
    if (m_found.empty()) {
        // A vector needs an element; this one chooses nothing.
        m_unitListSP.resize(1);
        m_unitListSP[0].fill("NONE", "No unit found", ISS_OFF);
    }
    m_unitListSP.setState(problem.empty() ? IPS_OK : IPS_ALERT);
    defineProperty(m_unitListSP);
    if (!problem.empty()) LOGF_WARN("%s.", problem.c_str());
    else LOGF_INFO("%d unit(s) found.", static_cast<int>(m_found.size()));
}

bool NkrFocuser::handleUnitSwitch(const char* name, ISState* states, char* names[], int n)
{
    if (m_unitScanSP.isNameMatch(name)) {
        m_unitScanSP[0].setState(ISS_OFF);
        if (m_mover != Mover::None) {
            m_unitScanSP.setState(IPS_ALERT);
            m_unitScanSP.apply("The unit list is refreshed when the focuser stands still.");
            return true;
        }
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
    if (unit.ble) {
        m_unitSelectTP[kUsbSelector].setText("");
        m_unitSelectTP[kBleSelector].setText(unit.bleName);
    } else {
        m_unitSelectTP[kUsbSelector].setText(unit.serial.empty() ? unit.alias : unit.serial);
        m_unitSelectTP[kBleSelector].setText("");
    }
    m_unitSelectTP.setState(IPS_OK);
    m_unitSelectTP.apply();
    saveConfig(true, m_unitSelectTP.getName());
    m_unitListSP.setState(IPS_OK);
    m_unitListSP.apply();
    if (!unit.holder.empty())
        LOGF_WARN("That unit is in use by %s; connecting will be refused while it is.", unit.holder.c_str());
    if (isConnected() && unitChoice() != before)
        LOG_INFO("The new unit choice takes effect at the next connect.");
    return true;
}

bool NkrFocuser::handleSavedText(const char* name, char* texts[], char* names[], int n)
{
    if (!m_savedTP.isNameMatch(name)) return false;
    if (!m_loadingSaved) {
        m_savedTP.apply("The saved position is written by the driver at disconnect only.");
        return true;
    }
    m_savedTP.update(texts, names, n);
    m_savedTP.apply();
    return true;
}

void NkrFocuser::restoreOwnPosition()
{
    if (m_unit.overBle() || m_unit.serial().empty()) return;
    int reported = 0;
    if (NKRGetPosition(m_unit.id(), &reported) != NKR_SUCCESS) return;
    std::optional<nkrindi::CloseNote> saved;
    const char* savedPosition = m_savedTP[kSavedPosition].getText();
    if (savedPosition != nullptr && *savedPosition != '\0')
        saved = nkrindi::CloseNote{m_savedTP[kSavedSerial].getText(), std::atoi(savedPosition)};
    const auto restore = nkrindi::positionToRestore(m_unit.serial(), reported, saved, nkrindi::lastClose());
    if (!restore) return;
    if (succeeded(NKRResetPostion(m_unit.id(), *restore), "Restoring the position"))
        LOGF_INFO("Position %d restored from this driver's record (the SDK's shared record gave "
                  "another unit's %d).",
                  *restore, reported);
}

void NkrFocuser::recordOwnPosition()
{
    int position = 0;
    if (m_unit.overBle() || m_unit.serial().empty() ||
        NKRGetPosition(m_unit.id(), &position) != NKR_SUCCESS)
        return;
    m_savedTP[kSavedSerial].setText(m_unit.serial());
    m_savedTP[kSavedPosition].setText(std::to_string(position));
    m_savedTP.setState(IPS_OK);
    m_savedTP.apply();
    saveConfig(true, m_savedTP.getName());
}
