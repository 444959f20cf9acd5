// Where the BLE manager takes its helper library from, and whether a file
// found there may be loaded at all.
#pragma once
#include <string>

namespace nkrble {

// Why the helper file at `path` must not be loaded: writable by group or
// others, or owned by someone other than root or this user (symbolic links
// are followed: the file they lead to counts). Empty when it may be loaded,
// or when there is no such file (the loader reports that).
std::string helperRefusal(const char* path);

// <folder of the loaded SDK library>/nkr/libBlueShim.so, where the SDK
// installs its helper; empty when the folder cannot be told.
std::string installedHelperPath();

// The helper to load: NKR_BLE_HELPER when set, else "./lib/libBlueShim.so",
// else (nothing there, or refused) the installed one. Refusals are logged.
// Empty when the chosen file is refused and there is nothing else to try.
std::string chooseHelperPath();

}  // namespace nkrble
