#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstring>
#include <type_traits>

// Reading cursors over the body primitives of a bundle (or of any byte array):
//
//   32-bit word           4 bytes little-endian
//   8 / 16-byte value     its bytes in memory order; only 4-byte alignment is guaranteed
//   other plain value     n bytes, then zero padding to a multiple of 4
//   string, binary block  32-bit length L, L bytes, padding; the empty string is one word 0
//   string map            32-bit count N, then N (key string, value string) pairs
//   record                32-bit size R, then R bytes of content
//
// Every read moves the cursor by its size rounded up to 4, and padding is never checked.
// A read past the end throws std::out_of_range; a cursor that threw is not reusable for the
// same item. Reads return pointers into the array and never copy: those pointers stay valid as
// long as the array lives unchanged.
namespace Loomy {

static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN,
              "values are copied to and from the wire in memory order, which must be little-endian");

// A cursor on a byte array it does not own. The array must outlive the cursor and must not be
// changed while the cursor reads it. One thread at a time.
class LOOMY_EXPORT BundleReaderCore
{
public:
    // No limit of its own: a length can never pass the end of the array anyway.
    static constexpr unsigned defaultMaxLength = 0xffffffffu;

    explicit BundleReaderCore(const QByteArray &data, unsigned position = 0)
        : m_data(&data), m_position(position)
    {}
    BundleReaderCore(QByteArray &&, unsigned = 0) = delete;  // would dangle at once

    // Returns the next `size` bytes in place and steps over them, rounded up to 4. The rounded
    // end may lie behind the array's end; the next read then fails.
    const char *read(unsigned size)
    {
        const unsigned available = unsigned(m_data->size());
        // Compared against what is left rather than as position + size <= available: that sum
        // can wrap for a hostile length and would hand out a pointer far past the array.
        if (m_position > available || size > available - m_position)
            throwReadPastEnd();
        const char *bytes = m_data->constData() + m_position;
        // Cannot wrap: size <= available < 2^31.
        m_position += (size + 3u) & ~3u;
        return bytes;
    }

    // A copy of the next sizeof(T) bytes: words, 8- and 16-byte values, or plain structs.
    template <typename T>
    T read()
    {
        static_assert(std::is_trivially_copyable<T>::value, "only plain values are read as bytes");
        T value;
        std::memcpy(&value, read(unsigned(sizeof(T))), sizeof(T));
        return value;
    }

    // A string whose bytes must be exact: a zero byte inside it is refused with
    // std::invalid_argument ("size mismatch"), after the output is filled and the cursor moved.
    void readString(QByteArray &out, unsigned maxLength = defaultMaxLength);
    // The same, converted from UTF-8.
    void readString(QString &out, unsigned maxLength = defaultMaxLength);
    // A block of arbitrary bytes, embedded zeros allowed.
    void readBinary(QByteArray &out, unsigned maxLength = defaultMaxLength);

    unsigned position() const { return m_position; }
    void setPosition(unsigned position) { m_position = position; }
    const QByteArray &data() const { return *m_data; }

private:
    [[noreturn]] static void throwReadPastEnd();
    // Steps 1 to 4 shared by readString and readBinary; `tooLong` is the text for a length
    // above maxLength.
    void readBlock(QByteArray &out, unsigned maxLength, const char *tooLong);

    const QByteArray *m_data;
    unsigned m_position;
};

// A cursor on a bundle, placed on the first body byte. The bundle must outlive the reader.
class LOOMY_EXPORT BundleReader : public BundleReaderCore
{
public:
    explicit BundleReader(const Bundle &bundle) : BundleReaderCore(bundle.data(), Bundle::headerSize) {}
    BundleReader(Bundle &&) = delete;

    quint32 messageType() const { return Bundle::headerWord(data(), 4); }
    quint32 bundleId() const { return Bundle::headerWord(data(), 8); }
    quint32 ackBundleId() const { return Bundle::headerWord(data(), 12); }
};

// A string as UTF-8, cut at the first zero byte if there is one. No length limit beyond the
// end of the bundle and no mismatch check; only std::out_of_range is thrown.
LOOMY_EXPORT QString readString(BundleReader &reader);
// A string map. Exactly as many pairs are read as the count word says; a repeated key keeps its
// last value.
LOOMY_EXPORT QMap<QString, QString> readMap(BundleReader &reader);

} // namespace Loomy
