#include "unit_info.h"

#include <NKR_focuser.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "output.h"

namespace nkrtool {

bool Controls::has(Feature feature) const
{
    for (const Control& c : list)
        if (c.type == feature) return c.supported;
    return false;
}

Controls readControls(int id)
{
    Controls controls;
    int count = 0;
    controls.code = NKRGetNumOfControls(id, &count);
    if (controls.code != NKR_SUCCESS) return controls;
    for (int index = 0; index < count; ++index) {
        _NKR_CONTROL_CAPS caps{};
        if (NKRGetControlCaps(id, index, &caps) != NKR_SUCCESS) continue;
        controls.list.push_back({caps.ControlType, printableText(caps.Name, sizeof caps.Name),
                                 printableText(caps.Description, sizeof caps.Description),
                                 caps.Supported != 0, caps.Writable != 0});
    }
    return controls;
}

Json controlsJson(const Controls& controls)
{
    Json list = Json::array();
    for (const Control& c : controls.list)
        list.push(Json::object()
                      .set("id", c.type)
                      .set("name", c.name)
                      .set("description", c.description)
                      .set("supported", c.supported)
                      .set("writable", c.writable));
    return list;
}

std::string versionText(int major, int minor, int build)
{
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

std::string Firmware::text() const { return versionText(major, minor, build); }

Firmware readFirmware(int id)
{
    Firmware fw;
    unsigned char major = 0, minor = 0, build = 0;
    fw.code = NKRGetFirmwareVersion(id, &major, &minor, &build);
    fw.major = major;
    fw.minor = minor;
    fw.build = build;
    return fw;
}

Identity readIdentity(int id)
{
    Identity ident;
    _NKR_INFO info{};
    ident.propertyCode = NKRGetProperty(id, &info);
    ident.name = printableText(info.Name, sizeof info.Name);
    ident.stepRange = info.MaxStep;
    // The property name is "NKR(alias)" when the unit has an alias.
    size_t open = ident.name.find('(');
    if (open != std::string::npos && !ident.name.empty() && ident.name.back() == ')')
        ident.alias = ident.name.substr(open + 1, ident.name.size() - open - 2);

    ident.firmware = readFirmware(id);

    _NKR_TYPE type{};
    ident.typeCode = NKRGetType(id, &type);
    ident.type = printableText(type.Type, sizeof type.Type);

    _NKR_SN sn{};
    ident.serialCode = NKRGetSerialNumber(id, &sn);
    char hex[3];
    for (unsigned char byte : sn.SN) {
        std::snprintf(hex, sizeof hex, "%02X", byte);
        ident.serial += hex;
    }
    return ident;
}

Status readStatus(int id)
{
    Status st;
    st.positionCode = NKRGetPosition(id, &st.position);
    st.movingCode = NKRIsMoving(id, &st.moving, &st.handMoving);
    float temp = 0;
    st.temperatureCode = NKRGetTemp(id, &temp);
    st.temperature = std::round(static_cast<double>(temp) * 100.0) / 100.0;
    return st;
}

}  // namespace nkrtool
