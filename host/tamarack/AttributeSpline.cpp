#include "tamarack/AttributeSpline.h"

#include <mutex>

namespace Tamarack {

AttributeSpline::AttributeSpline() = default;

AttributeSpline::AttributeSpline(Node *host, const QByteArray &name)
    : Attribute(host, name)
{
}

AttributeSpline::~AttributeSpline() = default;

QVector<Wisket::Vector2f> AttributeSpline::points() const
{
    std::lock_guard<SpinLock> lock(m_lock);
    return m_points;
}

void AttributeSpline::setPoints(const QVector<Wisket::Vector2f> &points)
{
    QVector<Wisket::Vector2f> old = points; // the previous points are released outside the lock
    {
        std::lock_guard<SpinLock> lock(m_lock);
        m_points.swap(old);
    }
    emitChange();
}

QByteArray AttributeSpline::type() const
{
    return QByteArrayLiteral("spline");
}

} // namespace Tamarack
