// The man page and the bash completion script, both generated from the
// command table and help texts of the tool itself, so they never drift from
// nkr --help. The build runs "nkr --help-man" and "nkr --completion bash".
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace nkrtool {

// roff source of nkr(1).
std::string manPage(const CLI::App& app, const std::string& version);
// A bash completion script for nkr.
std::string bashCompletion(const CLI::App& app);

}  // namespace nkrtool
