#include "Uuid.h"

#include <cctype>

namespace blueshim {

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

bool isSigUuid(const std::string& uuid)
{
    const std::string u = lowerCase(uuid);
    static const std::string kBaseTail = "-0000-1000-8000-00805f9b34fb";
    return u.size() == 36 && u.compare(0, 4, "0000") == 0 && u.compare(8, std::string::npos, kBaseTail) == 0;
}

bool isBluetoothAddress(const std::string& text)
{
    if (text.size() != 17) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool colon = i % 3 == 2;
        if (colon ? text[i] != ':' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
    }
    return true;
}

long long addressValue(const std::string& text)
{
    if (!isBluetoothAddress(text)) {
        return 0;
    }
    long long value = 0;
    for (char c : text) {
        if (c != ':') {
            value = value * 16 + std::stoi(std::string(1, c), nullptr, 16);
        }
    }
    return value;
}

}  // namespace blueshim
