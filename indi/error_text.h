// Short English texts for the SDK's result codes, for the driver's log lines.
#pragma once

namespace nkrindi {

// "unit removed (4)"-style text for an NKR* result; never null.
const char* errorText(int code);

}  // namespace nkrindi
