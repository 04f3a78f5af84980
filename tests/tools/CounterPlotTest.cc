#include "CounterPlot.h"

#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "PmPeriodRecord.h"

namespace {

// A grid whose value of counter k in minute m is 1000 * k + m.
struct NumberedGrid {
    NumberedGrid() {
        for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
            for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
                grid[row][bin] = 1000 * row + bin;
            }
        }
    }
    CounterGrid grid;
};

// 2023-11-14 22:00:00 UTC.
constexpr time_t kIntervalStart = 1699999200;

// What counters --csv prints is read back whole, labels included.
TEST(CounterPlotTest, CsvRoundTrip) {
    const NumberedGrid numbered;
    const CounterGrid& grid = numbered.grid;
    CounterGrid read;
    std::vector<std::string> labels;
    std::string error;
    ASSERT_TRUE(parseCountersCsv(formatCountersCsv(grid, kIntervalStart), read, labels, error))
        << error;
    EXPECT_EQ(0, std::memcmp(grid, read, sizeof(grid)));
    EXPECT_EQ("22:00", labels.front());
    EXPECT_EQ("22:14", labels.back());
}

// A file without all 38 counters is refused with the missing one named.
TEST(CounterPlotTest, CsvMissingCounter) {
    const std::string text = formatCountersCsv(NumberedGrid().grid, kIntervalStart);
    const std::string shortened = text.substr(0, text.rfind("sentPkts"));
    CounterGrid read;
    std::vector<std::string> labels;
    std::string error;
    EXPECT_FALSE(parseCountersCsv(shortened, read, labels, error));
    EXPECT_EQ("counter sentPkts is missing", error);
}

// A value that is not a number is refused.
TEST(CounterPlotTest, CsvBadValue) {
    std::string text = formatCountersCsv(NumberedGrid().grid, kIntervalStart);
    text.replace(text.find(",1000,"), 6, ",1x00,");
    CounterGrid read;
    std::vector<std::string> labels;
    std::string error;
    EXPECT_FALSE(parseCountersCsv(text, read, labels, error));
    EXPECT_EQ("'1x00' of delayRtMax is not a number", error);
}

// Delays are written in milliseconds, loss in percent of sent, -2 as NaN.
TEST(CounterPlotTest, DataLine) {
    CounterGrid grid;
    for (auto& row : grid) {
        for (int64_t& value : row) {
            value = -2;
        }
    }
    grid[PmCounter::delayRtMin][3] = 1500;
    grid[PmCounter::delayRtAvg][3] = 2000;
    grid[PmCounter::sentPkts][3] = 200;
    grid[PmCounter::lostPktsFwd][3] = 3;
    grid[PmCounter::lostPktsRev][3] = 0;
    std::stringstream data(plotData(grid, minuteLabelsFrom(kIntervalStart)));
    std::string line;
    for (int skip = 0; skip <= 4; ++skip) {
        std::getline(data, line);
    }
    EXPECT_EQ("3 22:03 1.500 2.000 NaN NaN NaN NaN NaN NaN NaN 1.500 0.000", line);
}

// A PNG name gives the PNG terminal, an SVG name the SVG one.
TEST(CounterPlotTest, TerminalByName) {
    EXPECT_EQ(0u, plotScript("t", "/tmp/d", "/tmp/x.png").find("set terminal pngcairo"));
    EXPECT_EQ(0u, plotScript("t", "/tmp/d", "/tmp/x.svg").find("set terminal svg"));
}

// A quote in the title is doubled inside gnuplot's single-quoted string.
TEST(CounterPlotTest, TitleQuoted) {
    EXPECT_NE(std::string::npos, plotScript("it's", "/tmp/d", "/tmp/x.png").find("title 'it''s'"));
}

}  // namespace
