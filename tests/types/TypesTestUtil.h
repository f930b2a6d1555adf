#pragma once
#include "bundle/BundleTestUtil.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/TypeRegistry.h"

#include "tamarack/Attribute.h"

#include <QByteArray>
#include <QString>

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>

// The value of `attribute` as the registry writes it, and the type id and size it reports.
inline QByteArray serialize(const Loomy::TypeRegistry &registry, Tamarack::Attribute *attribute,
                            unsigned *typeId = nullptr, unsigned *size = nullptr)
{
    unsigned id = 0, fixed = 0;
    const Loomy::Serializer serializer = registry.createSerializer(attribute, id, fixed);
    EXPECT_TRUE(bool(serializer));
    QByteArray bytes;
    if (serializer) {
        Loomy::BundleWriterCore writer(bytes);
        serializer(writer);
    }
    if (typeId)
        *typeId = id;
    if (size)
        *size = fixed;
    return bytes;
}

// Reads `bytes` into `attribute` as type `typeId`; returns where the cursor ended.
inline unsigned deserialize(const Loomy::TypeRegistry &registry, unsigned typeId, Tamarack::Attribute *attribute,
                            const QByteArray &bytes)
{
    const Loomy::Deserializer deserializer = registry.createDeserializer(typeId, attribute);
    if (!deserializer)
        throw std::logic_error("no deserializer");
    Loomy::BundleReaderCore reader(bytes);
    deserializer(reader);
    return reader.position();
}

// Counts the CHANGE_ROLE emissions of one attribute.
struct ChangeCounter
{
    explicit ChangeCounter(Tamarack::Attribute &attribute)
    {
        attribute.addListener([this] { ++count; }, Tamarack::Attribute::CHANGE_ROLE);
    }
    int count = 0;
};

namespace {
// Table rows print as their name. In the unnamed namespace, where the test files keep their
// tables, so that gtest's printer finds it by argument-dependent lookup.
template <typename Case>
auto operator<<(std::ostream &os, const Case &row) -> decltype(std::string(row.name), os)
{
    return os << row.name;
}
} // namespace
