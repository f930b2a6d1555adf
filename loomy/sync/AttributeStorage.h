#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/SymbolTable.h"

#include <QByteArray>
#include <QReadWriteLock>

#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Loomy {
class BundleReaderCore;
class BundleWriterCore;
class RemoteNode;

// What one session knows about one synchronised path. The write symbol is this side's number
// for the path, the read symbol the peer's. A record is made once per path and session and
// stays until the session ends, also after the attribute is removed, so that the path can come
// back with the same symbols.
//
// Threads: the fields have no lock. They are written on the frame thread (receivers, sending)
// and, for a local removal, on the removing thread under the sender's pending mutex.
struct LOOMY_EXPORT LoomySessionAttribute
{
    LoomySessionAttribute() = default;
    LoomySessionAttribute(const LoomySessionAttribute &) = delete;
    LoomySessionAttribute &operator=(const LoomySessionAttribute &) = delete;

    // Reads the peer's value into the attribute; empty until the first AttributeNew, a dummy
    // when there is nothing to read into. Holds a raw attribute pointer.
    std::function<void(BundleReaderCore &)> deserializer;
    // Writes the local value; empty until the first announcement, emptied on local removal.
    // Holds a raw attribute pointer.
    std::function<void(BundleWriterCore &)> serializer;
    unsigned int readSymbol = 0;     // 0 until the peer announced the path
    unsigned int readType = 0;       // 0 when unknown or removed by the peer
    unsigned int readSize = 0;       // fixed size the peer announced, 0 for dynamic
    unsigned int lastReceivedId = 0; // bundleId a value was last taken or skipped from; 0 for none
    unsigned int writeSymbol = 0;    // set at creation, never changed
    unsigned int writeType = 0;
    unsigned int writeSize = 0;
    unsigned int lastSentId = 0;     // bundleId that last carried the value; 0 after a removal
    bool localOrigin = true;         // exists here on its own account, not made for the peer
    bool removedByPeer = false;
    bool resendValue = false;        // removed locally: the next announcement carries the value

    // Steps over one value without keeping it. size 0 means a dynamic value, which starts with
    // its byte length. Throws std::out_of_range when the value runs past the end.
    static std::function<void(BundleReaderCore &)> createDummyDeserializer(unsigned int size);
};

// The records of one session, by the peer's symbol, by the local symbol and by path. Owns every
// record it ever made; everybody else holds plain pointers, valid as long as the storage.
//
// Threads: the indexes are guarded by one read-write lock, so lookups are safe from any thread.
// Lock order: this storage's lock, then the node's symbol registry lock.
class LOOMY_EXPORT AttributeStorage
{
public:
    // The node must outlive the storage.
    explicit AttributeStorage(RemoteNode &remoteNode);
    ~AttributeStorage();
    AttributeStorage(const AttributeStorage &) = delete;
    AttributeStorage &operator=(const AttributeStorage &) = delete;

    // A new record for the path, its write symbol taken from (or defined in) the node's registry.
    // Never null. Call only after findByName failed: a second record for one name replaces the
    // first in the name index, while the first keeps the symbol index.
    LoomySessionAttribute *create(const QByteArray &name);
    // create() for a path whose symbol in the node's registry the caller already has.
    LoomySessionAttribute *createForSymbol(unsigned int symbol);
    // findByName(), and create() on a miss, with one registry lookup for both.
    LoomySessionAttribute *findOrCreate(const QByteArray &name);
    // A symbol that already points to another record is reported and left as it is. The record
    // must be one of this storage's.
    void indexByReadSymbol(unsigned int symbol, LoomySessionAttribute *attribute);

    // Null on a miss, without a log line.
    LoomySessionAttribute *findByReadSymbol(unsigned int symbol) const;
    LoomySessionAttribute *findByWriteSymbol(unsigned int symbol) const;
    LoomySessionAttribute *findByName(const QByteArray &name) const;

    // Prints every path with its attribute's class and value to standard output. Paths of the
    // form "schema/<path>/<key>" are shown as properties under <path>, not on lines of their own.
    // Takes no lock: for a quiet moment only.
    void debugDump() const;

private:
    LoomySessionAttribute *allocate();
    unsigned int defineName(const QByteArray &name);      // the name's symbol, defined if new
    LoomySessionAttribute *createLocked(unsigned int symbol);

    mutable QReadWriteLock m_lock; // guards the three indexes and the blocks, not the records' fields
    LoomySessionAttribute *byNameLocked(unsigned int symbol) const;

    Kestrel::SymbolTable<LoomySessionAttribute *> m_byReadSymbol;   // null: none
    // The first record of each local symbol. The name index is keyed by the same symbols (the
    // name's in the node's registry, where create() puts every name, and which never forgets
    // one), so it is this table, except where a later record of the name replaced the first.
    Kestrel::SymbolTable<LoomySessionAttribute *> m_byWriteSymbol;  // null: none
    std::unordered_map<unsigned int, LoomySessionAttribute *> m_laterByName;
    // Every record made, in blocks that double in size up to a limit; records never move.
    std::vector<std::unique_ptr<LoomySessionAttribute[]>> m_blocks;
    std::size_t m_lastBlockSize = 0;
    std::size_t m_lastBlockUsed = 0;
    RemoteNode &m_remoteNode;
};

} // namespace Loomy
