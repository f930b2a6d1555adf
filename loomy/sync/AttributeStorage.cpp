#include "loomy/sync/AttributeStorage.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/Trace.h"
#include "tamarack/Attribute.h"

#include <QRegExp>

#include <cxxabi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Loomy {

namespace {

const char s_schemaPrefix[] = "schema/";

// The run-time class name as written in the source, e.g. "Tamarack::AttributeT<float>".
QByteArray className(const Tamarack::Attribute &attribute)
{
    const char *mangled = typeid(attribute).name();
    int status = 0;
    char *demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    QByteArray result(status == 0 && demangled ? demangled : mangled);
    std::free(demangled);
    return result;
}

} // namespace

std::function<void(BundleReaderCore &)> LoomySessionAttribute::createDummyDeserializer(unsigned int size)
{
    return [size](BundleReaderCore &reader) {
        // read() checks that the bytes are there before it steps over them, rounded up to 4.
        reader.read(size != 0 ? size : reader.read<quint32>());
    };
}

AttributeStorage::AttributeStorage(RemoteNode &remoteNode)
    : m_remoteNode(remoteNode)
{}

// The records die with their blocks, their two functions with them.
AttributeStorage::~AttributeStorage() = default;

// Under the write lock.
LoomySessionAttribute *AttributeStorage::allocate()
{
    if (m_lastBlockUsed == m_lastBlockSize) {
        m_lastBlockSize = std::min<std::size_t>(std::max<std::size_t>(16, 2 * m_lastBlockSize), 4096);
        m_blocks.emplace_back(new LoomySessionAttribute[m_lastBlockSize]);
        m_lastBlockUsed = 0;
    }
    return &m_blocks.back()[m_lastBlockUsed++];
}

// Under the write lock, which comes before the registry's.
unsigned int AttributeStorage::defineName(const QByteArray &name)
{
    return m_remoteNode.symbols().lookupOrDefine(name);
}

// Under the write lock.
LoomySessionAttribute *AttributeStorage::createLocked(unsigned int symbol)
{
    LoomySessionAttribute *record = allocate();
    record->writeSymbol = symbol;
    // An earlier record of the same name is replaced here, and stays reachable by its symbols.
    LoomySessionAttribute *&bySymbol = m_byWriteSymbol.make(symbol);
    if (!bySymbol)
        bySymbol = record;
    else
        m_laterByName[symbol] = record;
    return record;
}

// Under either lock.
LoomySessionAttribute *AttributeStorage::byNameLocked(unsigned int symbol) const
{
    if (!m_laterByName.empty()) {
        auto it = m_laterByName.find(symbol);
        if (it != m_laterByName.end())
            return it->second;
    }
    LoomySessionAttribute *const *first = m_byWriteSymbol.find(symbol);
    return first ? *first : nullptr;
}

LoomySessionAttribute *AttributeStorage::create(const QByteArray &name)
{
    Kestrel::WriteLocker locker(&m_lock);
    return createLocked(defineName(name));
}

LoomySessionAttribute *AttributeStorage::createForSymbol(unsigned int symbol)
{
    Kestrel::WriteLocker locker(&m_lock);
    return createLocked(symbol);
}

LoomySessionAttribute *AttributeStorage::findOrCreate(const QByteArray &name)
{
    Kestrel::WriteLocker locker(&m_lock);
    const unsigned int symbol = defineName(name);
    LoomySessionAttribute *named = byNameLocked(symbol);
    return named ? named : createLocked(symbol);
}

void AttributeStorage::indexByReadSymbol(unsigned int symbol, LoomySessionAttribute *attribute)
{
    Kestrel::WriteLocker locker(&m_lock);
    LoomySessionAttribute *&indexed = m_byReadSymbol.make(symbol);
    if (indexed && indexed != attribute) {
        locker.unlock();
        Kestrel::Trace::error("AttributeStorage::indexByReadSymbol # Symbol already points to some other session attribute");
        return;
    }
    indexed = attribute;
}

LoomySessionAttribute *AttributeStorage::findByReadSymbol(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    LoomySessionAttribute *const *indexed = m_byReadSymbol.find(symbol);
    return indexed ? *indexed : nullptr;
}

LoomySessionAttribute *AttributeStorage::findByWriteSymbol(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    LoomySessionAttribute *const *indexed = m_byWriteSymbol.find(symbol);
    return indexed ? *indexed : nullptr;
}

LoomySessionAttribute *AttributeStorage::findByName(const QByteArray &name) const
{
    Kestrel::ReadLocker locker(&m_lock);
    Kestrel::SymbolRegistry &symbols = m_remoteNode.symbols();
    unsigned int symbol;
    {
        Kestrel::ReadLocker symbolLocker(&symbols.lock());
        symbol = symbols.lookupUnlocked(name);
    }
    return symbol ? byNameLocked(symbol) : nullptr;
}

void AttributeStorage::debugDump() const
{
    const AttributeCache &cache = m_remoteNode.cache();
    // Path order, by qstrcmp (QByteArray's operator<).
    std::vector<std::pair<QByteArray, LoomySessionAttribute *>> byName;
    const Kestrel::SymbolRegistry &symbols = m_remoteNode.symbols();
    m_byWriteSymbol.forEach([&](unsigned int symbol, LoomySessionAttribute *first) {
        if (first)
            byName.emplace_back(symbols.nameUnlocked(symbol), byNameLocked(symbol));
    });
    std::sort(byName.begin(), byName.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    for (const auto &entry : byName) {
        const QByteArray &name = entry.first;
        if (name.startsWith(s_schemaPrefix))
            continue;
        Tamarack::Attribute *attribute = cache.find(entry.second->writeSymbol);
        QByteArray type("-");
        QByteArray suffix;
        if (attribute) {
            bool ok = false;
            const QString value = attribute->asString(&ok, Tamarack::Attribute::LAYER_CURRENT_VALUE);
            if (ok)
                suffix = " <" + value.toUtf8() + ">";
            type = className(*attribute);
        }
        std::printf("%-70s %s%s\n", name.constData(), type.constData(), suffix.constData());

        const QByteArray prefix = s_schemaPrefix + name + "/";
        QRegExp keyPattern(QRegExp::escape(QString::fromUtf8(prefix)) + "([^/]+)");
        for (const auto &property : byName) {
            if (!keyPattern.exactMatch(QString::fromUtf8(property.first)))
                continue;
            Tamarack::Attribute *propertyAttribute = cache.find(property.second->writeSymbol);
            const QByteArray value = propertyAttribute
                ? propertyAttribute->asString(nullptr, Tamarack::Attribute::LAYER_CURRENT_VALUE).toUtf8()
                : QByteArray("-");
            std::printf("    %-20s: %s\n", keyPattern.cap(1).toUtf8().constData(), value.constData());
        }
    }
}

} // namespace Loomy
