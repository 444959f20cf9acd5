// Settings store against damaged or hostile files and an unusable home:
// every call fails cleanly, nothing crashes or hangs, and a failed save
// leaves the old file as it was.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "store/XmlStore.h"
#include "store_test_support.h"

namespace {
using storetest::configDir;
using storetest::readFile;
using storetest::writeFile;

const std::string kValid =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<software date=\"20240501_093005\">\n"
    "    <Key date=\"20240501_093005\">\n"
    "        <Good type=\"4\">e8030000</Good>\n"
    "        <NotHex type=\"4\">zz030000</NotHex>\n"
    "        <NoType>e8030000</NoType>\n"
    "        <BadType type=\"four\">e8030000</BadType>\n"
    "        <Empty type=\"4\"/>\n"
    "    </Key>\n</software>\n";

int queryInt(xmlHandle* h, const char* name, int* out)
{
    int type = -9, len = -9;
    return XMLQueryValueEx(h, name, nullptr, &type, reinterpret_cast<unsigned char*>(out), &len,
                           sizeof *out);
}

TEST(Store, DamagedFilesFailCleanly)
{
    const std::string path = configDir() + "bad.xml";
    xmlHandle h;
    const std::string truncated = kValid.substr(0, kValid.size() / 2);
    std::string nested;
    for (int i = 0; i < 300; ++i) nested += "<a>";
    for (const std::string& content : {truncated, std::string("not xml \x01\x02\xff"),
                                       std::string(), nested, std::string(2 << 20, ' ')}) {
        writeFile(path, content);
        EXPECT_EQ(XMLOpenKey("bad.xml", "software\\Key", &h), 0);
        EXPECT_EQ(h.pDoc, nullptr);
        EXPECT_EQ(h.pKey, nullptr);
    }
    // A FIFO where the file should be must not block the host.
    ASSERT_EQ(mkfifo((configDir() + "fifo.xml").c_str(), 0600), 0);
    EXPECT_EQ(XMLOpenKey("fifo.xml", "software", &h), 0);

    // Creating over a damaged file starts a new document.
    ASSERT_EQ(XMLCreateKey("bad.xml", "software\\Key", &h, nullptr), 1);
    EXPECT_EQ(XMLCloseKey(&h), 1);
    EXPECT_EQ(XMLOpenKey("bad.xml", "software\\Key", &h), 1);
    XMLCloseKey(&h);

    // Damaged values read as missing and leave the output alone.
    writeFile(path, kValid);
    ASSERT_EQ(XMLOpenKey("bad.xml", "software\\Key", &h), 1);
    int out = 0;
    EXPECT_EQ(queryInt(&h, "Good", &out), 1);
    EXPECT_EQ(out, 1000);
    for (const char* name : {"NotHex", "NoType", "BadType", "Empty"}) {
        out = 77;
        EXPECT_EQ(queryInt(&h, name, &out), 0) << name;
        EXPECT_EQ(out, 77) << name;
    }
    // Setting a value drops the first element without a type or text.
    const unsigned char one[1] = {1};
    XMLSetValueEx(&h, "Fresh", nullptr, 4, one, 1);
    ASSERT_EQ(XMLCloseKey(&h), 1);
    const std::string saved = readFile(path);
    EXPECT_EQ(saved.find("<NoType>"), std::string::npos) << saved;
    EXPECT_NE(saved.find("<Fresh type=\"4\">01</Fresh>"), std::string::npos) << saved;

    // Arguments and handles that make no sense.
    xmlHandle closed;
    EXPECT_EQ(XMLQueryValueEx(&closed, "Good", nullptr, nullptr, nullptr, nullptr, 0), 0);
    XMLSetValueEx(&closed, "Good", nullptr, 4, one, 1);
    XMLSetValueEx(nullptr, "Good", nullptr, 4, one, 1);
    EXPECT_EQ(XMLCloseKey(&closed), 0);
    EXPECT_EQ(XMLCloseKey(nullptr), 0);
    EXPECT_EQ(XMLOpenKey("bad.xml", "software", nullptr), 0);
    EXPECT_EQ(XMLOpenKey(nullptr, "software", &h), 0);
    EXPECT_EQ(XMLCreateKey("bad.xml", std::string(300, 'k').c_str(), &h, nullptr), 0);
    EXPECT_EQ(XMLCreateKey("bad.xml", "software\\1digit", &h, nullptr), 0);  // unreadable name
    EXPECT_EQ(XMLOpenKey(std::string(300, 'f').c_str(), "software", &h), 0);
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
    struct rlimit small = old;
    small.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = XMLCloseKey(&h);
    setrlimit(RLIMIT_FSIZE, &old);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(h.pDoc, nullptr);
    EXPECT_EQ(readFile(path), kValid);
}

TEST(Store, UnusableOrOverlongHomeFailsEveryOpen)
{
    const std::string home = std::getenv("HOME");
    xmlHandle h;
    char dir[XML_PATH_MAX];

    // (A home that is missing or a plain file: FaultHome, through the exports.)
    setenv("HOME", "/nonexistent-nkr-home/deeper", 1);
    EXPECT_EQ(XMLCreateKey("x.xml", "software", &h, nullptr), 0);
    setenv("HOME", std::string(300, 'h').insert(0, "/").c_str(), 1);
    EXPECT_EQ(initConfigSaveDir(dir, sizeof dir), 0);  // does not fit
    setenv("HOME", home.c_str(), 1);
    EXPECT_EQ(initConfigSaveDir(dir, 8), 0);
    ASSERT_EQ(initConfigSaveDir(dir, sizeof dir), 1);
    EXPECT_EQ(std::string(dir), home + "/.HTX/");
}

}  // namespace
