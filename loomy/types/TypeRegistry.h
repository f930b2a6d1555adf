#pragma once
#include "loomy/loomy_export.h"

#include <QVariant>

#include <functional>
#include <map>
#include <typeindex>
#include <unordered_map>

// Type ids and value encodings of attributes. Every value is written through
// BundleWriterCore::writeData and so starts and ends on a multiple of 4; all words little-endian.
//
//   fixed size F   the value's memory, F bytes, zero padding to 4 (a bool is one byte 0 or 1)
//   string         u32 L, L bytes of UTF-8, padding                            ids 35, 51
//   string list    u32 L = bytes that follow, then one string per element      ids 36, 44
//   vector         u32 L = byte size of the elements, then the elements        ids 40 to 43, 46
//   grid           u32 L = width * height + 4, u32 width, the cells, padding   id 45
//
// Height is not sent: it is (L - 4) / width. A dynamic value (size 0) always starts with L, so a
// reader that doesn't know the type can skip it. Values are written from LAYER_CURRENT_VALUE and
// read onto LAYER_USER; containers, grids and splines, which have no layers, are replaced whole
// and emit one change. A tuple (ids 49, 50, 52) takes both components in one assignment, so a
// remote value reaches its listeners as one change.
//
// Ids 9 and 47 share their bytes (an int) and their deserialiser, which takes any attribute
// that accepts an int. Unassigned: 0, 5 to 8, 18, 21, 24, 25, 27, 28, 30, 31, 33, 37 to 39 and
// everything above 52.
namespace Tamarack { class Attribute; }

namespace Loomy {
class BundleReaderCore;
class BundleWriterCore;

/// An empty function stands for "can't be done" throughout.
using Serializer = std::function<void(BundleWriterCore &)>;
using Deserializer = std::function<void(BundleReaderCore &)>;
using DeserializerFactory = std::function<Deserializer(Tamarack::Attribute *)>;
using VariantSerializer = std::function<void(BundleWriterCore &, const QVariant &)>;
using VariantDeserializer = std::function<QVariant(BundleReaderCore &)>;

/// Which attribute class has which type id, and how its values become bytes and back. One
/// instance per session.
///
/// Lifetimes: the registry owns its tables only. A serialiser or deserialiser holds a raw pointer
/// to its attribute and must not be called after the attribute is gone. createAttribute's result
/// belongs to the caller.
/// Threads: lookups are const and need no lock. The two setters are for start-up only: they are
/// not guarded against concurrent lookups.
class LOOMY_EXPORT TypeRegistry
{
public:
    TypeRegistry();
    ~TypeRegistry();
    TypeRegistry(const TypeRegistry &) = delete;
    TypeRegistry &operator=(const TypeRegistry &) = delete;

    /// A new attribute with no host and no name; null for an unassigned id.
    Tamarack::Attribute *createAttribute(unsigned int typeId) const;
    /// Follows aliases to their target. typeId and size are written only when a serialiser is
    /// found; size is 0 for a value of dynamic size.
    Serializer createSerializer(Tamarack::Attribute *attribute, unsigned int &typeId, unsigned int &size) const;
    /// The peer's type id decides: a local attribute of a class that doesn't fit it gives an empty
    /// function. An alias without a target gives a deserialiser that keeps the latest value until
    /// the alias gets one.
    Deserializer createDeserializer(unsigned int typeId, Tamarack::Attribute *attribute) const;

    /// The variant serialisers throw std::invalid_argument for a QVariant that can't be converted
    /// to the id's value type.
    VariantSerializer createVariantSerializer(unsigned int typeId) const;
    /// A fresh deserializer for the type id, or null if none is registered; any thread.
    VariantDeserializer createVariantDeserializer(unsigned int typeId) const;
    /// Insert or replace; for a user's own QVariant types.
    void setVariantSerializer(unsigned int typeId, VariantSerializer serializer);
    /// Registers how values of the type id are read; any thread, usually at start-up.
    void setVariantDeserializer(unsigned int typeId, VariantDeserializer deserializer);

private:
    using AttributeFactory = std::function<Tamarack::Attribute *()>;
    using TypeTest = std::function<bool(Tamarack::Attribute *)>;
    using SerializerFactory = std::function<Serializer(Tamarack::Attribute *, unsigned int &, unsigned int &)>;

    void initDefaultTypes();
    void initEnumAndIntTypes();
    void initStringTypes();
    void initStringList();
    void initMemGrids();
    void initSpline();

    /// A, an attribute class with a value of fixed size.
    template <typename A>
    void registerSimpleType(unsigned int id);
    /// C, a std::vector of fixed-size elements, held by Tamarack::AttributeContainer<C>.
    template <typename C>
    void registerSimpleAttributeContainer(unsigned int id);
    /// No variant entries: the caller adds them.
    template <typename A>
    void registerDynamicSizeType(unsigned int id, std::function<Serializer(A *)> serializerFactory,
                                 std::function<Deserializer(A *)> deserializerFactory);
    /// C, a std::vector of E, written as a string list: a length word, then the elements.
    template <typename C, typename E>
    void registerDynamicSizeAttributeContainer(unsigned int id, std::function<void(const E &, BundleWriterCore &)> elementWriter,
                                               std::function<E(BundleReaderCore &)> elementReader);

    /// Every id of m_attributeFactories is also in m_deserializerFactories and m_typeSizes.
    std::map<unsigned int, AttributeFactory> m_attributeFactories;
    std::map<unsigned int, DeserializerFactory> m_deserializerFactories;
    std::unordered_map<std::type_index, TypeTest> m_typeTests;
    std::unordered_map<std::type_index, SerializerFactory> m_serializerFactories;
    std::unordered_map<unsigned int, unsigned int> m_typeSizes; ///< 0: dynamic size
    std::map<unsigned int, VariantSerializer> m_variantSerializers;
    std::map<unsigned int, VariantDeserializer> m_variantDeserializers;
};

} // namespace Loomy
