// The firmware of a simulated unit: command decoding, the status report and
// the motor, for both links.
#include "unit_model.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace nkrsim::detail {
namespace {

// Reports are read at fixed offsets: work on a zero-padded copy.
constexpr size_t kWorkLen = 64;
// Longest text a 16-byte answer can hold from byte 4 with its terminator.
constexpr size_t kMaxAnswerText = 11;

uint8_t flagsByte(const UnitState& s)
{
    return static_cast<uint8_t>((s.beep ? 0x01 : 0) | (s.reverse ? 0x02 : 0) |
                                (s.handMoving ? 0x04 : 0) | (s.handControl ? 0x08 : 0) |
                                ((s.force & 0x0F) << 4));
}

char charAt(const std::string& s, size_t i) { return i < s.size() ? s[i] : '\0'; }

std::string textAt(const uint8_t* bytes, size_t maxLen)
{
    size_t n = 0;
    while (n < maxLen && bytes[n] != 0) ++n;
    return std::string(reinterpret_cast<const char*>(bytes), n);
}

void putText(uint8_t* out, const std::string& text, size_t maxLen)
{
    std::memcpy(out, text.data(), std::min(text.size(), maxLen));
}

void fillStatus(const UnitState& s, uint8_t* r)
{
    r[4] = static_cast<uint8_t>(s.runState);
    r[5] = static_cast<uint8_t>(s.backlash);
    if (firmwareVersion(s) < 336) {
        r[6] = static_cast<uint8_t>(s.speed >> 8);
        r[7] = static_cast<uint8_t>(s.speed);
    } else {
        r[6] = static_cast<uint8_t>(s.maxStep >> 16);
        r[7] = static_cast<uint8_t>(s.position >> 16);
    }
    r[8] = static_cast<uint8_t>(s.position >> 8);
    r[9] = static_cast<uint8_t>(s.position);
    r[11] = static_cast<uint8_t>(s.tempRaw >> 8);
    r[12] = static_cast<uint8_t>(s.tempRaw);
    r[13] = flagsByte(s);
    r[14] = static_cast<uint8_t>(s.maxStep >> 8);
    r[15] = static_cast<uint8_t>(s.maxStep);
}

// The older family sends the serial as half-bytes and shifted nibbles; this is
// the inverse of the host's unpacking.
void packSerial(const std::vector<uint8_t>& serial, uint8_t* r)
{
    uint8_t s[8] = {};
    std::copy_n(serial.begin(), std::min<size_t>(serial.size(), 8), s);
    auto hi = [](uint8_t v) { return static_cast<uint8_t>(v >> 4); };
    auto lo = [](uint8_t v) { return static_cast<uint8_t>(v & 0x0F); };
    r[4] = hi(s[0]);
    r[5] = lo(s[0]);
    r[6] = hi(s[1]);
    r[7] = lo(s[1]);
    r[8] = hi(s[2]);
    r[9] = lo(s[2]);
    r[10] = hi(s[3]);
    r[11] = static_cast<uint8_t>(lo(s[3]) << 4 | hi(s[4]));
    r[12] = static_cast<uint8_t>(lo(s[4]) << 4 | hi(s[5]));
    r[13] = static_cast<uint8_t>(lo(s[5]) << 4 | hi(s[6]));
    r[14] = static_cast<uint8_t>(lo(s[6]) << 4 | hi(s[7]));
    r[15] = lo(s[7]);
}

void readSelector(Unit& u, uint8_t selector, uint8_t* r)
{
    UnitState& s = u.st;
    r[3] = selector;
    switch (selector) {
    case 0x03: fillStatus(s, r); break;
    case 0x04:
        r[4] = static_cast<uint8_t>(s.fwMajor);
        r[5] = static_cast<uint8_t>(s.fwMinor);
        r[6] = static_cast<uint8_t>(s.fwBuild);
        r[7] = static_cast<uint8_t>(s.modelLetter);
        putText(r + 8, s.typeText, 8);
        break;
    case 0x05:
        r[4] = static_cast<uint8_t>(charAt(s.motorErr, 0));
        r[5] = static_cast<uint8_t>(charAt(s.motorErr, 1));
        r[6] = static_cast<uint8_t>(charAt(s.batteryErr, 1));
        break;
    case 0x06: r[4] = static_cast<uint8_t>(s.powerOffReason); break;
    case 0x0C:
        if (s.modelLetter == 'E')
            std::copy_n(s.serial.begin(), std::min<size_t>(s.serial.size(), 8), r + 4);
        else
            packSerial(s.serial, r);
        break;
    case 0x0D: putText(r + 4, s.alias, kMaxAnswerText); break;
    case 0x1E:
        std::copy_n(s.battery.begin(), std::min(s.battery.size(), kWorkLen - 4), r + 4);
        break;
    case 0x1F: r[4] = s.led ? 1 : 0; break;
    default: break;  // unknown item: echo only
    }
}

// Control frame: the whole wanted motor state, with a mode in byte 10.
void control(Unit& u, const uint8_t* c)
{
    UnitState& s = u.st;
    int target, maxStep;
    if (firmwareVersion(s) > 335) {
        target = c[7] << 16 | c[8] << 8 | c[9];
        maxStep = c[6] << 16 | c[14] << 8 | c[15];
    } else {
        s.speed = c[6] << 8 | c[7];
        target = c[8] << 8 | c[9];
        maxStep = c[14] << 8 | c[15];
    }
    s.backlash = c[5];
    s.beep = (c[13] & 0x01) != 0;
    s.reverse = (c[13] & 0x02) != 0;
    s.force = c[13] >> 4;
    switch (c[10]) {
    case 1:  // the current position is redefined, the motor stays
        s.position = s.target = target;
        if (s.runState == 1) s.runState = 0;
        u.stepFraction = 0;
        return;
    case 2: s.maxStep = maxStep; return;
    default: break;
    }
    if (c[4] == 1) {
        if (s.runState == 6) return;  // an error state must be cleared first
        if (u.usbUpdating || u.bleUpdating) return;  // update mode: the motor waits for new firmware
        s.target = target;
        s.runState = 1;
        advance(u);  // a move to where the motor stands ends at once
    } else if (s.runState == 1) {
        s.runState = 0;
        s.target = s.position;
        u.stepFraction = 0;
    }
}

void renameBle(Unit& u)
{
    std::string base = u.bleName;
    size_t cut = base.rfind('_');
    if (cut != std::string::npos) base.resize(cut);
    u.bleName = base + "_" + u.st.bleNameSuffix;
}

}  // namespace

int firmwareVersion(const UnitState& st) { return st.fwMajor * 100 + st.fwMinor * 10 + st.fwBuild; }

void powerOn(Unit& u)
{
    u.st.position = u.st.target = u.spec.position;
    u.st.runState = 0;
    u.st.handMoving = false;
    u.stepFraction = 0;
    u.stepsMoved = 0;
    u.lastTick = nowLocked();
    u.usbUpdating = u.bleUpdating = false;
    u.reply.clear();
}

void finishUpdate(Unit& u)
{
    u.usbUpdating = u.bleUpdating = false;
    u.st.fwMajor = u.update.newFwMajor;
    u.st.fwMinor = u.update.newFwMinor;
    u.st.fwBuild = u.update.newFwBuild;
}

bool runCommand(Unit& u, const uint8_t* report, size_t len, std::vector<uint8_t>& reply)
{
    if (report == nullptr || len < 4 || report[1] != 0x7E || report[2] != 0x5A) return false;
    uint8_t c[kWorkLen] = {};
    std::memcpy(c, report, std::min(len, kWorkLen));
    advance(u);

    reply.assign(kWorkLen, 0);
    uint8_t* r = reply.data();
    r[0] = 0x01;
    r[1] = 0x7E;
    r[2] = 0x5A;
    r[3] = c[3];
    UnitState& s = u.st;
    switch (c[3]) {
    case 0x01:
        if (c[4] == 0x0F) {
            ++s.clearErrorCount;
            if (s.runState == 6) s.runState = 0;
        }
        break;
    case 0x02: readSelector(u, c[4], r); break;
    case 0x03:
        control(u, c);
        fillStatus(s, r);
        break;
    case 0x0C: s.serial.assign(c + 4, c + 12); break;
    case 0x0D: s.alias = textAt(c + 4, 12); break;
    case 0x0F:
        r[3] = 0x01;
        if (u.update.refuseStart) {
            r[4] = 0x01;
        } else {
            u.usbUpdating = true;
            u.image.clear();
        }
        break;
    case 0x10:
        if (u.usbUpdating && len > 5) {
            size_t n = std::min<size_t>(c[4], std::min(len, kWorkLen) - 5);
            u.image.insert(u.image.end(), c + 5, c + 5 + n);
        }
        break;
    case 0x12:
        if (u.usbUpdating) finishUpdate(u);
        break;
    case 0x1E:
        if (c[4] == 0x00) {
            s.bleNameSuffix = textAt(c + 5, kMaxAnswerText);
            renameBle(u);
        } else if (c[4] == 0x01) {
            putText(r + 4, s.bleNameSuffix, kMaxAnswerText);
        }
        break;
    case 0x1F: s.shippingMode = true; break;
    case 0x20: s.led = c[4] != 0; break;
    case 0x22: s.factoryMode = true; break;
    default: break;
    }
    return true;
}

std::vector<uint8_t> allInfoData(Unit& u)
{
    advance(u);
    const UnitState& s = u.st;
    std::vector<uint8_t> d(14 + s.battery.size());
    d[0] = static_cast<uint8_t>(s.runState);
    d[1] = static_cast<uint8_t>(s.backlash);
    d[2] = static_cast<uint8_t>(s.position >> 16);
    d[3] = static_cast<uint8_t>(s.position >> 8);
    d[4] = static_cast<uint8_t>(s.position);
    d[5] = static_cast<uint8_t>(s.tempRaw >> 8);
    d[6] = static_cast<uint8_t>(s.tempRaw);
    d[7] = flagsByte(s);
    d[8] = static_cast<uint8_t>(s.maxStep >> 16);
    d[9] = static_cast<uint8_t>(s.maxStep >> 8);
    d[10] = static_cast<uint8_t>(s.maxStep);
    d[11] = static_cast<uint8_t>(charAt(s.motorErr, 0));
    d[12] = static_cast<uint8_t>(charAt(s.motorErr, 1));
    d[13] = static_cast<uint8_t>(charAt(s.batteryErr, 1));
    std::copy(s.battery.begin(), s.battery.end(), d.begin() + 14);
    return d;
}

}  // namespace nkrsim::detail
