// One rule for naming a unit, whatever program the name is typed into.
#include <gtest/gtest.h>

#include "nkrhost/resolver.h"

using namespace nkrhost;

namespace {

std::vector<SeenUnit> seen()
{
    SeenUnit a{Link::Usb, 0, "123456789ABCDEF0", "Main", "NKR", "", ""};
    SeenUnit b{Link::Usb, 3, "123456789ABCDEF1", "", "NKRN", "", ""};
    SeenUnit c{Link::Ble, -1, "", "", "", "NKR Pro_A1B2", "C0:FF:EE:00:00:02"};
    SeenUnit d{Link::Ble, -1, "", "", "", "NKR Pro_A1B3", "C0:FF:EE:00:00:03"};
    SeenUnit e{Link::Ble, -1, "", "", "", "Guide", "C0:FF:EE:00:00:04"};
    return {a, b, c, d, e};
}

}  // namespace

TEST(Resolver, EveryFormOfANameFindsItsUnit)
{
    const struct {
        const char* name;
        int index;
    } cases[] = {
        {"0", 0},  {"3", 1}, {"123456789abcdef1", 1}, {"12:34:56:78:9A:BC:DE:F0", 0}, {" main ", 0},
        {"NKR Pro_A1B3", 3}, {"c0:ff:ee:00:00:02", 2}, {"Gui", 4},
    };
    for (const auto& c : cases) {
        Resolution r = resolveUnit(c.name, seen());
        EXPECT_TRUE(r.status.ok()) << c.name << ": " << r.status.message;
        EXPECT_EQ(r.index, c.index) << c.name;
    }
}

TEST(Resolver, RefusesToGuessAndSaysWhatItSaw)
{
    Resolution r = resolveUnit("NKR Pro", seen());
    EXPECT_EQ(r.status.code, kUnitAmbiguous);
    EXPECT_NE(r.status.message.find("NKR Pro_A1B2"), std::string::npos);
    EXPECT_NE(r.status.message.find("NKR Pro_A1B3"), std::string::npos);

    for (const char* name : {"7", "Mian", "123456789ABCDEF9", "60"}) {
        r = resolveUnit(name, seen());
        EXPECT_EQ(r.status.code, kUnitNotFound) << name;
        EXPECT_NE(r.status.message.find("USB 0 123456789ABCDEF0 (Main)"), std::string::npos) << r.status.message;
    }
    EXPECT_NE(resolveUnit("60", seen()).status.message.find("slot ids 0 to 49"), std::string::npos);
    EXPECT_EQ(resolveUnit("x", {}).status.message, "no focuser answers to 'x' (seen: none)");
    const std::string longName = resolveUnit(std::string(300, 'z'), {}).status.message;
    EXPECT_NE(longName.find(std::string(40, 'z') + "...'"), std::string::npos) << "the name is cut at 40";

    // A slot id never matches an alias or a name that happens to be digits.
    std::vector<SeenUnit> digits{{Link::Usb, 1, "", "7", "", "", ""}};
    EXPECT_EQ(resolveUnit("7", digits).status.code, kUnitNotFound);
}
