#pragma once
#include "tamarack/tamarack_export.h"

namespace Tamarack {
class Archive;
class ArchiveElement;
class DOMElement;

// Root of the attribute classes. This host keeps no archive or XML form of its tree: the
// serialisation operations exist so that the class layout is complete, and are not supported
// (they do nothing and report failure).
class TAMARACK_EXPORT Serializable
{
public:
    // Bits of the options given to Attribute::layerForSerialization: which stored layers may be
    // written, tried from the highest down.
    typedef unsigned int SerializationOptions;
    enum SerializationOption {
        SERIALIZE_LAYER_DEFAULT = 1 << 0,
        SERIALIZE_LAYER_1 = 1 << 1,
        SERIALIZE_LAYER_USER = 1 << 2,
        SERIALIZE_LAYER_3 = 1 << 3,
    };

    Serializable() = default;
    virtual ~Serializable();
    Serializable(const Serializable &) = delete;
    Serializable &operator=(const Serializable &) = delete;

    // Not supported: always false, the archive is left untouched.
    virtual bool serialize(Archive &archive) const;
    // Not supported: always false, nothing is read.
    virtual bool deserialize(const ArchiveElement &element);
    // Not supported: always false, nothing is read.
    virtual bool deserializeXML(const DOMElement &element);

    void setSerializable(bool serializable) { m_serializable = serializable; }
    bool isSerializable() const { return m_serializable; }

private:
    bool m_serializable = true;
};

} // namespace Tamarack
