#include "Bus.h"

#include <cerrno>
#include <cstring>

namespace blueshim {
namespace {

constexpr uint64_t kDefaultCallUsec = 5'000'000;

int readArrayOfStrings(sd_bus_message* m, char type, std::vector<std::string>& out)
{
    const char contents[2] = {type, 0};
    int r = sd_bus_message_enter_container(m, 'a', contents);
    if (r < 0) {
        return r;
    }
    const char* s = nullptr;
    while ((r = sd_bus_message_read_basic(m, type, &s)) > 0) {
        out.emplace_back(s);
    }
    if (r < 0) {
        return r;
    }
    return sd_bus_message_exit_container(m);
}

int readValue(sd_bus_message* m, Value& v)
{
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, nullptr, &contents);
    if (r <= 0) {
        return r < 0 ? r : -EBADMSG;
    }
    v.signature = contents;
    r = sd_bus_message_enter_container(m, 'v', contents);
    if (r < 0) {
        return r;
    }
    const std::string& sig = v.signature;
    if (sig == "b") {
        int b = 0;
        r = sd_bus_message_read_basic(m, 'b', &b);
        v.boolean = b != 0;
    } else if (sig == "s" || sig == "o") {
        const char* s = nullptr;
        r = sd_bus_message_read_basic(m, sig[0], &s);
        if (r > 0) {
            v.text = s;
        }
    } else if (sig == "n") {
        int16_t n = 0;
        r = sd_bus_message_read_basic(m, 'n', &n);
        v.number = n;
    } else if (sig == "q") {
        uint16_t n = 0;
        r = sd_bus_message_read_basic(m, 'q', &n);
        v.number = n;
    } else if (sig == "i") {
        int32_t n = 0;
        r = sd_bus_message_read_basic(m, 'i', &n);
        v.number = n;
    } else if (sig == "u") {
        uint32_t n = 0;
        r = sd_bus_message_read_basic(m, 'u', &n);
        v.number = n;
    } else if (sig == "y") {
        uint8_t n = 0;
        r = sd_bus_message_read_basic(m, 'y', &n);
        v.number = n;
    } else if (sig == "ay") {
        const void* data = nullptr;
        size_t size = 0;
        r = sd_bus_message_read_array(m, 'y', &data, &size);
        if (r >= 0 && size > 0) {
            const auto* p = static_cast<const uint8_t*>(data);
            v.bytes.assign(p, p + size);
        }
    } else if (sig == "as" || sig == "ao") {
        r = readArrayOfStrings(m, sig[1], v.texts);
    } else {
        r = sd_bus_message_skip(m, contents);
    }
    if (r < 0) {
        return r;
    }
    return sd_bus_message_exit_container(m);
}

}  // namespace

int readProperties(sd_bus_message* m, Properties& out)
{
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) {
        return r;
    }
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* name = nullptr;
        r = sd_bus_message_read_basic(m, 's', &name);
        if (r < 0) {
            return r;
        }
        Value v;
        r = readValue(m, v);
        if (r < 0) {
            return r;
        }
        out[name] = std::move(v);
        r = sd_bus_message_exit_container(m);
        if (r < 0) {
            return r;
        }
    }
    if (r < 0) {
        return r;
    }
    return sd_bus_message_exit_container(m);
}

bool CallError::timedOut() const
{
    return code == -ETIMEDOUT || name == "org.freedesktop.DBus.Error.Timeout" ||
           name == "org.freedesktop.DBus.Error.NoReply" || name == "org.bluez.Error.Timeout";
}

sd_bus* openSystemBus(std::string& error)
{
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        error = std::string("cannot open the system bus: ") + std::strerror(-r);
        return nullptr;
    }
    return bus;
}

bool callBluez(sd_bus* bus, const std::string& path, const char* iface, const char* member,
               uint64_t timeoutUsec, const Appender& append, const Reader& read, CallError& error)
{
    error = {};
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error busError = SD_BUS_ERROR_NULL;
    int r = sd_bus_message_new_method_call(bus, &call, kBluez, path.c_str(), iface, member);
    if (r >= 0 && append) {
        r = append(call);
    }
    if (r >= 0) {
        r = sd_bus_call(bus, call, timeoutUsec == 0 ? kDefaultCallUsec : timeoutUsec, &busError, &reply);
    }
    if (r >= 0 && read) {
        r = read(reply);
    }
    if (r < 0) {
        error.code = r;
        if (sd_bus_error_is_set(&busError)) {
            error.name = busError.name;
            error.text = std::string(busError.name) + ": " + (busError.message ? busError.message : "");
        } else {
            error.text = std::string(member) + ": " + std::strerror(-r);
        }
    }
    sd_bus_error_free(&busError);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return r >= 0;
}

bool getManagedObjects(sd_bus* bus, ObjectTree& tree, CallError& error)
{
    tree.clear();
    auto read = [&tree](sd_bus_message* m) {
        int r = sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}");
        if (r < 0) {
            return r;
        }
        while ((r = sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}")) > 0) {
            const char* path = nullptr;
            if ((r = sd_bus_message_read_basic(m, 'o', &path)) < 0) {
                return r;
            }
            Interfaces& ifaces = tree[path];
            if ((r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}")) < 0) {
                return r;
            }
            while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
                const char* name = nullptr;
                if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) {
                    return r;
                }
                if ((r = readProperties(m, ifaces[name])) < 0) {
                    return r;
                }
                if ((r = sd_bus_message_exit_container(m)) < 0) {
                    return r;
                }
            }
            if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0 ||
                (r = sd_bus_message_exit_container(m)) < 0) {
                return r;
            }
        }
        if (r < 0) {
            return r;
        }
        return sd_bus_message_exit_container(m);
    };
    return callBluez(bus, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", 0, nullptr,
                     read, error);
}

bool getProperty(sd_bus* bus, const std::string& path, const char* iface, const char* name,
                 Value& value, CallError& error)
{
    auto append = [&](sd_bus_message* m) { return sd_bus_message_append(m, "ss", iface, name); };
    auto read = [&](sd_bus_message* m) { return readValue(m, value); };
    return callBluez(bus, path, kPropertiesIface, "Get", 0, append, read, error);
}

bool readPropertiesChanged(sd_bus_message* m, std::string& iface, Properties& changed)
{
    const char* name = nullptr;
    if (sd_bus_message_read_basic(m, 's', &name) < 0 || name == nullptr) {
        return false;
    }
    iface = name;
    return readProperties(m, changed) >= 0;
}

}  // namespace blueshim
