// Finding units and keeping hold of them: the USB scan, the Bluetooth scan
// and attach (match, connect, pair, clean up on failure), the one rule for
// "the unit is gone", and the back-off of reconnect attempts while a unit is
// out of reach.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "nkrhost/errors.h"
#include "nkrhost/identity.h"
#include "nkrhost/resolver.h"

namespace nkrhost {

// One scan time for every program: long enough for a unit that advertises
// once a second to be seen a few times.
constexpr int kBleScanMillis = 4000;

// ---- USB -------------------------------------------------------------------

// Slot ids of the USB units found by a fresh scan, in scan order.
std::vector<int> scanUsbSlots();

// Every USB unit, identified. A unit is opened to be identified and left
// open: closing would stop a move another program runs and rewrite its
// saved record. Units that cannot be opened are left out.
std::vector<Identity> identifyUsbUnits();

// ---- Bluetooth ---------------------------------------------------------------

// Bluetooth units in range (no connection is made).
Status scanBluetooth(std::vector<SeenUnit>& found, int millis = kBleScanMillis);

// Connects to a scanned unit and pairs it; on any failure the link is
// dropped again and nothing is left behind. slot receives the SDK slot id.
Status connectBluetooth(const std::string& name, const std::string& address, int& slot);

// Scan, match (resolveUnit: name, address or unique beginning of a name),
// connect and pair; a unit another program holds is refused (kUnitInUse)
// before any connection. which receives what was matched.
Status attachBluetooth(const std::string& wanted, int& slot, SeenUnit& which, int scanMillis = kBleScanMillis);

// ---- Gone, and back --------------------------------------------------------

// The one rule: codes that mean the unit itself is gone rather than one
// request failed. A Bluetooth link that dropped refuses every send.
bool meansGone(Link link, int code);

// Follows the results of a unit's calls: gone at once on a code that says
// so, or after three transfer failures in a row.
class LinkWatch {
public:
    explicit LinkWatch(Link link = Link::Usb) : m_link(link) {}
    // Records one result; true when the unit now counts as gone.
    bool note(int code);
    bool gone() const { return m_gone; }
    void markGone() { m_gone = true; }
    void reset();

private:
    Link m_link;
    int m_failures = 0;
    bool m_gone = false;
};

// When to try a unit that is out of reach again: after 1 s, then 2, 4, 8,
// 16 and every 30 s, so a long absence costs little and a short one is
// bridged quickly.
class Backoff {
public:
    using Clock = std::chrono::steady_clock;
    bool due(Clock::time_point now) const { return now >= m_next; }
    void failed(Clock::time_point now);
    void reset() { m_attempts = 0; m_next = {}; }
    std::chrono::milliseconds delay() const;
    int attempts() const { return m_attempts; }

private:
    int m_attempts = 0;
    Clock::time_point m_next{};
};

}  // namespace nkrhost
