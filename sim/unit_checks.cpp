// The checks a unit's firmware makes before it acts on a message: a real
// unit refuses what these refuse, so the simulated ones do too.
#include "unit_checks.h"

namespace nkrsim::detail {
namespace {

constexpr uint8_t kCommandReportId = 0x03;
constexpr uint8_t kAnswerReportId = 0x01;
constexpr size_t kControlFrameLen = 16;
constexpr size_t kLongestChunk = 55;  // data bytes of one firmware chunk
constexpr uint8_t kLastCommandType = 3;
constexpr size_t kFrameOverhead = 9;  // kind, length, sequence, command, length high, 3 reserved, checksum
constexpr size_t kUpdateStartLen = 7;

bool isReadSelector(uint8_t s)
{
    switch (s) {
    case 0x03: case 0x04: case 0x05: case 0x06: case 0x0C: case 0x0D: case 0x1E: case 0x1F: return true;
    default: return false;
    }
}

// The control frame: mode 0..2, byte 13 bits 2-3 clear. (Byte 4 carries the
// move state the host last read, an error state too: only 1 means run.)
std::optional<Refusal> checkControl(const uint8_t* c, size_t len)
{
    if (len < kControlFrameLen) return Refusal::Command;
    if (c[10] > 2 || (c[13] & 0x0C) != 0) return Refusal::FixedByte;
    return std::nullopt;
}

// A byte 4 (and 5) that selects what the command does must be one it knows.
std::optional<Refusal> checkSubCommand(const uint8_t* c, size_t len, bool (*known)(uint8_t), size_t need = 5)
{
    if (len < need) return Refusal::Command;
    return known(c[4]) ? std::nullopt : std::optional<Refusal>(Refusal::FixedByte);
}

}  // namespace

std::optional<Refusal> checkReportFrame(const Unit& u, const uint8_t* report, size_t len)
{
    if (report[0] != kCommandReportId) return Refusal::ReportId;
    if (len != static_cast<size_t>(u.spec.outputReportLen)) return Refusal::ReportLength;
    return std::nullopt;
}

std::optional<Refusal> checkReportRead(const uint8_t* report, size_t len)
{
    if (report[0] != kAnswerReportId) return Refusal::ReportId;
    if (len < static_cast<size_t>(kInputReportLen)) return Refusal::ReportLength;
    return std::nullopt;
}

std::optional<Refusal> checkCommand(const uint8_t* c, size_t len)
{
    if (len < 3 || c[1] != 0x7E || c[2] != 0x5A) return Refusal::Mark;
    if (len < 4) return Refusal::Command;
    switch (c[3]) {
    case 0x01: return checkSubCommand(c, len, [](uint8_t b) { return b == 0x0F; });  // clear the error state
    case 0x02:
        if (len < 5) return Refusal::Command;
        return isReadSelector(c[4]) ? std::nullopt : std::optional<Refusal>(Refusal::Command);
    case 0x03: return checkControl(c, len);
    case 0x0C: case 0x0D: case 0x0F: case 0x12: return std::nullopt;
    case 0x10:  // a firmware chunk: its count, within the report
        if (len < 5) return Refusal::Command;
        if (c[4] < 1 || c[4] > kLongestChunk || c[4] > len - 5) return Refusal::FixedByte;
        return std::nullopt;
    case 0x1E: return checkSubCommand(c, len, [](uint8_t b) { return b <= 1; });  // write or read the name
    case 0x1F: return checkSubCommand(c, len, [](uint8_t b) { return b == 0; });  // shipping mode
    case 0x20: return checkSubCommand(c, len, [](uint8_t b) { return b <= 1; });  // LED off or on
    case 0x22:  // factory mode: 01 00
        if (len < 6) return Refusal::Command;
        return c[4] == 0x01 && c[5] == 0x00 ? std::nullopt : std::optional<Refusal>(Refusal::FixedByte);
    default: return Refusal::Command;
    }
}

std::optional<Refusal> checkRequestFrame(const std::vector<uint8_t>& f)
{
    if (f.empty() || f[0] != 0x00) return Refusal::FrameKind;
    if (f.size() < kFrameOverhead) return Refusal::FrameLength;
    const size_t n = f.size() - kFrameOverhead;
    if (f[1] != (n & 0xFF) || f[4 + n] != ((n >> 8) & 0xFF)) return Refusal::FrameLength;
    if (f[5 + n] != 0 || f[6 + n] != 0 || f[7 + n] != 0) return Refusal::Reserved;
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < f.size(); ++i) sum = static_cast<uint8_t>(sum + f[i]);
    if (sum != f.back()) return Refusal::Checksum;
    if (f[3] > kLastCommandType) return Refusal::Command;
    return std::nullopt;
}

std::optional<Refusal> checkExtended(const std::vector<uint8_t>& p)
{
    if (p.size() < 3 || p[0] != 0x7E || p[1] != 0x5A) return Refusal::Mark;
    if (p[2] == 0x01) return p.size() == 4 && p[3] == 0x00 ? std::nullopt : std::optional<Refusal>(Refusal::FixedByte);
    if (p[2] == 0x02) return p.size() == kUpdateStartLen ? std::nullopt : std::optional<Refusal>(Refusal::Command);
    return Refusal::Command;
}

void refuse(Unit& u, Refusal why, const uint8_t* message, size_t len)
{
    u.refused.add(why, std::vector<uint8_t>(message, message + len));
}

}  // namespace nkrsim::detail

namespace nkrsim {

const char* refusalName(Refusal why)
{
    switch (why) {
    case Refusal::ReportId: return "report id";
    case Refusal::ReportLength: return "report length";
    case Refusal::Mark: return "mark";
    case Refusal::Command: return "command";
    case Refusal::FixedByte: return "fixed byte";
    case Refusal::FrameKind: return "frame kind";
    case Refusal::FrameLength: return "frame length";
    case Refusal::Reserved: return "reserved byte";
    case Refusal::Checksum: return "checksum";
    }
    return "?";
}

}  // namespace nkrsim
