// Helpers of the device-object tests: the CNKR behind a slot and the control
// frames a unit received.
#pragma once
#include <cstdint>
#include <vector>

#include "device/NKR.h"
#include "test_support.h"

namespace devicetest {

using Bytes = std::vector<uint8_t>;

class DeviceTest : public nkrtest::SimTest {
protected:
    // Opens a unit and forgets the traffic of the open itself.
    int openQuiet(const nkrsim::UnitSpec& spec, nkrsim::UnitId* unit)
    {
        int id = openUnit(spec, unit);
        nkrsim::clearSentReports(*unit);
        return id;
    }
};

inline bool isControlFrame(const Bytes& r)
{
    return r.size() >= 16 && r[0] == 0x03 && r[1] == 0x7E && r[2] == 0x5A && r[3] == 0x03;
}

// The control frames (command 0x03) among the reports the unit received.
inline std::vector<Bytes> controlFrames(nkrsim::UnitId unit)
{
    std::vector<Bytes> out;
    for (Bytes& r : nkrsim::sentReports(unit))
        if (isControlFrame(r)) out.push_back(r);
    return out;
}

inline Bytes lastControlFrame(nkrsim::UnitId unit)
{
    std::vector<Bytes> frames = controlFrames(unit);
    return frames.empty() ? Bytes{} : frames.back();
}

}  // namespace devicetest
