#include "unit_info.h"

#include <NKR_focuser.h>

#include <cmath>

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

Reading readStatus(int id)
{
    Reading st;
    st.positionCode = NKRGetPosition(id, &st.position);
    st.movingCode = NKRIsMoving(id, &st.moving, &st.handMoving);
    float temp = 0;
    st.temperatureCode = NKRGetTemp(id, &temp);
    st.temperature = std::round(static_cast<double>(temp) * 100.0) / 100.0;
    return st;
}

}  // namespace nkrtool
