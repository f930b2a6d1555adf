#pragma once
#include "loomy/loomy_export.h"
#include "loomy/types/TypeRegistry.h"

#include <QByteArray>

#include <memory>

namespace Tamarack { class Attribute; class AttributeAlias; }

namespace Loomy {

// The first attribute of the alias chain that starts at `attribute` that is not an alias; the
// attribute itself if it is none. Null when the chain ends in a null target.
LOOMY_EXPORT Tamarack::Attribute *followAliases(Tamarack::Attribute *attribute);

// Stands in for the deserialiser of an alias that has no target yet. Values that come in
// meanwhile are kept, the latest alone, exactly as they were on the wire; when the alias gets a
// target, the real deserialiser is made from `factory` and the kept value is played into it.
// From then on every value goes straight to the real deserialiser; a later retargeting of the
// alias is not followed.
//
// Lifetime: held by std::shared_ptr, through FunctorWrap, for as long as any copy of the
// deserialiser exists. The alias must outlive this object: its listener holds a plain pointer to
// it, and the destructor removes that listener from the alias.
// Threads: no lock. Values arrive on the frame thread; the listener runs on the thread that
// retargets the alias, which must not do so while values are being read.
class LOOMY_EXPORT AliasDeserializer
{
public:
    AliasDeserializer(DeserializerFactory factory, Tamarack::AttributeAlias &alias, unsigned int size);
    ~AliasDeserializer();
    AliasDeserializer(const AliasDeserializer &) = delete;
    AliasDeserializer &operator=(const AliasDeserializer &) = delete;

    Tamarack::AttributeAlias *alias;   // not owned
    DeserializerFactory factory;       // the registry's factory for the peer's type id
    unsigned int size;                 // the fixed size of the value; 0 for a dynamic one
    Deserializer deserializer;         // empty until the alias has a target
    long listenerId = -1;              // CHANGE_ROLE listener on alias
    QByteArray cache;                  // the latest value in wire form, with its padding; null for none

private:
    void aliasChanged();
};

// The function object of an AliasDeserializer's std::function, so that all copies of that
// function share the one object and its cached value.
class LOOMY_EXPORT FunctorWrap
{
public:
    explicit FunctorWrap(std::shared_ptr<AliasDeserializer> functor);

    // Hands the value to the real deserialiser, or keeps it in the cache, replacing an older one.
    // Either way the reader ends where a real deserialiser would leave it. A value that runs past
    // the end throws std::out_of_range, after the older cached value has been dropped.
    void operator()(BundleReaderCore &reader) const;

private:
    std::shared_ptr<AliasDeserializer> m_functor;
};

} // namespace Loomy
