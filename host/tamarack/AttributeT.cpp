// One instantiation of every value attribute lives in the library, so that each is known to
// compile and its code is shared by the users.
#include "tamarack/AttributeT.h"
#include "tamarack/AttributeContainer.h"

#include <vector>

namespace Tamarack {

#define TAMARACK_INSTANTIATE_NUMERIC(TYPE)       \
    template class AttributeBaseT<TYPE>;         \
    template class AttributeNumericT<TYPE>;      \
    template class AttributeT<TYPE>;

TAMARACK_INSTANTIATE_NUMERIC(bool)
TAMARACK_INSTANTIATE_NUMERIC(float)
TAMARACK_INSTANTIATE_NUMERIC(double)
TAMARACK_INSTANTIATE_NUMERIC(int)
TAMARACK_INSTANTIATE_NUMERIC(unsigned int)
TAMARACK_INSTANTIATE_NUMERIC(long)
TAMARACK_INSTANTIATE_NUMERIC(unsigned long)

#define TAMARACK_INSTANTIATE_PLAIN(TYPE)         \
    template class AttributeBaseT<TYPE>;         \
    template class AttributeT<TYPE>;

TAMARACK_INSTANTIATE_PLAIN(Kestrel::Color)
TAMARACK_INSTANTIATE_PLAIN(Kestrel::ColorPMA)
TAMARACK_INSTANTIATE_PLAIN(Kestrel::TimeStamp)
TAMARACK_INSTANTIATE_PLAIN(QString)
TAMARACK_INSTANTIATE_PLAIN(QStringList)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Recti)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Rectf)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Rectd)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector2i)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector2f)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector3i)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector3f)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector4i)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Vector4f)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Matrix2f)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Matrix3f)
TAMARACK_INSTANTIATE_PLAIN(Wisket::Matrix4f)

#undef TAMARACK_INSTANTIATE_NUMERIC
#undef TAMARACK_INSTANTIATE_PLAIN

template class AttributeTuple<Wisket::SizeF, AttributeT<float>>;
template class AttributeTuple<Wisket::SizeI, AttributeT<int>>;
template class AttributeTuple<Wisket::Vector2f, AttributeT<float>>;
template class AttributeT<Wisket::SizeF>;
template class AttributeT<Wisket::SizeI>;

template class AttributeContainerT<std::vector<float>>;
template class AttributeContainerT<std::vector<Wisket::Vector2f>>;
template class AttributeContainerT<std::vector<int>>;
template class AttributeContainerT<std::vector<unsigned int>>;
template class AttributeContainerT<std::vector<QString>>;
template class AttributeContainer<std::vector<float>>;
template class AttributeContainer<std::vector<Wisket::Vector2f>>;
template class AttributeContainer<std::vector<int>>;
template class AttributeContainer<std::vector<unsigned int>>;
template class AttributeContainer<std::vector<QString>>;

} // namespace Tamarack
