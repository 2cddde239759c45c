// Every round-trip scenario written, read back with the project's reader and
// compared item by item; and the same inputs always give the same bytes.

#include <gtest/gtest.h>

#include "writer/roundtrip_scenarios.h"

namespace {

TEST(RoundTrip, EveryScenarioReadsBack) {
  for (const tarn_test::Scenario &sc : tarn_test::scenarios()) {
    SCOPED_TRACE(sc.name);
    tarn_test::Mux mux;
    ASSERT_TRUE(sc.build(&mux));
    const tarn_test::Bytes file = mux.finish();
    ASSERT_FALSE(file.empty());
    tarn_test::check_with_reader(file, mux.expect);
  }
}

TEST(RoundTrip, IdenticalInputsGiveIdenticalFiles) {
  for (const tarn_test::Scenario &sc : tarn_test::scenarios()) {
    SCOPED_TRACE(sc.name);
    tarn_test::Mux first, second;
    ASSERT_TRUE(sc.build(&first));
    ASSERT_TRUE(sc.build(&second));
    const tarn_test::Bytes a = first.finish();
    ASSERT_FALSE(a.empty());
    EXPECT_TRUE(a == second.finish());
  }
}

}  // namespace
