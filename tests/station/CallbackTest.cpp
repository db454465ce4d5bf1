#include "base/Callback.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

template <typename Result>
Result fail(int /*argument*/) {
  throw std::out_of_range("no such thing");
}

// C++ code calls the callback here: an exception that left it would end the process.
TEST(Callback, KeepsItsExceptionForTheCommand) {
  int notified = 0;
  station::notifyOfException([&notified] { ++notified; });
  EXPECT_EQ(station::guarded<fail<GstFlowReturn>>(1), GST_FLOW_ERROR);
  EXPECT_EQ(station::guarded<fail<GstPadProbeReturn>>(1), GST_PAD_PROBE_DROP);
  station::callGuarded([] { fail<void>(1); });
  g_autofree gchar* text = station::guarded<fail<gchar*>>(1);
  EXPECT_STREQ(text, "");
  station::notifyOfException(nullptr);

  EXPECT_EQ(notified, 4);
  EXPECT_TRUE(station::hasKeptException());
  EXPECT_THROW(station::throwKeptException(), std::out_of_range);
  EXPECT_NO_THROW(station::throwKeptException());
}

}  // namespace
