#include "loomy/types/AliasDeserializer.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"

#include "kestrel/Trace.h"
#include "tamarack/AttributeAlias.h"

#include <utility>

namespace Loomy {

Tamarack::Attribute *followAliases(Tamarack::Attribute *attribute)
{
    while (auto *alias = Tamarack::toAlias(attribute))
        attribute = alias->attribute();
    return attribute;
}

AliasDeserializer::AliasDeserializer(DeserializerFactory factory, Tamarack::AttributeAlias &alias, unsigned int size)
    : alias(&alias)
    , factory(std::move(factory))
    , size(size)
{
    listenerId = alias.addListener([this] { aliasChanged(); }, Tamarack::Attribute::CHANGE_ROLE);
}

AliasDeserializer::~AliasDeserializer()
{
    // After the switch the id is no longer registered; the alias ignores unknown ids.
    alias->removeListener(listenerId);
}

// Runs on the thread that changed the alias, with no lock held.
void AliasDeserializer::aliasChanged()
{
    Tamarack::Attribute *target = followAliases(alias);
    if (!target)
        return; // still nothing to write into: keep listening, keep the value
    // A target of a class that doesn't fit gives an empty deserialiser; later values are then
    // only cached, with nobody left to use them.
    deserializer = factory(target);
    alias->removeListener(listenerId);
    Kestrel::Trace::info("AliasDeserializer for '%s' found a target. Switching to normal deserializer. "
                         "Have cached value: %s",
                         alias->name().constData(), cache.isEmpty() ? "no" : "yes");
    if (cache.isEmpty())
        return;
    BundleReaderCore reader(cache, 0);
    deserializer(reader); // std::bad_function_call out of the listener if the class didn't fit
    cache = QByteArray();
}

FunctorWrap::FunctorWrap(std::shared_ptr<AliasDeserializer> functor)
    : m_functor(std::move(functor))
{
}

void FunctorWrap::operator()(BundleReaderCore &reader) const
{
    if (!m_functor) {
        Kestrel::Trace::error("FunctorWrap::operator() # have no functor");
        return;
    }
    AliasDeserializer &d = *m_functor;
    if (d.deserializer) {
        d.deserializer(reader);
        return;
    }
    Kestrel::Trace::info("AliasDeserializer for '%s' called but alias does not have a target. Will cache the value",
                         d.alias->name().constData());
    // Only the latest value counts.
    d.cache = QByteArray();
    BundleWriterCore writer(d.cache);
    if (d.size != 0) {
        writer.writeData(reader.read(d.size), d.size);
        return;
    }
    const quint32 length = reader.read<quint32>();
    const char *bytes = reader.read(length);
    writer.write(length);
    writer.writeData(bytes, length);
}

} // namespace Loomy
