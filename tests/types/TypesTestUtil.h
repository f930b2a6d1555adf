#pragma once
#include "bundle/BundleTestUtil.h"
#include "common/TraceCapture.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/TypeRegistry.h"

#include "tamarack/Attribute.h"

// The value of `attribute` as the registry writes it, and the type id and size it reports.
inline QByteArray serialize(const Loomy::TypeRegistry &registry, Tamarack::Attribute *attribute,
                            unsigned *typeId = nullptr, unsigned *size = nullptr)
{
    unsigned id = 0, fixed = 0;
    QByteArray bytes;
    Loomy::BundleWriterCore writer(bytes);
    registry.createSerializer(attribute, id, fixed)(writer); // none throws std::bad_function_call
    if (typeId)
        *typeId = id;
    if (size)
        *size = fixed;
    return bytes;
}

// Runs `deserializer` over `wire`; returns where the cursor ended.
inline unsigned feed(const Loomy::Deserializer &deserializer, const QByteArray &wire)
{
    Loomy::BundleReaderCore reader(wire);
    deserializer(reader);
    return reader.position();
}

inline unsigned deserialize(const Loomy::TypeRegistry &registry, unsigned typeId, Tamarack::Attribute *attribute,
                            const QByteArray &wire)
{
    return feed(registry.createDeserializer(typeId, attribute), wire);
}

// Counts the CHANGE_ROLE emissions of one attribute.
struct ChangeCounter
{
    explicit ChangeCounter(Tamarack::Attribute &attribute) { attribute.addListener([this] { ++count; }, Tamarack::Attribute::CHANGE_ROLE); }
    int count = 0;
};
