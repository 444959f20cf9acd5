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
    const std::map<int, ErrorKind> expected{
        {NKR_SUCCESS, ErrorKind::None},
        {NKR_ERROR_INVALID_VALUE, ErrorKind::BadArgument},
        {NKR_ERROR_NOT_SUPPORTED, ErrorKind::NotSupported},
        {NKR_ERROR_BLE_UNSUPPORTED, ErrorKind::NotSupported},
        {NKR_ERROR_MOVING, ErrorKind::Busy},
        {NKR_ERROR_REMOVED, ErrorKind::LinkLost},
        {NKR_ERROR_BLE_SEND, ErrorKind::LinkLost},
        {NKR_ERROR_BAD_STATE, ErrorKind::Refused},
        {NKR_ERROR_GENERAL, ErrorKind::Internal},
        {kBeyondLimit, ErrorKind::BadArgument},
        {kUnitInUse, ErrorKind::Busy},
        {12345, ErrorKind::Internal},
    };
    for (auto [code, kind] : expected) EXPECT_EQ(describeError(code).kind, kind) << code;
    EXPECT_EQ(formatError(5), "NKR_ERROR_MOVING (5): the motor is moving; stop it or wait until it stands still");
    EXPECT_EQ(Status::fromSdk(NKR_ERROR_MOVING, "starting the move").message,
              "starting the move: " + formatError(NKR_ERROR_MOVING));
    EXPECT_TRUE(Status::fromSdk(NKR_SUCCESS, "x").ok());
}
