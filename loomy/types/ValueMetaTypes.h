#pragma once
#include "kestrel/Color.h"
#include "kestrel/MemGrid8u.h"
#include "kestrel/TimeStamp.h"
#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <QMetaType>

// The host's value types as Qt meta-types, so that they can travel in a QVariant through the
// variant forms of TypeRegistry. Each is registered under the name given here, on its first use.
// The containers of them (std::vector<Wisket::Vector2f>, QVector<Wisket::Vector2f>) are then
// known to Qt by themselves.
//
// Include this header wherever such a QVariant is made or read: a type declared twice under
// different names would get two ids.
Q_DECLARE_METATYPE(Kestrel::Color)
Q_DECLARE_METATYPE(Kestrel::ColorPMA)
Q_DECLARE_METATYPE(Kestrel::TimeStamp)
Q_DECLARE_METATYPE(Kestrel::MemGrid8u)
Q_DECLARE_METATYPE(Wisket::Recti)
Q_DECLARE_METATYPE(Wisket::Rectf)
Q_DECLARE_METATYPE(Wisket::Rectd)
Q_DECLARE_METATYPE(Wisket::Vector2i)
Q_DECLARE_METATYPE(Wisket::Vector2f)
Q_DECLARE_METATYPE(Wisket::Vector3i)
Q_DECLARE_METATYPE(Wisket::Vector3f)
Q_DECLARE_METATYPE(Wisket::Vector4i)
Q_DECLARE_METATYPE(Wisket::Vector4f)
Q_DECLARE_METATYPE(Wisket::Matrix2f)
Q_DECLARE_METATYPE(Wisket::Matrix3f)
Q_DECLARE_METATYPE(Wisket::Matrix4f)
Q_DECLARE_METATYPE(Wisket::SizeF)
Q_DECLARE_METATYPE(Wisket::SizeI)
