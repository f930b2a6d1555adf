#include "kestrel/Trace.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QtGlobal>

#include <thread>
#include <vector>

using Kestrel::Trace::Level;

TEST(Trace, EachFunctionFormatsLikePrintfAtItsLevelWhateverTheLength)
{
    TraceCapture trace;
    Kestrel::Trace::debug("%5d|%-4s|%x|%%", 42, "ab", 255);
    Kestrel::Trace::info("file '%s'", "\xc3\xa4.txt");
    Kestrel::Trace::warning("BundleDispatcher::dispatchBundle # Unknown bundle type %u", 77u);
    Kestrel::Trace::error("e %.1f", 4.0);
    const QStringList expected{"   42|ab  |ff|%", QString::fromUtf8("file '\xc3\xa4.txt'"),
                               "BundleDispatcher::dispatchBundle # Unknown bundle type 77", "e 4.0"};
    EXPECT_EQ(trace.lines(), expected);
    const Level levels[] = {Level::Debug, Level::Info, Level::Warning, Level::Error};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(trace.lines(levels[i]), QStringList{expected[i]});
    for (int length : {510, 511, 512, 513, 5000}) {   // around and past the stack buffer
        Kestrel::Trace::info("[%s]", QByteArray(length, 'x').constData());
        EXPECT_EQ(trace.lines().last(), '[' + QString(length, 'x') + ']') << length;
    }
}

TEST(Trace, SetHookReturnsThePreviousHookAndAThrowingHookStaysInside)
{
    QStringList first, second;
    const auto original = Kestrel::Trace::setHook([&](Level, const QString &line) { first << line; });
    const auto previous = Kestrel::Trace::setHook([&](Level, const QString &line) {
        second << line;
        throw std::runtime_error("hook");
    });
    EXPECT_NO_THROW(Kestrel::Trace::error("two"));
    previous(Level::Info, "through the returned hook");
    Kestrel::Trace::setHook(original);
    EXPECT_EQ(first, QStringList{"through the returned hook"});
    EXPECT_EQ(second, QStringList{"two"});
}

TEST(Trace, WithoutAHookLinesGoToQtUnderTheTraceCategory)
{
    static QStringList lines;   // the handler can't capture; it runs on this thread
    lines.clear();
    const auto previousHook = Kestrel::Trace::setHook(Kestrel::Trace::Hook());
    const auto previousHandler = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &text) {
        lines << QStringLiteral("%1:%2:%3").arg(int(type)).arg(QLatin1String(context.category)).arg(text);
    });
    Kestrel::Trace::debug("to qt %d", 1);
    Kestrel::Trace::error("to qt %d", 2);
    qInstallMessageHandler(previousHandler);
    Kestrel::Trace::setHook(previousHook);
    EXPECT_EQ(lines, (QStringList{QStringLiteral("%1:loomy.trace:to qt 1").arg(int(QtDebugMsg)),
                                  QStringLiteral("%1:loomy.trace:to qt 2").arg(int(QtCriticalMsg))}));
}

TEST(Trace, ConcurrentLinesAreNeitherLostNorMixed)
{
    TraceCapture trace;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                Kestrel::Trace::info("thread %d line %d", t, i);
        });
    for (auto &thread : threads)
        thread.join();
    ASSERT_EQ(trace.lines().size(), 800);
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(trace.count(QStringLiteral("thread %1 line 199").arg(t)), 1);
}
