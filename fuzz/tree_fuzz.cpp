// The loomy command's tree file and --set arguments, through the command's own loaders. Input:
// the tree file's JSON text, then, behind each NUL byte, one --set argument (a command line can't
// hold a NUL). The tree is loaded, then the arguments are applied in order.
//
// Oracle, besides the sanitizers: an applied --set leaves an attribute at its path that encodes
// the value it named; and what --dump then prints, given back with --set to an empty tree,
// builds a tree that dumps the same (unless a name holds "=").
#include "cli/TreeFile.h"
#include "cli/ValueText.h"

#include "loomy/bundle/BundleWriter.h"
#include "loomy/sync/NodeSerialization.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"

#include "kestrel/Trace.h"
#include "tamarack/Attribute.h"
#include "tamarack/Node.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

const Loomy::TypeRegistry s_types;
const LoomyCli::ValueText s_text(s_types);

QByteArray encoded(unsigned typeId, const QString &value)
{
    QByteArray out;
    Loomy::BundleWriterCore writer(out);
    QString error;
    return s_text.write(typeId, value, writer, &error) ? out : QByteArray("(no encoding)");
}

// Equal as the attribute compares values: a set of one where the other is held is no change
// (-0 where 0 is held leaves 0).
bool sameValue(unsigned typeId, const QString &value, unsigned id, const QString &now)
{
    if (encoded(id, now) == encoded(typeId, value))
        return true;
    QString error, after;
    std::unique_ptr<Tamarack::Attribute> fresh(s_text.create(typeId, value, &error));
    return fresh && s_text.assign(fresh.get(), id, now, &error) && s_text.describe(fresh.get(), id, after) &&
           encoded(id, after) == encoded(typeId, value);
}

[[noreturn]] void fail(const char *what, const QByteArray &detail)
{
    std::fprintf(stderr, "%s: %s\n", what, detail.constData());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QList<QByteArray> parts = QByteArray(reinterpret_cast<const char *>(data), int(size)).split('\0');
    Tamarack::Node app;
    auto *tree = new Loomy::RemoteNode(&app, "loomy");
    QString error;
    LoomyCli::loadTree(s_text, parts.first(), *tree, error);

    for (int i = 1; i < parts.size(); ++i) {
        const QString argument = QString::fromUtf8(parts[i]);
        QByteArray path;
        unsigned typeId = 0;
        QString value;
        if (!LoomyCli::parseSet(s_text, argument, path, typeId, value, error) ||
            !LoomyCli::applySet(s_text, *tree, path, typeId, value, error))
            continue;
        unsigned id = 0;
        QString now;
        Tamarack::Attribute *attribute = LoomyCli::findAttribute(*tree, path);
        if (!attribute || !s_text.describe(attribute, id, now))
            fail("an applied --set left no attribute", argument.toUtf8());
        // The id may differ (an id whose attributes are those of another), the value may not.
        if (!sameValue(typeId, value, id, now))
            fail("an applied --set left another value", argument.toUtf8() + " became " + now.toUtf8());
    }

    // A name with "=", which only a tree file can give, has no --set form.
    bool settable = true;
    Loomy::walkAttributesWithPath(*tree, [&](Tamarack::Attribute &, const QByteArray &path) {
        settable = settable && !path.contains('=');
    });
    if (!settable)
        return 0;
    const QList<QByteArray> dump = LoomyCli::dumpTree(s_text, *tree);
    auto *copy = new Loomy::RemoteNode(&app, "copy");
    for (const QByteArray &line : dump) {
        QByteArray path;
        unsigned typeId = 0;
        QString value;
        if (!LoomyCli::parseSet(s_text, QString::fromUtf8(line), path, typeId, value, error) ||
            !LoomyCli::applySet(s_text, *copy, path, typeId, value, error))
            fail("a --dump line is refused by --set", line + ": " + error.toUtf8());
    }
    if (LoomyCli::dumpTree(s_text, *copy) != dump)
        fail("--dump given back with --set builds another tree", dump.join('\n'));
    return 0;
}
