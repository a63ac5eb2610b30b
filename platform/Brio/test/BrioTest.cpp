#include "Brio/Brio.h"

#include <gtest/gtest.h>

namespace {

constexpr int BF_SUCCESS = 0;

TEST(BrioAssert, MessageIsTheExpressionTextWithStringParts) {
   Brio::ScopedThrowingAsserts throwing;
   int status = 3;
   try {
      BRIO_ASSERT(status == BF_SUCCESS && "Not succesful status");
      FAIL() << "assertion did not fire";
   } catch (const Brio::AssertionFailure& failure) {
      EXPECT_EQ(failure.expression(), "status == BF_SUCCESS && \"Not succesful status\"");
   }
   status = BF_SUCCESS;
   EXPECT_NO_THROW(BRIO_ASSERT(status == BF_SUCCESS && "Not succesful status"));
   try {
      BRIO_ASSERT_MSG(status > 0, "status must be set");
      FAIL() << "assertion did not fire";
   } catch (const Brio::AssertionFailure& failure) {
      EXPECT_EQ(failure.expression(), "status > 0: status must be set");
   }
}

TEST(BrioAssert, HandlerIsRestoredAndDefaultAborts) {
   {
      Brio::ScopedThrowingAsserts throwing;
      EXPECT_EQ(Brio::assertHandler(), &Brio::throwingAssertHandler);
   }
   EXPECT_NE(Brio::assertHandler(), &Brio::throwingAssertHandler);
   EXPECT_DEATH(BRIO_ASSERT(1 + 1 == 3), "Failed\\(1 \\+ 1 == 3\\) .*BrioTest.cpp:[0-9]+");
}

}  // namespace
