// loomy: serve, connect to and tap a live attribute tree from the shell.
#include "cli/Session.h"
#include "cli/Tap.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>

namespace {

const char s_usage[] =
    "usage: loomy serve [--bind ADDR] [--port N] [session options]\n"
    "       loomy connect HOST[:PORT] [session options]\n"
    "       loomy tap --listen [ADDR:]PORT --to HOST:PORT [--json]\n";

int usageError(const QString &text)
{
    std::fprintf(stderr, "loomy: %s (see loomy --help)\n", qUtf8Printable(text));
    return 2;
}

// HOST:PORT or, with a default host, [HOST:]PORT.
bool splitAddress(const QString &text, const QString &defaultHost, int defaultPort, QString &host, int &port)
{
    const int colon = text.lastIndexOf(':');
    bool ok = true;
    if (colon < 0 && !defaultHost.isEmpty()) {
        host = defaultHost;
        port = text.toInt(&ok);
    } else {
        host = colon < 0 ? text : text.left(colon);
        port = colon < 0 ? defaultPort : text.mid(colon + 1).toInt(&ok);
    }
    return ok && !host.isEmpty() && port >= 0 && port < 65536;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments();
    const QString command = args.size() > 1 ? args[1] : QString();
    if (command == "--help" || command == "-h") {
        std::printf("%s", s_usage);
        return 0;
    }
    if (command != "serve" && command != "connect" && command != "tap")
        return usageError(command.isEmpty() ? "a command is needed: serve, connect or tap"
                                            : "unknown command '" + command + "'");
    args.removeAt(1);

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addHelpOption();
    const QCommandLineOption verbose(QStringList{"v", "verbose"}, "Library debug lines too.");
    const QCommandLineOption quiet(QStringList{"q", "quiet"}, "Library errors only.");
    const QCommandLineOption json("json", "One JSON object per line.");
    parser.addOptions({verbose, quiet, json});
    if (command == "tap") {
        const QCommandLineOption listen("listen", "Where to listen.", "[ADDR:]PORT");
        const QCommandLineOption to("to", "Where to forward.", "HOST:PORT");
        parser.addOptions({listen, to});
        if (!parser.parse(args))
            return usageError(parser.errorText());
        LoomyCli::TapOptions tap;
        tap.json = parser.isSet(json);
        if (!parser.positionalArguments().isEmpty())
            return usageError("tap takes no arguments");
        if (!splitAddress(parser.value(listen), "127.0.0.1", 0, tap.listenHost, tap.listenPort))
            return usageError("--listen [ADDR:]PORT is needed");
        if (!splitAddress(parser.value(to), QString(), 5000, tap.toHost, tap.toPort) || !parser.isSet(to))
            return usageError("--to HOST:PORT is needed");
        LoomyCli::installSignalHandlers();
        return LoomyCli::runTap(tap);
    }

    const QCommandLineOption bind("bind", "Address to listen on (127.0.0.1).", "ADDR", "127.0.0.1");
    const QCommandLineOption port("port", "Port to listen on (5000; 0 takes a free one).", "N", "5000");
    const QCommandLineOption tree("tree", "Initial tree.", "FILE.json");
    const QCommandLineOption assets("assets", "Asset root.", "DIR");
    const QCommandLineOption set("set", "Change once the peer is initialised.", "PATH=TYPE:VALUE");
    const QCommandLineOption remove("remove", "Removal once the peer is initialised.", "PATH");
    const QCommandLineOption event("event", "Event once the peer is initialised.", "NAME=TEXT");
    const QCommandLineOption expect("expect", "Goal: the attribute has the value.", "PATH=VALUE");
    const QCommandLineOption expectAbsent("expect-absent", "Goal: no attribute there.", "PATH");
    const QCommandLineOption expectEvent("expect-event", "Goal: the event was received.", "NAME[=TEXT]");
    const QCommandLineOption fetch("fetch", "Download a file of the peer's asset root.", "NAME");
    const QCommandLineOption watch("watch", "Print the peer's changes as they are applied.");
    const QCommandLineOption dump("dump", "Print the tree at the end.");
    const QCommandLineOption stats("stats", "Print the session's figures at the end.");
    const QCommandLineOption noCreate("no-create", "Don't create attributes the peer adds.");
    const QCommandLineOption dropStale("drop-stale", "Drop peer values older than a local change.");
    const QCommandLineOption authoritative("authoritative",
                                           "This side's values win at first contact (serve's default).");
    const QCommandLineOption notAuthoritative("not-authoritative",
                                              "The peer's values win at first contact (connect's default).");
    const QCommandLineOption timeout("timeout", "Seconds for the goals (10).", "S", "10");
    const QCommandLineOption stay("stay", "Keep running after the goals.");
    const QCommandLineOption fps("fps", "Frames per second (60).", "N", "60");
    parser.addOptions({tree, assets, set, remove, event, expect, expectAbsent, expectEvent, fetch, watch, dump,
                       stats, noCreate, dropStale, authoritative, notAuthoritative, timeout, stay, fps});
    if (command == "serve")
        parser.addOptions({bind, port});
    if (!parser.parse(args))
        return usageError(parser.errorText());
    if (parser.isSet("help")) {
        std::printf("%s\n%s", s_usage, qUtf8Printable(parser.helpText()));
        return 0;
    }

    LoomyCli::SessionOptions options;
    options.serve = command == "serve";
    const QStringList positional = parser.positionalArguments();
    bool ok = true;
    if (options.serve) {
        if (!positional.isEmpty())
            return usageError("serve takes no arguments");
        options.host = parser.value(bind);
        options.port = parser.value(port).toInt(&ok);
        if (!ok || options.port < 0 || options.port > 65535)
            return usageError("--port needs a number from 0 to 65535");
    } else if (positional.size() != 1 || !splitAddress(positional[0], QString(), 5000, options.host, options.port)) {
        return usageError("connect needs one HOST[:PORT]");
    }
    options.fps = parser.value(fps).toInt(&ok);
    if (!ok || options.fps < 1 || options.fps > 1000)
        return usageError("--fps needs a number from 1 to 1000");
    options.timeout = parser.value(timeout).toDouble(&ok);
    if (!ok || options.timeout <= 0)
        return usageError("--timeout needs a positive number of seconds");
    options.treeFile = parser.value(tree);
    options.assets = parser.value(assets);
    options.sets = parser.values(set);
    options.removes = parser.values(remove);
    options.events = parser.values(event);
    options.expects = parser.values(expect);
    options.expectAbsent = parser.values(expectAbsent);
    options.expectEvents = parser.values(expectEvent);
    options.fetches = parser.values(fetch);
    options.watch = parser.isSet(watch);
    options.json = parser.isSet(json);
    options.dump = parser.isSet(dump);
    options.stats = parser.isSet(stats);
    options.noCreate = parser.isSet(noCreate);
    options.dropStale = parser.isSet(dropStale);
    options.stay = parser.isSet(stay);
    if (parser.isSet(authoritative) && parser.isSet(notAuthoritative))
        return usageError("--authoritative and --not-authoritative exclude each other");
    // The server holds the truth unless told otherwise, so a client that reconnects after a drop
    // takes the server's values where both hold an attribute.
    options.authoritative = parser.isSet(authoritative) || (options.serve && !parser.isSet(notAuthoritative));

    // Library lines go to stderr through Qt's logging; QT_LOGGING_RULES still has the last word.
    if (parser.isSet(verbose))
        QLoggingCategory::setFilterRules("loomy.trace.debug=true");
    else if (parser.isSet(quiet))
        QLoggingCategory::setFilterRules("loomy.trace.debug=false\nloomy.trace.info=false\nloomy.trace.warning=false");
    else
        QLoggingCategory::setFilterRules("loomy.trace.debug=false");

    LoomyCli::installSignalHandlers();
    return LoomyCli::runSession(options);
}
