#include "kestrel/BinaryData.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace {

const char s_tagInt32[4] = {'I', 'N', 'T', '4'};
const char s_tagInt64[4] = {'I', 'N', 'T', '8'};
const char s_tagFloat32[4] = {'F', 'L', 'T', '4'};
const char s_tagFloat64[4] = {'F', 'L', 'T', '8'};
const char s_tagTime[4] = {'T', 'I', 'M', 'E'};
const char s_tagVF2[4] = {'V', 'F', '2', ' '};
const char s_tagVF3[4] = {'V', 'F', '3', ' '};
const char s_tagVF4[4] = {'V', 'F', '4', ' '};
const char s_tagVI2[4] = {'V', 'I', '2', ' '};
const char s_tagVI3[4] = {'V', 'I', '3', ' '};
const char s_tagVI4[4] = {'V', 'I', '4', ' '};
const char s_tagString[4] = {'S', 'T', 'R', ' '};
const char s_tagBlob[4] = {'B', 'L', 'O', 'B'};

const unsigned s_tagSize = 4;
const unsigned s_maxBytes = std::numeric_limits<unsigned>::max() & ~3u;

static_assert(sizeof(float) == 4 && sizeof(double) == 8, "IEEE 754 single and double");
static_assert(sizeof(long) == 8, "long is 64 bits on the supported platforms");

// The payload of a value is its memory; the format is little-endian, as are the supported hosts.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "little-endian host");

inline unsigned padded(unsigned long bytes)
{
    return unsigned((bytes + 3) & ~3ul);
}

inline void failed(bool *ok)
{
    if (ok)
        *ok = false;
}

} // namespace

namespace Kestrel {

BinaryData::BinaryData(const BinaryData &other)
{
    *this = other;
}

BinaryData::BinaryData(BinaryData &&other) noexcept
    : m_pos(other.m_pos), m_total(other.m_total), m_size(other.m_size), m_data(other.m_data),
      m_owned(other.m_owned)
{
    other.m_pos = other.m_total = other.m_size = 0;
    other.m_data = nullptr;
    other.m_owned = false;
}

BinaryData &BinaryData::operator=(const BinaryData &other)
{
    if (this == &other)
        return *this;
    const unsigned used = std::min(other.m_total, other.m_size);
    m_pos = 0;
    m_total = 0;
    if (!m_owned) {
        // A copy owns its bytes: never write another object's bytes into linked memory.
        m_data = nullptr;
        m_size = 0;
    }
    if (m_size < used)
        growTo(used);
    if (used)
        std::memcpy(m_data, other.m_data, used);
    m_total = used;
    m_pos = std::min(other.m_pos, used);
    return *this;
}

BinaryData &BinaryData::operator=(BinaryData &&other) noexcept
{
    if (this == &other)
        return *this;
    if (m_owned)
        std::free(m_data);
    m_pos = other.m_pos;
    m_total = other.m_total;
    m_size = other.m_size;
    m_data = other.m_data;
    m_owned = other.m_owned;
    other.m_pos = other.m_total = other.m_size = 0;
    other.m_data = nullptr;
    other.m_owned = false;
    return *this;
}

BinaryData::~BinaryData()
{
    if (m_owned)
        std::free(m_data);
}

void BinaryData::append(const BinaryData &other)
{
    const unsigned bytes = std::min(other.m_total, other.m_size);
    if (!bytes)
        return;
    reserve(bytes);
    // For a self-append, reserve() may have moved the buffer: read from other.m_data only now,
    // and with memmove, since source and destination then overlap.
    std::memmove(m_data + m_pos, other.m_data, bytes);
    advanceWrite(bytes);
}

void BinaryData::ensure(unsigned long bytes)
{
    growTo(m_size + bytes);
}

void BinaryData::linkTo(void *data, int size)
{
    if (m_owned)
        std::free(m_data);
    m_data = static_cast<char *>(data);
    m_size = data && size > 0 ? unsigned(size) : 0;
    m_owned = false;
    m_pos = 0;
    m_total = 0;
}

void BinaryData::clear()
{
    m_pos = 0;
    m_total = 0;
}

void BinaryData::growTo(unsigned long capacity)
{
    if (capacity <= m_size)
        return;
    if (capacity > s_maxBytes)
        throw std::bad_alloc();
    // Grow geometrically so that a sequence of small writes costs amortised constant time.
    unsigned long next = std::max<unsigned long>(capacity, std::min<unsigned long>(2ul * m_size, s_maxBytes));
    next = std::max<unsigned long>(next, 64);
    char *grown;
    if (m_owned) {
        grown = static_cast<char *>(std::realloc(m_data, next));
    } else {
        // A linked buffer is never resized or freed here; its bytes move to memory of our own.
        grown = static_cast<char *>(std::malloc(next));
        if (grown && m_data && m_size)
            std::memcpy(grown, m_data, m_size);
    }
    if (!grown)
        throw std::bad_alloc();
    m_data = grown;
    m_size = unsigned(next);
    m_owned = true;
}

char *BinaryData::reserve(unsigned bytes)
{
    growTo((unsigned long)m_pos + bytes);
    return m_data + m_pos;
}

void BinaryData::advanceWrite(unsigned bytes)
{
    m_pos += bytes;
    if (m_pos > m_total)
        m_total = m_pos;
}

void BinaryData::writeTagged(const char *tag, const void *payload, unsigned bytes)
{
    const unsigned itemSize = s_tagSize + padded(bytes);
    char *out = reserve(itemSize);
    std::memcpy(out, tag, s_tagSize);
    std::memcpy(out + s_tagSize, payload, bytes);
    std::memset(out + s_tagSize + bytes, 0, itemSize - s_tagSize - bytes);
    advanceWrite(itemSize);
}

void BinaryData::writeSized(const char *tag, const void *payload, unsigned length, unsigned terminator)
{
    const unsigned long itemSize = s_tagSize + 4ul + padded((unsigned long)length + terminator);
    if (itemSize > s_maxBytes)
        throw std::bad_alloc();
    char *out = reserve(unsigned(itemSize));
    std::memcpy(out, tag, s_tagSize);
    const uint32_t word = length;
    std::memcpy(out + s_tagSize, &word, 4);
    if (length)
        std::memcpy(out + s_tagSize + 4, payload, length);
    std::memset(out + s_tagSize + 4 + length, 0, itemSize - s_tagSize - 4 - length);
    advanceWrite(unsigned(itemSize));
}

void BinaryData::writeInt32(int value) { writeTagged(s_tagInt32, &value, 4); }
void BinaryData::writeInt64(long value) { writeTagged(s_tagInt64, &value, 8); }
void BinaryData::writeFloat32(float value) { writeTagged(s_tagFloat32, &value, 4); }
void BinaryData::writeFloat64(double value) { writeTagged(s_tagFloat64, &value, 8); }

void BinaryData::writeTimeStamp(TimeStamp value)
{
    const int64_t raw = value.raw();
    writeTagged(s_tagTime, &raw, 8);
}

void BinaryData::writeVector2Float32(const Wisket::Vector2f &value) { writeTagged(s_tagVF2, &value, 8); }
void BinaryData::writeVector3Float32(const Wisket::Vector3f &value) { writeTagged(s_tagVF3, &value, 12); }
void BinaryData::writeVector4Float32(const Wisket::Vector4f &value) { writeTagged(s_tagVF4, &value, 16); }
void BinaryData::writeVector2Int32(const Wisket::Vector2i &value) { writeTagged(s_tagVI2, &value, 8); }
void BinaryData::writeVector3Int32(const Wisket::Vector3i &value) { writeTagged(s_tagVI3, &value, 12); }
void BinaryData::writeVector4Int32(const Wisket::Vector4i &value) { writeTagged(s_tagVI4, &value, 16); }

void BinaryData::writeString(const char *text)
{
    const size_t length = text ? std::strlen(text) : 0;
    if (length > s_maxBytes)
        throw std::bad_alloc();
    writeSized(s_tagString, text, unsigned(length), 1);
}

void BinaryData::writeString(const QString &text)
{
    writeString(text.toUtf8());
}

void BinaryData::writeString(const QByteArray &text)
{
    writeSized(s_tagString, text.constData(), unsigned(text.size()), 1);
}

void BinaryData::writeBlob(const void *data, int bytes)
{
    writeSized(s_tagBlob, data, bytes > 0 && data ? unsigned(bytes) : 0, 0);
}

unsigned BinaryData::readableEnd() const
{
    return std::min(m_total, m_size);
}

// The payload of a fixed-size item at the position, or null when the item there has another tag
// or doesn't fit before the end. The caller moves the position only on success.
const char *BinaryData::peekTagged(const char *tag, unsigned payload) const
{
    const unsigned end = readableEnd();
    const unsigned long itemEnd = (unsigned long)m_pos + s_tagSize + padded(payload);
    if (m_pos > end || itemEnd > end)
        return nullptr;
    if (std::memcmp(m_data + m_pos, tag, s_tagSize) != 0)
        return nullptr;
    return m_data + m_pos + s_tagSize;
}

// Like peekTagged for a length-prefixed item. The length comes from the buffer and is checked
// against the bytes that are really there before anyone looks at them.
const char *BinaryData::peekSized(const char *tag, unsigned terminator, unsigned *length) const
{
    const char *header = peekTagged(tag, 4);
    if (!header)
        return nullptr;
    uint32_t word;
    std::memcpy(&word, header, 4);
    const unsigned long itemEnd = (unsigned long)m_pos + s_tagSize + 4 + padded((unsigned long)word + terminator);
    if (itemEnd > readableEnd())
        return nullptr;
    *length = word;
    return header + 4;
}

// Copies the payload of a fixed-size item with that tag and steps over the item.
bool BinaryData::readPayload(const char *tag, void *out, unsigned bytes)
{
    const char *p = peekTagged(tag, bytes);
    if (!p)
        return false;
    std::memcpy(out, p, bytes);
    m_pos += s_tagSize + padded(bytes);
    return true;
}

int BinaryData::readInt32(bool *ok)
{
    int32_t narrow;
    int64_t wide;
    if (readPayload(s_tagInt32, &narrow, 4))
        return narrow;
    if (readPayload(s_tagInt64, &wide, 8))
        return int(int32_t(uint32_t(uint64_t(wide))));   // the low 32 bits, two's complement
    failed(ok);
    return 0;
}

long BinaryData::readInt64(bool *ok)
{
    int32_t narrow;
    int64_t wide;
    if (readPayload(s_tagInt64, &wide, 8))
        return long(wide);
    if (readPayload(s_tagInt32, &narrow, 4))
        return narrow;
    failed(ok);
    return 0;
}

float BinaryData::readFloat32(bool *ok)
{
    float narrow;
    double wide;
    if (readPayload(s_tagFloat32, &narrow, 4))
        return narrow;
    if (readPayload(s_tagFloat64, &wide, 8))
        return float(wide);
    failed(ok);
    return 0.f;
}

double BinaryData::readFloat64(bool *ok)
{
    float narrow;
    double wide;
    if (readPayload(s_tagFloat64, &wide, 8))
        return wide;
    if (readPayload(s_tagFloat32, &narrow, 4))
        return narrow;
    failed(ok);
    return 0.0;
}

TimeStamp BinaryData::readTimeStamp(bool *ok)
{
    int64_t raw;
    if (readPayload(s_tagTime, &raw, 8))
        return TimeStamp(raw);
    failed(ok);
    return TimeStamp();
}

#define KESTREL_READ_VECTOR(NAME, TYPE, TAG)                        \
    TYPE BinaryData::NAME(bool *ok)                                 \
    {                                                               \
        TYPE value;                                                 \
        if (readPayload(TAG, &value, sizeof(TYPE)))                 \
            return value;                                           \
        failed(ok);                                                 \
        return TYPE();                                              \
    }

KESTREL_READ_VECTOR(readVector2Float32, Wisket::Vector2f, s_tagVF2)
KESTREL_READ_VECTOR(readVector3Float32, Wisket::Vector3f, s_tagVF3)
KESTREL_READ_VECTOR(readVector4Float32, Wisket::Vector4f, s_tagVF4)
KESTREL_READ_VECTOR(readVector2Int32, Wisket::Vector2i, s_tagVI2)
KESTREL_READ_VECTOR(readVector3Int32, Wisket::Vector3i, s_tagVI3)
KESTREL_READ_VECTOR(readVector4Int32, Wisket::Vector4i, s_tagVI4)

#undef KESTREL_READ_VECTOR

bool BinaryData::readString(QString &text)
{
    QByteArray utf8;
    if (!readString(utf8))
        return false;
    text = QString::fromUtf8(utf8);
    return true;
}

bool BinaryData::readString(QByteArray &text)
{
    unsigned length = 0;
    const char *p = peekSized(s_tagString, 1, &length);
    if (!p)
        return false;
    if (length > unsigned(std::numeric_limits<int>::max()))
        return false;
    text = QByteArray(p, int(length));
    m_pos += s_tagSize + 4 + padded((unsigned long)length + 1);
    return true;
}

bool BinaryData::readBlob(void *data, int bytes)
{
    unsigned length = 0;
    const char *p = peekSized(s_tagBlob, 0, &length);
    if (!p || bytes < 0 || length != unsigned(bytes))
        return false;
    if (length)
        std::memcpy(data, p, length);
    m_pos += s_tagSize + 4 + padded(length);
    return true;
}

} // namespace Kestrel
