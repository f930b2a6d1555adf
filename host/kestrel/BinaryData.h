#pragma once
#include "kestrel/TimeStamp.h"
#include "kestrel/kestrel_export.h"
#include "wisket/Vector.h"

#include <QByteArray>
#include <QString>

namespace Kestrel {

// A growable byte buffer holding a sequence of typed items, with one cursor for writing and
// reading. Peers exchange the first total() bytes unchanged, so the item layout below is a
// wire format; every word is little-endian and every item starts and ends on a multiple of 4:
//
//   item            tag     payload after the tag                                  size
//   int32           "INT4"  i32                                                    8
//   int64           "INT8"  i64                                                    12
//   float32         "FLT4"  f32                                                    8
//   float64         "FLT8"  f64                                                    12
//   time stamp      "TIME"  i64 raw ticks                                          12
//   vector of f32   "VF2 ", "VF3 ", "VF4 "   2, 3 or 4 f32                         12, 16, 20
//   vector of i32   "VI2 ", "VI3 ", "VI4 "   2, 3 or 4 i32                         12, 16, 20
//   string          "STR "  u32 length L, L bytes of UTF-8, a NUL, zero padding    8 + ((L + 4) & ~3)
//   blob            "BLOB"  u32 length L, L bytes, zero padding                    8 + ((L + 3) & ~3)
//
// The tag is four ASCII bytes in the order shown. Readers are lenient about width where no
// information is lost or the caller asked for the narrower type: readInt32 and readInt64 accept
// either integer item (readInt32 keeps the low 32 bits of an int64), readFloat32 and readFloat64
// either float item. Every read is checked against total(): a read that would pass it, or that
// meets another tag, fails without moving the position, clears *ok (when given) and returns a
// zero value. Writes go at the position, move it, and raise total() to it when they pass it.
//
// Not thread safe: one thread at a time.
class KESTREL_EXPORT BinaryData
{
public:
    BinaryData() = default;
    BinaryData(const BinaryData &other);              // deep copy of the used bytes and position
    BinaryData(BinaryData &&other) noexcept;          // takes the buffer, owned or linked
    BinaryData &operator=(const BinaryData &other);
    BinaryData &operator=(BinaryData &&other) noexcept;
    ~BinaryData();                                    // frees an owned buffer; leaves a linked one

    // Copies the other's first total() bytes, whatever its position, to this position.
    void append(const BinaryData &other);
    // Capacity becomes at least size() + bytes. A linked buffer that must grow is first copied
    // into an owned one; the foreign memory is never written past its size, nor freed.
    void ensure(unsigned long bytes);
    // Uses `size` bytes at `data` without copying and without taking ownership; position and total
    // become 0 and the caller sets the total. The memory must outlive this use of it.
    void linkTo(void *data, int size);
    // Position and total to 0; the buffer (owned or linked) stays.
    void clear();

    void writeInt32(int value);
    void writeInt64(long value);
    void writeFloat32(float value);
    void writeFloat64(double value);
    void writeTimeStamp(TimeStamp value);
    void writeVector2Float32(const Wisket::Vector2f &value);
    void writeVector3Float32(const Wisket::Vector3f &value);
    void writeVector4Float32(const Wisket::Vector4f &value);
    void writeVector2Int32(const Wisket::Vector2i &value);
    void writeVector3Int32(const Wisket::Vector3i &value);
    void writeVector4Int32(const Wisket::Vector4i &value);
    void writeString(const char *text);               // null writes the empty string
    void writeString(const QString &text);            // as UTF-8
    void writeString(const QByteArray &text);
    void writeBlob(const void *data, int bytes);      // bytes below 0 count as 0

    int readInt32(bool *ok = nullptr);
    long readInt64(bool *ok = nullptr);
    float readFloat32(bool *ok = nullptr);
    double readFloat64(bool *ok = nullptr);
    TimeStamp readTimeStamp(bool *ok = nullptr);
    Wisket::Vector2f readVector2Float32(bool *ok = nullptr);
    Wisket::Vector3f readVector3Float32(bool *ok = nullptr);
    Wisket::Vector4f readVector4Float32(bool *ok = nullptr);
    Wisket::Vector2i readVector2Int32(bool *ok = nullptr);
    Wisket::Vector3i readVector3Int32(bool *ok = nullptr);
    Wisket::Vector4i readVector4Int32(bool *ok = nullptr);
    // On failure these return false and leave the output as it was.
    bool readString(QString &text);                   // decoded from UTF-8
    bool readString(QByteArray &text);
    // Reads a blob of exactly `bytes` bytes into `data`; a blob of another length fails.
    bool readBlob(void *data, int bytes);

    void rewind() { m_pos = 0; }
    unsigned pos() const { return m_pos; }
    unsigned total() const { return m_total; }
    // Plain assignment: a caller that raises the total past size() must ensure() first. Reads
    // never look past size() whatever the total says.
    void setTotal(unsigned total) { m_total = total; }
    unsigned size() const { return m_size; }
    char *data() { return m_data; }
    const char *data() const { return m_data; }
    bool isLinked() const { return m_data && !m_owned; }

private:
    char *reserve(unsigned bytes);                    // room at m_pos; returns where to write
    void advanceWrite(unsigned bytes);
    void writeTagged(const char *tag, const void *payload, unsigned bytes);
    void writeSized(const char *tag, const void *payload, unsigned length, unsigned terminator);
    const char *peekTagged(const char *tag, unsigned payload) const;
    const char *peekSized(const char *tag, unsigned terminator, unsigned *length) const;
    bool readPayload(const char *tag, void *out, unsigned bytes);
    unsigned readableEnd() const;
    void growTo(unsigned long capacity);

    unsigned m_pos = 0;        // cursor of reads and writes
    unsigned m_total = 0;      // bytes in use from offset 0
    unsigned m_size = 0;       // capacity of m_data
    char *m_data = nullptr;
    bool m_owned = false;      // m_data was allocated here (malloc/realloc) and is freed here
};

} // namespace Kestrel
