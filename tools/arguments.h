// Parsing of the values people type after a command (steps, switches).
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace nkrtool {

// The positional texts that were given, in order, without the ones left out
// at the end. With --ble the ID is left out, so the text in the ID position
// is then the command's next argument.
std::vector<std::string> givenArgs(std::initializer_list<std::string> texts);

// A whole decimal number, with an optional leading sign. Throws a usage
// error naming what it was meant to be.
long long parseNumber(const std::string& text, const std::string& what);

// A step position: "N" absolute, "+N" / "-N" relative to current.
// relative is set when the text was relative.
long long parseStepTarget(const std::string& text, long long current, bool& relative);

// on/off, 1/0, true/false, yes/no.
bool parseSwitch(const std::string& text, const std::string& what);

// A check for a numeric option that says what was wrong in the user's
// terms: "must be a whole number of seconds from 1 to 60 (got 'abc')".
// whole: no fraction allowed; unit: "seconds", "" for none.
CLI::Validator numberIn(double low, double high, bool whole, const std::string& unit = "");

}  // namespace nkrtool
