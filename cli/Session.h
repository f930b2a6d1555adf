#pragma once
#include <QString>
#include <QStringList>

// `loomy serve` and `loomy connect`: one shared tree, a session per peer, the changes and goals
// given on the command line, and what is printed about them.
namespace LoomyCli {

struct SessionOptions
{
    bool serve = false;
    QString host;               // connect: the peer; serve: the address to bind
    int port = 5000;
    int fps = 60;
    QString treeFile;
    QString assets;
    QStringList sets, removes, events;                     // applied once a peer is initialised
    QStringList expects, expectAbsent, expectEvents, fetches;
    bool watch = false, json = false, dump = false, stats = false;
    bool noCreate = false, dropStale = false, stay = false;
    bool authoritative = false;   // this side's values win at first contact
    double timeout = 10.0;
};

// Runs to the end and returns the exit status: 0 goals met or a clean stop, 1 failure (with
// "loomy: FAIL: reason" as the last line on stderr), 2 a bad option value.
int runSession(const SessionOptions &options);

// Set by SIGINT and SIGTERM; the loops of the command end cleanly at the next frame.
bool interrupted();
void installSignalHandlers();

} // namespace LoomyCli
