// The SDK saves one position record per account: whichever unit closed last
// wins, and at open a freshly powered unit gets that position. With several
// units the driver keeps each unit's own position in its configuration, and
// notes here which unit closed last, so that at connect it can tell the
// SDK's restore of another unit's position from a real one.
#pragma once

#include <optional>
#include <string>

namespace nkrindi {

struct CloseNote {
    std::string serial;
    int position = 0;
};

// Records a USB unit this driver closed (the SDK wrote its position then).
// Units without a serial number leave no note.
void noteClose(const std::string& serial, int position);
std::optional<CloseNote> lastClose();

// The position to set at connect, if any: the unit reports `reported`, this
// instance saved `saved` for it at its last disconnect. Only when the report
// is the SDK's restore of another unit's record is the saved one right.
std::optional<int> positionToRestore(const std::string& serial, int reported,
                                     const std::optional<CloseNote>& saved,
                                     const std::optional<CloseNote>& last);

}  // namespace nkrindi
