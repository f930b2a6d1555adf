#pragma once
#include "kestrel/kestrel_export.h"

#include <QString>

#include <memory>
#include <vector>

namespace Kestrel {

// What tells two directories apart whatever the names that lead to them (links followed).
struct DirectoryId
{
    unsigned long long device = 0;
    unsigned long long inode = 0;
    bool operator==(const DirectoryId &other) const { return device == other.device && inode == other.inode; }
};

// One entry of a directory, with what a stat() of it gives (links followed).
struct DirectoryEntry
{
    QString name;                 // the file name alone, decoded as QFile::decodeName does
    bool isDir = false;           // otherwise a regular file
    long long size = 0;
    long long modifiedMs = 0;     // modification time, milliseconds since the Unix epoch (UTC)
    DirectoryId id;               // of what the entry leads to; meaningful for directories
};

// The entries of a folder that QDir::entryInfoList lists with the filters QDir::Files |
// QDir::AllDirs | QDir::Readable | QDir::NoDot | QDir::NoDotDot: regular files and directories,
// symbolic links followed (broken ones left out), hidden (dot) names and unreadable entries left
// out, in the directory's own order. One stat per entry and no time-zone conversion, which is
// what makes it much cheaper than QFileInfo for large trees. Empty if the folder can't be read.
// `self`, if given, receives the folder's own id (left alone if the folder can't be read).
KESTREL_EXPORT std::vector<DirectoryEntry> listDirectory(const QString &path, DirectoryId *self = nullptr);

// The listing of one folder as listDirectory makes it, with each name as the file system's bytes
// (zero-terminated, in `names`) rather than a QString: a walk over a large tree then allocates
// nothing per file. Kept by the caller from one listing to the next, so the buffers are reused.
struct RawDirectory
{
    struct Entry
    {
        int name = 0;             // offset of the name in `names`
        int nameLength = 0;
        bool isDir = false;       // otherwise a regular file
        long long size = 0;
        long long modifiedMs = 0; // as DirectoryEntry::modifiedMs
        DirectoryId id;           // as DirectoryEntry::id
    };
    std::vector<char> names;
    std::vector<Entry> entries;   // listed entries only, in the directory's own order

    const char *name(const Entry &entry) const { return names.data() + entry.name; }
};

// A file name as the file system gives it, decoded as QFile::decodeName does; ASCII names, which
// every locale decodes alike, without the codec.
KESTREL_EXPORT QString decodeFileName(const char *name, int length);

// listDirectory with helper threads, for the walk of a large tree: the stat calls, which are most
// of the cost of a large folder, are shared between the caller and the helpers. Same entries in
// the same order. One thread at a time calls list(); the helpers live as long as the object.
class KESTREL_EXPORT DirectoryLister
{
public:
    DirectoryLister();                     // one helper per further core, at most three
    explicit DirectoryLister(int helpers);
    ~DirectoryLister();
    DirectoryLister(const DirectoryLister &) = delete;
    DirectoryLister &operator=(const DirectoryLister &) = delete;

    // `path` is the folder's path as bytes (QFile::encodeName). `out` is replaced, and left empty
    // if the folder can't be read.
    void list(const char *path, RawDirectory &out, DirectoryId *self = nullptr);

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Kestrel
