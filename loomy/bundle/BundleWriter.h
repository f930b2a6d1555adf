#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QString>

#include <cstring>
#include <exception>
#include <type_traits>

// Writing cursors for the body primitives (see BundleReader.h for the layouts). Writers only
// append: the array's size is the write position, and every item ends on a multiple of 4 with
// its padding written as zero.
namespace Loomy {

// Appends to a byte array it does not own; the array must outlive the writer.
class LOOMY_EXPORT BundleWriterCore
{
public:
    explicit BundleWriterCore(QByteArray &data) : m_data(&data) {}

    // Appends `size` bytes and zero padding to the next multiple of 4; nothing for size 0.
    // `data` must not point into the array being written.
    void writeData(const void *data, unsigned size)
    {
        if (size == 0)
            return;
        const unsigned padded = (size + 3u) & ~3u;
        const int oldSize = m_data->size();
        // QByteArray holds less than 2^31 bytes; the rounding itself wraps for sizes near 2^32.
        if (padded < size || padded > unsigned(maxSize - oldSize))
            throwTooLarge();
        m_data->resize(oldSize + int(padded));
        char *end = m_data->data() + oldSize;
        std::memcpy(end, data, size);
        for (unsigned i = size; i < padded; ++i)
            end[i] = 0;
    }

    // A plain value in memory order. Words, 8- and 16-byte values need no padding and take the
    // short path; other sizes are padded by writeData.
    template <typename T>
    void write(const T &value)
    {
        static_assert(std::is_trivially_copyable<T>::value, "only plain values are written as bytes");
        if constexpr (sizeof(T) == 4 || sizeof(T) == 8 || sizeof(T) == 16) {
            const int oldSize = m_data->size();
            m_data->resize(oldSize + int(sizeof(T)));
            std::memcpy(m_data->data() + oldSize, &value, sizeof(T));
        } else {
            writeData(&value, unsigned(sizeof(T)));
        }
    }

    // Overwrites the 32-bit word at `offset`, e.g. a length written as a placeholder. Appends
    // nothing; detaches a shared array. Throws std::out_of_range if the word is not all inside.
    void writeDataAt(unsigned offset, quint32 value);

    QByteArray &data() const { return *m_data; }

private:
    static constexpr int maxSize = 0x7fffffff;
    [[noreturn]] static void throwTooLarge();

    QByteArray *m_data;
};

// An appending writer on a bundle that already holds its 16 header bytes. The bundle must
// outlive the writer.
class LOOMY_EXPORT BundleWriter : public BundleWriterCore
{
public:
    explicit BundleWriter(Bundle &bundle) : BundleWriterCore(bundle.data()) {}
};

// Frames one record: the constructor appends a placeholder size word, the destructor patches it
// with the number of bytes written behind it. It patches on unwinding as well, so the record
// stands with what was written before the exception.
class LOOMY_EXPORT SenderGuard
{
public:
    explicit SenderGuard(BundleWriter &writer);
    // Throws std::out_of_range if the array was cut behind the size word, unless an exception is
    // already unwinding through this scope: then the fault is only logged.
    ~SenderGuard() noexcept(false);
    SenderGuard(const SenderGuard &) = delete;
    SenderGuard &operator=(const SenderGuard &) = delete;

private:
    BundleWriter &m_writer;
    unsigned m_offset;
    int m_uncaughtAtStart;  // std::uncaught_exceptions() when the record was opened
};

// A string as UTF-8: length word, bytes, padding.
LOOMY_EXPORT void writeString(BundleWriter &writer, const QString &text);

} // namespace Loomy
