#include "kestrel/Trace.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QtGlobal>

#include <mutex>
#include <thread>
#include <vector>

using Kestrel::Trace::Level;

TEST(Trace, EachFunctionLogsAtItsLevel)
{
    TraceCapture trace;
    Kestrel::Trace::debug("d %d", 1);
    Kestrel::Trace::info("i %s", "two");
    Kestrel::Trace::warning("w %u", 3u);
    Kestrel::Trace::error("e %.1f", 4.0);
    EXPECT_EQ(trace.lines(Level::Debug), QStringList{"d 1"});
    EXPECT_EQ(trace.lines(Level::Info), QStringList{"i two"});
    EXPECT_EQ(trace.lines(Level::Warning), QStringList{"w 3"});
    EXPECT_EQ(trace.lines(Level::Error), QStringList{"e 4.0"});
    EXPECT_EQ(trace.lines(), (QStringList{"d 1", "i two", "w 3", "e 4.0"}));
}

TEST(Trace, FormatsExactlyLikePrintf)
{
    TraceCapture trace;
    Kestrel::Trace::warning("BundleDispatcher::dispatchBundle # Unknown bundle type %u", 77u);
    Kestrel::Trace::info("%5d|%-4s|%x|%%", 42, "ab", 255);
    EXPECT_EQ(trace.lines(), (QStringList{"BundleDispatcher::dispatchBundle # Unknown bundle type 77",
                                          "   42|ab  |ff|%"}));
}

TEST(Trace, TextIsUtf8)
{
    TraceCapture trace;
    Kestrel::Trace::info("file '%s'", "\xc3\xa4.txt");
    EXPECT_EQ(trace.lines(), QStringList{QString::fromUtf8("file '\xc3\xa4.txt'")});
}

TEST(Trace, LinesLongerThanTheStackBufferArriveWhole)
{
    TraceCapture trace;
    for (int length : {510, 511, 512, 513, 5000}) {
        const QByteArray text(length, 'x');
        Kestrel::Trace::info("[%s]", text.constData());
        const QString line = trace.lines().last();
        EXPECT_EQ(line.size(), length + 2) << length;
        EXPECT_EQ(line, QLatin1Char('[') + QString(length, QLatin1Char('x')) + QLatin1Char(']')) << length;
    }
}

TEST(Trace, SetHookReturnsThePreviousHook)
{
    QStringList first;
    QStringList second;
    auto original = Kestrel::Trace::setHook([&](Level, const QString &line) { first << line; });
    Kestrel::Trace::info("one");
    auto previous = Kestrel::Trace::setHook([&](Level, const QString &line) { second << line; });
    Kestrel::Trace::info("two");
    previous(Level::Info, "through the returned hook");
    Kestrel::Trace::setHook(original);
    EXPECT_EQ(first, (QStringList{"one", "through the returned hook"}));
    EXPECT_EQ(second, QStringList{"two"});
}

namespace {

std::mutex s_qtMutex;
QStringList s_qtLines;

void qtHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    std::lock_guard<std::mutex> lock(s_qtMutex);
    s_qtLines << QStringLiteral("%1:%2:%3").arg(int(type)).arg(QLatin1String(context.category)).arg(message);
}

} // namespace

TEST(Trace, WithoutAHookLinesGoToQtUnderTheTraceCategory)
{
    const auto previousHook = Kestrel::Trace::setHook(Kestrel::Trace::Hook());
    const QtMessageHandler previousHandler = qInstallMessageHandler(qtHandler);
    Kestrel::Trace::debug("to qt %d", 1);
    Kestrel::Trace::error("to qt %d", 2);
    qInstallMessageHandler(previousHandler);
    Kestrel::Trace::setHook(previousHook);
    std::lock_guard<std::mutex> lock(s_qtMutex);
    EXPECT_EQ(s_qtLines, (QStringList{QStringLiteral("%1:loomy.trace:to qt 1").arg(int(QtDebugMsg)),
                                      QStringLiteral("%1:loomy.trace:to qt 2").arg(int(QtCriticalMsg))}));
}

TEST(Trace, AThrowingHookDoesNotReachTheCaller)
{
    const auto previous = Kestrel::Trace::setHook([](Level, const QString &) { throw std::runtime_error("hook"); });
    EXPECT_NO_THROW(Kestrel::Trace::error("still fine"));
    Kestrel::Trace::setHook(previous);
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
    const QStringList lines = trace.lines();
    ASSERT_EQ(lines.size(), 800);
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(trace.count(QStringLiteral("thread %1 line 199").arg(t)), 1);
}
