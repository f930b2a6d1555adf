// Every type id's deserialisers on their own. The first byte picks the id, the second how many
// values are read back to back (from 1), the rest is the wire. A decode fault is the reader's
// std::out_of_range or std::invalid_argument; anything else, and any memory fault, is a finding.
// Each value read is written again and read back: the second reading must give the same bytes.
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/TypeRegistry.h"

#include "kestrel/Trace.h"
#include "tamarack/Attribute.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

const unsigned s_highestId = 56;   // a few unassigned ids above the last one

Loomy::TypeRegistry &registry()
{
    static Loomy::TypeRegistry instance;
    return instance;
}

// The attribute's current value, as its serialiser writes it.
QByteArray written(Tamarack::Attribute *attribute)
{
    unsigned typeId = 0, size = 0;
    const Loomy::Serializer serializer = registry().createSerializer(attribute, typeId, size);
    if (!serializer)
        return QByteArray();
    QByteArray out;
    Loomy::BundleWriterCore writer(out);
    serializer(writer);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const unsigned typeId = data[0] % (s_highestId + 1);
    const int values = 1 + data[1] % 4;
    const QByteArray wire(reinterpret_cast<const char *>(data) + 2, int(size - 2));

    std::unique_ptr<Tamarack::Attribute> attribute(registry().createAttribute(typeId));
    if (attribute) {
        const Loomy::Deserializer deserializer = registry().createDeserializer(typeId, attribute.get());
        if (!deserializer) {
            std::fprintf(stderr, "type %u: no deserialiser for its own attribute\n", typeId);
            std::abort();
        }
        Loomy::BundleReaderCore reader(wire);
        try {
            for (int i = 0; i < values; ++i)
                deserializer(reader);
        } catch (const std::out_of_range &) {
        } catch (const std::invalid_argument &) {
        }
        const QByteArray once = written(attribute.get());
        if (!once.isEmpty()) {
            Loomy::BundleReaderCore again(once);
            deserializer(again);   // our own bytes: must decode without a fault
            if (again.position() != unsigned(once.size()) || written(attribute.get()) != once) {
                std::fprintf(stderr, "type %u: a value written and read back differs\n", typeId);
                std::abort();
            }
        }
    }

    const Loomy::VariantDeserializer variant = registry().createVariantDeserializer(typeId);
    if (variant) {
        Loomy::BundleReaderCore reader(wire);
        try {
            for (int i = 0; i < values; ++i)
                variant(reader);
        } catch (const std::out_of_range &) {
        } catch (const std::invalid_argument &) {
        }
    }
    return 0;
}
