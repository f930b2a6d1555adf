#include "cli/Tap.h"
#include "cli/Session.h"
#include "cli/ValueText.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/types/TypeRegistry.h"

#include "kestrel/BinaryData.h"
#include "kestrel/TCPServerSocket.h"
#include "kestrel/TCPSocket.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegExp>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace LoomyCli {

namespace {

// Module names of the message types whose bodies are decoded.
const char s_handshake[] = "Orchardlines.Loomy.Handshake";
const char s_symbols[] = "Orchardlines.Loomy.SymbolRegistry";
const char s_new[] = "Orchardlines.Loomy.AttributeNew";
const char s_update[] = "Orchardlines.Loomy.AttributeUpdate";
const char s_remove[] = "Orchardlines.Loomy.AttributeRemove";
const char s_event[] = "Orchardlines.Loomy.OneWayEvent";

// Above this a bundle header is taken for noise rather than waited for.
const quint32 s_maxBody = 256u << 20;

QString mapText(const QMap<QString, QString> &map)
{
    QStringList parts;
    for (auto it = map.begin(); it != map.end(); ++it)
        parts << it.key() + '=' + it.value();
    return '{' + parts.join(", ") + '}';
}

} // namespace

class TapDecoder::D
{
public:
    enum State { Banner, Challenge, User, Digest, Reply, Lines, Bundles, Skip, Raw };

    D(Role role, const ValueText &text, Sink sink) : role(role), text(text), sink(std::move(sink)) {}

    void report(const QString &line, QJsonObject json) { sink(line, json); }
    void undecodable(const QByteArray &bytes, const QString &reason)
    {
        report(QStringLiteral("undecodable %1 bytes (%2): %3").arg(bytes.size()).arg(reason, QString::fromLatin1(bytes.toHex())),
             {{"kind", "undecodable"}, {"reason", reason}, {"hex", QString::fromLatin1(bytes.toHex())}});
    }
    bool takeLine(QString &line);
    void step();
    void handleLine(const QString &line);
    void bundle(const QByteArray &bytes);
    void handshake(Loomy::BundleReader &reader, QStringList &items);
    QString path(quint32 symbol) const
    {
        const auto found = symbols.find(symbol);
        return found == symbols.end() ? QStringLiteral("?%1").arg(symbol) : QString::fromUtf8(found->second);
    }
    QString value(quint32 symbol, Loomy::BundleReaderCore &reader);

    const Role role;
    const ValueText &text;
    Sink sink;
    State state = Banner;
    QByteArray buffer;
    long long pending = 0;                        // bundles left of a batch, or bytes to skip
    std::map<quint32, QByteArray> modules{{0u, s_handshake}};   // bound by "load-module"
    std::map<quint32, QByteArray> symbols;        // the sender's numbers
    std::map<quint32, std::pair<quint32, quint32>> types;   // symbol: announced type id and size
    // Per decoder: a QRegExp keeps its captures and can't be shared between threads.
    QRegExp bannerPattern{"^Lanternwick (1|2)\\.(\\d+)\\.(\\d+)(-(.+))?$"};
    QRegExp bundles{"^loomy2 (\\d+)$"};
    QRegExp filePart{"^filepart \"([^\"]*)\" (\\d+) (\\d+)$"};
};

bool TapDecoder::D::takeLine(QString &line)
{
    for (;;) {
        const int end = buffer.indexOf('\n');
        if (end < 0)
            return false;
        QByteArray bytes = buffer.left(end);
        buffer.remove(0, end + 1);
        if (bytes.endsWith('\r'))
            bytes.chop(1);
        // Empty lines are skipped by the peers as well.
        if (!bytes.isEmpty() || state != Lines) {
            line = QString::fromUtf8(bytes);
            return true;
        }
    }
}

void TapDecoder::D::step()
{
    for (;;) {
        QString line;
        switch (state) {
        case Banner:
            if (!takeLine(line))
                return;
            if (role == FromClient && !bannerPattern.exactMatch(line)) {
                // An old client sends its user without a banner.
                report("login user " + line, {{"kind", "login-user"}, {"user", line}});
                state = Digest;
                break;
            }
            report("login banner " + line, {{"kind", "login-banner"}, {"banner", line}});
            state = role == FromServer ? Challenge : User;
            break;
        case Challenge:
        case Digest: {
            const int size = state == Challenge ? 64 : 16;
            if (buffer.size() < size)
                return;
            const QString hex = QString::fromLatin1(buffer.left(size).toHex());
            buffer.remove(0, size);
            const QString kind = state == Challenge ? "login-challenge" : "login-digest";
            report(kind.mid(0, 5) + ' ' + kind.mid(6) + ' ' + hex, {{"kind", kind}, {"hex", hex}});
            state = state == Challenge ? Reply : Lines;
            break;
        }
        case User:
            if (!takeLine(line))
                return;
            report("login user " + line, {{"kind", "login-user"}, {"user", line}});
            state = Digest;
            break;
        case Reply:
            if (!takeLine(line))
                return;
            report("login reply " + line, {{"kind", "login-reply"}, {"reply", line}});
            state = Lines;
            break;
        case Lines:
            if (!takeLine(line))
                return;
            handleLine(line);
            break;
        case Bundles: {
            if (pending == 0) {
                state = Lines;
                break;
            }
            if (buffer.size() < int(Loomy::Bundle::headerSize))
                return;
            const quint32 body = Loomy::Bundle::headerWord(buffer, 0);
            if (body > s_maxBody) {
                undecodable(buffer.left(16), QStringLiteral("body size %1 is too large").arg(body));
                buffer.remove(0, 16);
                state = Raw;
                break;
            }
            const int size = int(Loomy::Bundle::headerSize + body);
            if (buffer.size() < size)
                return;
            bundle(buffer.left(size));
            buffer.remove(0, size);
            --pending;
            break;
        }
        case Skip: {
            const int size = int(std::min<long long>(pending, buffer.size()));
            buffer.remove(0, size);
            pending -= size;
            if (pending > 0)
                return;
            state = Lines;
            break;
        }
        case Raw:
            // The stream can't be followed any more; what comes is shown as it is.
            if (buffer.isEmpty())
                return;
            undecodable(buffer, "stream lost");
            buffer.clear();
            return;
        }
    }
}

void TapDecoder::D::handleLine(const QString &line)
{
    const QString command = line.section(' ', 0, 0);
    if (command == "ping" || command == "pong") {
        report(line, {{"kind", command}, {"payload", line.section(' ', 1)}});
    } else if (bundles.exactMatch(line)) {
        pending = bundles.cap(1).toLongLong();
        report(QStringLiteral("loomy2 batch of %1 bundle%2").arg(pending).arg(pending == 1 ? "" : "s"),
             {{"kind", "batch"}, {"bundles", pending}});
        state = Bundles;
    } else if (filePart.exactMatch(line)) {
        pending = filePart.cap(2).toLongLong();
        report(QStringLiteral("file filepart \"%1\" (%2 bytes of part %3)").arg(filePart.cap(1), filePart.cap(2), filePart.cap(3)),
             {{"kind", "file"}, {"command", "filepart"}, {"name", filePart.cap(1)},
              {"bytes", pending}, {"part", filePart.cap(3).toLongLong()}});
        state = Skip;
    } else if (command == "sendfileinfo" || command == "fileinfo" || command == "sendparts") {
        report("file " + line, {{"kind", "file"}, {"command", command}, {"line", line}});
    } else {
        report("line " + line, {{"kind", "line"}, {"line", line}});
    }
}

QString TapDecoder::D::value(quint32 symbol, Loomy::BundleReaderCore &reader)
{
    const auto type = types.find(symbol);
    if (type == types.end())
        throw std::invalid_argument("no type announced for symbol " + std::to_string(symbol));
    const unsigned start = reader.position();
    try {
        return text.read(type->second.first, reader);
    } catch (const std::invalid_argument &) {
        // No text form: step over it by its announced or leading size.
        reader.setPosition(start);
        const quint32 size = type->second.second ? type->second.second : reader.read<quint32>();
        reader.read(size);
        return QStringLiteral("<%1 bytes>").arg(size);
    }
}

void TapDecoder::D::handshake(Loomy::BundleReader &reader, QStringList &items)
{
    while (reader.position() < unsigned(reader.data().size())) {
        const quint32 recordSize = reader.read<quint32>();
        const unsigned start = reader.position();
        QString command, module;
        reader.readString(command);
        if (command == "info") {
            items << "info " + mapText(Loomy::readMap(reader));
        } else if (command == "load-module") {
            const quint32 number = reader.read<quint32>();
            reader.readString(module);
            Loomy::readMap(reader);
            modules[number] = module.toUtf8();
            items << QStringLiteral("load-module %1=%2").arg(number).arg(module);
        } else if (command == "ok" || command == "error") {
            QString of;
            reader.readString(of);
            reader.readString(module);
            items << QStringLiteral("%1 %2 %3 %4").arg(command, of, module, mapText(Loomy::readMap(reader)));
        } else {
            if (reader.position() - start > recordSize)
                throw std::out_of_range("corrupted record");
            reader.read(recordSize - (reader.position() - start));
            items << "unknown record " + command;
        }
    }
}

void TapDecoder::D::bundle(const QByteArray &bytes)
{
    const Loomy::Bundle b(bytes);
    Loomy::BundleReader reader(b);
    const auto bound = modules.find(b.messageType());
    const QByteArray module = bound == modules.end() ? QByteArray() : bound->second;
    const QString head = QStringLiteral("bundle #%1 ack %2 type %3 (%4) %5 bytes")
                             .arg(b.bundleId()).arg(b.ackBundleId()).arg(b.messageType())
                             .arg(module.isEmpty() ? QStringLiteral("unbound") : QString::fromUtf8(module))
                             .arg(b.bodySize());
    QStringList items;
    // The bundle as one JSON object with its items; in text, the items as lines of their own.
    const auto flush = [&] {
        report(head, {{"kind", "bundle"}, {"id", qint64(b.bundleId())}, {"ack", qint64(b.ackBundleId())},
                      {"type", qint64(b.messageType())}, {"module", QString::fromUtf8(module)},
                      {"items", QJsonArray::fromStringList(items)}});
        for (const QString &item : items)
            report("  " + item, QJsonObject());
    };
    const unsigned end = unsigned(bytes.size());
    unsigned recordStart = reader.position();   // where a record that fails began
    try {
        if (module == s_handshake) {
            handshake(reader, items);
        } else if (module == s_symbols) {
            while (reader.position() < end) {
                recordStart = reader.position();
                const quint32 symbol = reader.read<quint32>();
                QByteArray name;
                reader.readBinary(name);
                symbols[symbol] = name;
                items << QStringLiteral("symbol %1=%2").arg(symbol).arg(QString::fromUtf8(name));
            }
        } else if (module == s_new) {
            while (reader.position() < end) {
                recordStart = reader.position();
                const quint32 symbol = reader.read<quint32>(), typeId = reader.read<quint32>();
                const quint32 size = reader.read<quint32>(), flags = reader.read<quint32>();
                types[symbol] = {typeId, size};
                items << QStringLiteral("+ %1 %2%3").arg(path(symbol), text.typeName(typeId),
                                                          (flags & 1) ? ' ' + value(symbol, reader) : QString());
            }
        } else if (module == s_update) {
            while (reader.position() < end) {
                recordStart = reader.position();
                const quint32 symbol = reader.read<quint32>();
                items << QStringLiteral("~ %1 %2").arg(path(symbol), value(symbol, reader));
            }
        } else if (module == s_remove) {
            for (; reader.position() < end; recordStart = reader.position())
                items << "- " + path(reader.read<quint32>());
        } else if (module == s_event) {
            while (reader.position() < end) {
                recordStart = reader.position();
                const quint32 symbol = reader.read<quint32>();
                QByteArray payload;
                reader.readBinary(payload);
                Kestrel::BinaryData data;
                data.linkTo(payload.data(), payload.size());
                data.setTotal(unsigned(payload.size()));
                QString eventText;
                if (payload.isEmpty() || !data.readString(eventText))
                    eventText = QStringLiteral("<%1 bytes>").arg(payload.size());
                items << QStringLiteral("! %1 %2").arg(path(symbol), eventText);
            }
        } else if (b.bodySize() > 0) {
            items << QStringLiteral("<%1 bytes of a type not bound by the handshake>").arg(b.bodySize());
        }
    } catch (const std::exception &e) {
        flush();
        undecodable(bytes.mid(int(recordStart)), QString::fromUtf8(e.what()));
        return;
    }
    flush();
}

TapDecoder::TapDecoder(Role role, const ValueText &text, Sink sink)
    : m_d(std::make_unique<D>(role, text, std::move(sink)))
{
}

TapDecoder::~TapDecoder() = default;

void TapDecoder::feed(const QByteArray &bytes)
{
    m_d->buffer.append(bytes);
    m_d->step();
}

namespace {

// One proxied connection: a thread per direction copies and decodes.
struct Link
{
    std::unique_ptr<Kestrel::TCPSocket> client, server;
    std::thread up, down;
};

std::mutex s_printMutex;

void pump(Kestrel::TCPSocket &from, Kestrel::TCPSocket &to, TapDecoder &decoder)
{
    std::vector<char> buffer(65536);
    for (;;) {
        const int count = from.read(buffer.data(), int(buffer.size()), Kestrel::TCPSocket::NoFlags);
        if (count <= 0 || to.write(buffer.data(), count) != count)
            break;
        decoder.feed(QByteArray(buffer.data(), count));
    }
    // Either end closing ends the link both ways, as it would without the tap.
    from.close();
    to.close();
}

} // namespace

int runTap(const TapOptions &options)
{
    Loomy::TypeRegistry types;
    const ValueText text(types);
    Kestrel::TCPServerSocket listener;
    if (const int error = listener.open(qPrintable(options.listenHost), options.listenPort, 16)) {
        std::fprintf(stderr, "loomy: FAIL: can't listen on %s:%d: %s\n", qUtf8Printable(options.listenHost),
                     options.listenPort, std::strerror(error));
        return 1;
    }
    std::printf("listening %s %d\n", qUtf8Printable(options.listenHost), listener.port());
    std::fflush(stdout);

    std::vector<std::unique_ptr<Link>> links;
    std::vector<std::unique_ptr<TapDecoder>> decoders;
    int number = 0;
    while (!interrupted()) {
        if (!listener.isPendingConnection(100000))
            continue;
        auto link = std::make_unique<Link>();
        link->client.reset(listener.accept());
        if (!link->client)
            continue;
        ++number;
        link->server = std::make_unique<Kestrel::TCPSocket>();
        if (link->server->open(qPrintable(options.toHost), options.toPort) != 0) {
            std::fprintf(stderr, "loomy: tap: connection %d: can't reach %s:%d\n", number,
                         qUtf8Printable(options.toHost), options.toPort);
            continue;
        }
        for (const char *direction : {"c>s", "s>c"}) {
            const QString label = QString::number(number) + ' ' + direction;
            auto sink = [label, number, direction, &options](const QString &line, QJsonObject json) {
                std::lock_guard<std::mutex> lock(s_printMutex);
                if (options.json) {
                    if (json.isEmpty())
                        return;   // a line of text only: its content is in the object before it
                    json["conn"] = number;
                    json["dir"] = direction;
                    std::printf("%s\n", QJsonDocument(json).toJson(QJsonDocument::Compact).constData());
                } else {
                    std::printf("%s %s\n", qUtf8Printable(label), qUtf8Printable(line));
                }
                std::fflush(stdout);
            };
            const bool up = direction[0] == 'c';
            decoders.push_back(std::make_unique<TapDecoder>(up ? TapDecoder::FromClient : TapDecoder::FromServer, text, sink));
        }
        TapDecoder &upDecoder = *decoders[decoders.size() - 2], &downDecoder = *decoders.back();
        Link &l = *link;
        l.up = std::thread([&l, &upDecoder] { pump(*l.client, *l.server, upDecoder); });
        l.down = std::thread([&l, &downDecoder] { pump(*l.server, *l.client, downDecoder); });
        links.push_back(std::move(link));
    }
    listener.close();
    for (auto &link : links) {
        link->client->close();
        link->server->close();
        link->up.join();
        link->down.join();
    }
    return 0;
}

} // namespace LoomyCli
