#include "session.h"

#include <NKR_focuser.h>

#include <algorithm>

#include "errors.h"
#include "interrupt.h"
#include "output.h"

namespace nkrtool {

UnitTarget takeTarget(std::vector<std::string>& args, const std::string& ble, int bleScanSeconds)
{
    UnitTarget target;
    target.bleScanMillis = bleScanSeconds > 0 ? bleScanSeconds * 1000 : nkrhost::kBleScanMillis;
    if (!ble.empty()) {
        target.name = ble;
        target.bluetoothOnly = true;
        return target;
    }
    if (args.empty() || args.front().empty())
        usageError("missing unit ID (a slot id from 'nkr list', a serial number, alias or Bluetooth name)");
    target.name = args.front();
    args.erase(args.begin());
    return target;
}

void rejectExtraArgs(const std::vector<std::string>& args, const UnitTarget& target)
{
    if (args.empty()) return;
    std::string extra;
    for (const std::string& a : args) extra += (extra.empty() ? "'" : ", '") + clipped(a) + "'";
    if (target.bluetoothOnly)
        usageError("unexpected argument " + extra + ": --ble already names the unit, so no ID is given");
    usageError("unexpected argument" + std::string(args.size() > 1 ? "s " : " ") + extra);
}

namespace {
std::string holderName = "nkr";
}  // namespace

void setHolderName(const std::string& name) { holderName = name; }

UnitSession::UnitSession(const UnitTarget& target, Access access)
{
    nkrhost::OpenRequest request;
    request.name = target.name;
    request.bluetoothOnly = target.bluetoothOnly;
    // A name that no USB unit answers to may be a Bluetooth unit's.
    request.bluetooth = !target.bluetoothOnly;
    request.bleScanMillis = target.bleScanMillis;
    fail(nkrhost::Unit::open(request, unit_));
    if (access != Access::Drive) {
        unit_->keepOpen();
        return;
    }
    nkrhost::Session::Options options;
    options.holder = holderName;
    options.compensate = false;  // a command does not compensate; nkr tempcomp --follow runs its own loop
    options.poll = std::chrono::milliseconds(250);
    fail(nkrhost::Session::hold(unit_, options, session_));
}

UnitSession::~UnitSession() = default;

void UnitSession::reopen(int retrySeconds)
{
    unit().close();
    // Four tries a second until the unit is back or time is up.
    const int attempts = std::max(1, retrySeconds * 4);
    for (int attempt = 1;; ++attempt) {
        nkrhost::Status back = unit().reconnect();
        if (back.ok()) return;
        if (attempt >= attempts || sleepUnlessInterrupted(250)) fail(back);
    }
}

}  // namespace nkrtool
