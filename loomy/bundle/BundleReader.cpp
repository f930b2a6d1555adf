#include "loomy/bundle/BundleReader.h"

#include <stdexcept>

namespace Loomy {

void BundleReaderCore::throwReadPastEnd()
{
    throw std::out_of_range("BundleReader::read # tried to read past the end");
}

void BundleReaderCore::readBlock(QByteArray &out, unsigned maxLength, const char *tooLong)
{
    const quint32 length = read<quint32>();
    // The cursor stays behind the length word.
    if (length > maxLength)
        throw std::invalid_argument(tooLong);
    if (length == 0) {
        out.resize(0);
        return;
    }
    // Bound check before the output grows, so that a hostile length allocates nothing.
    const char *bytes = read(length);
    out.resize(int(length));
    std::memcpy(out.data(), bytes, length);
}

void BundleReaderCore::readString(QByteArray &out, unsigned maxLength)
{
    readBlock(out, maxLength, "BundleReaderCore::readString # too many characters");
    if (qstrlen(out.constData()) != unsigned(out.size()))
        throw std::invalid_argument("BundleReaderCore::readString # size mismatch");
}

void BundleReaderCore::readString(QString &out, unsigned maxLength)
{
    QByteArray bytes;
    readString(bytes, maxLength);
    out = QString::fromUtf8(bytes);
}

void BundleReaderCore::readBinary(QByteArray &out, unsigned maxLength)
{
    readBlock(out, maxLength, "BundleReaderCore::readBinary # too many characters");
}

QString readString(BundleReader &reader)
{
    const quint32 length = reader.read<quint32>();
    const char *bytes = reader.read(length);
    return QString::fromUtf8(bytes, int(qstrnlen(bytes, length)));
}

QMap<QString, QString> readMap(BundleReader &reader)
{
    QMap<QString, QString> map;
    // The count is not trusted for any allocation: each pair reads at least 8 bytes, so a
    // hostile count ends in a read past the end.
    for (quint32 count = reader.read<quint32>(); count > 0; --count) {
        const QString key = readString(reader);
        map.insert(key, readString(reader));
    }
    return map;
}

} // namespace Loomy
