#include "ElfCheck.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace nkrble {
namespace {

bool readAt(int fd, off_t offset, void* buf, size_t len)
{
    return pread(fd, buf, len, offset) == static_cast<ssize_t>(len);
}

template <typename Ehdr, typename Phdr>
bool segmentsInside(int fd, uint64_t fileSize, std::string& why)
{
    Ehdr eh;
    if (!readAt(fd, 0, &eh, sizeof eh)) {
        why = "short ELF header";
        return false;
    }
    if (eh.e_phentsize != sizeof(Phdr) || eh.e_phnum == 0) {
        why = "no program headers";
        return false;
    }
    const uint64_t phEnd = eh.e_phoff + uint64_t(eh.e_phnum) * sizeof(Phdr);
    if (eh.e_phoff > fileSize || phEnd > fileSize) {
        why = "program headers past the end of the file";
        return false;
    }
    std::vector<Phdr> ph(eh.e_phnum);
    if (!readAt(fd, static_cast<off_t>(eh.e_phoff), ph.data(), ph.size() * sizeof(Phdr))) {
        why = "unreadable program headers";
        return false;
    }
    for (const Phdr& p : ph) {
        if (p.p_type != PT_LOAD) continue;
        if (p.p_offset > fileSize || p.p_filesz > fileSize - p.p_offset) {
            why = "a loadable segment runs past the end of the file (truncated?)";
            return false;
        }
    }
    return true;
}

}  // namespace

bool elfFileIsWhole(const char* path, std::string& why)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = std::strerror(errno);
        return false;
    }
    struct stat st {};
    unsigned char ident[EI_NIDENT] = {};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && readAt(fd, 0, ident, sizeof ident) &&
              std::memcmp(ident, ELFMAG, SELFMAG) == 0;
    if (!ok) {
        why = "not an ELF file";
    } else if (ident[EI_CLASS] == ELFCLASS64) {
        ok = segmentsInside<Elf64_Ehdr, Elf64_Phdr>(fd, static_cast<uint64_t>(st.st_size), why);
    } else if (ident[EI_CLASS] == ELFCLASS32) {
        ok = segmentsInside<Elf32_Ehdr, Elf32_Phdr>(fd, static_cast<uint64_t>(st.st_size), why);
    } else {
        why = "unknown ELF class";
        ok = false;
    }
    ::close(fd);
    return ok;
}

}  // namespace nkrble
