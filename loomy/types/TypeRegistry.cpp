#include "loomy/types/TypeRegistry.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/AliasDeserializer.h"
#include "loomy/types/ValueMetaTypes.h"

#include "kestrel/Trace.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeEnum.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeSpline.h"
#include "tamarack/AttributeT.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace Loomy {
namespace {

using Tamarack::Attribute;

// Remote values land on the user layer; what goes out is the value after all layers.
const Attribute::Layer s_readLayer = Attribute::LAYER_USER;
const Attribute::Layer s_writeLayer = Attribute::LAYER_CURRENT_VALUE;

// ---- the value itself ----

template <typename T>
T currentValue(const Tamarack::AttributeBaseT<T> &attribute)
{
    return attribute.value(s_writeLayer);
}

// A tuple has no value of its own: it is put together from its components' current values.
template <typename T, typename C>
T currentValue(const Tamarack::AttributeTuple<T, C> &attribute)
{
    T value{};
    attribute.setWrapped(value, 0, attribute.component(0));
    attribute.setWrapped(value, 1, attribute.component(1));
    return value;
}

// ---- fixed-size values ----

template <typename V>
V readFixed(BundleReaderCore &reader)
{
    return reader.read<V>();
}

// A peer may send any byte for a bool; copying a byte other than 0 or 1 into a bool is undefined.
template <>
bool readFixed<bool>(BundleReaderCore &reader)
{
    return *reader.read(1) != 0;
}

template <typename V>
void writeFixed(const V &value, BundleWriterCore &writer)
{
    writer.writeData(&value, unsigned(sizeof(V)));
}

// ---- dynamic values: a length word L first ----

// Fails as BundleReaderCore::read does unless `length` bytes are left behind the cursor. For a
// length that is trusted before anything is read with it.
void requireLeft(const BundleReaderCore &reader, unsigned length)
{
    const unsigned size = unsigned(reader.data().size());
    if (reader.position() > size || length > size - reader.position())
        throw std::out_of_range("BundleReader::read # tried to read past the end");
}

// L for a payload of `bytes`. A QByteArray, and so a bundle, holds less than 2^31 bytes.
quint32 lengthWord(std::size_t bytes)
{
    if (bytes > std::size_t(std::numeric_limits<int>::max()))
        throw std::length_error("TypeRegistry # value too large for a bundle");
    return quint32(bytes);
}

void writeUtf8(const QString &text, BundleWriterCore &writer)
{
    const QByteArray bytes = text.toUtf8();
    writer.write(quint32(bytes.size()));
    writer.writeData(bytes.constData(), unsigned(bytes.size()));
}

// Exactly L bytes, zero bytes included.
QString readUtf8(BundleReaderCore &reader)
{
    const quint32 length = reader.read<quint32>();
    const char *bytes = reader.read(length);
    return QString::fromUtf8(bytes, int(length));
}

// L counts the bytes of the elements that follow, padding included; it is patched in last.
template <typename List, typename WriteElement>
void writeList(const List &list, BundleWriterCore &writer, const WriteElement &writeElement)
{
    const unsigned offset = unsigned(writer.data().size());
    writer.write(quint32(0));
    for (const auto &element : list)
        writeElement(element, writer);
    writer.writeDataAt(offset, quint32(unsigned(writer.data().size()) - offset - 4));
}

// The element count is not on the wire: elements are read while the cursor is below the end
// that L gives. Each element reads at least its own length word, so the loop is bounded by L.
template <typename List, typename ReadElement>
List readList(BundleReaderCore &reader, const ReadElement &readElement)
{
    const quint32 length = reader.read<quint32>();
    // Checked first, or a hostile length could wrap `end` below the cursor and pass for an
    // empty list.
    requireLeft(reader, length);
    const unsigned end = reader.position() + length;
    List list;
    while (reader.position() < end)
        list.push_back(readElement(reader));
    return list;
}

void writeStringList(const QStringList &list, BundleWriterCore &writer)
{
    writeList(list, writer, writeUtf8);
}

QStringList readStringList(BundleReaderCore &reader)
{
    return readList<QStringList>(reader, readUtf8);
}

// A std::vector or QVector of plain elements: L is their byte size, then their memory.
template <typename Container>
void writeElements(const Container &elements, BundleWriterCore &writer)
{
    using E = typename Container::value_type;
    const quint32 length = lengthWord(std::size_t(elements.size()) * sizeof(E));
    writer.write(length);
    writer.writeData(elements.data(), length);
}

// The count is L / sizeof(element); a remainder of L is left unread.
template <typename Container>
Container readElements(BundleReaderCore &reader)
{
    using E = typename Container::value_type;
    const quint32 count = reader.read<quint32>() / quint32(sizeof(E));
    // Bound-checked by the read before the container allocates anything.
    const char *bytes = reader.read(count * quint32(sizeof(E)));
    Container elements;
    elements.resize(typename Container::size_type(count));
    if (count)
        std::memcpy(static_cast<void *>(elements.data()), bytes, count * sizeof(E));
    return elements;
}

void writeGrid(const Kestrel::MemGrid8u &grid, BundleWriterCore &writer)
{
    const quint32 length = lengthWord(grid.cellCount() + 4);
    writer.write(length);
    writer.write(quint32(grid.width()));
    writer.writeData(grid.data(), length - 4);
}

// Into `grid`, whose storage is reused when it is large enough. Every check comes before the
// grid is touched, so a hostile length neither allocates nor leaves a half-changed grid.
void readGrid(BundleReaderCore &reader, Kestrel::MemGrid8u &grid)
{
    const quint32 length = reader.read<quint32>();
    if (length < 4)
        throw std::out_of_range("AttributeGrid deserialize # not enough data");
    const quint32 width = reader.read<quint32>();
    const quint32 cellBytes = length - 4;
    // Cells without a width: the height would be a division by zero.
    if (width == 0 && cellBytes != 0)
        throw std::out_of_range("AttributeGrid deserialize # not enough data");
    // All L - 4 bytes are stepped over, so the cursor ends where a reader that only skips the
    // value would leave it, also when L - 4 isn't a multiple of the width.
    const char *cells = reader.read(cellBytes);
    grid.resize(width, width == 0 ? 0 : cellBytes / width);
    if (grid.cellCount())
        std::memcpy(grid.data(), cells, grid.cellCount());
}

// ---- QVariant forms ----

// A meta-type's own name where the type has been given one, otherwise the compiler's name.
template <typename V>
std::string valueTypeName()
{
    const int id = qMetaTypeId<V>();
    if (id >= QMetaType::User)
        return QMetaType::typeName(id);
    const char *name = typeid(V).name();
    return name[0] == '*' ? name + 1 : name;
}

// The variant's value as V; a variant that converts but fails to gives V().
template <typename V>
V variantValue(const QVariant &variant, const char *typeName = nullptr)
{
    const int id = qMetaTypeId<V>();
    if (!variant.canConvert(id))
        throw std::invalid_argument("Given QVariant can't be converted to " +
                                    (typeName ? std::string(typeName) : valueTypeName<V>()));
    if (variant.userType() == id)
        return variant.value<V>();
    QVariant converted(variant);
    if (!converted.convert(id))
        return V();
    return converted.value<V>();
}

// ---- closure factories shared by the registration templates ----

using SerializerFactoryFn = std::function<Serializer(Attribute *, unsigned int &, unsigned int &)>;

template <typename A>
std::function<bool(Attribute *)> typeTest()
{
    return [](Attribute *attribute) { return dynamic_cast<A *>(attribute) != nullptr; };
}

// Empty for a null attribute or one that isn't an A; otherwise make(A*).
template <typename A, typename Make>
DeserializerFactory makeDeserializerFactory(Make make)
{
    return [make](Attribute *attribute) -> Deserializer {
        A *typed = dynamic_cast<A *>(attribute);
        return typed ? Deserializer(make(typed)) : Deserializer();
    };
}

// The attribute is known to be an A: it matched A's class or A's type test.
template <typename A, typename Make>
SerializerFactoryFn makeSerializerFactory(unsigned int id, unsigned int fixedSize, Make make)
{
    return [id, fixedSize, make](Attribute *attribute, unsigned int &typeId, unsigned int &size) -> Serializer {
        typeId = id;
        size = fixedSize;
        return make(static_cast<A *>(attribute));
    };
}

// Factories for an attribute A with a layered value of type V and a dynamic encoding.
template <typename A, typename V>
std::function<Serializer(A *)> layeredWriter(void (*write)(const V &, BundleWriterCore &))
{
    return [write](A *attribute) -> Serializer {
        return [attribute, write](BundleWriterCore &writer) { write(attribute->value(s_writeLayer), writer); };
    };
}

template <typename A, typename V>
std::function<Deserializer(A *)> layeredReader(V (*read)(BundleReaderCore &))
{
    return [read](A *attribute) -> Deserializer {
        return [attribute, read](BundleReaderCore &reader) { attribute->setValue(read(reader), s_readLayer); };
    };
}

} // namespace

TypeRegistry::TypeRegistry()
{
    m_typeTests.max_load_factor(1.0f);
    m_serializerFactories.max_load_factor(1.0f);
    m_typeSizes.max_load_factor(1.0f);
    initDefaultTypes();
}

TypeRegistry::~TypeRegistry() = default;

Tamarack::Attribute *TypeRegistry::createAttribute(unsigned int typeId) const
{
    const auto factory = m_attributeFactories.find(typeId);
    return factory == m_attributeFactories.end() ? nullptr : factory->second();
}

Serializer TypeRegistry::createSerializer(Tamarack::Attribute *attribute, unsigned int &typeId, unsigned int &size) const
{
    Attribute *target = followAliases(attribute);
    if (!target) {
        Kestrel::Trace::warning("Loomy TypeRegistry asked to create serializer for alias attribute '%s' that "
                                "ultimately has a null target. Ignoring.",
                                attribute ? attribute->name().constData() : "");
        return Serializer();
    }
    const auto exact = m_serializerFactories.find(std::type_index(typeid(*target)));
    if (exact != m_serializerFactories.end())
        return exact->second(target, typeId, size);
    // A class derived from a registered one. The first test that says yes decides, in the hash
    // map's order: a class that derives from two registered classes gets either.
    for (const auto &test : m_typeTests) {
        if (!test.second(target))
            continue;
        const auto factory = m_serializerFactories.find(test.first);
        return factory == m_serializerFactories.end() ? Serializer() : factory->second(target, typeId, size);
    }
    return Serializer();
}

Deserializer TypeRegistry::createDeserializer(unsigned int typeId, Tamarack::Attribute *attribute) const
{
    const auto factory = m_deserializerFactories.find(typeId);
    if (factory == m_deserializerFactories.end()) {
        Kestrel::Trace::error("Loomy TypeRegistry - cound not find deserializer factory for type %u", typeId);
        return Deserializer();
    }
    if (!attribute)
        return factory->second(nullptr);
    if (Attribute *target = followAliases(attribute))
        return factory->second(target);
    // Only an alias chain can end in nothing, so `attribute` is an alias.
    Kestrel::Trace::warning("Loomy TypeRegistry asked to create deserializer for alias attribute '%s' that "
                            "ultimately has a null target. Will create a smart deserializer that stores changes "
                            "and applies them when a target is set.",
                            attribute->name().constData());
    const auto size = m_typeSizes.find(typeId);
    return FunctorWrap(std::make_shared<AliasDeserializer>(factory->second,
                                                           *static_cast<Tamarack::AttributeAlias *>(attribute),
                                                           size == m_typeSizes.end() ? 0u : size->second));
}

VariantSerializer TypeRegistry::createVariantSerializer(unsigned int typeId) const
{
    const auto found = m_variantSerializers.find(typeId);
    return found == m_variantSerializers.end() ? VariantSerializer() : found->second;
}

VariantDeserializer TypeRegistry::createVariantDeserializer(unsigned int typeId) const
{
    const auto found = m_variantDeserializers.find(typeId);
    return found == m_variantDeserializers.end() ? VariantDeserializer() : found->second;
}

void TypeRegistry::setVariantSerializer(unsigned int typeId, VariantSerializer serializer)
{
    m_variantSerializers[typeId] = std::move(serializer);
}

void TypeRegistry::setVariantDeserializer(unsigned int typeId, VariantDeserializer deserializer)
{
    m_variantDeserializers[typeId] = std::move(deserializer);
}

// The order fixes nothing on the wire; ids are what the peers agree on.
void TypeRegistry::initDefaultTypes()
{
    using Tamarack::AttributeT;
    registerSimpleType<AttributeT<bool>>(1);
    registerSimpleType<AttributeT<Kestrel::Color>>(2);
    registerSimpleType<AttributeT<Kestrel::ColorPMA>>(48);
    registerSimpleType<AttributeT<float>>(3);
    registerSimpleType<AttributeT<double>>(4);
    registerSimpleType<AttributeT<unsigned int>>(10);
    registerSimpleType<AttributeT<long>>(11);
    registerSimpleType<AttributeT<unsigned long>>(12);
    registerSimpleType<AttributeT<Wisket::Recti>>(13);
    registerSimpleType<AttributeT<Wisket::Rectf>>(14);
    registerSimpleType<AttributeT<Wisket::Rectd>>(15);
    registerSimpleType<AttributeT<Wisket::Vector2i>>(16);
    registerSimpleType<AttributeT<Wisket::Vector2f>>(17);
    registerSimpleType<AttributeT<Wisket::Vector3i>>(19);
    registerSimpleType<AttributeT<Wisket::Vector3f>>(20);
    registerSimpleType<AttributeT<Wisket::Vector4i>>(22);
    registerSimpleType<AttributeT<Wisket::Vector4f>>(23);
    registerSimpleType<AttributeT<Wisket::SizeF>>(50);
    registerSimpleType<AttributeT<Wisket::SizeI>>(52);
    registerSimpleType<Tamarack::AttributeLocation2f>(49);
    registerSimpleType<AttributeT<Wisket::Matrix2f>>(26);
    registerSimpleType<AttributeT<Wisket::Matrix3f>>(29);
    registerSimpleType<AttributeT<Wisket::Matrix4f>>(32);
    registerSimpleType<AttributeT<Kestrel::TimeStamp>>(34);
    registerSimpleAttributeContainer<std::vector<float>>(40);
    registerSimpleAttributeContainer<std::vector<Wisket::Vector2f>>(41);
    registerSimpleAttributeContainer<std::vector<int>>(42);
    registerSimpleAttributeContainer<std::vector<unsigned int>>(43);
    initStringTypes();
    initStringList();
    initMemGrids();
    initSpline();
    initEnumAndIntTypes();
}

// Ids 47 and 9 share all but their number, so they are registered together by hand.
void TypeRegistry::initEnumAndIntTypes()
{
    // An enum arrives as a plain int attribute: its names don't travel.
    const AttributeFactory makeInt = [] { return new Tamarack::AttributeT<int>; };
    // No cast: any attribute that accepts an int accepts these ids.
    const DeserializerFactory readInt = [](Attribute *attribute) -> Deserializer {
        if (!attribute)
            return Deserializer();
        return [attribute](BundleReaderCore &reader) {
            attribute->set(int(reader.read<qint32>()), s_readLayer, Attribute::UNKNOWN_UNIT);
        };
    };
    const auto writeInt = [](Attribute *attribute) -> Serializer {
        return [attribute](BundleWriterCore &writer) { writer.write(qint32(attribute->asInt(nullptr, s_writeLayer))); };
    };
    const VariantDeserializer readVariant = [](BundleReaderCore &reader) { return QVariant(int(reader.read<qint32>())); };
    for (unsigned int id : {47u, 9u}) {
        m_attributeFactories[id] = makeInt;
        m_deserializerFactories[id] = readInt;
        m_typeSizes[id] = 4;
        m_variantDeserializers[id] = readVariant;
    }
    m_typeTests[typeid(Tamarack::AttributeEnum)] = typeTest<Tamarack::AttributeEnum>();
    m_serializerFactories[typeid(Tamarack::AttributeEnum)] = makeSerializerFactory<Attribute>(47, 4, writeInt);
    m_typeTests[typeid(Tamarack::AttributeT<int>)] = typeTest<Tamarack::AttributeT<int>>();
    m_serializerFactories[typeid(Tamarack::AttributeT<int>)] = makeSerializerFactory<Attribute>(9, 4, writeInt);
    m_variantSerializers[47] = [](BundleWriterCore &writer, const QVariant &variant) {
        writer.write(qint32(variantValue<int>(variant, "int32_t")));
    };
    m_variantSerializers[9] = [](BundleWriterCore &writer, const QVariant &variant) {
        writer.write(qint32(variantValue<int>(variant, "int")));
    };
}

void TypeRegistry::initStringTypes()
{
    registerDynamicSizeAttributeContainer<std::vector<QString>, QString>(44, writeUtf8, readUtf8);

    using TextAttribute = Tamarack::AttributeT<QString>;
    registerDynamicSizeType<TextAttribute>(35, layeredWriter<TextAttribute>(writeUtf8),
                                           layeredReader<TextAttribute>(readUtf8));
    // An asset's value is its text: the same bytes as id 35.
    using Asset = Tamarack::AttributeAsset;
    registerDynamicSizeType<Asset>(51, layeredWriter<Asset>(writeUtf8), layeredReader<Asset>(readUtf8));

    const VariantSerializer writeText = [](BundleWriterCore &writer, const QVariant &variant) {
        writeUtf8(variantValue<QString>(variant, "QString"), writer);
    };
    const VariantDeserializer readText = [](BundleReaderCore &reader) { return QVariant(readUtf8(reader)); };
    for (unsigned int id : {35u, 51u}) {
        m_variantSerializers[id] = writeText;
        m_variantDeserializers[id] = readText;
    }
}

void TypeRegistry::initStringList()
{
    using ListAttribute = Tamarack::AttributeT<QStringList>;
    registerDynamicSizeType<ListAttribute>(36, layeredWriter<ListAttribute>(writeStringList),
                                           layeredReader<ListAttribute>(readStringList));
    m_variantSerializers[36] = [](BundleWriterCore &writer, const QVariant &variant) {
        writeStringList(variantValue<QStringList>(variant, "QStringList"), writer);
    };
    m_variantDeserializers[36] = [](BundleReaderCore &reader) { return QVariant(readStringList(reader)); };
}

void TypeRegistry::initMemGrids()
{
    using Grid = Tamarack::AttributeGrid<unsigned char>;
    registerDynamicSizeType<Grid>(
        45,
        [](Grid *grid) -> Serializer { return [grid](BundleWriterCore &writer) { writeGrid(grid->grid(), writer); }; },
        [](Grid *grid) -> Deserializer {
            return [grid](BundleReaderCore &reader) {
                readGrid(reader, grid->grid());
                grid->emitChange();
            };
        });
    m_variantSerializers[45] = [](BundleWriterCore &writer, const QVariant &variant) {
        writeGrid(variantValue<Kestrel::MemGrid8u>(variant, "Kestrel::MemGrid8u"), writer);
    };
    m_variantDeserializers[45] = [](BundleReaderCore &reader) {
        Kestrel::MemGrid8u grid;
        readGrid(reader, grid);
        return QVariant::fromValue(grid);
    };
}

void TypeRegistry::initSpline()
{
    using Points = QVector<Wisket::Vector2f>;
    using Spline = Tamarack::AttributeSpline;
    registerDynamicSizeType<Spline>(
        46,
        [](Spline *spline) -> Serializer {
            return [spline](BundleWriterCore &writer) { writeElements(spline->points(), writer); };
        },
        [](Spline *spline) -> Deserializer {
            // Also an empty list replaces the points.
            return [spline](BundleReaderCore &reader) { spline->setPoints(readElements<Points>(reader)); };
        });
    m_variantSerializers[46] = [](BundleWriterCore &writer, const QVariant &variant) {
        writeElements(variantValue<Points>(variant, "QVector<Wisket::Vector2f>"), writer);
    };
    m_variantDeserializers[46] = [](BundleReaderCore &reader) { return QVariant::fromValue(readElements<Points>(reader)); };
}

template <typename A>
void TypeRegistry::registerSimpleType(unsigned int id)
{
    using V = typename A::ValueType;
    m_attributeFactories[id] = [] { return new A; };
    m_deserializerFactories[id] = makeDeserializerFactory<A>([](A *attribute) {
        return [attribute](BundleReaderCore &reader) { attribute->setValue(readFixed<V>(reader), s_readLayer); };
    });
    m_typeTests[typeid(A)] = typeTest<A>();
    m_serializerFactories[typeid(A)] = makeSerializerFactory<A>(id, unsigned(sizeof(V)), [](A *attribute) {
        return [attribute](BundleWriterCore &writer) { writeFixed(currentValue(*attribute), writer); };
    });
    m_typeSizes[id] = unsigned(sizeof(V));
    m_variantSerializers[id] = [](BundleWriterCore &writer, const QVariant &variant) {
        writeFixed(variantValue<V>(variant), writer);
    };
    m_variantDeserializers[id] = [](BundleReaderCore &reader) { return QVariant::fromValue(readFixed<V>(reader)); };
}

// A container has no layers: a remote value replaces the content, which emits one change.
template <typename C>
void TypeRegistry::registerSimpleAttributeContainer(unsigned int id)
{
    using A = Tamarack::AttributeContainer<C>;
    m_attributeFactories[id] = [] { return new A; };
    m_deserializerFactories[id] = makeDeserializerFactory<A>([](A *attribute) {
        return [attribute](BundleReaderCore &reader) { attribute->setValue(readElements<C>(reader)); };
    });
    m_typeTests[typeid(A)] = typeTest<A>();
    m_serializerFactories[typeid(A)] = makeSerializerFactory<A>(id, 0, [](A *attribute) {
        return [attribute](BundleWriterCore &writer) { writeElements(attribute->value(), writer); };
    });
    m_typeSizes[id] = 0;
    m_variantSerializers[id] = [](BundleWriterCore &writer, const QVariant &variant) {
        writeElements(variantValue<C>(variant), writer);
    };
    m_variantDeserializers[id] = [](BundleReaderCore &reader) { return QVariant::fromValue(readElements<C>(reader)); };
}

template <typename A>
void TypeRegistry::registerDynamicSizeType(unsigned int id, std::function<Serializer(A *)> serializerFactory,
                                           std::function<Deserializer(A *)> deserializerFactory)
{
    m_attributeFactories[id] = [] { return new A; };
    m_deserializerFactories[id] = makeDeserializerFactory<A>(std::move(deserializerFactory));
    m_typeTests[typeid(A)] = typeTest<A>();
    m_serializerFactories[typeid(A)] = makeSerializerFactory<A>(id, 0, std::move(serializerFactory));
    m_typeSizes[id] = 0;
}

template <typename C, typename E>
void TypeRegistry::registerDynamicSizeAttributeContainer(unsigned int id,
                                                         std::function<void(const E &, BundleWriterCore &)> elementWriter,
                                                         std::function<E(BundleReaderCore &)> elementReader)
{
    using A = Tamarack::AttributeContainer<C>;
    const auto write = [elementWriter](const C &value, BundleWriterCore &writer) { writeList(value, writer, elementWriter); };
    const auto read = [elementReader](BundleReaderCore &reader) { return readList<C>(reader, elementReader); };
    m_attributeFactories[id] = [] { return new A; };
    m_deserializerFactories[id] = makeDeserializerFactory<A>([read](A *attribute) {
        return [attribute, read](BundleReaderCore &reader) { attribute->setValue(read(reader)); };
    });
    m_typeTests[typeid(A)] = typeTest<A>();
    m_serializerFactories[typeid(A)] = makeSerializerFactory<A>(id, 0, [write](A *attribute) {
        return [attribute, write](BundleWriterCore &writer) { write(attribute->value(), writer); };
    });
    m_typeSizes[id] = 0;
    m_variantSerializers[id] = [write](BundleWriterCore &writer, const QVariant &variant) {
        write(variantValue<C>(variant), writer);
    };
    m_variantDeserializers[id] = [read](BundleReaderCore &reader) { return QVariant::fromValue(read(reader)); };
}

} // namespace Loomy
