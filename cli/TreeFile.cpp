#include "cli/TreeFile.h"
#include "cli/ValueText.h"

#include "loomy/bundle/BundleWriter.h"
#include "loomy/sync/RemoteNode.h"

#include "tamarack/Node.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <functional>
#include <map>

namespace LoomyCli {

namespace {

bool addLeaf(const ValueText &values, Loomy::RemoteNode &root, const QByteArray &path, const QJsonValue &value,
             QString &error)
{
    unsigned typeId = 0;
    QString text;
    if (value.isObject()) {
        const QJsonObject typed = value.toObject();
        const QJsonValue type = typed.value("type"), v = typed.value("value");
        typeId = values.typeId(type.isDouble() ? QString::number(type.toInt()) : type.toString());
        if (!typeId) {
            error = QStringLiteral("%1: unknown type").arg(QString::fromUtf8(path));
            return false;
        }
        if (v.isString()) {
            text = v.toString();
        } else if (v.isBool()) {
            text = v.toBool() ? "true" : "false";
        } else if (v.isDouble()) {
            text = QString::number(v.toDouble(), 'g', 17);
        } else if (v.isArray()) {
            // Lists keep their JSON form; components of a vector are joined by commas.
            const QJsonArray array = v.toArray();
            QStringList parts;
            bool numbers = true;
            for (const QJsonValue &e : array) {
                numbers = numbers && e.isDouble();
                parts << QString::number(e.toDouble(), 'g', 17);
            }
            QString probeError;
            QByteArray probe;
            Loomy::BundleWriterCore writer(probe);
            text = QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
            if (numbers && !values.write(typeId, text, writer, &probeError))
                text = parts.join(',');
        } else {
            error = QStringLiteral("%1: a typed leaf needs a value").arg(QString::fromUtf8(path));
            return false;
        }
    } else if (value.isDouble()) {
        typeId = 4;
        text = QString::number(value.toDouble(), 'g', 17);
    } else if (value.isBool()) {
        typeId = 1;
        text = value.toBool() ? "true" : "false";
    } else if (value.isString()) {
        typeId = 35;
        text = value.toString();
    } else if (value.isArray()) {
        const QJsonArray array = value.toArray();
        bool strings = true, numbers = true;
        for (const QJsonValue &e : array) {
            strings = strings && e.isString();
            numbers = numbers && e.isDouble();
        }
        if (!strings && !numbers) {
            error = QStringLiteral("%1: an array must hold only strings or only numbers").arg(QString::fromUtf8(path));
            return false;
        }
        typeId = strings ? 36 : 40;   // an empty array is a string list
        text = QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
    } else {
        error = QStringLiteral("%1: null is not a value").arg(QString::fromUtf8(path));
        return false;
    }
    Tamarack::Attribute *attribute = values.create(typeId, text, &error);
    if (!attribute) {
        error = QString::fromUtf8(path) + ": " + error;
        return false;
    }
    if (!root.addDeepAttribute(path, attribute)) {
        delete attribute;
        error = QStringLiteral("%1: can't be added").arg(QString::fromUtf8(path));
        return false;
    }
    return true;
}

} // namespace

bool splitAssignment(const QString &text, QByteArray &left, QString &right)
{
    const int equals = text.indexOf('=');
    if (equals <= 0)
        return false;
    left = text.left(equals).toUtf8();
    right = text.mid(equals + 1);
    return true;
}

Tamarack::Attribute *findAttribute(Tamarack::Node &root, const QByteArray &path)
{
    Tamarack::Attribute *at = &root;
    for (const QByteArray &name : path.split('/')) {
        auto *node = dynamic_cast<Tamarack::Node *>(at);
        at = node ? node->attribute(name) : nullptr;
    }
    return at;
}

bool parseSet(const ValueText &text, const QString &argument, QByteArray &path, unsigned &typeId, QString &value,
              QString &error)
{
    QString typed;
    if (!splitAssignment(argument, path, typed) || !text.splitTyped(typed, typeId, value)) {
        error = QStringLiteral("--set %1: expected PATH=TYPE:VALUE with a known TYPE").arg(argument);
        return false;
    }
    QByteArray probe;
    Loomy::BundleWriterCore writer(probe);
    if (!text.write(typeId, value, writer, &error)) {
        error = QStringLiteral("--set %1: %2").arg(argument, error);
        return false;
    }
    return true;
}

bool applySet(const ValueText &text, Loomy::RemoteNode &root, const QByteArray &path, unsigned typeId,
              const QString &value, QString &error)
{
    Tamarack::Attribute *attribute = findAttribute(root, path);
    if (attribute && !dynamic_cast<Tamarack::Node *>(attribute)) {
        unsigned id = 0;
        QString old;
        // The same type takes the value in place; another type replaces the attribute.
        if (text.describe(attribute, id, old) && id == typeId)
            return text.assign(attribute, typeId, value, &error);
        delete attribute;
    } else if (attribute) {
        error = QStringLiteral("%1 is a node").arg(QString::fromUtf8(path));
        return false;
    }
    Tamarack::Attribute *created = text.create(typeId, value, &error);
    if (created && root.addDeepAttribute(path, created))
        return true;
    delete created;
    if (error.isEmpty())
        error = QStringLiteral("%1 can't be added").arg(QString::fromUtf8(path));
    return false;
}

bool loadTree(const ValueText &text, const QByteArray &json, Loomy::RemoteNode &root, QString &error)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (!doc.isObject()) {
        error = QStringLiteral("not a JSON object (%1)").arg(parseError.errorString());
        return false;
    }
    // Objects are nodes, unless they are typed leaves.
    std::function<bool(const QByteArray &, const QJsonObject &)> walk = [&](const QByteArray &prefix,
                                                                            const QJsonObject &object) {
        for (auto it = object.begin(); it != object.end(); ++it) {
            const QByteArray path = prefix + it.key().toUtf8();
            const bool typedLeaf = it->isObject() && it->toObject().contains("type");
            if (it->isObject() && !typedLeaf) {
                if (it->toObject().isEmpty() && !root.addNode(path, new Tamarack::Node)) {
                    error = QStringLiteral("%1: can't be added").arg(QString::fromUtf8(path));
                    return false;
                }
                if (!walk(path + '/', it->toObject()))
                    return false;
            } else if (!addLeaf(text, root, path, *it, error)) {
                return false;
            }
        }
        return true;
    };
    return walk(QByteArray(), doc.object());
}

QList<QByteArray> dumpTree(const ValueText &text, Tamarack::Node &root)
{
    std::map<QByteArray, QString> lines;
    std::function<void(Tamarack::Node &, const QByteArray &)> collect = [&](Tamarack::Node &node,
                                                                           const QByteArray &prefix) {
        for (const auto &child : node.attributes()) {
            if (!child.second)
                continue;
            const QByteArray path = prefix + child.first;
            unsigned id = 0;
            QString value;
            if (auto *inner = dynamic_cast<Tamarack::Node *>(child.second))
                collect(*inner, path + '/');
            else if (text.describe(child.second, id, value))
                lines[path] = text.typeName(id) + ':' + value;
        }
    };
    collect(root, QByteArray());
    // Paths as they stand: a peer's names need not be UTF-8.
    QList<QByteArray> out;
    for (const auto &line : lines)
        out << line.first + '=' + line.second.toUtf8();
    return out;
}

} // namespace LoomyCli
