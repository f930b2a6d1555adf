#include "kestrel/DirectoryListing.h"

#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrel {

std::vector<DirectoryEntry> listDirectory(const QString &path)
{
    std::vector<DirectoryEntry> entries;
    DIR *dir = ::opendir(QFile::encodeName(path).constData());
    if (!dir)
        return entries;
    const int fd = ::dirfd(dir);
    while (const dirent *item = ::readdir(dir)) {
        if (item->d_name[0] == '.')
            continue;   // hidden, "." and ".."
        struct stat st;
        if (::fstatat(fd, item->d_name, &st, 0) != 0)
            continue;   // vanished, or a broken link
        const bool isDir = S_ISDIR(st.st_mode);
        if (!isDir && !S_ISREG(st.st_mode))
            continue;
        // Most entries are readable by everyone; only the others cost a second call.
        if (!(st.st_mode & S_IROTH) && ::faccessat(fd, item->d_name, R_OK, AT_EACCESS) != 0)
            continue;
        DirectoryEntry entry;
        entry.name = QFile::decodeName(item->d_name);
        entry.isDir = isDir;
        entry.size = st.st_size;
        entry.modifiedMs = (long long)st.st_mtim.tv_sec * 1000 + st.st_mtim.tv_nsec / 1000000;
        entries.push_back(std::move(entry));
    }
    ::closedir(dir);
    return entries;
}

} // namespace Kestrel
