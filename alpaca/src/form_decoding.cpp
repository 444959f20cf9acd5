#include "form_decoding.h"

namespace alpaca {
namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> unescape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '+') {
            out += ' ';
        } else if (c == '%') {
            if (i + 2 >= text.size()) return std::nullopt;
            const int h = hexDigit(text[i + 1]), l = hexDigit(text[i + 2]);
            if (h < 0 || l < 0) return std::nullopt;
            out += static_cast<char>(h * 16 + l);
            i += 2;
        } else {
            out += c;
        }
    }
    return out;
}

std::string shown(std::string_view text)
{
    std::string out;
    for (unsigned char c : text.substr(0, 40)) out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    return out + (text.size() > 40 ? "..." : "");
}

}  // namespace

bool validUtf8(std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        int extra = 0;
        unsigned int code = 0;
        if (c < 0x80) { ++i; continue; }
        if (c >= 0xC2 && c <= 0xDF) { extra = 1; code = c & 0x1F; }
        else if (c >= 0xE0 && c <= 0xEF) { extra = 2; code = c & 0x0F; }
        else if (c >= 0xF0 && c <= 0xF4) { extra = 3; code = c & 0x07; }
        else return false;
        if (i + static_cast<std::size_t>(extra) >= text.size()) return false;
        for (int k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((next & 0xC0) != 0x80) return false;
            code = (code << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if ((extra == 2 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
            (extra == 3 && (code < 0x10000 || code > 0x10FFFF)))
            return false;
        i += static_cast<std::size_t>(extra) + 1;
    }
    return true;
}

std::optional<Form> decodeForm(std::string_view text, std::string& why)
{
    Form form;
    while (!text.empty()) {
        const std::size_t amp = text.find('&');
        const std::string_view pair = text.substr(0, amp);
        text = amp == std::string_view::npos ? std::string_view() : text.substr(amp + 1);
        if (pair.empty()) continue;
        const std::size_t eq = pair.find('=');
        const std::string_view rawName = pair.substr(0, eq);
        const std::string_view rawValue = eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
        auto name = unescape(rawName);
        if (!name) {
            why = "the parameter name '" + shown(rawName) + "' has a % not followed by two hex digits";
            return std::nullopt;
        }
        auto value = unescape(rawValue);
        if (!value) {
            why = "the value of parameter " + shown(*name) + " has a % not followed by two hex digits";
            return std::nullopt;
        }
        if (!validUtf8(*name) || !validUtf8(*value)) {
            why = "parameter " + shown(*name) + " is not UTF-8 text (a %XX escape decodes to a byte that is not)";
            return std::nullopt;
        }
        form.emplace_back(std::move(*name), std::move(*value));
    }
    return form;
}

}  // namespace alpaca
