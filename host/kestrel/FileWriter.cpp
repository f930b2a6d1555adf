#include "kestrel/FileWriter.h"

#include "kestrel/Trace.h"

namespace Kestrel {

FileWriter::FileWriter(const QString &name)
    : m_name(name)
{
    Trace::debug("FileWriter::FileWriter # Writing %s", qUtf8Printable(m_name));
}

FileWriter::~FileWriter()
{
    Trace::debug("FileWriter::~FileWriter # Done writing %s", qUtf8Printable(m_name));
}

} // namespace Kestrel
