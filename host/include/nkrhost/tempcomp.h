// Temperature compensation: as the tube cools, focus moves by a steady
// number of steps per degree. While compensation is on, the one program that
// holds the unit for it moves the unit by coefficient x (T - T_ref) whenever
// the smoothed temperature has moved past the dead band since the last
// correction. T_ref is taken when compensation is switched on and again at
// the end of every user move. One bad reading moves nothing (the median of
// recent readings is used), a probe error pauses compensation, corrections
// never run during a user's move and never leave 0 .. the user's maximum.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "nkrhost/claim.h"
#include "nkrhost/errors.h"

namespace nkrhost {

class Unit;

// The decisions, over readings the caller supplies: no device, no clock.
class TempCompensator {
public:
    struct Config {
        double coefficient;  // steps per degree Celsius, signed
        double deadband;     // degrees Celsius
    };
    struct Correction {
        int target = 0;
        double temperature = 0;  // the smoothed temperature it answers
        int offset = 0;          // steps from the reference position
        bool limited = false;    // cut at 0 or at the maximum
    };

    explicit TempCompensator(Config config = {0.0, 0.5}, std::size_t window = 5);
    void setConfig(Config config) { m_config = config; }
    const Config& config() const { return m_config; }

    // One reading: degrees Celsius, or nothing for a probe error (which
    // pauses compensation until good readings come back).
    void reading(std::optional<double> celsius);
    // Median of the recent good readings; nothing before the first.
    std::optional<double> smoothed() const;
    bool paused() const { return m_probeError; }

    // The reference: the smoothed temperature now, at this position. False
    // while no temperature is known.
    bool takeReference(int position);
    void dropReference() { m_hasReference = false; }
    bool hasReference() const { return m_hasReference; }
    double referenceTemperature() const { return m_refTemperature; }
    int referencePosition() const { return m_refPosition; }
    // The temperature the last correction (or the reference) answered.
    double lastTemperature() const { return m_lastTemperature; }

    // The correction due now, if any.
    std::optional<Correction> due(int maximum) const;
    // A correction was made.
    void applied(const Correction& c) { m_lastTemperature = c.temperature; }

private:
    Config m_config;
    std::size_t m_window;
    std::deque<double> m_readings;
    bool m_probeError = false;
    bool m_hasReference = false;
    double m_refTemperature = 0, m_lastTemperature = 0;
    int m_refPosition = 0;
};

// Runs the compensation of one unit for a program that holds it: reads the
// unit and its host settings at every tick, takes the "tempcomp" claim while
// compensation is on (so only one program compensates a unit), and moves it.
class TempCompRunner {
public:
    enum class State { Off, OtherProgram, WaitingForTemperature, Paused, Active };

    // holder: who this program is, as the others will read it ("nkr-alpaca
    // (focuser 0)", "INDI Main Focuser", "nkr tempcomp").
    TempCompRunner(Unit& unit, std::string holder);

    // One look at the unit; what happened goes into log, one line each
    // (every correction, a pause, a resume, a user move, a change of holder).
    void tick(std::vector<std::string>& log);
    // A move this program made for the user has ended: the reference is taken again.
    void userMoveEnded();

    State state() const { return m_state; }
    // A correction of ours is under way (the unit moves for compensation).
    bool correcting() const { return m_correcting; }
    // Who compensates the unit when another program does.
    const std::string& otherHolder() const { return m_otherHolder; }
    const TempCompensator& compensator() const { return m_comp; }
    // One line for a live display: state, temperatures, offset.
    std::string describe() const;

private:
    void setState(State state, std::vector<std::string>& log, const std::string& line);

    Unit& m_unit;
    std::string m_holder;
    TempCompensator m_comp;
    UnitClaim m_claim;
    State m_state = State::Off;
    std::string m_otherHolder;
    bool m_correcting = false;      // a move of ours is under way
    bool m_userMoving = false;      // a move of someone else is under way
    int m_expectedPosition = -1;    // where the unit should stand when still
    bool m_retakeReference = false;
};

const char* tempCompStateName(TempCompRunner::State state);

}  // namespace nkrhost
