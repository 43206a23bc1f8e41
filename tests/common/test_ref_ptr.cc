// The owning pointer: floating references are sunk by the call meant for
// them and caught anywhere else.
#include <gtest/gtest.h>

#include "ref_ptr.hh"

namespace {

TEST(RefPtr, AdoptFloatingSinksANewObjectAndTakesOverASunkOne) {
  gst_init(nullptr, nullptr);
  auto made = orlo::adopt_floating(gst_element_factory_make("fakesink", nullptr));
  ASSERT_TRUE(made);
  EXPECT_FALSE(g_object_is_floating(made.get()));
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(made.get()), 1);

  auto *sunk = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("fakesink", nullptr)));
  orlo::ref_ptr<GstElement> kept = orlo::adopt_floating(sunk);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(kept.get()), 1);
  EXPECT_FALSE(orlo::adopt_floating<GstElement>(nullptr));
}

#ifndef NDEBUG
TEST(RefPtrDeathTest, AdoptingAFloatingObjectStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        gst_init(nullptr, nullptr);
        auto p = orlo::adopt(gst_element_factory_make("fakesink", nullptr));
      },
      "floating");
}
#endif

}  // namespace
