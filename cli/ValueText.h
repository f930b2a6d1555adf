#pragma once
#include <QByteArray>
#include <QMap>
#include <QString>

namespace Loomy { class BundleReaderCore; class BundleWriterCore; class TypeRegistry; }
namespace Tamarack { class Attribute; }

// The text forms of attribute values that the loomy command reads and prints:
//
//   numbers              as they stand; floats in their shortest exact form
//   bool                 true or false (1 and 0 are read too)
//   several components   separated by commas: vectors, rectangles, colours, matrices (storage
//                        order), sizes, locations
//   time stamp           its raw 64-bit value
//   string, asset        the text as it stands
//   lists                JSON arrays: of strings, of numbers, of [x,y] pairs
//   grid                 WIDTH:HEXBYTES, the cells row by row
//
// A typed value is TYPE:VALUE, where TYPE is the wire type id in decimal or the text of the
// attribute's type() ("float", "vector3:float", "string", ...). Ids whose type() isn't one word
// are named by their number. Conversion works on the encoded value: the registry's serialisers
// and deserialisers do the bytes, so text and wire never disagree.
//
// Threads: a ValueText is read-only once built; its registry must outlive it.
namespace LoomyCli {

class ValueText
{
public:
    explicit ValueText(const Loomy::TypeRegistry &types);

    // 0 for a text that names no type.
    unsigned typeId(const QString &text) const;
    // The name printed for an id: the type() text, or the number.
    QString typeName(unsigned typeId) const;
    // Splits TYPE:VALUE at the colon behind the longest known type. False if none is known.
    bool splitTyped(const QString &typed, unsigned &typeId, QString &value) const;

    // One encoded value of the id as text. Throws std::out_of_range on short input and
    // std::invalid_argument for an id without a text form.
    QString read(unsigned typeId, Loomy::BundleReaderCore &reader) const;
    // Encodes the text as a value of the id; false with a reason for a text that isn't one.
    bool write(unsigned typeId, const QString &text, Loomy::BundleWriterCore &writer, QString *error) const;

    // The attribute's type id and value text, as it would go on the wire. False for an attribute
    // that has no encoding.
    bool describe(Tamarack::Attribute *attribute, unsigned &typeId, QString &text) const;
    // Sets the value (on the user layer, as a received one would be). False with a reason when
    // the text or the attribute doesn't fit the id.
    bool assign(Tamarack::Attribute *attribute, unsigned typeId, const QString &text, QString *error) const;
    // A new attribute with that value, owned by the caller; null with a reason.
    Tamarack::Attribute *create(unsigned typeId, const QString &text, QString *error) const;

private:
    const Loomy::TypeRegistry &m_types;
    QMap<unsigned, QString> m_names;   // every id that has an attribute class
    QMap<QString, unsigned> m_ids;     // one-word type() texts; the lower id wins
};

} // namespace LoomyCli
