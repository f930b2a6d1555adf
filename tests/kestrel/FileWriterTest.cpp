#include "kestrel/FileWriter.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

TEST(FileWriter, LogsTheStartAndEndOfItsScope)
{
    TraceCapture trace;
    {
        Kestrel::FileWriter writer("LoomySettings::sync");
        EXPECT_EQ(trace.lines(), QStringList{"FileWriter::FileWriter # Writing LoomySettings::sync"});
    }
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Debug),
              (QStringList{"FileWriter::FileWriter # Writing LoomySettings::sync",
                           "FileWriter::~FileWriter # Done writing LoomySettings::sync"}));
}
