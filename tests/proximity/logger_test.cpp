#include "proximity/QZWLogger.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

using quenby::test::ConsoleCapture;
using quenby::test::LogLevelGuard;

TEST(QZWLogger, ThresholdPrefixesAndLevelsWithoutAFormat) {
    // Every test that changes the threshold puts it back, so here it is still the initial one.
    EXPECT_EQ(QZWLogger::level(), 3) << "Error by default";
    LogLevelGuard guard(QZWLogLevelError);
    ConsoleCapture console;
    QZWLogger::logFormat(QZWLogLevelError, "API Request Failed with Error: {}", "x");
    QZWLogger::log(QZWLogLevelWarning, "Unable to load kit from cache file");
    QZWLogger::setLevel(QZWLogLevelDebug);
    for (int level = 0; level <= 7; ++level) QZWLogger::log(level, "m");
    QZWLogger::log(-1, "negative passes every threshold but has no format");
    QZWLogger::setLevel(12);
    QZWLogger::log(9, "above Debug: formatted, never written");
    EXPECT_EQ(
        console.lines(),
        (std::vector<std::string>{
            "Zonewise[Error] API Request Failed with Error: x", "Zonewise[Emergency] m",
            "Zonewise[Alert] m", "Zonewise[Critical] m", "Zonewise[Error] m", "Zonewise[Warning] m",
            "Zonewise[Notice] m", "Zonewise[Info] m", "Zonewise[Debug] m"}));

    console.clear();
    QZWLogger::setLevel(300);  // one signed byte
    EXPECT_EQ(QZWLogger::level(), 44);
    QZWLogger::setLevel(-1);
    QZWLogger::log(QZWLogLevelEmergency, "below the threshold");
    EXPECT_TRUE(console.lines().empty());
}
