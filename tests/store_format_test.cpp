// Settings store: the file layout, key paths and value names, queries.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cstring>
#include <regex>
#include <string>

#include "store/XmlStore.h"
#include "store_test_support.h"

namespace {
using storetest::configDir;
using storetest::modeOf;
using storetest::readFile;
using storetest::writeFile;

void setInt(xmlHandle* h, const char* name, int value)
{
    unsigned char bytes[4];
    std::memcpy(bytes, &value, 4);
    XMLSetValueEx(h, name, nullptr, 4, bytes, 4);
}

TEST(Store, MissingFileOpenFailsAndCreateMakesItWithSharedModes)
{
    xmlHandle h;
    EXPECT_EQ(XMLOpenKey("fresh.xml", "software\\A", &h), 0);
    EXPECT_EQ(h.pDoc, nullptr);
    EXPECT_EQ(h.pKey, nullptr);
    // Looking for the file already made the directory, shared with every user.
    EXPECT_EQ(modeOf(configDir()), 0777u);
    EXPECT_FALSE(storetest::exists(configDir() + "fresh.xml"));

    ASSERT_EQ(XMLCreateKey("fresh.xml", "software\\A", &h, nullptr), 1);
    EXPECT_FALSE(storetest::exists(configDir() + "fresh.xml"));  // nothing until close
    EXPECT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(h.pDoc, nullptr);
    EXPECT_EQ(modeOf(configDir() + "fresh.xml"), 0666u);

    // Every save makes the file shared again.
    chmod((configDir() + "fresh.xml").c_str(), 0600);
    ASSERT_EQ(XMLOpenKey("fresh.xml", "software\\A", &h), 1);
    EXPECT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(modeOf(configDir() + "fresh.xml"), 0666u);
    EXPECT_EQ(XMLCloseKey(&h), 0);  // already closed
}

TEST(Store, WritesTheDocumentedLayoutAndReadsItBack)
{
    xmlHandle h;
    ASSERT_EQ(XMLCreateKey("NKRconfig.xml", "software\\HTX_Drevomat", &h, nullptr), 1);
    setInt(&h, "Position", 1000);
    setInt(&h, "Backlash", 20);
    setInt(&h, "Beep", 1);
    setInt(&h, "MaxStep", 60000);
    setInt(&h, "Reverse", 0);
    ASSERT_EQ(XMLCloseKey(&h), 1);

    const std::string text = readFile(configDir() + "NKRconfig.xml");
    tinyxml2::XMLDocument doc;
    ASSERT_EQ(doc.Parse(text.c_str()), tinyxml2::XML_SUCCESS);
    const tinyxml2::XMLDeclaration* decl = doc.FirstChild()->ToDeclaration();
    ASSERT_NE(decl, nullptr);
    EXPECT_STREQ(decl->Value(), "xml version=\"1.0\" encoding=\"UTF-8\"");
    const tinyxml2::XMLElement* software = doc.FirstChildElement("software");
    ASSERT_NE(software, nullptr);
    const std::regex date("\\d{8}_\\d{6}");
    EXPECT_TRUE(std::regex_match(software->Attribute("date"), date));
    const tinyxml2::XMLElement* key = software->FirstChildElement("HTX_Drevomat");
    ASSERT_NE(key, nullptr);
    EXPECT_TRUE(std::regex_match(key->Attribute("date"), date));
    EXPECT_EQ(key->Attribute("attr"), nullptr);

    const char* names[] = {"Position", "Backlash", "Beep", "MaxStep", "Reverse"};
    const char* hex[] = {"e8030000", "14000000", "01000000", "60ea0000", "00000000"};
    const tinyxml2::XMLElement* value = key->FirstChildElement();
    for (int i = 0; i < 5; ++i, value = value->NextSiblingElement()) {
        ASSERT_NE(value, nullptr);
        EXPECT_STREQ(value->Name(), names[i]);
        EXPECT_STREQ(value->Attribute("type"), "4");
        EXPECT_EQ(value->Attribute("attr"), nullptr);
        EXPECT_STREQ(value->GetText(), hex[i]);
    }
    EXPECT_EQ(value, nullptr);

    // A fresh open reads the same values back.
    ASSERT_EQ(XMLOpenKey("NKRconfig.xml", "software\\HTX_Drevomat", &h), 1);
    int type = 0, len = 0, out = 0;
    ASSERT_EQ(XMLQueryValueEx(&h, "MaxStep", nullptr, &type, reinterpret_cast<unsigned char*>(&out),
                              &len, sizeof out),
              1);
    EXPECT_EQ(type, 4);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(out, 60000);
    EXPECT_EQ(XMLQueryValueEx(&h, "Missing", nullptr, &type, nullptr, &len, 0), 0);
    XMLCloseKey(&h);
}

TEST(Store, SeparatorsAndNameCleaningNameTheSameElements)
{
    xmlHandle h;
    ASSERT_EQ(XMLCreateKey("names.xml", "software/Vendor", &h, "7"), 1);
    int attr = 3;
    const unsigned char first[2] = {1, 2}, second[2] = {0xab, 0xcd};
    XMLSetValueEx(&h, "Max Step?", &attr, 5, first, 2);
    XMLSetValueEx(&h, "Max Step?", &attr, 5, second, 2);  // replaces, no second element
    ASSERT_EQ(XMLCloseKey(&h), 1);
    const std::string text = readFile(configDir() + "names.xml");
    EXPECT_NE(text.find("<Vendor date=\""), std::string::npos);
    EXPECT_NE(text.find("attr=\"7\""), std::string::npos);
    EXPECT_NE(text.find("<Max_Step_ type=\"5\" attr=\"3\">abcd</Max_Step_>"), std::string::npos)
        << text;
    EXPECT_EQ(text.find("Max_Step_", text.find("</Max_Step_>") + 12), std::string::npos);

    for (const char* path : {"software\\Vendor", "\\\\software\\\\Vendor\\", "//software/\\Vendor"}) {
        ASSERT_EQ(XMLOpenKey("names.xml", path, &h), 1) << path;
        int type = 0, len = 0, gotAttr = 0;
        unsigned char out[2] = {0, 0};
        EXPECT_EQ(XMLQueryValueEx(&h, "Max_Step_", &gotAttr, &type, out, &len, sizeof out), 1);
        EXPECT_EQ(gotAttr, 3);
        EXPECT_EQ(out[0], 0xab);
        EXPECT_EQ(out[1], 0xcd);
        XMLCloseKey(&h);
    }
    // A key that is not there, one level too deep.
    EXPECT_EQ(XMLOpenKey("names.xml", "software\\Vendor\\Deeper", &h), 0);
    // The empty path is the document itself.
    ASSERT_EQ(XMLOpenKey("names.xml", "", &h), 1);
    EXPECT_EQ(static_cast<void*>(h.pKey), static_cast<void*>(h.pDoc));
    XMLCloseKey(&h);
    EXPECT_EQ(XMLCreateKey("names.xml", "\\/", &h, nullptr), 0);  // no component
}

TEST(Store, QueriesReportTheStoredLengthAndNeverWritePastTheBuffer)
{
    writeFile(configDir() + "q.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<k>\n"
              "    <Short type=\"7\" attr=\"12\">e803</Short>\n"
              "    <Long type=\"4\">e8030000DEADBEEF</Long>\n"
              "    <Odd type=\"4\">a</Odd>\n</k>\n");
    xmlHandle h;
    ASSERT_EQ(XMLOpenKey("q.xml", "k", &h), 1);

    unsigned char out[6] = {0x55, 0x55, 0x55, 0x55, 0x55, 0x55};
    int type = 0, len = 0, attr = 0;
    ASSERT_EQ(XMLQueryValueEx(&h, "Short", &attr, &type, out, &len, 4), 1);
    EXPECT_EQ(len, 2);
    EXPECT_EQ(type, 7);
    EXPECT_EQ(attr, 12);
    EXPECT_EQ(out[0], 0xe8);
    EXPECT_EQ(out[1], 0x03);
    EXPECT_EQ(out[2], 0x55);

    ASSERT_EQ(XMLQueryValueEx(&h, "Long", nullptr, &type, out, &len, 4), 1);
    EXPECT_EQ(len, 8);
    EXPECT_EQ(out[0], 0xe8);
    EXPECT_EQ(out[3], 0x00);
    EXPECT_EQ(out[4], 0x55);  // capacity respected

    out[0] = 0x55;
    ASSERT_EQ(XMLQueryValueEx(&h, "Odd", nullptr, &type, out, &len, 4), 1);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(out[0], 0x55);
    XMLCloseKey(&h);
}

}  // namespace
