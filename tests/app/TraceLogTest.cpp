#include "app/TraceLog.h"
#include <gtest/gtest.h>
TEST(TraceLog, Placeholder) { EXPECT_FALSE(vistrel::traceLogPath().isEmpty()); }
