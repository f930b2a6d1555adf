#pragma once
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

#include <functional>
#include <memory>

namespace Loomy { class TypeRegistry; }

// `loomy tap`: a TCP proxy that forwards every byte unchanged and prints what passes, decoded.
namespace LoomyCli {

class ValueText;

struct TapOptions
{
    QString listenHost;
    int listenPort = 0;
    QString toHost;
    int toPort = 5000;
    bool json = false;
};

// Runs until SIGINT or SIGTERM; the first line on stdout is "listening ADDR PORT".
int runTap(const TapOptions &options);

// Decodes one direction of one connection from the bytes as they come, in pieces of any size.
// Each decoded item goes to the sink as a line of text and as the same content in JSON (empty for
// a line whose content the previous object holds); bytes
// that can't be decoded are reported as hex with the reason, and what follows is still read.
//
// Threads: one decoder per direction, used by one thread; the registry is only read.
class TapDecoder
{
public:
    enum Role { FromServer, FromClient };   // bytes of the accepting side / of the connecting side
    using Sink = std::function<void(const QString &text, const QJsonObject &json)>;

    TapDecoder(Role role, const ValueText &text, Sink sink);
    ~TapDecoder();
    void feed(const QByteArray &bytes);

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace LoomyCli
