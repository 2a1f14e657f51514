// The fault matrix's slow column: every answer comes 90 s late, past the connection's fixed stall
// time-out of 60 s (libcurl measures the transfer speed over a window of about five seconds, so a
// request that sent a body gives up between 60 and 66 s after it started). All seven operations
// wait side by side, so the column costs the time-out once.
#include "tests/hardening/fault_matrix_test.h"

namespace quire_test::hardening {
namespace {

TEST_F(FaultMatrixTest, DelayPastTheTimeOut) { RunColumn(Fault::kDelayPastTimeout, true, 150.0); }

}  // namespace
}  // namespace quire_test::hardening
