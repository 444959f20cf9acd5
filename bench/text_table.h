// The text of the table: rows of five cells, aligned, in Markdown form, and
// the way figures are written in them.
#pragma once

#include <string>
#include <vector>

namespace nkrbench {

struct Row {
    std::string item, measure, figure, goal, result;
};

// Prints a header and the rows as one aligned Markdown table on stdout.
void printTable(const std::vector<Row>& rows);

// printf-style text of one number.
std::string printed(const char* format, double value);
// "n/a" for a negative time, else ns, µs or ms.
std::string nsText(double ns);
// "n/a" for a negative size, else KiB or MiB.
std::string bytesText(long bytes);
// "met", "NOT MET", or "unknown" when the figure is missing.
std::string verdict(bool known, bool met);

}  // namespace nkrbench
