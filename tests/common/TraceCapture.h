#pragma once
#include "kestrel/Trace.h"

#include <QString>
#include <QStringList>

#include <mutex>
#include <utility>
#include <vector>

// Captures every trace line for the lifetime of the object, from any thread.
class TraceCapture
{
public:
    TraceCapture()
    {
        m_previous = Kestrel::Trace::setHook([this](Kestrel::Trace::Level level, const QString &line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.emplace_back(level, line);
        });
    }
    ~TraceCapture() { Kestrel::Trace::setHook(m_previous); }
    TraceCapture(const TraceCapture &) = delete;
    TraceCapture &operator=(const TraceCapture &) = delete;

    QStringList lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        QStringList out;
        for (const auto &entry : m_lines)
            out << entry.second;
        return out;
    }
    QStringList lines(Kestrel::Trace::Level level) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        QStringList out;
        for (const auto &entry : m_lines)
            if (entry.first == level)
                out << entry.second;
        return out;
    }
    int count(const QString &line) const { return lines().count(line); }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<Kestrel::Trace::Level, QString>> m_lines;
    Kestrel::Trace::Hook m_previous;
};
