#include "platform/value/Error.h"

#include <gtest/gtest.h>

#include "platform/value/Result.h"

namespace daskel::platform {
namespace {

TEST(Error, MakeErrorStoresTheDescriptionBesideTheExtraKeysAndItWinsOverAnExtraOne) {
  ErrorPtr error = makeError("com.example", 7, "It broke.", {{"path", Value("/x")}});
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, "com.example");
  EXPECT_EQ(error->code, 7);
  EXPECT_EQ(error->localizedDescription(), "It broke.");
  EXPECT_EQ(error->userInfo.size(), 2u);
  EXPECT_EQ(error->userInfo.at("path"), Value("/x"));
  EXPECT_EQ(error->userInfo.at(kErrorDescriptionKey), Value("It broke."));
  EXPECT_EQ(
      makeError("d", 1, "given", {{kErrorDescriptionKey, Value("extra")}})->localizedDescription(),
      "given");
}

TEST(Error, DescriptionNamesDomainCodeTextAndUserInfo) {
  ErrorPtr error = makeError("posix", 2, "No such file", {{"path", Value("/tmp/x")}});
  EXPECT_EQ(error->description(),
            "Error Domain=posix Code=2 \"No such file\" UserInfo={description=No such file, "
            "path=/tmp/x}");
}

TEST(Error, DescriptionWithoutTextSaysWhichErrorItIs) {
  Error error{"com.example", -4, {}};
  EXPECT_EQ(error.localizedDescription(), "");
  EXPECT_EQ(error.description(),
            "Error Domain=com.example Code=-4 \"The operation couldn't be completed. "
            "(com.example error -4.)\" UserInfo={}");
}

TEST(Error, DescriptionNestsAnUnderlyingError) {
  ErrorPtr inner = makeError("inner", 1, "Inner");
  ErrorPtr outer = makeError("outer", 2, "Outer", {{"underlyingError", Value(inner)}});
  EXPECT_EQ(outer->description(),
            "Error Domain=outer Code=2 \"Outer\" UserInfo={description=Outer, "
            "underlyingError=Error Domain=inner Code=1 \"Inner\" UserInfo={description=Inner}}");
}

TEST(Error, ErrorsCompareByDomainCodeAndUserInfo) {
  EXPECT_EQ(*makeError("d", 1, "x"), *makeError("d", 1, "x"));
  EXPECT_NE(*makeError("d", 1, "x"), *makeError("e", 1, "x"));
  EXPECT_NE(*makeError("d", 1, "x"), *makeError("d", 1, "y"));
}

}  // namespace
}  // namespace daskel::platform
