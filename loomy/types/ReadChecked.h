#pragma once
#include "loomy/bundle/BundleReader.h"

#include <stdexcept>

namespace Loomy {

// Fails, with BundleReaderCore::read's own exception and text, unless `length` bytes are left
// behind the cursor. For lengths that come from the wire: they are checked against what is left
// before anything is read or allocated for them. read() compares position + length, a sum that
// wraps in 32 bits for a hostile length near 2^32 and would then pass.
inline void requireLeft(const BundleReaderCore &reader, unsigned length)
{
    const unsigned size = unsigned(reader.data().size());
    const unsigned left = reader.position() < size ? size - reader.position() : 0u;
    if (length > left)
        throw std::out_of_range("BundleReader::read # tried to read past the end");
}

// BundleReaderCore::read for a length from the wire.
inline const char *readChecked(BundleReaderCore &reader, unsigned length)
{
    requireLeft(reader, length);
    return reader.read(length);
}

} // namespace Loomy
