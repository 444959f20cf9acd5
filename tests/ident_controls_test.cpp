// Controls list and capability records: which ids each model and firmware
// lists, and the records of indices outside the list.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "device/NKR.h"

namespace {

std::vector<int> listFor(const char* model, int fw)
{
    CNKR dev;
    dev.m_strType = model;
    dev.fwVersion = fw;
    int count = -1;
    EXPECT_EQ(dev.getNumOfControls(&count, false), NKR_SUCCESS);
    std::vector<int> ids;
    for (int i = 0; i < count; ++i) {
        _NKR_CONTROL_CAPS caps;
        EXPECT_EQ(dev.getControlCaps(i, &caps, false), NKR_SUCCESS);
        ids.push_back(caps.ControlType);
    }
    return ids;
}

TEST(Controls, ListDependsOnModelAndFirmware)
{
    using V = std::vector<int>;
    EXPECT_EQ(listFor("NKR Pro", 369), (V{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(listFor("NKR Pro", 370), (V{0, 1, 2, 3, 4, 5, 7}));
    EXPECT_EQ(listFor("NKR Pro", 381), (V{0, 1, 2, 3, 4, 5, 7}));
    EXPECT_EQ(listFor("NKR Pro", 382), (V{0, 1, 2, 3, 4, 5, 7, 6}));
    EXPECT_EQ(listFor("NKRN", 369), (V{1, 2, 3, 5}));
    EXPECT_EQ(listFor("NKRN", 382), (V{1, 2, 3, 5, 7}));
    EXPECT_EQ(listFor("NKR Pro2", 382), (V{2}));  // the model word must match whole
}

TEST(Controls, RecordsFollowFlagsAndIndicesOutsideTheListAreUnknown)
{
    CNKR dev;
    dev.m_strType = "NKRN";
    dev.bSupportType = true;  // id 3 reads this flag (not the battery flag)
    int count = 0;
    ASSERT_EQ(dev.getNumOfControls(&count, false), NKR_SUCCESS);
    ASSERT_EQ(count, 4);

    _NKR_CONTROL_CAPS caps;
    std::memset(&caps, 0xAB, sizeof caps);
    ASSERT_EQ(dev.getControlCaps(2, &caps, false), NKR_SUCCESS);
    EXPECT_STREQ(caps.Name, "NKR Type");
    EXPECT_EQ(caps.Supported, 1);
    EXPECT_EQ(caps.Writable, 0);
    EXPECT_EQ(caps.Reserved1[2], 0);
    EXPECT_EQ(caps.Name[31], '\0');

    EXPECT_EQ(dev.getControlCaps(9, &caps, false), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(dev.getControlCaps(0, nullptr, false), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(dev.getNumOfControls(nullptr, false), NKR_ERROR_INVALID_VALUE);
    for (int index : {-1, -1000, 4, 8}) {
        std::memset(&caps, 0xAB, sizeof caps);
        ASSERT_EQ(dev.getControlCaps(index, &caps, false), NKR_SUCCESS) << index;
        EXPECT_STREQ(caps.Name, "Unknown") << index;
        EXPECT_STREQ(caps.Description, "Unknown feature");
        EXPECT_EQ(caps.Supported, 0);
        EXPECT_EQ(caps.ControlType, 8);
        EXPECT_EQ(caps.Reserved2[31], 0);
    }
}

}  // namespace
