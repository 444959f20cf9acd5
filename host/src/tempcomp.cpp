#include "nkrhost/tempcomp.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "nkrhost/unit.h"

namespace nkrhost {
namespace {

std::string degrees(double t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f \u00B0C", t);
    return text;
}

std::string signedSteps(int steps) { return (steps > 0 ? "+" : "") + std::to_string(steps); }

}  // namespace

const char* tempCompStateName(TempCompRunner::State state)
{
    switch (state) {
    case TempCompRunner::State::Off: return "off";
    case TempCompRunner::State::OtherProgram: return "on in another program";
    case TempCompRunner::State::WaitingForTemperature: return "waiting for a temperature";
    case TempCompRunner::State::Paused: return "paused (temperature probe error)";
    case TempCompRunner::State::Active: return "on";
    }
    return "off";
}

TempCompensator::TempCompensator(Config config, std::size_t window)
    : m_config(config), m_window(std::max<std::size_t>(window, 1))
{
}

void TempCompensator::reading(std::optional<double> celsius)
{
    m_probeError = !celsius.has_value();
    if (!celsius) return;
    m_readings.push_back(*celsius);
    while (m_readings.size() > m_window) m_readings.pop_front();
}

std::optional<double> TempCompensator::smoothed() const
{
    if (m_readings.empty()) return std::nullopt;
    std::vector<double> sorted(m_readings.begin(), m_readings.end());
    std::sort(sorted.begin(), sorted.end());
    const std::size_t n = sorted.size();
    return n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2.0;
}

bool TempCompensator::takeReference(int position)
{
    const auto t = smoothed();
    if (!t) return false;
    m_hasReference = true;
    m_refTemperature = m_lastTemperature = *t;
    m_refPosition = position;
    return true;
}

std::optional<TempCompensator::Correction> TempCompensator::due(int maximum) const
{
    const auto t = smoothed();
    if (!t || m_probeError || !m_hasReference) return std::nullopt;
    if (std::abs(*t - m_lastTemperature) <= m_config.deadband) return std::nullopt;
    Correction c;
    c.temperature = *t;
    c.offset = static_cast<int>(std::lround(m_config.coefficient * (*t - m_refTemperature)));
    const long long wanted = static_cast<long long>(m_refPosition) + c.offset;
    c.target = static_cast<int>(std::clamp<long long>(wanted, 0, std::max(maximum, 0)));
    c.limited = c.target != wanted;
    return c;
}

TempCompRunner::TempCompRunner(Unit& unit, std::string holder) : m_unit(unit), m_holder(std::move(holder)) {}

void TempCompRunner::setState(State state, std::vector<std::string>& log, const std::string& line)
{
    if (state == m_state) return;
    m_state = state;
    if (!line.empty()) log.push_back(line);
}

void TempCompRunner::userMoveEnded() { m_retakeReference = true; }

void TempCompRunner::tick(std::vector<std::string>& log)
{
    UnitSettings s;
    if (!m_unit.settings(s).ok() || !s.tempComp.enabled) {
        if (m_claim.held()) log.push_back("temperature compensation off");
        m_claim.release();
        m_comp.dropReference();
        m_correcting = m_userMoving = false;  // a correction under way is no longer ours to follow
        setState(State::Off, log, "");
        return;
    }
    if (!m_claim.held()) {
        Status taken = m_claim.take("tempcomp", m_unit.key(), m_holder);
        if (!taken.ok()) {
            m_otherHolder = UnitClaim::holder("tempcomp", m_unit.key());
            setState(State::OtherProgram, log, "temperature compensation runs in " + m_otherHolder);
            return;
        }
        m_comp.dropReference();
        m_correcting = m_userMoving = false;
        char coefficient[32];
        std::snprintf(coefficient, sizeof coefficient, "%+.2f", s.tempComp.coefficient);
        log.push_back(std::string("temperature compensation on: ") + coefficient + " steps per \u00B0C, dead band " +
                      degrees(s.tempComp.deadband));
    }
    m_comp.setConfig({s.tempComp.coefficient, s.tempComp.deadband});

    float t = 0;
    const int tempCode = NKRGetTemp(m_unit.slot(), &t);
    m_unit.noteResult(tempCode);
    m_comp.reading(tempCode == NKR_SUCCESS ? std::optional<double>(t) : std::nullopt);
    bool moving = false, hand = false;
    int position = 0;
    int rc = NKRIsMoving(m_unit.slot(), &moving, &hand);
    if (rc == NKR_SUCCESS) rc = NKRGetPosition(m_unit.slot(), &position);
    m_unit.noteResult(rc);
    if (rc != NKR_SUCCESS) return;  // the unit's own failure is its front-end's to report

    if (moving) {
        if (!m_correcting && !m_userMoving) {
            m_userMoving = true;
            log.push_back("a move began; temperature compensation waits for it to end");
        }
        return;
    }
    if (m_correcting) {
        m_correcting = false;
        m_expectedPosition = position;
    }
    if (m_userMoving || (m_expectedPosition >= 0 && position != m_expectedPosition)) {
        m_userMoving = false;
        m_retakeReference = true;
    }
    if (m_comp.paused()) {
        setState(State::Paused, log, "temperature compensation paused: the temperature probe reports an error");
        return;
    }
    if (!m_comp.hasReference() || m_retakeReference) {
        if (!m_comp.takeReference(position)) {
            setState(State::WaitingForTemperature, log, "");
            return;
        }
        if (m_retakeReference) log.push_back("new reference: " + degrees(m_comp.referenceTemperature()) + " at " +
                                             std::to_string(position));
        m_retakeReference = false;
        m_expectedPosition = position;
    }
    setState(State::Active, log, m_state == State::Paused ? "temperature compensation resumed" : "");

    int maximum = 0;
    if (!m_unit.maximum(maximum).ok()) return;
    const auto c = m_comp.due(maximum);
    if (!c) return;
    m_comp.applied(*c);
    if (c->target == position) return;
    Status moved = m_unit.moveTo(c->target);
    if (!moved.ok()) {
        log.push_back("temperature compensation could not move: " + moved.message);
        return;
    }
    m_correcting = true;
    log.push_back("temperature " + degrees(c->temperature) + " (reference " + degrees(m_comp.referenceTemperature()) +
                  "): moved " + signedSteps(c->target - position) + " steps to " + std::to_string(c->target) +
                  (c->limited ? " (held at the limit 0.." + std::to_string(maximum) + ")" : ""));
}

std::string TempCompRunner::describe() const
{
    std::string text = std::string("compensation ") + tempCompStateName(m_state);
    if (m_state == State::OtherProgram) return text + " (" + m_otherHolder + ")";
    if (const auto t = m_comp.smoothed()) text += ", " + degrees(*t);
    if (m_comp.hasReference())
        text += ", reference " + degrees(m_comp.referenceTemperature()) + " at " +
                std::to_string(m_comp.referencePosition());
    return text;
}

}  // namespace nkrhost
