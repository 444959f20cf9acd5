#include "nkrhost/settings.h"

#include "nkrhost/setting_catalogue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

namespace nkrhost {
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kFormat = "nkr-host-settings";
constexpr int kVersion = 1;

Status fileError(const std::string& what) { return Status::failure(kSettingsFile, what); }

// One exclusive flock on <file>.lock for a read-modify-write.
class FileGuard {
public:
    explicit FileGuard(const std::string& path, bool exclusive)
    {
        std::error_code ec;
        fs::create_directories(fs::path(path).parent_path(), ec);
        m_fd = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fd < 0) return;
        while (::flock(m_fd, exclusive ? LOCK_EX : LOCK_SH) != 0) {
            if (errno != EINTR) {
                ::close(m_fd);
                m_fd = -1;
                return;
            }
        }
    }
    ~FileGuard()
    {
        if (m_fd >= 0) ::close(m_fd);
    }
    FileGuard(const FileGuard&) = delete;
    FileGuard& operator=(const FileGuard&) = delete;
    bool held() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

// The document, or an empty one when there is no file.
Status load(const std::string& path, json& doc)
{
    doc = json::object();
    std::ifstream in(path);
    if (!in) return {};
    std::stringstream text;
    text << in.rdbuf();
    if (text.str().empty()) return {};
    json parsed = json::parse(text.str(), nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object())
        return fileError("the host settings file " + path + " is damaged (not a JSON object); fix or delete it");
    if (parsed.contains("format") && parsed["format"] != kFormat)
        return fileError("the host settings file " + path + " is not an nkr settings file");
    doc = std::move(parsed);
    return {};
}

Status store(const std::string& path, json& doc)
{
    doc["format"] = kFormat;
    doc["version"] = kVersion;
    const std::string tmp = path + ".tmp." + std::to_string(::getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << doc.dump(2) << "\n";
        out.flush();
        if (!out) {
            std::error_code ec;
            fs::remove(tmp, ec);
            return fileError("cannot write the host settings file " + tmp);
        }
    }
    int fd = ::open(tmp.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        std::error_code ec;
        fs::remove(tmp, ec);
        return fileError("cannot replace the host settings file " + path + ": " + why);
    }
    return {};
}

json& unitNode(json& doc, const std::string& key)
{
    if (!doc["units"].is_object()) doc["units"] = json::object();
    json& node = doc["units"][key];
    if (!node.is_object()) node = json::object();
    return node;
}

// The typed view of a unit's node; values of the wrong type read as defaults.
UnitSettings fromJson(const json& n)
{
    UnitSettings s;
    if (!n.is_object()) return s;
    if (n.contains("name") && n["name"].is_string()) s.name = n["name"].get<std::string>();
    if (n.contains("max_position") && n["max_position"].is_number_integer())
        s.maxPosition = n["max_position"].get<int>();
    if (n.contains("step_size_um") && n["step_size_um"].is_number())
        s.stepSizeMicrons = n["step_size_um"].get<double>();
    if (n.contains("temp_comp") && n["temp_comp"].is_object()) {
        const json& t = n["temp_comp"];
        if (t.contains("enabled") && t["enabled"].is_boolean()) s.tempComp.enabled = t["enabled"].get<bool>();
        if (t.contains("coefficient") && t["coefficient"].is_number())
            s.tempComp.coefficient = t["coefficient"].get<double>();
        if (t.contains("deadband") && t["deadband"].is_number()) s.tempComp.deadband = t["deadband"].get<double>();
    }
    if (n.contains("positions") && n["positions"].is_object())
        for (auto& [name, value] : n["positions"].items())
            if (value.is_number_integer()) s.positions[name] = value.get<int>();
    if (n.contains("update_pending") && n["update_pending"].is_object()) {
        const json& u = n["update_pending"];
        PendingUpdate p;
        if (u.contains("written") && u["written"].is_number_integer()) p.written = u["written"].get<long long>();
        if (u.contains("total") && u["total"].is_number_integer()) p.total = u["total"].get<long long>();
        s.pendingUpdate = p;
    }
    if (n.contains("approach") && n["approach"].is_object()) {
        const json& a = n["approach"];
        if (a.contains("enabled") && a["enabled"].is_boolean()) s.approach.enabled = a["enabled"].get<bool>();
        if (a.contains("direction") && a["direction"].is_number_integer())
            s.approach.direction = a["direction"].get<int>() < 0 ? -1 : +1;
        if (a.contains("overshoot") && a["overshoot"].is_number_integer())
            s.approach.overshoot = a["overshoot"].get<int>();
    }
    return s;
}

// Writes the typed view back over the node, keeping keys it does not know.
void intoJson(const UnitSettings& s, json& n)
{
    auto put = [&](const char* key, auto value, bool present) {
        if (present)
            n[key] = value;
        else
            n.erase(key);
    };
    put("name", s.name, !s.name.empty());
    put("max_position", s.maxPosition.value_or(0), s.maxPosition.has_value());
    put("step_size_um", s.stepSizeMicrons.value_or(0.0), s.stepSizeMicrons.has_value());
    const TempCompSettings tc{};
    const bool tcDefault = s.tempComp.enabled == tc.enabled && s.tempComp.coefficient == tc.coefficient &&
                           s.tempComp.deadband == tc.deadband;
    if (tcDefault)
        n.erase("temp_comp");
    else
        n["temp_comp"] = {{"enabled", s.tempComp.enabled},
                          {"coefficient", s.tempComp.coefficient},
                          {"deadband", s.tempComp.deadband}};
    json positions = json::object();
    for (auto& [name, value] : s.positions) positions[name] = value;
    if (s.positions.empty())
        n.erase("positions");
    else
        n["positions"] = positions;
    if (s.pendingUpdate)
        n["update_pending"] = {{"written", s.pendingUpdate->written}, {"total", s.pendingUpdate->total}};
    else
        n.erase("update_pending");
    const ApproachSettings ap{};
    if (s.approach.enabled == ap.enabled && s.approach.direction == ap.direction && s.approach.overshoot == ap.overshoot)
        n.erase("approach");
    else
        n["approach"] = {{"enabled", s.approach.enabled},
                         {"direction", s.approach.direction},
                         {"overshoot", s.approach.overshoot}};
}

json toJson(const UnitSettings& s)
{
    json n = json::object();
    intoJson(s, n);
    n["temp_comp"] = {{"enabled", s.tempComp.enabled}, {"coefficient", s.tempComp.coefficient},
                      {"deadband", s.tempComp.deadband}};
    json positions = json::object();
    for (auto& [name, value] : s.positions) positions[name] = value;
    n["positions"] = positions;
    n["approach"] = {{"enabled", s.approach.enabled}, {"direction", s.approach.direction},
                     {"overshoot", s.approach.overshoot}};
    n["name"] = s.name;
    n["max_position"] = s.maxPosition ? json(*s.maxPosition) : json(nullptr);
    n["step_size_um"] = s.stepSizeMicrons ? json(*s.stepSizeMicrons) : json(nullptr);
    return n;
}

Status badSetting(const std::string& what) { return Status::failure(kBadSetting, what); }

// A number of the settings file, checked by the setting it stands for.
Status numberOf(const char* setting, const json& v, double& out)
{
    const SettingInfo& info = *findSetting(setting);
    if (!v.is_number()) return badSetting(badValueSentence(info, v.dump()));
    out = v.get<double>();
    return checkSettingNumber(info, out);
}

// Checks one key of a merge and applies it; unknown keys are refused so a
// typing error never passes for a saved setting. Every value is checked by
// the setting catalogue, in the words people see elsewhere.
Status mergeKey(UnitSettings& s, const std::string& key, const json& v)
{
    double n = 0;
    if (key == "name") {
        if (v.is_null()) return s.name.clear(), Status{};
        const SettingInfo& info = *findSetting("name");
        if (!v.is_string()) return badSetting(badValueSentence(info, v.dump()));
        if (Status bad = checkUnitText(info, v.get<std::string>()); !bad.ok()) return bad;
        s.name = v.get<std::string>();
    } else if (key == "max_position") {
        if (v.is_null()) return s.maxPosition.reset(), Status{};
        if (Status bad = numberOf("max-step", v, n); !bad.ok()) return bad;
        s.maxPosition = static_cast<int>(n);
    } else if (key == "step_size_um") {
        if (v.is_null()) return s.stepSizeMicrons.reset(), Status{};
        if (Status bad = numberOf("step-size", v, n); !bad.ok()) return bad;
        s.stepSizeMicrons = n;
    } else if (key == "temp_comp") {
        if (!v.is_object()) return badSetting("temp_comp must be an object of enabled, coefficient and deadband");
        for (auto& [k, x] : v.items()) {
            if (k == "enabled") {
                if (!x.is_boolean()) return badSetting(badValueSentence(*findSetting("temp-comp"), x.dump()));
                s.tempComp.enabled = x.get<bool>();
            } else if (k == "coefficient" || k == "deadband") {
                if (Status bad = numberOf(k == "coefficient" ? "temp-coefficient" : "temp-deadband", x, n); !bad.ok())
                    return bad;
                (k == "coefficient" ? s.tempComp.coefficient : s.tempComp.deadband) = n;
            } else {
                return badSetting("'" + k + "' is not a temperature compensation setting (enabled, coefficient, deadband)");
            }
        }
    } else if (key == "positions") {
        if (!v.is_object()) return badSetting("positions must be an object of name: position");
        for (auto& [name, x] : v.items()) {
            if (x.is_null())
                s.positions.erase(name);
            else if (x.is_number_integer() && x.get<long long>() >= 0 && x.get<long long>() <= 1000000)
                s.positions[name] = x.get<int>();
            else
                return badSetting("position '" + name + "' must be a whole number of steps, 0 or more");
        }
    } else if (key == "approach") {
        if (!v.is_object()) return badSetting("approach must be an object of enabled, direction and overshoot");
        for (auto& [k, x] : v.items()) {
            if (k == "enabled" && x.is_boolean()) {
                s.approach.enabled = x.get<bool>();
            } else if (k == "direction" && x.is_number_integer() && (x.get<int>() == 1 || x.get<int>() == -1)) {
                s.approach.direction = x.get<int>();
            } else if (k == "overshoot") {
                if (Status bad = numberOf("approach-overshoot", x, n); !bad.ok()) return bad;
                s.approach.overshoot = static_cast<int>(n);
            } else {
                return badSetting("the final approach's " + k + " must be " +
                                  (k == "direction" ? "1 (outward) or -1 (inward)" : k == "enabled" ? "true or false" : "one of enabled, direction, overshoot"));
            }
        }
    } else {
        return badSetting("'" + key + "' is not a unit setting");
    }
    return {};
}

}  // namespace

std::string configHome()
{
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg != nullptr && xdg[0] == '/') return xdg;
    const char* home = std::getenv("HOME");
    return (fs::path(home != nullptr && home[0] != '\0' ? home : "/tmp") / ".config").string();
}

std::string HostSettings::defaultPath() { return (fs::path(configHome()) / "nkr" / "units.json").string(); }

HostSettings::HostSettings(std::string path) : m_path(std::move(path)) {}

namespace {

// The file as last parsed, by path: a read costs one stat until another
// program (or this one) replaces the file, which every write does by rename.
struct ParsedFile {
    dev_t device = 0;
    ino_t inode = 0;
    struct timespec modified {};
    off_t size = -1;
    json doc;
};

Status loadCached(const std::string& path, json& doc)
{
    static std::mutex mutex;
    static std::map<std::string, ParsedFile> cache;
    struct stat st {};
    const bool exists = ::stat(path.c_str(), &st) == 0;
    std::lock_guard lock(mutex);
    ParsedFile& entry = cache[path];
    if (exists && entry.size >= 0 && entry.device == st.st_dev && entry.inode == st.st_ino &&
        entry.size == st.st_size && entry.modified.tv_sec == st.st_mtim.tv_sec &&
        entry.modified.tv_nsec == st.st_mtim.tv_nsec) {
        doc = entry.doc;
        return {};
    }
    entry.size = -1;
    FileGuard guard(path, false);
    struct stat locked {};
    Status loaded = load(path, doc);
    // A file changed within the last second may change again with the same
    // stamp (coarse clocks, a reused inode): it is not kept until it is older.
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (loaded.ok() && exists && ::stat(path.c_str(), &locked) == 0 && now.tv_sec - locked.st_mtim.tv_sec >= 2)
        entry = ParsedFile{locked.st_dev, locked.st_ino, locked.st_mtim, locked.st_size, doc};
    return loaded;
}

}  // namespace

Status HostSettings::read(const std::string& unitKey, UnitSettings& out) const
{
    out = {};
    try {
        json doc;
        Status loaded = loadCached(m_path, doc);
        if (!loaded.ok()) return loaded;
        if (doc.contains("units") && doc["units"].is_object() && doc["units"].contains(unitKey))
            out = fromJson(doc["units"][unitKey]);
        return {};
    } catch (const std::exception& e) {
        return fileError(std::string("reading the host settings failed: ") + e.what());
    }
}

namespace {

// Reads, changes and writes the whole document under the exclusive lock, so
// that two processes never lose each other's change.
Status modifyDocument(const std::string& path, const std::function<Status(json&)>& change)
{
    try {
        FileGuard guard(path, true);
        if (!guard.held()) return fileError("cannot lock the host settings file " + path + ".lock");
        json doc;
        Status loaded = load(path, doc);
        if (!loaded.ok()) return loaded;
        Status changed = change(doc);
        if (!changed.ok()) return changed;
        return store(path, doc);
    } catch (const std::exception& e) {
        return fileError(std::string("writing the host settings failed: ") + e.what());
    }
}

}  // namespace

Status HostSettings::update(const std::string& unitKey, const std::function<Status(UnitSettings&)>& change)
{
    return modifyDocument(m_path, [&](json& doc) {
        json& node = unitNode(doc, unitKey);
        UnitSettings s = fromJson(node);
        Status changed = change(s);
        if (changed.ok()) intoJson(s, node);
        return changed;
    });
}

bool HostSettings::sharedRecord() const
{
    try {
        FileGuard guard(m_path, false);
        json doc;
        if (!load(m_path, doc).ok()) return false;
        return doc.contains("shared_record") && doc["shared_record"].is_boolean() && doc["shared_record"].get<bool>();
    } catch (...) {
        return false;
    }
}

Status HostSettings::setSharedRecord(bool shared)
{
    return modifyDocument(m_path, [&](json& doc) {
        doc["shared_record"] = shared;
        return Status{};
    });
}

Status HostSettings::readJson(const std::string& unitKey, std::string& text) const
{
    UnitSettings s;
    Status st = read(unitKey, s);
    if (!st.ok()) return st;
    text = toJson(s).dump();
    return {};
}

Status HostSettings::mergeJson(const std::string& unitKey, const std::string& text)
{
    json patch = json::parse(text, nullptr, false);
    if (patch.is_discarded() || !patch.is_object()) return badSetting("settings must be a JSON object");
    return update(unitKey, [&](UnitSettings& s) {
        for (auto& [key, value] : patch.items()) {
            Status st = mergeKey(s, key, value);
            if (!st.ok()) return st;
        }
        return Status{};
    });
}

std::string displayName(const std::string& settingsName, const std::string& alias, const std::string& model)
{
    if (!settingsName.empty()) return settingsName;
    if (!alias.empty()) return alias;
    return model.empty() ? std::string("NKR") : model;
}

void chooseSavedRecord(const HostSettings& settings)
{
    const char* explicitChoice = std::getenv("NKR_STATE_PER_UNIT");
    if (explicitChoice != nullptr && explicitChoice[0] != '\0') return;
    setenv("NKR_STATE_PER_UNIT", settings.sharedRecord() ? "0" : "1", 1);
}

}  // namespace nkrhost
