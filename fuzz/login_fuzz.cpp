// The login exchange in both roles, through the connection's own handshake(). The first byte
// picks the role: even, this side accepted the socket (server: it sends its banner and challenge
// and judges the client's lines and digest); odd, it connected (client: it judges the server's
// banner, answers the challenge and reads the verdict). The rest is what the peer sends.
#include "FuzzPeer.h"

#include "loomy/net/ConnectionThread.h"

#include "kestrel/Trace.h"

#include <cstdint>

namespace {

class Login : public Loomy::ConnectionThread
{
public:
    using Loomy::ConnectionThread::ConnectionThread;
    bool run() { return handshake(); }

protected:
    bool parse(QString) override { return true; }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    Fuzz::Peer peer;
    Login login(peer.socket(), (data[0] & 1) == 0);
    peer.sendAndEnd(QByteArray(reinterpret_cast<const char *>(data) + 1, int(size - 1)));
    login.run();
    login.stop();
    peer.close();
    return 0;
}
