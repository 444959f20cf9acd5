// How the tool talks to the person or script that runs it: plain text or
// JSON on stdout, tables, aligned fields, a live progress line and colours
// (the last two only when stdout is a terminal).
#pragma once

#include <string>
#include <vector>

#include "json.h"

namespace nkrtool {

// Chooses the output form once, before any command runs.
void initOutput(bool json);
bool jsonMode();
// True when stdout is a terminal: live lines and colours are allowed.
bool interactive();

// Flushes stdout; a reader that went away counts as SIGPIPE.
void flushOutput();

// Prints one JSON document on its own line and flushes it at once, so a
// script reading line by line sees each update when it happens.
void emitJson(const Json& doc);

// Text output; prints nothing in JSON mode.
void say(const std::string& line);
// "  label ......... value" with the labels of one block aligned.
void sayField(const std::string& label, const std::string& value);
// A heading line for a block of output.
void sayHeading(const std::string& title);
void printTable(const std::vector<std::string>& headers,
                const std::vector<std::vector<std::string>>& rows);

enum class Colour { Bold, Green, Yellow, Red, Dim };
// Wraps text in a terminal colour when colours are on, else returns it as is.
std::string paint(Colour colour, const std::string& text);

// A message to stderr, prefixed with the tool's name.
void warn(const std::string& message);
void printErrorMessage(const std::string& message);

// A one-line progress bar redrawn in place. Draws only in text mode on a
// terminal; finish() leaves the last state on screen and ends the line.
class ProgressBar {
public:
    ProgressBar() = default;
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar();

    // fraction 0..1; detail is printed after the bar. Of several details
    // (longest first) the first that fits the terminal is shown, so a
    // narrow window gets a shorter text rather than a number cut in two.
    void update(double fraction, const std::string& detail);
    void update(double fraction, const std::vector<std::string>& details);
    void finish();
    bool visible() const;

private:
    bool drawn_ = false;
};

// True when the locale's character set is UTF-8; otherwise the tool prints
// plain ASCII ("->" for an arrow, "..." for an ellipsis, "C" for degrees).
bool utf8Output();
// The UTF-8 text, or its ASCII stand-in outside a UTF-8 locale.
std::string symbol(const char* utf8, const char* ascii);
// " °C" / " C" and " → " / " -> ".
std::string degreesC();
std::string arrow();
// The width of the terminal on stdout (COLUMNS, then the tty), 80 when unknown.
int terminalColumns();
// The width output is kept within: the terminal's, at most 80 columns.
size_t outputWidth();
// Wraps each line longer than width at spaces. Continuation lines line up
// with a description column ("  name    text", two or more spaces), or else
// with the line's own indent plus four.
std::string wrapText(const std::string& text, size_t width);

// Columns a text takes on a terminal: UTF-8 characters count one, colour
// escapes none.
size_t displayWidth(const std::string& text);
// The first of the texts (longest first) that fits in width columns; the
// last one when none does.
std::string firstThatFits(const std::vector<std::string>& texts, size_t width);

// A text echoed back in a message, cut to 40 characters with an ellipsis so
// a 300-digit argument does not fill the screen.
std::string clipped(const std::string& text, size_t maxChars = 40);

// Helpers for values shown to people.
std::string onOff(bool on);
std::string yesNo(bool yes);
std::string formatFixed(double value, int decimals);
// A device text made safe to print: non-printable bytes become '?'.
std::string printableText(const char* text, size_t maxLen);

}  // namespace nkrtool
