#include "tools/quire/exit_codes.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using quire_cli::ExitCode;
using quire_cli::ExitCodes;

const ExitCode kEveryCode[] = {
    ExitCode::kOk,
    ExitCode::kLocal,
    ExitCode::kUsage,
    ExitCode::kNetwork,
    ExitCode::kTokenRefused,
    ExitCode::kNotFound,
    ExitCode::kEntityTagChanged,
    ExitCode::kServerError,
    ExitCode::kUnreadableAnswer,
    ExitCode::kInterrupted,
};

TEST(ExitCodesTest, EveryClassHasItsOwnValueAndName) {
  std::set<int> values;
  std::set<std::string> names;
  for (ExitCode code : kEveryCode) {
    values.insert(ExitCodes::Value(code));
    names.insert(ExitCodes::Name(code));
  }
  EXPECT_EQ(values.size(), std::size(kEveryCode));
  EXPECT_EQ(names.size(), std::size(kEveryCode));
  EXPECT_EQ(names.count("unknown"), 0u);
}

TEST(ExitCodesTest, TheDocumentedValuesAreStable) {
  EXPECT_EQ(ExitCodes::Value(ExitCode::kOk), 0);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kLocal), 1);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kUsage), 2);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kNetwork), 3);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kTokenRefused), 4);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kNotFound), 5);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kEntityTagChanged), 6);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kServerError), 7);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kUnreadableAnswer), 8);
  EXPECT_EQ(ExitCodes::Value(ExitCode::kInterrupted), 130);
}

TEST(ExitCodesTest, TheTableHasOneLinePerCodeWithValueAndName) {
  const std::string table = ExitCodes::Table();
  std::size_t lines = 0;
  for (char c : table) lines += c == '\n';
  EXPECT_EQ(lines, std::size(kEveryCode));
  for (ExitCode code : kEveryCode) {
    const std::string value = std::to_string(ExitCodes::Value(code));
    const std::string name = ExitCodes::Name(code);
    const std::size_t at = table.find(" " + value + "  " + name);
    EXPECT_NE(at, std::string::npos) << value << " " << name << " missing from\n" << table;
  }
  EXPECT_NE(table.find("HTTP 412"), std::string::npos);
  EXPECT_NE(table.find("HTTP 401"), std::string::npos);
}

}  // namespace
