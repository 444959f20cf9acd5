// Settings store: the file layout and modes, bounded queries, and damaged or
// hostile files, which fail cleanly and are never made worse by a failed save.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <tinyxml2.h>

#include <cstring>
#include <regex>

#include "store/XmlStore.h"
#include "store_test_support.h"

namespace {
using storetest::configDir;
using storetest::modeOf;
using storetest::readFile;
using storetest::writeFile;

const std::string kValid =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<software date=\"20240501_093005\">\n"
    "    <Key date=\"20240501_093005\">\n        <Good type=\"4\">e8030000</Good>\n"
    "        <NotHex type=\"4\">zz030000</NotHex>\n        <NoType>e8030000</NoType>\n"
    "        <BadType type=\"four\">e8030000</BadType>\n        <Empty type=\"4\"/>\n"
    "        <Short type=\"7\" attr=\"12\">e803</Short>\n        <Long type=\"4\">e8030000DEADBEEF</Long>\n"
    "    </Key>\n</software>\n";

TEST(Store, CreatedFileHasTheDocumentedLayoutAndSharedModes)
{
    xmlHandle h;
    EXPECT_EQ(XMLOpenKey("NKRconfig.xml", "software\\HTX_Drevomat", &h), 0);
    EXPECT_EQ(modeOf(configDir()), 0777u) << "looking made the folder, shared with every user";
    ASSERT_EQ(XMLCreateKey("NKRconfig.xml", "software\\HTX_Drevomat", &h, nullptr), 1);
    EXPECT_FALSE(storetest::exists(configDir() + "NKRconfig.xml")) << "nothing until close";
    for (auto [name, v] : {std::pair{"Position", 1000}, {"Beep", 1}, {"MaxStep", 60000}, {"Beep", 0}})
        XMLSetInt(&h, name, v);  // the second Beep replaces the first
    ASSERT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(XMLCloseKey(&h), 0) << "already closed";
    EXPECT_EQ(modeOf(configDir() + "NKRconfig.xml"), 0666u);
    tinyxml2::XMLDocument doc;
    ASSERT_EQ(doc.Parse(readFile(configDir() + "NKRconfig.xml").c_str()), tinyxml2::XML_SUCCESS);
    EXPECT_STREQ(doc.FirstChild()->ToDeclaration()->Value(), "xml version=\"1.0\" encoding=\"UTF-8\"");
    const tinyxml2::XMLElement* software = doc.FirstChildElement("software");
    const tinyxml2::XMLElement* key = software->FirstChildElement("HTX_Drevomat");
    const std::regex date("\\d{8}_\\d{6}");
    EXPECT_TRUE(std::regex_match(software->Attribute("date"), date) && std::regex_match(key->Attribute("date"), date));
    std::string values;
    for (auto* v = key->FirstChildElement(); v; v = v->NextSiblingElement())
        values += std::string(v->Name()) + ":" + v->Attribute("type") + ":" + v->GetText() + " ";
    EXPECT_EQ(values, "Position:4:e8030000 Beep:4:00000000 MaxStep:4:60ea0000 ");
    // Every save makes the file shared again.
    chmod((configDir() + "NKRconfig.xml").c_str(), 0600);
    ASSERT_EQ(XMLOpenKey("NKRconfig.xml", "software\\HTX_Drevomat", &h), 1);
    EXPECT_EQ(XMLQueryInt(&h, "MaxStep", -1), 60000);
    EXPECT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(modeOf(configDir() + "NKRconfig.xml"), 0666u);
    EXPECT_EQ(XMLCreateKey("NKRconfig.xml", "\\/", &h, nullptr), 0) << "a key path without a name";
}

TEST(Store, DamagedFilesAndValuesFailCleanly)
{
    const std::string path = configDir() + "bad.xml";
    xmlHandle h;
    std::string nested;
    for (int i = 0; i < 300; ++i) nested += "<a>";
    for (const std::string& content : {kValid.substr(0, kValid.size() / 2), std::string("not xml \x01\x02\xff"),
                                       std::string(), nested, std::string(2 << 20, ' ')}) {
        writeFile(path, content);
        EXPECT_EQ(XMLOpenKey("bad.xml", "software\\Key", &h), 0);
        EXPECT_EQ(h.pDoc, nullptr);
    }
    ASSERT_EQ(mkfifo((configDir() + "fifo.xml").c_str(), 0600), 0);
    EXPECT_EQ(XMLOpenKey("fifo.xml", "software", &h), 0) << "a FIFO must not block the host";
    // Damaged values read as missing and leave the output alone; queries
    // report the stored length and never write past the buffer.
    writeFile(path, kValid);
    ASSERT_EQ(XMLOpenKey("bad.xml", "software\\Key", &h), 1);
    EXPECT_EQ(XMLQueryInt(&h, "Good", -1), 1000);
    for (const char* name : {"NotHex", "NoType", "BadType", "Empty"}) EXPECT_EQ(XMLQueryInt(&h, name, 77), 77) << name;
    unsigned char out[6] = {0x55, 0x55, 0x55, 0x55, 0x55, 0x55};
    int type = 0, len = 0, attr = 0;
    ASSERT_EQ(XMLQueryValueEx(&h, "Short", &attr, &type, out, &len, 4), 1);
    EXPECT_EQ(std::vector<int>({len, type, attr, out[0], out[1], out[2]}), std::vector<int>({2, 7, 12, 0xe8, 3, 0x55}));
    ASSERT_EQ(XMLQueryValueEx(&h, "Long", nullptr, &type, out, &len, 4), 1);
    EXPECT_EQ(std::vector<int>({len, out[0], out[3], out[4]}), std::vector<int>({8, 0xe8, 0, 0x55}));
    // Setting a value drops the first element without a type or text.
    const unsigned char one[1] = {1};
    XMLSetValueEx(&h, "Fresh", nullptr, 4, one, 1);
    ASSERT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(readFile(path).find("<NoType>"), std::string::npos);
    EXPECT_NE(readFile(path).find("<Fresh type=\"4\">01</Fresh>"), std::string::npos);
    // Arguments and handles that make no sense.
    xmlHandle closed;
    EXPECT_EQ(XMLQueryValueEx(&closed, "Good", nullptr, nullptr, nullptr, nullptr, 0), 0);
    XMLSetValueEx(nullptr, "Good", nullptr, 4, one, 1);
    EXPECT_EQ(XMLCloseKey(nullptr), 0);
    EXPECT_EQ(XMLOpenKey(nullptr, "software", &h), 0);
    EXPECT_EQ(XMLCreateKey("bad.xml", std::string(300, 'k').c_str(), &h, nullptr), 0);
    EXPECT_EQ(XMLCreateKey("bad.xml", "software\\1digit", &h, nullptr), 0);  // unreadable name
}

TEST(Store, FailedSaveKeepsTheOldFileByteForByte)
{
    const std::string path = configDir() + "keep.xml";
    writeFile(path, kValid);
    xmlHandle h;
    ASSERT_EQ(XMLOpenKey("keep.xml", "software\\Key", &h), 1);
    const unsigned char big[64] = {0};
    XMLSetValueEx(&h, "Big", nullptr, 4, big, sizeof big);
    // A file size limit makes every write of the new file fail part way.
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old {};
    getrlimit(RLIMIT_FSIZE, &old);
    const struct rlimit small = {64, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = XMLCloseKey(&h);
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(readFile(path), kValid);
}

}  // namespace
