#include "nkrhost/identity.h"

#include <NKR_focuser.h>

#include <cctype>
#include <cstdio>
#include <cstring>

namespace nkrhost {

const char* linkName(Link link) { return link == Link::Ble ? "Bluetooth" : "USB"; }

std::string serialText(const unsigned char serial[8])
{
    char text[17] = {};
    for (int i = 0; i < 8; ++i) std::snprintf(text + 2 * i, 3, "%02X", serial[i]);
    return text;
}

std::string normalizedSerial(const std::string& text)
{
    std::string digits;
    for (char c : text) {
        if (c == ':' || c == '-' || c == ' ') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return {};
        digits += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return digits.size() == 16 ? digits : std::string();
}

std::string deviceText(const char* text, std::size_t capacity)
{
    if (text == nullptr) return {};
    std::string out(text, strnlen(text, capacity));
    for (char& c : out)
        if (!std::isprint(static_cast<unsigned char>(c))) c = '?';
    return out;
}

std::string aliasFromName(const char* name, std::size_t capacity)
{
    const std::string text = deviceText(name, capacity);
    const auto open = text.find('(');
    if (open == std::string::npos || text.empty() || text.back() != ')') return {};
    return text.substr(open + 1, text.size() - open - 2);
}

std::string trimmed(const std::string& text)
{
    std::size_t first = 0, last = text.size();
    while (first < last && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
    while (last > first && std::isspace(static_cast<unsigned char>(text[last - 1]))) --last;
    return text.substr(first, last - first);
}

std::string Firmware::text() const
{
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

std::string Identity::key() const
{
    if (!serial.empty()) return serial;
    if (!bleAddress.empty()) return "ble-" + bleAddress;
    return "usb-slot-" + std::to_string(slot);
}

std::string Identity::label() const
{
    if (link == Link::Ble) return "Bluetooth unit " + (bleName.empty() ? std::to_string(slot) : bleName);
    return "USB unit " + std::to_string(slot) + (alias.empty() ? "" : " (" + alias + ")");
}

std::string Identity::modelOrDefault() const { return model.empty() ? std::string("NKR") : model; }

Firmware readFirmware(int slot)
{
    Firmware fw;
    unsigned char major = 0, minor = 0, build = 0;
    fw.code = NKRGetFirmwareVersion(slot, &major, &minor, &build);
    fw.major = major;
    fw.minor = minor;
    fw.build = build;
    return fw;
}

Identity readIdentity(int slot, Link link)
{
    Identity id;
    id.link = link;
    id.slot = slot;
    _NKR_INFO info{};
    id.propertyCode = NKRGetProperty(slot, &info);
    if (id.propertyCode == NKR_SUCCESS) {
        id.name = deviceText(info.Name, sizeof info.Name);
        id.alias = aliasFromName(info.Name, sizeof info.Name);
        id.stepRange = info.MaxStep;
    }
    _NKR_SN sn{};
    id.serialCode = NKRGetSerialNumber(slot, &sn);
    if (id.serialCode == NKR_SUCCESS) id.serial = serialText(sn.SN);
    _NKR_TYPE type{};
    id.modelCode = NKRGetType(slot, &type);
    if (id.modelCode == NKR_SUCCESS) id.model = deviceText(type.Type, sizeof type.Type);
    id.firmware = readFirmware(slot);
    return id;
}

}  // namespace nkrhost
