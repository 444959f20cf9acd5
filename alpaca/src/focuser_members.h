// The members of the ASCOM focuser interface (version 4) and the common
// device members, each answered through the SDK's public functions.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "alpaca_request.h"
#include "ascom_errors.h"
#include "device_registry.h"

namespace alpaca {

// What a member returns: a value (absent for PUT members and errors) or a device error.
struct Answer {
    std::optional<nlohmann::json> value;
    DeviceError error;
};

using MemberHandler = std::function<Answer(DeviceRegistry&, Unit&, const AlpacaRequest&)>;

struct Member {
    MemberHandler get;  // empty: not readable
    MemberHandler put;  // empty: not writable
};

// The member with that lower-case name, or null.
const Member* findMember(const std::string& name);

// Names offered by `supportedactions`, in the order listed.
const std::vector<std::string>& supportedActions();

// Server identity shown by driverinfo / driverversion / management description.
std::string driverVersion();

}  // namespace alpaca
