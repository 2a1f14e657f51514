// The fault matrix's heavy column: every 2xx answer is a well-formed feed of 200 MB. One operation
// at a time, since each holds the whole answer (and the feed and entry parsers their trees) while
// it runs.
#include "tests/hardening/fault_matrix_test.h"

namespace quire_test::hardening {
namespace {

TEST_F(FaultMatrixTest, HugeFeed) { RunColumn(Fault::kHugeFeed, false, 600.0); }

}  // namespace
}  // namespace quire_test::hardening
