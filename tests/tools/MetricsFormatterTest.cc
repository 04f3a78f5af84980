#include "MetricsFormatter.h"

#include <gtest/gtest.h>

#include "MetricsHttpServer.h"

namespace {

// Microseconds are written as seconds in exact decimal.
TEST(MetricsFormatterTest, SecondsText) {
    EXPECT_EQ("0.000123", secondsText(123));
    EXPECT_EQ("4.000000", secondsText(4000000));
    EXPECT_EQ("12.345678", secondsText(12345678));
}

// Backslash, double quote and line feed are escaped in label values.
TEST(MetricsFormatterTest, EscapesLabelValues) {
    EXPECT_EQ("a\\\\b\\\"c\\nd", escapeLabelValue("a\\b\"c\nd"));
}

// An empty scrape still declares every metric once with its type.
TEST(MetricsFormatterTest, EmptyScrapeDeclaresTypes) {
    ScrapeResult scrape;
    scrape.daemonUp = true;
    const std::string text = formatMetrics(scrape);
    EXPECT_NE(std::string::npos, text.find("# TYPE twamp_session_sent_packets_total counter\n"));
    EXPECT_NE(std::string::npos, text.find("# TYPE twamp_session_round_trip_p99_seconds gauge\n"));
    EXPECT_NE(std::string::npos, text.find("twamp_exporter_daemon_up 1\n"));
}

// /metrics is served in the exposition format's content type.
TEST(MetricsFormatterTest, MetricsPageAnswer) {
    std::string type;
    std::string body;
    EXPECT_EQ(200, MetricsHttpServer::answer(
                       "GET", "/metrics", []() { return "x 1\n"; }, type, body));
    EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", type);
    EXPECT_EQ("x 1\n", body);
}

// Another path is not found.
TEST(MetricsFormatterTest, UnknownPathNotFound) {
    std::string type;
    std::string body;
    EXPECT_EQ(404, MetricsHttpServer::answer(
                       "GET", "/other", []() { return ""; }, type, body));
}

// A POST is refused.
TEST(MetricsFormatterTest, PostRefused) {
    std::string type;
    std::string body;
    EXPECT_EQ(405, MetricsHttpServer::answer(
                       "POST", "/metrics", []() { return ""; }, type, body));
}

}  // namespace
