#include "util/bootstrap_error.h"

#include <gtest/gtest.h>

TEST(IsBootstrapError, ExactlyTheServersOwnCodes) {
  const struct {
    OSStatus status;
    bool isOne;
  } rows[] = {{0, false},   {1099, false}, {1100, true},   {BOOTSTRAP_NAME_IN_USE, true},
              {1105, true}, {1106, false}, {-1102, false}, {procNotFound, false}};
  for (const auto& row : rows) EXPECT_EQ(row.isOne, IsBootstrapError(row.status)) << row.status;
}
