#pragma once
#include "kestrel/kestrel_export.h"

#include <QString>

namespace Kestrel {

// Marks the scope in which a file is written, named by the writer; the start and end are logged
// at debug level.
class KESTREL_EXPORT FileWriter
{
public:
    explicit FileWriter(const QString &name);
    ~FileWriter();
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;

    const QString &name() const { return m_name; }

private:
    QString m_name;
};

} // namespace Kestrel
