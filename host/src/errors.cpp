#include "nkrhost/errors.h"

#include <NKR_focuser.h>

namespace nkrhost {
namespace {

using K = ErrorKind;

// Generated at configure time from host/error_catalogue.json, the one list
// the C++ programs and the Python package share.
const std::vector<ErrorEntry> kCatalogue{
#include "error_catalogue.inc"
};

}  // namespace

const char* kindName(ErrorKind kind)
{
    switch (kind) {
    case K::None: return "none";
    case K::BadArgument: return "bad argument";
    case K::NotSupported: return "not supported";
    case K::Busy: return "busy";
    case K::LinkLost: return "link lost";
    case K::Refused: return "refused by the unit";
    case K::Internal: return "internal";
    }
    return "internal";
}

const std::vector<ErrorEntry>& errorCatalogue() { return kCatalogue; }

ErrorEntry describeError(int code)
{
    for (const ErrorEntry& e : kCatalogue)
        if (e.code == code) return e;
    return {code, "NKR_ERROR_UNKNOWN", "a code this program does not know", K::Internal};
}

std::string formatError(int code)
{
    ErrorEntry e = describeError(code);
    return std::string(e.name) + " (" + std::to_string(code) + "): " + e.text;
}

Status Status::fromSdk(int code, const std::string& action)
{
    if (code == NKR_SUCCESS) return {};
    return {code, action + ": " + formatError(code)};
}

}  // namespace nkrhost
