#include "kestrel/MemGrid8u.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

const std::size_t s_alignment = 4096;

} // namespace

namespace Kestrel {

MemGrid8u::MemGrid8u(unsigned width, unsigned height)
{
    resize(width, height);
}

MemGrid8u::MemGrid8u(const MemGrid8u &other)
{
    *this = other;
}

MemGrid8u::MemGrid8u(MemGrid8u &&other) noexcept
    : m_width(other.m_width), m_height(other.m_height), m_capacity(other.m_capacity), m_data(other.m_data)
{
    other.m_width = other.m_height = 0;
    other.m_capacity = 0;
    other.m_data = nullptr;
}

MemGrid8u &MemGrid8u::operator=(const MemGrid8u &other)
{
    if (this == &other)
        return *this;
    resize(other.m_width, other.m_height);
    if (cellCount())
        std::memcpy(m_data, other.m_data, cellCount());
    return *this;
}

MemGrid8u &MemGrid8u::operator=(MemGrid8u &&other) noexcept
{
    if (this == &other)
        return *this;
    std::free(m_data);
    m_width = other.m_width;
    m_height = other.m_height;
    m_capacity = other.m_capacity;
    m_data = other.m_data;
    other.m_width = other.m_height = 0;
    other.m_capacity = 0;
    other.m_data = nullptr;
    return *this;
}

MemGrid8u::~MemGrid8u()
{
    std::free(m_data);
}

void MemGrid8u::resize(unsigned width, unsigned height)
{
    // 32 x 32 bits fit in 64, and so does the rounding. No object may be larger than PTRDIFF_MAX,
    // so such a size is refused here instead of being put to the allocator.
    const uint64_t cells = uint64_t(width) * height;
    const uint64_t bytes = (cells + 3) & ~uint64_t(3);
    if (bytes > uint64_t(PTRDIFF_MAX))
        throw std::bad_alloc();
    if (bytes > m_capacity) {
        void *block = nullptr;
        if (posix_memalign(&block, s_alignment, std::size_t(bytes)) != 0 || !block)
            throw std::bad_alloc();
        std::free(m_data);
        m_data = static_cast<unsigned char *>(block);
        m_capacity = std::size_t(bytes);
    }
    m_width = width;
    m_height = height;
}

bool MemGrid8u::operator==(const MemGrid8u &other) const
{
    if (m_width != other.m_width || m_height != other.m_height)
        return false;
    return cellCount() == 0 || std::memcmp(m_data, other.m_data, cellCount()) == 0;
}

} // namespace Kestrel
