// INDI driver for the NKR focuser: an INDI::Focuser over the SDK's C
// interface. One driver process drives one unit, USB or Bluetooth LE; several
// instances, each under its own device name (INDIDEV, or indiserver's
// "start ... -n <name>"), drive several units.
#pragma once

#include <chrono>
#include <string>
#include <memory>
#include <optional>
#include <vector>

#include <indifocuser.h>
#include <indipropertynumber.h>
#include <indipropertyswitch.h>
#include <indipropertytext.h>

#include "nkrhost/tempcomp.h"
#include "unit_link.h"

class NkrFocuser : public INDI::Focuser {
public:
    NkrFocuser();

    const char* getDefaultName() override;
    bool initProperties() override;
    bool updateProperties() override;
    void ISGetProperties(const char* dev) override;
    bool ISNewNumber(const char* dev, const char* name, double values[], char* names[],
                     int n) override;
    bool ISNewSwitch(const char* dev, const char* name, ISState* states, char* names[],
                     int n) override;
    bool ISNewText(const char* dev, const char* name, char* texts[], char* names[],
                   int n) override;

protected:
    bool Connect() override;
    bool Disconnect() override;
    void TimerHit() override;
    bool saveConfigItems(FILE* fp) override;
    // Marks the load, so that what the configuration holds for the presets
    // (kept in the host settings) is not taken as a user's change.
    bool loadConfig(bool silent = false, const char* property = nullptr) override;

    // Focuser interface, in nkr_focuser_motion.cpp.
    IPState MoveAbsFocuser(uint32_t targetTicks) override;
    IPState MoveRelFocuser(FocusDirection dir, uint32_t ticks) override;
    bool AbortFocuser() override;
    bool ReverseFocuser(bool enabled) override;
    bool SyncFocuser(uint32_t ticks) override;
    bool SetFocuserMaxPosition(uint32_t ticks) override;
    bool SetFocuserBacklash(int32_t steps) override;
    bool SetFocuserBacklashEnabled(bool enabled) override;

private:
    // nkr_focuser_motion.cpp
    void readMotorSettings();
    // Absolute and relative move requests, announced without a separate message.
    bool handleMoveNumber(const char* name, double values[], char* names[], int n);
    // One look at the motor: while a move is followed, whether it still runs
    // and where it is; at rest only the position (a change shows a hand move).
    void pollMotion();
    // A move the driver started, followed by the host's follow loop.
    void followHostMove();
    // Every move starts here (absolute, relative, preset, named position):
    // the host refuses a target beyond the user's maximum and plans the final
    // approach; the move is announced Busy before the SDK's pause, and ends
    // Ok at once when it ended inside it. relative: REL_FOCUS_POSITION asked.
    IPState startMove(int64_t target, bool relative = false);
    // The move properties' state to the client, the relative one first.
    void announceMove(IPState state, bool relative, const char* message = nullptr);
    void finishMove(IPState state);
    // FOCUS_BACKLASH_STEPS beyond what the unit takes: refused, not clamped.
    bool refuseBacklash(const char* name, double values[], int n);
    // FOCUS_MAX: the base class would narrow the move properties' limits to
    // it; here they keep the step range and the host refuses a target beyond.
    bool handleMaxNumber(const char* name, double values[], int n);
    void publishPosition(int position);

    // nkr_focuser_extras.cpp: what the standard focuser properties lack.
    void initExtraProperties();
    void readCapabilities();
    void readIdentity();
    void readExtraSettings();
    void defineExtraProperties();
    void deleteExtraProperties();
    // NKR_SUCCESS when a reading came (a probe error is one), else the failure.
    int pollTemperature();
    // Battery and error codes change slowly: read every few seconds, or now.
    void pollPowerState(bool now = false);
    bool handleExtraNumber(const char* name, double values[], char* names[], int n);
    bool handleExtraSwitch(const char* name, ISState* states, char* names[], int n);
    bool handleExtraText(const char* name, char* texts[], char* names[], int n);

    // nkr_focuser_focus.cpp: beyond the unit, kept per unit in the host
    // settings that every front-end shares: temperature compensation, step
    // size, final approach and named positions (also the standard presets).
    void initFocusProperties();
    void defineFocusProperties();
    void deleteFocusProperties();
    // From the host settings, at connect and after a change elsewhere.
    void readFocusSettings();
    bool handleFocusSwitch(const char* name, ISState* states, char* names[], int n);
    bool handleFocusNumber(const char* name, double values[], char* names[], int n);
    bool handleFocusText(const char* name, char* texts[], char* names[], int n);
    // One tick of temperature compensation (at rest, once a polling period).
    void tickTempComp();
    void listPositions();
    // The standard presets are the named positions "Preset 1" to "Preset 3";
    // 0 is an empty slot.
    bool handlePresets(double values[], char* names[], int n);
    bool gotoPreset(ISState* states, char* names[], int n);

    // Arms the one poll timer: kMotionPollMillis while a move is followed, the
    // user's polling period at rest.
    void schedulePoll();
    // Every property defined on connect starts Idle; reads then set their own.
    void freshStates();
    std::chrono::milliseconds pollingPeriod() const;

    // nkr_focuser_link.cpp: a unit that goes away and comes back.
    void pollFailed(int rc);
    void pollSucceeded();
    void loseUnit();
    void tryReconnect();
    void restoreAfterReturn();
    // What other programs changed in the host settings (the maximum) reaches
    // the unit and this panel: one look of the unit's session.
    void followHostSettings();
    // A property whose values live in the host settings file, not in the
    // driver's configuration.
    bool keptInHostSettings(const char* name) const;

    // nkr_focuser_units.cpp: unit list, unit choice, own position record.
    void initUnitProperties();
    void defineUnitProperties();
    // Lists the units present (USB; Bluetooth too when asked, which takes seconds).
    void scanUnits(bool withBluetooth);
    // NKR_UNITS from the last scan, the unit open here marked.
    void showUnitList(IPState state);
    bool handleUnitSwitch(const char* name, ISState* states, char* names[], int n);

    // Both selector texts, trimmed, to tell a real change from a reload.
    std::string unitChoice();
    // Logs a failed SDK call as the host catalogue words it; true on success.
    bool succeeded(int rc, const char* what);
    // Logs a failed host operation with its sentence; true on success.
    bool succeeded(const nkrhost::Status& status);

    nkrindi::UnitLink m_unit;
    int m_timerId = -1;

    // Which unit to open: USB serial number / alias, or Bluetooth name / address.
    // Element indexes of m_unitSelectTP and m_infoTP.
    enum UnitSelector { kUsbSelector, kBleSelector };
    enum InfoField { kFirmware, kSerial, kModel, kLink };

    INDI::PropertyText m_unitSelectTP{2};
    bool m_unitChoiceLoaded = false;
    // The units a scan found, one switch each; a choice fills m_unitSelectTP.
    INDI::PropertySwitch m_unitListSP{0};
    INDI::PropertySwitch m_unitScanSP{1};
    std::vector<nkrindi::FoundUnit> m_found;

    INDI::PropertyNumber m_temperatureNP{1};
    INDI::PropertyText m_infoTP{4};
    INDI::PropertyText m_aliasTP{1};
    INDI::PropertySwitch m_beepSP{2};
    INDI::PropertyNumber m_forceNP{1};
    INDI::PropertyNumber m_stepRangeNP{1};
    INDI::PropertyNumber m_batteryNP{7};
    INDI::PropertySwitch m_ledSP{2};
    INDI::PropertyText m_errorCodesTP{2};

    INDI::PropertySwitch m_tempCompSP{2};
    INDI::PropertyNumber m_tempCompNP{2};
    INDI::PropertyText m_tempCompStateTP{1};
    INDI::PropertyNumber m_stepSizeNP{1};
    INDI::PropertySwitch m_approachSP{3};
    INDI::PropertyNumber m_approachNP{1};
    INDI::PropertySwitch m_positionsSP{0};
    INDI::PropertyText m_positionSaveTP{1};
    std::vector<std::string> m_positionNames;
    std::unique_ptr<nkrhost::TempCompRunner> m_tempComp;

    bool m_hasBattery = false;
    bool m_hasLed = false;
    bool m_hasErrorCodes = false;
    bool m_probeError = false;
    // The temperature and state last sent: a reading is sent when it differs
    // by the probe's resolution or more, or its state changes.
    std::optional<double> m_sentTemperature;
    IPState m_sentTemperatureState = IPS_IDLE;
    bool m_loadingConfig = false;

    // Who moves the motor, as far as the driver knows.
    enum class Mover { None, Host, HandController, Compensation };

    // Motion bookkeeping between polls. A move the driver made is followed
    // by the host layer's follow loop (one leg, or two for a final approach).
    Mover m_mover = Mover::None;
    std::unique_ptr<nkrhost::PlannedMove> m_move;
    int m_target = 0;
    int m_lastPosition = -1;      // as published
    int m_lastSeenPosition = -1;  // as last read
    std::chrono::steady_clock::time_point m_lastProgress{};
    std::chrono::steady_clock::time_point m_lastPublished{};
    // Backlash the unit uses while the toggle is on; the unit itself has no
    // on/off, so "off" sends 0 and keeps this value for the next "on".
    int m_backlashSteps = 0;
    bool m_pollFailed = false;
    // The unit went away while connected; the driver looks for it again
    // (the host's back-off says when).
    bool m_lost = false;
    int m_knownPosition = -1;
    std::chrono::steady_clock::time_point m_lastPowerPoll{};
    bool m_temperatureTurn = false;  // at rest: the next tick reads the temperature
    std::chrono::steady_clock::time_point m_lastTempCompTick{};
    static constexpr auto kTempCompInterval = std::chrono::seconds(2);

    // Poll interval while a move is under way: the end of a move is reported
    // within this (plus one exchange) of the motor stopping.
    static constexpr uint32_t kMotionPollMillis = 20;
    // Near the expected end of a move the next look comes just after it, but
    // not sooner than this.
    static constexpr uint32_t kMinMotionPollMillis = 4;
    uint32_t m_nextMotionPoll = kMotionPollMillis;
    // Poll interval while the unit is gone: each tick may look for it.
    static constexpr uint32_t kLostPollMillis = 250;
};
