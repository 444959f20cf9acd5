// Settings file I/O. The file may have been damaged or planted by someone
// else, so loading never trusts it (type, size, content), and saving never
// leaves a half-written file in its place.
#include "XmlFile.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../../include/NKR_focuser.h"
#include "XmlStore.h"

namespace {

// A settings file is a few hundred bytes; anything far larger is not ours.
constexpr off_t kMaxFileSize = 1 << 20;

const char* homeDirectory(std::vector<char>& pwBuffer)
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return home;
    struct passwd pw {};
    struct passwd* found = nullptr;
    pwBuffer.resize(16384);
    if (getpwuid_r(getuid(), &pw, pwBuffer.data(), pwBuffer.size(), &found) != 0 || !found)
        return nullptr;
    return found->pw_dir;
}

bool readWholeFile(int fd, size_t size, std::vector<char>& content)
{
    content.resize(size);
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, content.data() + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    content.resize(done);
    return done == size;
}

// Makes the directory entry of a renamed file durable; best effort.
void syncDirectoryOf(const std::string& path)
{
    std::string dir = path.substr(0, path.find_last_of('/') + 1);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)fsync(fd);
    ::close(fd);
}

bool isNameStart(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
}

}  // namespace

int initConfigSaveDir(char* dir, size_t size)
{
    if (dir == nullptr || size == 0) return 0;
    std::vector<char> pwBuffer;
    const char* home = homeDirectory(pwBuffer);
    if (home == nullptr || *home == '\0') {
        NKRDbgPrint(__func__, "get home path err\n");
        return 0;
    }
    int n = std::snprintf(dir, size, "%s/.HTX/", home);
    if (n < 0 || static_cast<size_t>(n) >= size) return 0;

    struct stat st {};
    if (stat(dir, &st) == 0) return 1;
    if (mkdir(dir, 0700) != 0) {
        NKRDbgPrint(__func__, "mkdir err\n");
        return 0;
    }
    // Shared by every local user of the focuser.
    if (chmod(dir, static_cast<mode_t>(std::strtol("0777", nullptr, 8))) != 0)
        NKRDbgPrint(__func__, "chmod error: %s\n", std::strerror(errno));
    return 1;
}

namespace xmlstore {

bool configFilePath(const char* fileName, std::string& path)
{
    if (fileName == nullptr) return false;
    char dir[XML_PATH_MAX];
    if (!initConfigSaveDir(dir, sizeof dir)) return false;
    char full[XML_PATH_MAX];
    int n = std::snprintf(full, sizeof full, "%s%s", dir, fileName);
    if (n < 0 || static_cast<size_t>(n) >= sizeof full) return false;
    path = full;
    return true;
}

bool loadDocument(StoreDocument& doc, std::string& error)
{
    using tinyxml2::XMLDocument;
    // Non-blocking so that a FIFO planted as the file cannot hang the host.
    int fd = open(doc.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = XMLDocument::ErrorIDToName(errno == ENOENT ? tinyxml2::XML_ERROR_FILE_NOT_FOUND
                                           : tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED);
        return false;
    }
    struct stat st {};
    std::vector<char> content;
    bool readable = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxFileSize &&
                    readWholeFile(fd, static_cast<size_t>(st.st_size), content);
    ::close(fd);
    if (!readable) {
        error = XMLDocument::ErrorIDToName(tinyxml2::XML_ERROR_FILE_READ_ERROR);
        return false;
    }
    if (doc.Parse(content.data(), content.size()) != tinyxml2::XML_SUCCESS) {
        error = doc.ErrorStr();
        return false;
    }
    return true;
}

bool saveDocument(StoreDocument& doc)
{
    std::string temp = doc.path() + ".XXXXXX";
    int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return false;
    FILE* fp = fdopen(fd, "w");
    if (fp == nullptr) {
        ::close(fd);
        unlink(temp.c_str());
        return false;
    }
    bool ok = doc.SaveFile(fp, false) == tinyxml2::XML_SUCCESS;
    ok = ok && std::fflush(fp) == 0 && std::ferror(fp) == 0 && fsync(fd) == 0;
    struct stat st {};
    if (ok && fstat(fd, &st) == 0) NKRDbgPrint(__func__, "file mode: %o\n", st.st_mode);
    // Every local user may read and write the settings.
    ok = ok && fchmod(fd, static_cast<mode_t>(std::strtol("0666", nullptr, 8))) == 0;
    ok = (std::fclose(fp) == 0) && ok;
    ok = ok && rename(temp.c_str(), doc.path().c_str()) == 0;
    if (!ok) {
        unlink(temp.c_str());
        return false;
    }
    syncDirectoryOf(doc.path());
    return true;
}

bool isXmlName(const char* name)
{
    if (name == nullptr || !isNameStart(static_cast<unsigned char>(*name))) return false;
    for (const char* p = name + 1; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (!isNameStart(c) && !(c >= '0' && c <= '9') && c != '.' && c != '-') return false;
    }
    return true;
}

}  // namespace xmlstore
