#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/SpinLock.h"
#include "tamarack/tamarack_export.h"

#include "wisket/Vector.h"

#include <QVector>

namespace Tamarack {

// The control points of a curve, as one value without layers.
// Threads: points() and setPoints() may run on any thread at once.
class TAMARACK_EXPORT AttributeSpline : public Attribute
{
public:
    AttributeSpline();
    AttributeSpline(Node *host, const QByteArray &name);
    ~AttributeSpline() override;

    QVector<Wisket::Vector2f> points() const;
    // Replaces the points and emits a change, also when they are equal or empty.
    void setPoints(const QVector<Wisket::Vector2f> &points);

    QByteArray type() const override; // "spline"

private:
    QVector<Wisket::Vector2f> m_points; // guarded by m_lock
    mutable SpinLock m_lock;
};

} // namespace Tamarack
