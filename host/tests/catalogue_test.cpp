// The error catalogue is the one source of every front-end's texts: it must
// know every code of the public header, under the header's own name.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "NKR_focuser.h"
#include "nkrhost/errors.h"

using namespace nkrhost;

TEST(Catalogue, KnowsEveryCodeOfThePublicHeaderByItsName)
{
    std::ifstream in(NKR_HEADER);
    std::stringstream text;
    text << in.rdbuf();
    const std::string header = text.str();
    std::regex enumerator(R"((NKR_(?:SUCCESS|ERROR_\w+))\s*=\s*(\d+))");
    int found = 0;
    for (std::sregex_iterator it(header.begin(), header.end(), enumerator), end; it != end; ++it) {
        const int code = std::stoi((*it)[2]);
        EXPECT_EQ(describeError(code).name, (*it)[1].str()) << "code " << code << " is missing or misnamed";
        ++found;
    }
    EXPECT_GT(found, 20);

    std::set<int> codes;
    std::set<std::string> names;
    for (const ErrorEntry& e : errorCatalogue()) {
        EXPECT_TRUE(codes.insert(e.code).second) << e.code;
        EXPECT_TRUE(names.insert(e.name).second) << e.name;
        EXPECT_GT(std::string(e.text).size(), 10u) << e.name;
    }
}

TEST(Catalogue, KindsThatFrontEndsMapToTheirConventions)
{
    // Every code's kind, pinned: each front-end turns a kind into its own
    // convention (an exit status, an ASCOM error, an exception class).
    using K = ErrorKind;
    const std::map<int, ErrorKind> expected{
        {NKR_SUCCESS, K::None},
        {NKR_ERROR_INVALID_INDEX, K::BadArgument},
        {NKR_ERROR_INVALID_ID, K::LinkLost},
        {NKR_ERROR_INVALID_VALUE, K::BadArgument},
        {NKR_ERROR_REMOVED, K::LinkLost},
        {NKR_ERROR_MOVING, K::Busy},
        {NKR_ERROR_BAD_STATE, K::Refused},
        {NKR_ERROR_GENERAL, K::Internal},
        {NKR_ERROR_NOT_SUPPORTED, K::NotSupported},
        {NKR_ERROR_CLOSED, K::LinkLost},
        {NKR_ERROR_BATTERY_RANGE, K::Refused},
        {NKR_ERROR_BAD_LENGTH, K::BadArgument},
        {NKR_ERROR_BLE_CHECKSUM, K::Internal},
        {NKR_ERROR_BLE_SEND, K::LinkLost},
        {NKR_ERROR_BLE_CONNECT, K::LinkLost},
        {NKR_ERROR_BLE_NOT_OPEN, K::LinkLost},
        {NKR_ERROR_BLE_PAIR, K::Refused},
        {NKR_ERROR_BLE_PAIR_REFUSED, K::Refused},
        {NKR_ERROR_BLE_NO_ANSWER, K::Internal},
        {NKR_ERROR_BLE_UNSUPPORTED, K::NotSupported},
        {NKR_ERROR_NULL_CALLBACK, K::BadArgument},
        {NKR_ERROR_BLE_NEW_CONNECTION, K::Refused},
        {NKR_ERROR_BLE_LENGTH_MISMATCH, K::Internal},
        {kUnitNotFound, K::BadArgument},
        {kUnitAmbiguous, K::BadArgument},
        {kBeyondLimit, K::BadArgument},
        {kTimedOut, K::Internal},
        {kStalled, K::Internal},
        {kUnitInUse, K::Busy},
        {kBadSetting, K::BadArgument},
        {kSettingsFile, K::Internal},
        {kUpdatePending, K::Refused},
        {kMoveNotArrived, K::Busy},
        {12345, K::Internal},
    };
    EXPECT_EQ(expected.size(), errorCatalogue().size() + 1) << "a code without its kind here";
    for (auto [code, kind] : expected) EXPECT_EQ(describeError(code).kind, kind) << code;
    EXPECT_EQ(formatError(5), "NKR_ERROR_MOVING (5): the motor is moving; stop it or wait until it stands still");
    EXPECT_EQ(Status::fromSdk(NKR_ERROR_MOVING, "starting the move").message,
              "starting the move: " + formatError(NKR_ERROR_MOVING));
    EXPECT_TRUE(Status::fromSdk(NKR_SUCCESS, "x").ok());
}
