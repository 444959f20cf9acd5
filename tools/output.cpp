#include "output.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <clocale>
#include <cstring>

#include "interrupt.h"

namespace nkrtool {
namespace {

struct OutputState {
    bool json = false;
    bool tty = false;
    bool colour = false;
    bool stderrColour = false;
    bool stderrTty = false;
    bool utf8 = false;
};

OutputState& state()
{
    static OutputState s;
    return s;
}

bool colourAllowed(int fd)
{
    if (!isatty(fd)) return false;
    if (std::getenv("NO_COLOR") != nullptr) return false;
    const char* term = std::getenv("TERM");
    return term == nullptr || std::strcmp(term, "dumb") != 0;
}

const char* colourCode(Colour colour)
{
    switch (colour) {
    case Colour::Bold: return "\033[1m";
    case Colour::Green: return "\033[32m";
    case Colour::Yellow: return "\033[33m";
    case Colour::Red: return "\033[31m";
    case Colour::Dim: return "\033[2m";
    }
    return "";
}

constexpr int kLabelWidth = 24;
constexpr int kBarWidth = 30;
constexpr int kNarrowBarWidth = 10;

bool localeIsUtf8()
{
    std::setlocale(LC_CTYPE, "");
    const char* codeset = nl_langinfo(CODESET);
    return codeset != nullptr && (std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "utf8") == 0);
}

}  // namespace

void initOutput(bool json)
{
    OutputState& s = state();
    s.json = json;
    s.tty = isatty(STDOUT_FILENO) != 0;
    s.colour = !json && colourAllowed(STDOUT_FILENO);
    s.stderrColour = colourAllowed(STDERR_FILENO);
    s.stderrTty = isatty(STDERR_FILENO) != 0;
    s.utf8 = localeIsUtf8();
}

bool utf8Output() { return state().utf8; }

std::string symbol(const char* utf8, const char* ascii) { return utf8Output() ? utf8 : ascii; }

std::string degreesC() { return symbol(" \u00B0C", " C"); }
std::string arrow() { return symbol(" \u2192 ", " -> "); }

int terminalColumns()
{
    if (const char* columns = std::getenv("COLUMNS")) {
        int n = std::atoi(columns);
        if (n >= 20 && n <= 1000) return n;
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
    return 80;
}

size_t outputWidth() { return static_cast<size_t>(std::min(terminalColumns(), 80)); }

namespace {

// Where continuation lines of this line start.
size_t hangingIndent(const std::string& line, size_t width)
{
    size_t indent = line.find_first_not_of(' ');
    if (indent == std::string::npos) return 0;
    size_t gap = line.find("  ", indent);
    if (gap != std::string::npos) {
        size_t column = line.find_first_not_of(' ', gap);
        if (column != std::string::npos && column < width / 2) return column;
    }
    return std::min(indent + 4, width / 2);
}

std::string wrapLine(const std::string& line, size_t width)
{
    if (line.size() <= width) return line;
    std::string out;
    std::string current;
    size_t indent = hangingIndent(line, width);
    size_t lead = line.find_first_not_of(' ');
    current = line.substr(0, lead == std::string::npos ? 0 : lead);
    size_t at = current.size();
    bool first = true;
    while (at < line.size()) {
        size_t end = line.find(' ', at);
        if (end == std::string::npos) end = line.size();
        std::string word = line.substr(at, end - at);
        size_t next = line.find_first_not_of(' ', end);
        std::string gap = line.substr(end, (next == std::string::npos ? line.size() : next) - end);
        bool empty = current.find_first_not_of(' ') == std::string::npos;
        if (!empty && current.size() + word.size() > width) {
            while (!current.empty() && current.back() == ' ') current.pop_back();
            out += current + "\n";
            current = std::string(indent, ' ');
            first = false;
        }
        current += word;
        // Keep the column gap of the first line; one space elsewhere.
        current += (first && gap.size() > 1) ? gap : (gap.empty() ? "" : " ");
        at = next == std::string::npos ? line.size() : next;
    }
    while (!current.empty() && current.back() == ' ') current.pop_back();
    return out + current;
}

}  // namespace

std::string wrapText(const std::string& text, size_t width)
{
    std::string out;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        bool last = end == std::string::npos;
        out += wrapLine(text.substr(start, (last ? text.size() : end) - start), width);
        if (last) break;
        out += '\n';
        start = end + 1;
    }
    return out;
}

std::string clipped(const std::string& text, size_t maxChars)
{
    if (text.size() <= maxChars) return text;
    return text.substr(0, maxChars) + symbol("\u2026", "...");
}

bool jsonMode() { return state().json; }
bool interactive() { return state().tty && !state().json; }

void flushOutput()
{
    if (std::fflush(stdout) != 0 && errno == EPIPE) {
        // The reader went away (nkr watch | head): end as on SIGPIPE.
        noteBrokenPipe();
        std::clearerr(stdout);
    }
}

void emitJson(const Json& doc)
{
    std::string text = doc.dump();
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    flushOutput();
}

void say(const std::string& line)
{
    if (jsonMode()) return;
    std::fputs(wrapText(line, outputWidth()).c_str(), stdout);
    std::fputc('\n', stdout);
    flushOutput();
}

void sayField(const std::string& label, const std::string& value)
{
    std::string padded = "  " + label + " ";
    // By columns, not bytes: "R²" is three bytes wide in memory, two on screen.
    while (displayWidth(padded) < static_cast<size_t>(kLabelWidth)) padded += '.';
    say(padded + " " + value);
}

void sayHeading(const std::string& title) { say(paint(Colour::Bold, title)); }

void printTable(const std::vector<std::string>& headers,
                const std::vector<std::vector<std::string>>& rows)
{
    std::vector<size_t> widths(headers.size());
    for (size_t c = 0; c < headers.size(); ++c) widths[c] = displayWidth(headers[c]);
    for (const auto& row : rows)
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c)
            widths[c] = std::max(widths[c], displayWidth(row[c]));

    auto line = [&](const std::vector<std::string>& cells) {
        std::string out;
        for (size_t c = 0; c < widths.size(); ++c) {
            std::string cell = c < cells.size() ? cells[c] : "";
            out += cell;
            if (c + 1 < widths.size()) out += std::string(widths[c] - displayWidth(cell) + 2, ' ');
        }
        while (!out.empty() && out.back() == ' ') out.pop_back();
        return out;
    };
    // Rows are never wrapped: a wrapped row breaks every column after it.
    auto print = [](const std::string& text) {
        if (jsonMode()) return;
        std::fputs(text.c_str(), stdout);
        std::fputc('\n', stdout);
        flushOutput();
    };
    print(paint(Colour::Bold, line(headers)));
    for (const auto& row : rows) print(line(row));
}

std::string paint(Colour colour, const std::string& text)
{
    if (!state().colour) return text;
    return std::string(colourCode(colour)) + text + "\033[0m";
}

void warn(const std::string& message)
{
    std::fflush(stdout);
    const std::string text = "nkr: " + message;
    std::fprintf(stderr, "%s\n", state().stderrTty ? wrapText(text, outputWidth()).c_str() : text.c_str());
}

void printErrorMessage(const std::string& message)
{
    std::fflush(stdout);
    // Wrapped at spaces on a terminal, so it never breaks a word in two; a
    // script reading stderr gets one line.
    const std::string text =
        state().stderrTty ? wrapText("nkr: error: " + message, outputWidth()) : "nkr: error: " + message;
    if (state().stderrColour)
        std::fprintf(stderr, "\033[31mnkr: error:\033[0m%s\n", text.substr(11).c_str());
    else
        std::fprintf(stderr, "%s\n", text.c_str());
}

ProgressBar::~ProgressBar() { finish(); }

bool ProgressBar::visible() const { return interactive(); }

size_t displayWidth(const std::string& text)
{
    size_t width = 0;
    for (size_t k = 0; k < text.size(); ++k) {
        const unsigned char c = static_cast<unsigned char>(text[k]);
        if (c == 0x1B) {  // an escape sequence ends with a letter
            while (k < text.size() && !std::isalpha(static_cast<unsigned char>(text[k]))) ++k;
            continue;
        }
        if ((c & 0xC0) != 0x80) ++width;  // continuation bytes add nothing
    }
    return width;
}

std::string firstThatFits(const std::vector<std::string>& texts, size_t width)
{
    for (const std::string& t : texts)
        if (displayWidth(t) <= width) return t;
    return texts.empty() ? std::string() : texts.back();
}

void ProgressBar::update(double fraction, const std::string& detail)
{
    update(fraction, std::vector<std::string>{detail});
}

void ProgressBar::update(double fraction, const std::vector<std::string>& details)
{
    if (!visible()) return;
    fraction = std::clamp(std::isfinite(fraction) ? fraction : 0.0, 0.0, 1.0);
    // "[bar] 100% detail" must stay on one line, or \r redraws a new one each time.
    int columns = terminalColumns();
    int width = columns >= 70 ? kBarWidth : kNarrowBarWidth;
    int filled = static_cast<int>(std::lround(fraction * width));
    std::string bar = paint(Colour::Green, std::string(filled, '#')) + std::string(width - filled, '-');
    char percent[16];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(std::lround(fraction * 100)));
    size_t room = static_cast<size_t>(std::max(0, columns - width - 9));
    std::string shown = firstThatFits(details, room);
    if (displayWidth(shown) > room) shown.clear();
    // \r returns to the line start, \033[K clears what a longer line left.
    std::printf("\r[%s] %s %s\033[K", bar.c_str(), percent, shown.c_str());
    flushOutput();
    drawn_ = true;
}

void ProgressBar::finish()
{
    if (!drawn_) return;
    std::fputc('\n', stdout);
    flushOutput();
    drawn_ = false;
}

std::string onOff(bool on) { return on ? "on" : "off"; }
std::string yesNo(bool yes) { return yes ? "yes" : "no"; }

std::string formatFixed(double value, int decimals)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
    return buf;
}

std::string printableText(const char* text, size_t maxLen)
{
    std::string out;
    for (size_t k = 0; k < maxLen && text[k] != '\0'; ++k) {
        unsigned char c = static_cast<unsigned char>(text[k]);
        out += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
    }
    return out;
}

}  // namespace nkrtool
