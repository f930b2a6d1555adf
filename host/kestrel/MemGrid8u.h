#pragma once
#include "kestrel/kestrel_export.h"

#include <cstddef>

namespace Kestrel {

// A width x height grid of bytes, rows one after another with no padding (cell (x, y) is
// data()[y * width() + x]). Storage is page aligned (4096) and its size a multiple of 4, so a
// whole grid can be handed to code that reads in 32-bit words. Copies are deep.
// Not thread safe: one thread at a time.
class KESTREL_EXPORT MemGrid8u
{
public:
    MemGrid8u() = default;
    MemGrid8u(unsigned width, unsigned height);   // cells uninitialised, as after resize()
    MemGrid8u(const MemGrid8u &other);
    MemGrid8u(MemGrid8u &&other) noexcept;
    MemGrid8u &operator=(const MemGrid8u &other);
    MemGrid8u &operator=(MemGrid8u &&other) noexcept;
    ~MemGrid8u();

    unsigned width() const { return m_width; }
    unsigned height() const { return m_height; }
    std::size_t cellCount() const { return std::size_t(m_width) * m_height; }
    std::size_t capacity() const { return m_capacity; }   // bytes of the current block
    unsigned char *data() { return m_data; }               // null until storage is first needed
    const unsigned char *data() const { return m_data; }

    // Sets the dimensions. Keeps the current block when it is large enough (its cell contents are
    // then left as they were), otherwise allocates a new one with undefined contents.
    // Throws std::bad_alloc when the allocation fails or the size is not representable; the grid
    // is then unchanged.
    void resize(unsigned width, unsigned height);

    // Same dimensions and same cells; capacity doesn't count.
    bool operator==(const MemGrid8u &other) const;
    bool operator!=(const MemGrid8u &other) const { return !(*this == other); }

private:
    unsigned m_width = 0;
    unsigned m_height = 0;
    std::size_t m_capacity = 0;
    unsigned char *m_data = nullptr;   // owned; from posix_memalign, released with free()
};

} // namespace Kestrel
