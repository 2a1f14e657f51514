#include "tools/quire/progress_bar.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using quire_cli::ProgressBar;

TEST(ProgressBarTest, SizesUseBinaryUnits) {
  EXPECT_EQ(ProgressBar::Size(0), "0 B");
  EXPECT_EQ(ProgressBar::Size(1023), "1023 B");
  EXPECT_EQ(ProgressBar::Size(1536), "1.5 KiB");
  EXPECT_EQ(ProgressBar::Size(20.0 * 1024 * 1024), "20.0 MiB");
  EXPECT_EQ(ProgressBar::Size(3.0 * 1024 * 1024 * 1024), "3.0 GiB");
}

TEST(ProgressBarTest, DurationsRoundUpToWholeSeconds) {
  EXPECT_EQ(ProgressBar::Duration(0.2), "1 s");
  EXPECT_EQ(ProgressBar::Duration(5), "5 s");
  EXPECT_EQ(ProgressBar::Duration(125), "2 min 05 s");
  EXPECT_EQ(ProgressBar::Duration(3720), "1 h 02 min");
}

TEST(ProgressBarTest, TheLineShowsBarBytesRateAndTimeLeft) {
  const std::int64_t mib = 1024 * 1024;
  EXPECT_EQ(ProgressBar::Line(10 * mib, 20 * mib, 5.0 * mib),
            "[############............]  10.0 MiB / 20.0 MiB  5.0 MiB/s  2 s left");
  EXPECT_EQ(ProgressBar::Line(0, 20 * mib, 0), "[........................]  0 B / 20.0 MiB");
  EXPECT_EQ(ProgressBar::Line(20 * mib, 20 * mib, 4.0 * mib),
            "[########################]  20.0 MiB / 20.0 MiB  4.0 MiB/s");
}

TEST(ProgressBarTest, TheLineSaysWhenRequestsWereRetried) {
  const std::int64_t mib = 1024 * 1024;
  EXPECT_EQ(ProgressBar::Line(10 * mib, 20 * mib, 5.0 * mib, 1),
            "[############............]  10.0 MiB / 20.0 MiB  5.0 MiB/s  2 s left  1 retry");
  EXPECT_EQ(ProgressBar::Line(0, 20 * mib, 0, 3),
            "[........................]  0 B / 20.0 MiB  3 retries");
  std::ostringstream out;
  ProgressBar bar(&out, 1000, 0);
  bar.Update(100, 0.5);
  bar.set_retries(2);
  bar.Update(1000, 0.7);
  // Only the line drawn after the retries says so.
  EXPECT_EQ(out.str().find("retr"), out.str().find("2 retries") + 2) << out.str();
}

TEST(ProgressBarTest, RedrawsInPlaceAtMostTenTimesASecondAndAlwaysAtTheEnd) {
  std::ostringstream out;
  ProgressBar bar(&out, 1000, 0);
  bar.Update(100, 0.50);
  bar.Update(200, 0.55);  // too soon: not drawn
  bar.Update(300, 0.70);
  bar.Update(1000, 0.71);  // complete: drawn anyway
  bar.Finish();
  bar.Finish();  // once only
  const std::string text = out.str();
  std::size_t draws = 0;
  for (char c : text) draws += c == '\r';
  EXPECT_EQ(draws, 3u) << text;
  EXPECT_EQ(text.find("200 B / "), std::string::npos);
  EXPECT_NE(text.find("300 B / 1000 B"), std::string::npos);
  EXPECT_NE(text.find("1000 B / 1000 B"), std::string::npos);
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST(ProgressBarTest, TheRateOfAResumedTransferCountsOnlyWhatThisRunMoved) {
  std::ostringstream out;
  ProgressBar bar(&out, 4096, 2048);
  bar.Update(3072, 1.0);  // 1 KiB moved in one second
  EXPECT_NE(out.str().find("1.0 KiB/s  1 s left"), std::string::npos) << out.str();
}

TEST(ProgressBarTest, NothingDrawnMeansNothingFinished) {
  std::ostringstream out;
  ProgressBar bar(&out, 10, 0);
  bar.Finish();
  EXPECT_TRUE(out.str().empty());
}

}  // namespace
