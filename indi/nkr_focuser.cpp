// Driver life cycle: properties, unit selection, connect and disconnect, the
// poll timer and the routing of client requests.
#include "nkr_focuser.h"

#include <cstdio>
#include <cstring>

#include "NKR_focuser.h"
#include "nkrhost/errors.h"

namespace {

constexpr uint32_t kDefaultPollMillis = 500;

}  // namespace

NkrFocuser::NkrFocuser()
{
    // DRIVER_VERSION carries the project's whole version (set in initProperties).
    setVersion(NKR_INDI_VERSION_MAJOR, NKR_INDI_VERSION_MINOR);
    SetCapability(FOCUSER_CAN_ABS_MOVE | FOCUSER_CAN_REL_MOVE | FOCUSER_CAN_ABORT |
                  FOCUSER_CAN_REVERSE | FOCUSER_CAN_SYNC | FOCUSER_HAS_BACKLASH);
    // The SDK finds and opens units itself: no serial or network port to choose.
    setSupportedConnections(CONNECTION_NONE);
}

const char* NkrFocuser::getDefaultName()
{
    return "NKR Focuser";
}

bool NkrFocuser::initProperties()
{
    INDI::Focuser::initProperties();

    initUnitProperties();

    m_temperatureNP[0].fill("TEMPERATURE", "°C", "%6.2f", -50, 70, 0, 0);
    m_temperatureNP.fill(getDeviceName(), "FOCUS_TEMPERATURE", "Temperature", MAIN_CONTROL_TAB,
                         IP_RO, 0, IPS_IDLE);

    // The unit takes 0..255 steps of backlash compensation.
    FocusBacklashN[0].min = 0;
    FocusBacklashN[0].max = 255;
    FocusBacklashN[0].step = 1;
    FocusBacklashN[0].value = 0;
    // Labels that fit KStars' label column (libindi's are cut there), and
    // apart: libindi labels the backlash toggle and steps both "Backlash".
    std::snprintf(FocusBacklashNP.label, MAXINDILABEL, "%s", "Backl. steps");
    std::snprintf(FocusAbsPosNP.label, MAXINDILABEL, "%s", "Abs. position");
    std::snprintf(FocusRelPosNP.label, MAXINDILABEL, "%s", "Rel. position");
    std::snprintf(FocusReverseSP.label, MAXINDILABEL, "%s", "Reversed");

    initExtraProperties();
    initFocusProperties();

    addDebugControl();
    addConfigurationControl();
    setDefaultPollingPeriod(kDefaultPollMillis);
    addPollPeriodControl();
    // One version everywhere: the project's, not the major.minor pair.
    if (auto info = getText("DRIVER_INFO"); info.isValid())
        if (auto* version = info.findWidgetByName("DRIVER_VERSION")) version->setText(NKR_INDI_VERSION);
    return true;
}

void NkrFocuser::ISGetProperties(const char* dev)
{
    // Not INDI::Focuser's: it has its joystick properties defined a second
    // time, after the ones the device holds (among them those) were.
    INDI::DefaultDevice::ISGetProperties(dev);
    // The base class defines every property it holds again for each later
    // request; these are new only the first time.
    if (!m_unitChoiceLoaded) defineUnitProperties();
}

bool NkrFocuser::loadConfig(bool silent, const char* property)
{
    m_loadingConfig = true;
    const bool loaded = INDI::Focuser::loadConfig(silent, property);
    m_loadingConfig = false;
    return loaded;
}

bool NkrFocuser::updateProperties()
{
    INDI::Focuser::updateProperties();
    if (isConnected()) {
        defineProperty(m_temperatureNP);
        defineExtraProperties();
        defineFocusProperties();
    } else {
        deleteProperty(m_temperatureNP.getName());
        deleteExtraProperties();
        deleteFocusProperties();
    }
    return true;
}

bool NkrFocuser::Connect()
{
    freshStates();
    const std::string ble = nkrhost::trimmed(m_unitSelectTP[kBleSelector].getText());
    const std::string problem =
        ble.empty() ? m_unit.openUsb(m_unitSelectTP[kUsbSelector].getText(), getDeviceName())
                    : m_unit.openBle(ble, getDeviceName());
    if (!problem.empty()) {
        LOGF_ERROR("%s.", problem.c_str());
        return false;
    }
    LOGF_INFO("Connected to the focuser on %s.", m_unit.description().c_str());

    // The SDK lists a unit's controls by the model text that reading its type
    // learns (a Bluetooth pairing reads no type), so the identity comes first.
    readIdentity();
    readCapabilities();
    readMotorSettings();
    readExtraSettings();
    readFocusSettings();
    m_tempComp = std::make_unique<nkrhost::TempCompRunner>(m_unit.unit(), std::string("INDI ") + getDeviceName());
    // Its state is defined with the rest rather than sent at the first tick
    // after, where it could hold back the answer to a first move.
    tickTempComp();
    m_lastTempCompTick = std::chrono::steady_clock::now();
    pollTemperature();
    m_pollFailed = m_lost = false;
    m_lastPowerPoll = std::chrono::steady_clock::now();
    schedulePoll();
    showUnitList(m_unitListSP.getState());
    return true;
}

void NkrFocuser::freshStates()
{
    // Nothing from the last session (an Alert for a refused value) is shown
    // again; what connecting reads sets its own state.
    for (INumberVectorProperty* p : {&FocusAbsPosNP, &FocusRelPosNP, &FocusMaxPosNP, &FocusSyncNP, &FocusBacklashNP,
                                     &PresetNP})
        p->s = IPS_IDLE;
    for (ISwitchVectorProperty* p : {&FocusMotionSP, &FocusAbortSP, &FocusReverseSP, &FocusBacklashSP, &PresetGotoSP})
        p->s = IPS_IDLE;
    for (INDI::Property p : {INDI::Property(m_temperatureNP), INDI::Property(m_aliasTP), INDI::Property(m_forceNP),
                             INDI::Property(m_beepSP), INDI::Property(m_ledSP), INDI::Property(m_batteryNP),
                             INDI::Property(m_errorCodesTP), INDI::Property(m_infoTP), INDI::Property(m_stepRangeNP),
                             INDI::Property(m_tempCompSP), INDI::Property(m_tempCompNP),
                             INDI::Property(m_tempCompStateTP), INDI::Property(m_stepSizeNP),
                             INDI::Property(m_approachSP), INDI::Property(m_approachNP),
                             INDI::Property(m_positionsSP), INDI::Property(m_positionSaveTP)})
        p.setState(IPS_IDLE);
    m_sentTemperature.reset();
}

bool NkrFocuser::Disconnect()
{
    if (m_timerId >= 0) RemoveTimer(m_timerId);
    m_timerId = -1;
    const bool wasUsb = m_unit.isOpen() && !m_unit.overBle();
    m_lost = false;
    m_move.reset();
    m_tempComp.reset();
    m_mover = Mover::None;
    m_unit.close();
    showUnitList(m_unitListSP.getState());
    LOG_INFO(wasUsb ? "Focuser closed; its position is saved for the next session."
                    : "Focuser disconnected.");
    return true;
}

void NkrFocuser::TimerHit()
{
    m_timerId = -1;
    if (!isConnected()) return;
    if (m_lost) tryReconnect();
    if (!m_unit.isOpen() || m_lost) {
        if (m_lost) m_timerId = SetTimer(kLostPollMillis);
        return;
    }
    // At rest one status read per polling period: the position (which shows
    // a hand move) and the temperature take turns. While a move is followed:
    // the motor every tick.
    if (m_mover == Mover::None && m_temperatureTurn) {
        m_temperatureTurn = false;
        // A failed read counts toward "the unit is gone" like a position read.
        const int rc = pollTemperature();
        if (rc == NKR_SUCCESS) {
            pollSucceeded();
        } else {
            pollFailed(rc);
            if (m_lost) {
                m_timerId = SetTimer(kLostPollMillis);
                return;
            }
        }
    } else {
        pollMotion();
        if (m_lost) {
            m_timerId = SetTimer(kLostPollMillis);
            return;
        }
        // While a move is followed nothing else is sent: a message just
        // before the move's end would hold the end back (see handleMoveNumber).
        if (m_mover == Mover::None) m_temperatureTurn = true;
    }
    if (m_mover == Mover::None) {
        followHostSettings();
        pollPowerState();  // every few seconds, on their own clocks
        const auto now = std::chrono::steady_clock::now();
        if (now - m_lastTempCompTick >= kTempCompInterval) {
            m_lastTempCompTick = now;
            tickTempComp();
        }
    }
    schedulePoll();
}

void NkrFocuser::schedulePoll()
{
    if (m_timerId >= 0) RemoveTimer(m_timerId);
    m_timerId = SetTimer(m_mover == Mover::Host ? m_nextMotionPoll
                         : m_mover != Mover::None ? kMotionPollMillis : getCurrentPollingPeriod());
}

std::chrono::milliseconds NkrFocuser::pollingPeriod() const
{
    return std::chrono::milliseconds(getCurrentPollingPeriod());
}

bool NkrFocuser::saveConfigItems(FILE* fp)
{
    INDI::Focuser::saveConfigItems(fp);
    m_unitSelectTP.save(fp);
    // Compensation, step size, the final approach, named positions and the
    // maximum live in the host settings, which every program shares: they
    // are read from there at connect and never from this file.
    return true;
}

bool NkrFocuser::ISNewText(const char* dev, const char* name, char* texts[], char* names[], int n)
{
    if (dev != nullptr && std::strcmp(dev, getDeviceName()) == 0) {
        if (m_unitSelectTP.isNameMatch(name)) {
            const std::string before = unitChoice();
            m_unitSelectTP.update(texts, names, n);
            m_unitSelectTP.setState(IPS_OK);
            m_unitSelectTP.apply();
            saveConfig(true, m_unitSelectTP.getName());
            if (isConnected() && unitChoice() != before)
                LOG_INFO("The new unit choice takes effect at the next connect.");
            return true;
        }
        if (handleExtraText(name, texts, names, n) || handleFocusText(name, texts, names, n)) return true;
    }
    return INDI::Focuser::ISNewText(dev, name, texts, names, n);
}

// What the host settings hold: a configuration file (an older one, or one
// Ekos loads at its first connect) must not set it back over another
// program's change.
bool NkrFocuser::keptInHostSettings(const char* name) const
{
    for (const char* kept : {FocusMaxPosNP.name, m_tempCompSP.getName(), m_tempCompNP.getName(),
                             m_stepSizeNP.getName(), m_approachSP.getName(), m_approachNP.getName()})
        if (std::strcmp(name, kept) == 0) return true;
    return false;
}

bool NkrFocuser::ISNewNumber(const char* dev, const char* name, double values[], char* names[],
                             int n)
{
    if (m_loadingConfig && keptInHostSettings(name)) return true;
    if (dev != nullptr && std::strcmp(dev, getDeviceName()) == 0 &&
        (handleMoveNumber(name, values, names, n) || refuseBacklash(name, values, n) ||
         handleMaxNumber(name, values, n) ||
         handleExtraNumber(name, values, names, n) ||
         (std::strcmp(name, PresetNP.name) == 0 && handlePresets(values, names, n)) ||
         (isConnected() && handleFocusNumber(name, values, names, n))))
        return true;
    return INDI::Focuser::ISNewNumber(dev, name, values, names, n);
}

bool NkrFocuser::ISNewSwitch(const char* dev, const char* name, ISState* states, char* names[],
                             int n)
{
    if (m_loadingConfig && keptInHostSettings(name)) return true;
    if (dev != nullptr && std::strcmp(dev, getDeviceName()) == 0 &&
        (handleExtraSwitch(name, states, names, n) || handleUnitSwitch(name, states, names, n) ||
         handleFocusSwitch(name, states, names, n)))
        return true;
    return INDI::Focuser::ISNewSwitch(dev, name, states, names, n);
}

std::string NkrFocuser::unitChoice()
{
    return nkrhost::trimmed(m_unitSelectTP[kUsbSelector].getText()) + '\n' +
           nkrhost::trimmed(m_unitSelectTP[kBleSelector].getText());
}

bool NkrFocuser::succeeded(int rc, const char* what)
{
    if (rc == NKR_SUCCESS) return true;
    return succeeded(nkrhost::Status::fromSdk(rc, what));
}

bool NkrFocuser::succeeded(const nkrhost::Status& status)
{
    if (status.ok()) return true;
    LOGF_ERROR("%s.", status.message.c_str());
    return false;
}
