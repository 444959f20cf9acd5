// The world's state file: JSON written whole to a temporary file and renamed
// over the old one, guarded by an flock on "<file>.lock" that is held from the
// moment a process takes its world lock until it lets it go, so that a read,
// the change and the save are one step for every process.
#include "persist.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "sysfs.h"
#include "world.h"

namespace nkrsim::detail {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kFormat = "nkr-sim-world";
constexpr int kVersion = 1;

// Identity of the file as last read or written; a rename makes a new inode,
// so any save by another process shows as a change.
struct FileStamp {
    dev_t dev = 0;
    ino_t ino = 0;
    int64_t mtimeNs = 0;
    off_t size = -1;
    bool operator==(const FileStamp&) const = default;
};

struct Shared {
    bool checked = false;   // NKR_SIM_STATE looked at
    std::string path;       // empty: not shared
    int lockFd = -1;        // held between beginShared and endShared
    bool seen = false;      // the file existed when last looked at
    FileStamp stamp;
    std::string lastUnits;  // units as last loaded or saved (to spot a change)
    uint64_t generation = 0;
    int64_t wallBase = 0;   // wall-clock microseconds at world time 0
    bool wallBaseSet = false;
    bool warned = false;    // a save problem is said once
};

Shared& shared()
{
    static Shared* s = new Shared;  // never destroyed: saves at exit stay safe
    return *s;
}

int64_t wallMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The units the environment asked for: a state file made for others is not ours.
std::string unitsKey()
{
    const char* units = std::getenv("NKR_SIM_UNITS");
    return units ? std::string("units=") + units : std::string("default");
}

void warnOnce(Shared& sh, const std::string& text)
{
    if (sh.warned) return;
    sh.warned = true;
    std::fprintf(stderr, "nkr-sim: %s\n", text.c_str());
}

bool statFile(const std::string& path, FileStamp& out)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    out = {st.st_dev, st.st_ino,
           static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec, st.st_size};
    return true;
}

json unitToJson(const Unit& u, int64_t wallBase)
{
    const UnitState& s = u.st;
    // A still motor's clock means nothing: leaving it out keeps a look at an
    // idle world from rewriting the file (and every other process re-reading it).
    const bool moving = s.runState == 1 || s.handMoving;
    return json{
        {"id", u.id},
        {"plugged", u.plugged},
        {"plugs", u.plugCount},
        {"position", s.position},
        {"target", s.target},
        {"run_state", s.runState},
        {"hand_moving", s.handMoving},
        {"hand_target", u.handTarget},
        {"hand_control", s.handControl},
        // When the motor was last brought up to date, in wall-clock time, so
        // the next process finds a move where it has got to by now.
        {"tick_wall_us", moving ? wallBase + static_cast<int64_t>(u.lastTick) : 0},
        {"step_fraction", u.stepFraction},
        {"steps_moved", u.stepsMoved},
        {"backlash", s.backlash},
        {"speed", s.speed},
        {"max_step", s.maxStep},
        // A drifting temperature is kept by its drift, so the file is not
        // rewritten at every reading.
        {"temp_raw", u.drift ? tempRawOf(u.drift->startC) : s.tempRaw},
        {"beep", s.beep},
        {"reverse", s.reverse},
        {"force", s.force},
        {"led", s.led},
        {"shipping_mode", s.shippingMode},
        {"factory_mode", s.factoryMode},
        {"motor_error", s.motorErr},
        {"battery_error", s.batteryErr},
        {"power_off_reason", s.powerOffReason},
        {"battery", s.battery},
        {"serial", s.serial},
        {"alias", s.alias},
        {"ble_name_suffix", s.bleNameSuffix},
        {"ble_name", u.bleName},
        {"firmware", {s.fwMajor, s.fwMinor, s.fwBuild}},
        {"model_letter", std::string(1, s.modelLetter)},
        {"type", s.typeText},
        {"thermistor", s.thermistor},
        {"steps_per_second", s.stepsPerSecond},
        {"clear_error_count", s.clearErrorCount},
        {"paired", s.paired},
        {"temp_drift", u.drift ? json{{"start_c", u.drift->startC},
                                      {"per_hour", u.drift->perHour},
                                      {"until_c", u.drift->untilC ? json(*u.drift->untilC) : json(nullptr)},
                                      {"start_wall_us", wallBase + static_cast<int64_t>(u.drift->startUs)}}
                               : json(nullptr)},
        {"usb_updating", u.usbUpdating},
        {"ble_updating", u.bleUpdating},
        {"ble_update_size", u.bleUpdateSize},
    };
}

json worldUnits(int64_t wallBase)
{
    json units = json::array();
    for (auto& [id, u] : world().units) units.push_back(unitToJson(*u, wallBase));
    return units;
}

// Takes the saved unit over; throws json errors on a malformed entry.
void unitFromJson(Unit& u, const json& j, int64_t wallBase)
{
    UnitState s = u.st;
    s.position = j.at("position").get<int>();
    s.target = j.at("target").get<int>();
    s.runState = j.at("run_state").get<int>();
    s.handMoving = j.at("hand_moving").get<bool>();
    s.handControl = j.at("hand_control").get<bool>();
    s.backlash = j.at("backlash").get<int>();
    s.speed = j.at("speed").get<int>();
    s.maxStep = j.at("max_step").get<int>();
    s.tempRaw = j.at("temp_raw").get<int>();
    s.beep = j.at("beep").get<bool>();
    s.reverse = j.at("reverse").get<bool>();
    s.force = j.at("force").get<int>();
    s.led = j.at("led").get<bool>();
    s.shippingMode = j.at("shipping_mode").get<bool>();
    s.factoryMode = j.at("factory_mode").get<bool>();
    s.motorErr = j.at("motor_error").get<std::string>();
    s.batteryErr = j.at("battery_error").get<std::string>();
    s.powerOffReason = j.at("power_off_reason").get<int>();
    s.battery = j.at("battery").get<std::vector<uint8_t>>();
    s.serial = j.at("serial").get<std::vector<uint8_t>>();
    s.alias = j.at("alias").get<std::string>();
    s.bleNameSuffix = j.at("ble_name_suffix").get<std::string>();
    auto fw = j.at("firmware").get<std::vector<int>>();
    if (fw.size() != 3) throw std::runtime_error("firmware is not three numbers");
    s.fwMajor = fw[0], s.fwMinor = fw[1], s.fwBuild = fw[2];
    std::string letter = j.at("model_letter").get<std::string>();
    if (letter.size() != 1) throw std::runtime_error("model_letter is not one character");
    s.modelLetter = letter[0];
    s.typeText = j.at("type").get<std::string>();
    s.thermistor = j.at("thermistor").get<bool>();
    s.stepsPerSecond = j.at("steps_per_second").get<int>();
    s.clearErrorCount = j.at("clear_error_count").get<int>();
    s.paired = j.at("paired").get<bool>();
    bool plugged = j.at("plugged").get<bool>();
    int plugs = j.at("plugs").get<int>();
    int64_t tickWall = j.at("tick_wall_us").get<int64_t>();
    uint64_t fraction = j.at("step_fraction").get<uint64_t>();
    int handTarget = j.at("hand_target").get<int>();
    int stepsMoved = j.at("steps_moved").get<int>();
    std::string bleName = j.at("ble_name").get<std::string>();
    bool usbUpdating = j.at("usb_updating").get<bool>();
    bool bleUpdating = j.at("ble_updating").get<bool>();
    uint32_t bleUpdateSize = j.at("ble_update_size").get<uint32_t>();
    std::optional<Unit::Drift> drift;
    if (j.contains("temp_drift") && j.at("temp_drift").is_object()) {
        const json& d = j.at("temp_drift");
        Unit::Drift read;
        read.startC = d.at("start_c").get<double>();
        read.perHour = d.at("per_hour").get<double>();
        if (!d.at("until_c").is_null()) read.untilC = d.at("until_c").get<double>();
        const int64_t started = d.at("start_wall_us").get<int64_t>() - wallBase;
        if (started >= 0) {
            read.startUs = static_cast<uint64_t>(started);
        } else {
            // Begun before this process's world time 0: its value then.
            Unit::Drift before = read;
            before.startUs = 0;
            read.startC = driftedCelsius(before, static_cast<uint64_t>(-started));
            read.startUs = 0;
        }
        drift = read;
    }

    // Everything read: now change the unit, so a bad entry leaves it alone.
    u.st = s;
    u.stepFraction = fraction % 1'000'000;
    u.handTarget = handTarget;
    u.stepsMoved = stepsMoved;
    u.bleName = bleName;
    u.usbUpdating = usbUpdating;
    u.bleUpdating = bleUpdating;
    u.bleUpdateSize = bleUpdateSize;
    u.drift = drift;
    if (plugged != u.plugged || plugs != u.plugCount) {
        // Another process pulled or re-plugged the cable: handles of this
        // process belong to the old plug.
        u.plugged = plugged;
        u.plugCount = plugs;
        u.epoch = world().nextEpoch++;
        if (plugged) {
            publishDescriptor(u);
        } else {
            removeDescriptor(usbPath(u.id));
            dropBleConnections(u.id);
        }
    }
    int64_t local = tickWall - wallBase;
    if (local >= 0) {
        u.lastTick = static_cast<uint64_t>(local);
    } else {
        // The move started before this process: catch up on the time before.
        u.lastTick = 0;
        advanceBy(u, static_cast<uint64_t>(-local));
    }
}

void resetAllUnits()
{
    for (auto& [id, u] : world().units) rebuildUnit(*u);
}

// Reads the file into the world. A damaged file leaves the world as it is
// and is said once per damage.
void load(Shared& sh, const FileStamp& stamp)
{
    std::ifstream in(sh.path);
    std::stringstream text;
    text << in.rdbuf();
    if (!in) {
        warnOnce(sh, "cannot read the state file " + sh.path + ": " + std::strerror(errno) +
                         "; going on with a fresh world");
        sh.stamp = stamp;
        sh.seen = true;
        return;
    }
    sh.stamp = stamp;
    sh.seen = true;
    try {
        json doc = json::parse(text.str());
        if (doc.at("format").get<std::string>() != kFormat || doc.at("version").get<int>() != kVersion)
            throw std::runtime_error("unknown format or version");
        sh.generation = doc.at("generation").get<uint64_t>();
        if (doc.at("units_key").get<std::string>() != unitsKey()) return;  // other units: ours win
        const json& units = doc.at("units");
        World& w = world();
        for (const json& entry : units) {
            auto it = w.units.find(entry.at("id").get<int>());
            if (it != w.units.end()) unitFromJson(*it->second, entry, sh.wallBase);
        }
        sh.lastUnits = worldUnits(sh.wallBase).dump();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "nkr-sim: the state file %s is damaged (%s); starting a fresh world\n",
                     sh.path.c_str(), e.what());
        resetAllUnits();
        sh.lastUnits.clear();  // the next save replaces the damaged file
    }
}

void save(Shared& sh, const std::string& units)
{
    json doc = {{"format", kFormat},
                {"version", kVersion},
                {"generation", sh.generation + 1},
                {"units_key", unitsKey()},
                {"units", json::parse(units)}};
    std::string tmp = sh.path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << doc.dump(1) << '\n';
        out.flush();
        if (!out) {
            warnOnce(sh, "cannot write the state file " + tmp + ": " + std::strerror(errno));
            return;
        }
    }
    if (std::rename(tmp.c_str(), sh.path.c_str()) != 0) {
        warnOnce(sh, "cannot replace the state file " + sh.path + ": " + std::strerror(errno));
        return;
    }
    ++sh.generation;
    sh.lastUnits = units;
    sh.seen = statFile(sh.path, sh.stamp);
}

bool lockFile(Shared& sh)
{
    std::error_code ec;
    fs::path parent = fs::path(sh.path).parent_path();
    if (!parent.empty()) fs::create_directories(parent, ec);
    std::string lockPath = sh.path + ".lock";
    int fd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        warnOnce(sh, "cannot open " + lockPath + ": " + std::strerror(errno) +
                         "; the world is not shared");
        return false;
    }
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            close(fd);
            return false;
        }
    }
    sh.lockFd = fd;
    return true;
}

void unlockFile(Shared& sh)
{
    if (sh.lockFd < 0) return;
    flock(sh.lockFd, LOCK_UN);
    close(sh.lockFd);
    sh.lockFd = -1;
}

// Shared only while the clock is real: a test's manual clock is its own.
Shared* activeShared()
{
    Shared& sh = shared();
    if (!sh.checked) {
        sh.checked = true;
        const char* path = std::getenv("NKR_SIM_STATE");
        if (path != nullptr && path[0] != '\0') sh.path = path;
    }
    if (sh.path.empty() || world().manualClock) return nullptr;
    if (!sh.wallBaseSet) {
        sh.wallBaseSet = true;
        sh.wallBase = wallMicros() - static_cast<int64_t>(nowLocked());
    }
    return &sh;
}

}  // namespace

void beginShared()
{
    try {
        Shared* sh = activeShared();
        if (sh == nullptr || !lockFile(*sh)) return;
        FileStamp now;
        if (!statFile(sh->path, now)) {
            // Gone since this process saw it: the world was reset.
            if (sh->seen) resetAllUnits();
            sh->seen = false;
            sh->lastUnits.clear();
            return;
        }
        if (sh->seen && now == sh->stamp) return;
        load(*sh, now);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "nkr-sim: cannot load the shared world: %s\n", e.what());
    }
}

void endShared()
{
    Shared& sh = shared();
    if (sh.lockFd < 0) return;
    try {
        std::string units = worldUnits(sh.wallBase).dump();
        if (units != sh.lastUnits) save(sh, units);
    } catch (const std::exception& e) {
        warnOnce(sh, std::string("cannot save the shared world: ") + e.what());
    }
    unlockFile(sh);
}

}  // namespace nkrsim::detail

namespace nkrsim {
using namespace detail;

bool forgetSharedState(std::string& message)
{
    auto guard = lockWorld();
    Shared& sh = shared();
    resetAllUnits();
    if (sh.lockFd < 0) {
        message = sh.path.empty() ? "NKR_SIM_STATE is not set" : "the state file cannot be locked";
        return false;
    }
    if (unlink(sh.path.c_str()) != 0 && errno != ENOENT) {
        message = "cannot delete " + sh.path + ": " + std::strerror(errno);
        return false;
    }
    // Saved by the guard as a fresh world unless told otherwise: forget it.
    sh.lastUnits = worldUnits(sh.wallBase).dump();
    sh.seen = false;
    message.clear();
    return true;
}

}  // namespace nkrsim

namespace {
int reply(bool good, const std::string& text, char* message, size_t size)
{
    if (message != nullptr && size > 0) {
        size_t n = std::min(text.size(), size - 1);
        std::memcpy(message, text.data(), n);
        message[n] = '\0';
    }
    return good ? 1 : 0;
}
}  // namespace

extern "C" int nkr_sim_validate_environment(char* message, size_t size)
{
    try {
        std::string text;
        bool good = nkrsim::validateEnvironment(text);
        return reply(good, text, message, size);
    } catch (...) {
        return reply(false, "out of memory", message, size);
    }
}

extern "C" int nkr_sim_forget_state(char* message, size_t size)
{
    try {
        std::string text;
        bool good = nkrsim::forgetSharedState(text);
        return reply(good, text, message, size);
    } catch (...) {
        return reply(false, "out of memory", message, size);
    }
}
