#include "loomy/sync/AttributeStorage.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/Trace.h"
#include "tamarack/Attribute.h"

#include <QRegExp>

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <typeinfo>

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

// A record can stand in any subset of the three indexes (see create), and under several read
// symbols: collect first so that each is deleted once.
AttributeStorage::~AttributeStorage()
{
    std::set<LoomySessionAttribute *> records;
    for (const auto &entry : m_byReadSymbol)
        records.insert(entry.second);
    for (const auto &entry : m_byWriteSymbol)
        records.insert(entry.second);
    for (const auto &entry : m_byName)
        records.insert(entry.second);
    for (LoomySessionAttribute *record : records)
        delete record;
}

LoomySessionAttribute *AttributeStorage::create(const QByteArray &name)
{
    Kestrel::WriteLocker locker(&m_lock);
    // Kept if present: its pointer is overwritten below, so an earlier record of the same name is
    // reachable by its symbols only.
    auto named = m_byName.emplace(name, nullptr).first;

    Kestrel::SymbolRegistry &symbols = m_remoteNode.symbols();
    unsigned int symbol;
    {
        Kestrel::ReadLocker symbolLocker(&symbols.lock());
        symbol = symbols.lookupUnlocked(name);
    }
    if (symbol == 0)
        symbol = symbols.lookupOrDefineImpl(name, name);

    auto *record = new LoomySessionAttribute;
    record->writeSymbol = symbol;
    named->second = record;
    m_byWriteSymbol.emplace(symbol, record);
    return record;
}

void AttributeStorage::indexByReadSymbol(unsigned int symbol, LoomySessionAttribute *attribute)
{
    Kestrel::WriteLocker locker(&m_lock);
    auto result = m_byReadSymbol.emplace(symbol, attribute);
    if (!result.second && result.first->second != attribute) {
        locker.unlock();
        Kestrel::Trace::error("AttributeStorage::indexByReadSymbol # Symbol already points to some other session attribute");
    }
}

LoomySessionAttribute *AttributeStorage::findByReadSymbol(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    auto it = m_byReadSymbol.find(symbol);
    return it == m_byReadSymbol.end() ? nullptr : it->second;
}

LoomySessionAttribute *AttributeStorage::findByWriteSymbol(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    auto it = m_byWriteSymbol.find(symbol);
    return it == m_byWriteSymbol.end() ? nullptr : it->second;
}

LoomySessionAttribute *AttributeStorage::findByName(const QByteArray &name) const
{
    Kestrel::ReadLocker locker(&m_lock);
    auto it = m_byName.find(name);
    return it == m_byName.end() ? nullptr : it->second;
}

void AttributeStorage::debugDump() const
{
    const AttributeCache &cache = m_remoteNode.cache();
    for (const auto &entry : m_byName) {
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
        for (const auto &property : m_byName) {
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
