// Table-driven checks of error codes: one row per check, the call, the code it must return
// and the log line that must say why (empty where the code says it all). Each row is
// checked with a fresh log capture and named in the failure message.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>

#include "LogCapture.h"

namespace HXFramework::Test {

struct CodeRow {
  const char* check;
  std::function<int()> call;
  int code;
  const char* logged;
};

inline void ExpectCodes(std::initializer_list<CodeRow> rows) {
  for (const CodeRow& row : rows) {
    SCOPED_TRACE(row.check);
    LogCapture capture;
    EXPECT_EQ(row.call(), row.code);
    if (*row.logged != '\0') {
      EXPECT_TRUE(capture.Contains(row.logged)) << "no log line containing: " << row.logged;
    }
  }
}

}  // namespace HXFramework::Test
