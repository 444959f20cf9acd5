// How the driver recognises the unit the user asked for.
#include "unit_identity.h"

#include <gtest/gtest.h>

using namespace nkrindi;

TEST(IndiUnitIdentity, SerialAndAliasTexts)
{
    const unsigned char serial[8] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    EXPECT_EQ(serialText(serial), "123456789ABCDEF0");
    const unsigned char zeros[8] = {};
    EXPECT_EQ(serialText(zeros), "0000000000000000");

    EXPECT_EQ(aliasFromUnitName("NKR"), "");
    EXPECT_EQ(aliasFromUnitName("NKR(scope1)"), "scope1");
    EXPECT_EQ(aliasFromUnitName("NKR(a(b))"), "a(b)");  // an alias may hold parentheses
    EXPECT_EQ(aliasFromUnitName("NKR)("), "");
    EXPECT_EQ(aliasFromUnitName(nullptr), "");
}

TEST(IndiUnitIdentity, UsbSelectorMatchesSerialOrAlias)
{
    const std::string serial = "123456789ABCDEF0";
    EXPECT_TRUE(usbSelectorMatches("123456789abcdef0", serial, ""));
    EXPECT_TRUE(usbSelectorMatches(" 12:34:56:78:9a:bc:de:f0 ", serial, ""));
    EXPECT_TRUE(usbSelectorMatches("12-34-56-78-9A-BC-DE-F0", serial, ""));
    EXPECT_FALSE(usbSelectorMatches("123456789ABCDEF", serial, ""));  // no prefix matches
    EXPECT_TRUE(usbSelectorMatches("Scope1", serial, "scope1"));
    EXPECT_FALSE(usbSelectorMatches("scope", serial, "scope1"));

    // An empty choice, or a unit without serial and alias, never matches.
    EXPECT_FALSE(usbSelectorMatches("", serial, "scope1"));
    EXPECT_FALSE(usbSelectorMatches("   ", serial, "scope1"));
    EXPECT_FALSE(usbSelectorMatches("x", "", ""));
    // The separators a user may type are not part of an alias.
    EXPECT_FALSE(usbSelectorMatches("my scope", "", "myscope"));
}

TEST(IndiUnitIdentity, BleSelectorMatchesNameOrAddress)
{
    EXPECT_TRUE(bleSelectorMatches("NKR Pro_A1B2", "NKR Pro_A1B2", "C0:FF:EE:00:00:02"));
    EXPECT_TRUE(bleSelectorMatches(" NKR Pro_A1B2 ", "NKR Pro_A1B2", "C0:FF:EE:00:00:02"));
    EXPECT_TRUE(bleSelectorMatches("c0:ff:ee:00:00:02", "NKR Pro_A1B2", "C0:FF:EE:00:00:02"));
    EXPECT_FALSE(bleSelectorMatches("NKR Pro", "NKR Pro_A1B2", "C0:FF:EE:00:00:02"));
    EXPECT_FALSE(bleSelectorMatches("", "", ""));
    EXPECT_FALSE(bleSelectorMatches("x", "y", ""));
}

TEST(IndiUnitIdentity, SerialTextsAreRecognisedAndNormalised)
{
    EXPECT_TRUE(isSerialText("123456789abcdef0"));
    EXPECT_TRUE(isSerialText(" 12:34:56:78:9A:BC:DE:F0 "));
    EXPECT_FALSE(isSerialText("123456789ABCDEF"));   // 15 digits
    EXPECT_FALSE(isSerialText("123456789ABCDEFG"));  // not hexadecimal
    EXPECT_FALSE(isSerialText("scope1"));
    EXPECT_EQ(normalizedSerial("12-34-56-78-9a-bc-de-f0"), "123456789ABCDEF0");
}
