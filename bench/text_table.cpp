#include "text_table.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace nkrbench {
namespace {

// Width on screen: "µ", "≤" and "−" take two or three bytes but one column.
size_t columns(const std::string& text)
{
    size_t n = 0;
    for (unsigned char c : text) n += (c & 0xC0) != 0x80;
    return n;
}

}  // namespace

void printTable(const std::vector<Row>& rows)
{
    const Row head{"#", "measure", "figure", "goal", "result"};
    auto cells = [](const Row& r) {
        return std::vector<const std::string*>{&r.item, &r.measure, &r.figure, &r.goal, &r.result};
    };
    std::vector<size_t> width(5, 0);
    auto widen = [&](const Row& r) {
        const auto text = cells(r);
        for (size_t i = 0; i < text.size(); ++i) width[i] = std::max(width[i], columns(*text[i]));
    };
    auto line = [&](const Row& r) {
        const auto text = cells(r);
        std::cout << "|";
        for (size_t i = 0; i < text.size(); ++i)
            std::cout << " " << *text[i] << std::string(width[i] - columns(*text[i]), ' ') << " |";
        std::cout << "\n";
    };

    widen(head);
    for (const Row& r : rows) widen(r);
    line(head);
    std::cout << "|";
    for (size_t w : width) std::cout << std::string(w + 2, '-') << "|";
    std::cout << "\n";
    for (const Row& r : rows) line(r);
}

std::string printed(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string nsText(double ns)
{
    if (ns < 0) return "n/a";
    if (ns < 10000) return printed("%.0f ns", ns);
    if (ns < 10000000) return printed("%.1f µs", ns / 1e3);
    return printed("%.1f ms", ns / 1e6);
}

std::string bytesText(long bytes)
{
    if (bytes < 0) return "n/a";
    if (bytes < 1024 * 1024) return printed("%.1f KiB", static_cast<double>(bytes) / 1024);
    return printed("%.2f MiB", static_cast<double>(bytes) / (1024 * 1024));
}

std::string verdict(bool known, bool met) { return !known ? "unknown" : met ? "met" : "NOT MET"; }

}  // namespace nkrbench
