// The real helper frames the units' answers whatever their length byte
// counts and whatever the MTU: one session per convention and MTU.
#include <algorithm>
#include <string>
#include <tuple>

#include "bluez_fixture.h"

namespace bluez {
namespace {

class BlueZFraming : public BlueZTest, public ::testing::WithParamInterface<std::tuple<std::string, int>> {
protected:
    std::vector<std::string> simArgs() const override
    {
        return {"--length-byte", std::get<0>(GetParam()), "--mtu", std::to_string(std::get<1>(GetParam()))};
    }
};

TEST_P(BlueZFraming, ASessionGoesThroughWhateverTheLengthByteCounts)
{
    int id = connectAndPair(kUnitName);
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_SUCCESS);
    EXPECT_EQ(major * 100 + minor * 10 + build, 382);
    ASSERT_EQ(NKRSetBacklash(id, 21), NKR_SUCCESS);
    ASSERT_EQ(NKRMove(id, 30400), NKR_SUCCESS);
    ASSERT_TRUE(waitStopped(id));
    int position = 0;
    ASSERT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, 30400);
    _NKR_ALL_INFO info{};  // the longest answer: several notifications at MTU 23, one at 247
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(info.Backlash, 21);
    EXPECT_EQ(info.Step, 30400);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(LengthByteAndMtu, BlueZFraming,
                         ::testing::Combine(::testing::Values(std::string("header"), std::string("payload"), std::string("fixed:0x37")),
                                            ::testing::Values(23, 247)),
                         [](const auto& info) {
                             std::string name = std::get<0>(info.param) + "_mtu" + std::to_string(std::get<1>(info.param));
                             std::replace_if(name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
                             return name;
                         });

}  // namespace
}  // namespace bluez
