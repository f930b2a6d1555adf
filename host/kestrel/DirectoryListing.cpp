#include "kestrel/DirectoryListing.h"

#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrel {

namespace {

DirectoryId idOf(const struct stat &st)
{
    return {(unsigned long long)st.st_dev, (unsigned long long)st.st_ino};
}

// Most names are ASCII, which every locale codec decodes alike; only the others pay for the codec.
QString decodeName(const char *name)
{
    const char *end = name;
    bool ascii = true;
    for (; *end; ++end)
        ascii = ascii && (unsigned char)*end < 0x80;
    return ascii ? QString::fromLatin1(name, int(end - name)) : QFile::decodeName(name);
}

} // namespace

std::vector<DirectoryEntry> listDirectory(const QString &path, DirectoryId *self)
{
    std::vector<DirectoryEntry> entries;
    DIR *dir = ::opendir(QFile::encodeName(path).constData());
    if (!dir)
        return entries;
    const int fd = ::dirfd(dir);
    struct stat st;
    if (self && ::fstat(fd, &st) == 0)
        *self = idOf(st);
    while (const dirent *item = ::readdir(dir)) {
        if (item->d_name[0] == '.')
            continue;   // hidden, "." and ".."
        if (::fstatat(fd, item->d_name, &st, 0) != 0)
            continue;   // vanished, or a broken link
        const bool isDir = S_ISDIR(st.st_mode);
        if (!isDir && !S_ISREG(st.st_mode))
            continue;
        // Most entries are readable by everyone; only the others cost a second call.
        if (!(st.st_mode & S_IROTH) && ::faccessat(fd, item->d_name, R_OK, AT_EACCESS) != 0)
            continue;
        DirectoryEntry entry;
        entry.name = decodeName(item->d_name);
        entry.isDir = isDir;
        entry.size = st.st_size;
        entry.modifiedMs = (long long)st.st_mtim.tv_sec * 1000 + st.st_mtim.tv_nsec / 1000000;
        entry.id = idOf(st);
        entries.push_back(std::move(entry));
    }
    ::closedir(dir);
    return entries;
}

} // namespace Kestrel
