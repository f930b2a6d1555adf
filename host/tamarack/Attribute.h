#pragma once
#include "tamarack/Serializable.h"
#include "tamarack/tamarack_export.h"
#include "wisket/Vector.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <functional>

namespace Kestrel { class BinaryData; }

namespace Tamarack {
class AttributeAlias;
class Node;

// Receives the changes of attributes it was attached to (see Attribute::attachObserver), with the
// number it was attached under. Called on the changing thread with no lock held.
class TAMARACK_EXPORT ChangeObserver
{
public:
    virtual void attributeChanged(unsigned cookie) = 0;

protected:
    ~ChangeObserver() = default;
};

// A named value with listeners and layers, held by at most one node, its host.
//
// Lifetime: an attribute with a host belongs to that host, which deletes it with itself. Deleting
// an attribute (always through the virtual destructor) first takes it out of its host, which raises
// the host's eventAttributeRemoved, and then runs its DELETE_ROLE listeners.
//
// Threads: listeners may be added, removed and emitted from any thread at once. Listeners run on
// the emitting thread with no lock of the attribute held, so they may add and remove listeners of
// the same attribute, themselves included. An emission calls the listeners registered when it
// started, in ascending id order, minus those removed before their turn; removeListener does not
// wait for a call already running on another thread.
class TAMARACK_EXPORT Attribute : public Serializable
{
public:
    enum Layer {
        LAYER_DEFAULT = 0,
        LAYER_1,
        LAYER_USER,
        LAYER_3,
        LAYER_4,
        LAYER_CURRENT,       // whichever stored layer is current
        LAYER_CURRENT_VALUE, // the current value itself (a source for copyValueFromLayer)
    };
    enum { LAYER_COUNT = LAYER_4 + 1 }; // number of stored layers

    enum { DELETE_ROLE = 1, CHANGE_ROLE = 2 };

    // Units of the numeric set operations. PERCENTAGE_UNIT values are stored as plain numbers:
    // this host has no expressions.
    enum ValueUnit { UNKNOWN_UNIT = 0, PERCENTAGE_UNIT = 2 };

    Attribute();
    // Joins the host under the name before returning, so the host's eventAttributeAdded runs
    // while only this base part exists. If the host refuses (name taken), the attribute stays free.
    Attribute(Node *host, const QByteArray &name);
    ~Attribute() override;

    const QByteArray &name() const { return m_name; }
    // Not synchronised with name(): rename only an attribute that other threads don't read yet.
    void setName(const QByteArray &name) { m_name = name; }
    Node *host() const { return m_host.load(std::memory_order_acquire); }

    // Returns an id unique on this attribute (ids only grow, starting at 1). Never fails.
    long addListener(std::function<void()> listener, int role);
    // Safe from inside any listener of this attribute. Unknown ids are ignored.
    void removeListener(long id);

    // One change observer kept inside the attribute, for a watcher that follows every attribute
    // of a large tree: no listener table and no entry to allocate. It is called before the
    // CHANGE_ROLE listeners, as if it were the first of them, so it is taken only by an attribute
    // that has never had a listener; otherwise attachObserver returns false and the caller adds a
    // listener instead. Same thread rules as listeners: detaching does not wait for a call
    // already running on another thread.
    // One party attaches at a time.
    bool attachObserver(ChangeObserver *observer, unsigned cookie);
    // Swaps the attached observer `from` for `to` in its place; false unless `from` is the one
    // attached, under that cookie.
    bool replaceObserver(ChangeObserver *from, unsigned cookie, ChangeObserver *to);
    // Detaches observer if it is the one attached; false otherwise.
    bool detachObserver(ChangeObserver *observer);

    virtual void eventProcess(const QByteArray &id, Kestrel::BinaryData &data);
    // The numeric and text views of the value on a layer; ok (may be null) is cleared when the
    // attribute has no such view.
    virtual float asFloat(bool *ok = nullptr, Layer layer = LAYER_CURRENT_VALUE) const;
    virtual int asInt(bool *ok = nullptr, Layer layer = LAYER_CURRENT_VALUE) const;
    virtual QString asString(bool *ok = nullptr, Layer layer = LAYER_CURRENT_VALUE) const;
    // Each returns false when the attribute has no value of that kind; the base has none.
    virtual bool set(float value, Layer layer = LAYER_USER, ValueUnit unit = UNKNOWN_UNIT);
    virtual bool set(int value, Layer layer = LAYER_USER, ValueUnit unit = UNKNOWN_UNIT);
    virtual bool set(const QString &value, Layer layer = LAYER_USER, ValueUnit unit = UNKNOWN_UNIT);
    virtual bool set(const Wisket::Vector2T<float> &value, Layer layer = LAYER_USER,
                     QList<ValueUnit> units = QList<ValueUnit>());
    virtual bool set(const Wisket::Vector3T<float> &value, Layer layer = LAYER_USER,
                     QList<ValueUnit> units = QList<ValueUnit>());
    virtual bool set(const Wisket::Vector4T<float> &value, Layer layer = LAYER_USER,
                     QList<ValueUnit> units = QList<ValueUnit>());
    // The attribute's schema text for its host, e.g. "float" or "rect:int".
    virtual QByteArray type() const;
    virtual void copyValueFromLayer(Layer from, Layer to);
    virtual bool isChanged() const;
    virtual void clearValue(Layer layer);
    // True for any layer above LAYER_4; the base has no stored layers.
    virtual bool isValueDefinedOnLayer(Layer layer) const;
    // The direct child of that name; null for anything but a node.
    virtual Attribute *attribute(const QByteArray &name) const;
    virtual void setAsDefaults();
    // Runs the CHANGE_ROLE listeners on the calling thread.
    virtual void emitChange();
    // Runs the DELETE_ROLE listeners; part of deletion.
    virtual void emitDelete();

    // Tries LAYER_3, LAYER_USER, LAYER_1, LAYER_DEFAULT in that order; the first whose option bit
    // is set and that is defined is stored in layer, and the result is true.
    bool layerForSerialization(SerializationOptions options, Layer &layer) const;

    // The same answers as dynamic_cast<Node *>(this) and dynamic_cast<AttributeAlias *>(this), also
    // while a destructor has reduced the object, but at the cost of one call: walks and watchers
    // ask this of every attribute of large trees, where a failing dynamic_cast through a deep
    // class hierarchy costs hundreds of instructions.
    virtual Node *asNode() { return nullptr; }
    virtual AttributeAlias *asAlias() { return nullptr; }

    // Marks a component attribute as owned by a composite (a tuple); null for none.
    void setOwnerShorthand(Attribute *owner) { m_ownerShorthand = owner; }
    Attribute *ownerShorthand() const { return m_ownerShorthand; }

protected:
    // Leaves the host and runs the DELETE_ROLE listeners, once. Destructors of classes whose
    // dynamic type the host's removed listeners may test (Node, AttributeAlias) call it first thing,
    // so that the removal is seen while the object still has that type; ~Attribute calls it last.
    void beginDestruction();
    void emitRole(int role);

private:
    friend class Node;
    struct Listeners;
    Listeners *listeners();

    QByteArray m_name;
    std::atomic<Node *> m_host{nullptr};         // written by the host under its child lock
    std::atomic<Listeners *> m_listeners{nullptr}; // made on the first addListener, by CAS
    std::atomic<ChangeObserver *> m_observer{nullptr}; // set and cleared by CAS
    Attribute *m_ownerShorthand = nullptr;
    std::atomic<unsigned> m_observerCookie{0};   // written before m_observer publishes it
    std::atomic<bool> m_destroying{false};
};

// Null-safe forms of Attribute::asNode() and Attribute::asAlias().
inline Node *toNode(Attribute *attribute)
{
    return attribute ? attribute->asNode() : nullptr;
}
inline AttributeAlias *toAlias(Attribute *attribute)
{
    return attribute ? attribute->asAlias() : nullptr;
}

} // namespace Tamarack
