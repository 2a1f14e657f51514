// The columns of the fault matrix that take seconds; the delay past the time-out is in
// fault_delay_test.cpp and the 200 MB feed in fault_huge_feed_test.cpp.
#include "tests/hardening/fault_matrix_test.h"

namespace quire_test::hardening {
namespace {

constexpr double kSeconds = 120.0;

TEST_F(FaultMatrixTest, NoFault) { RunColumn(Fault::kNone, true, kSeconds); }

TEST_F(FaultMatrixTest, ConnectionClosedInTheRequestHeader) {
  RunColumn(Fault::kCloseInRequestHead, true, kSeconds);
}

TEST_F(FaultMatrixTest, ConnectionClosedInTheRequestBody) {
  RunColumn(Fault::kCloseInRequestBody, true, kSeconds);
}

TEST_F(FaultMatrixTest, ConnectionClosedInTheResponseHeader) {
  RunColumn(Fault::kCloseInResponseHead, true, kSeconds);
}

TEST_F(FaultMatrixTest, ConnectionClosedInTheResponseBody) {
  RunColumn(Fault::kCloseInResponseBody, true, kSeconds);
}

TEST_F(FaultMatrixTest, ServiceUnavailable) {
  RunColumn(Fault::kServiceUnavailable, true, kSeconds);
}

TEST_F(FaultMatrixTest, Answer308WithoutRange) {
  RunColumn(Fault::k308WithoutRange, true, kSeconds);
}

TEST_F(FaultMatrixTest, RangeBeyondTheData) { RunColumn(Fault::kRangeBeyondData, true, kSeconds); }

TEST_F(FaultMatrixTest, MalformedXml) { RunColumn(Fault::kMalformedXml, true, kSeconds); }

TEST_F(FaultMatrixTest, EntityBomb) { RunColumn(Fault::kEntityBomb, true, kSeconds); }

// A 503 to the second request: the upload's POST goes through and its first PUT fails; the
// failure reaches the caller with that PUT's id and answer, and the upload ends there.
TEST_F(FaultMatrixTest, ServiceUnavailableOnAChunk) {
  const std::vector<Outcome> outcomes =
      Run({Operation::kResumableUpload}, {"--fault-fail-every", "2"}, true, kSeconds);
  ASSERT_EQ(outcomes.size(), 1u);
  const Outcome& outcome = outcomes[0];
  CheckCallback(Operation::kResumableUpload, outcome);
  EXPECT_EQ(outcome.status, 503);
  EXPECT_EQ(outcome.request_id, outcome.issued_id + 1) << "the first PUT's id";
  EXPECT_TRUE(outcome.had_headers);
  EXPECT_EQ(outcome.body_size, 0);
}

}  // namespace
}  // namespace quire_test::hardening
