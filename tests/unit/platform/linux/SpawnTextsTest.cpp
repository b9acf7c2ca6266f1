// The texts of new programs: what is set, what is left out, and what stays of the environment.
#include "platform/linux/SpawnTexts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "support/ForkedChild.h"

namespace test {
namespace {

using platform::environmentWith;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(SpawnTexts, VariablesAreSetAnewAndThoseWithoutValueAreLeftOut) {
  EXPECT_EQ(runInChild([] {
              clearenv();
              EXPECT_THAT(environmentWith({}), IsEmpty());
              setenv("KEPT", "a=b", 1);
              setenv("SET", "before", 1);
              setenv("SETTER", "longer name", 1);
              setenv("LEFT_OUT", "before", 1);
              EXPECT_THAT(environmentWith({}),
                          UnorderedElementsAre("KEPT=a=b", "SET=before", "SETTER=longer name", "LEFT_OUT=before"));
              EXPECT_THAT(environmentWith({{"SET", "now"}, {"NEW", ""}, {"LEFT_OUT", std::nullopt}, {"ABSENT", std::nullopt}}),
                          UnorderedElementsAre("KEPT=a=b", "SET=now", "SETTER=longer name", "NEW="));
            }),
            0);
}

TEST(SpawnTexts, OthersDoNotGetTheSettingsAndTheSecretOfOneApplication) {
  EXPECT_EQ(runInChild([] {
              clearenv();
              setenv("KEPT", "a", 1);
              setenv("KESTROVA_TRANSFERD", "/program", 1);
              for (const char* name : {"KESTROVA_API_HOST", "KESTROVA_API_VERSION", "KESTROVA_BUNDLE_ID", "KESTROVA_DEBUG",
                                       "KESTROVA_HOME", "KESTROVA_SECRET"})
                setenv(name, "of one", 1);
              EXPECT_THAT(platform::environmentForOthersWith({{"NEW", "b"}}),
                          UnorderedElementsAre("KEPT=a", "KESTROVA_TRANSFERD=/program", "NEW=b"));
            }),
            0);
}

TEST(SpawnTexts, PointersEndWithNull) {
  std::vector<std::string> texts{"a", "", "c d"};
  const std::vector<char*> pointers = platform::pointersTo(texts);
  EXPECT_THAT(pointers, ElementsAre(texts[0].data(), texts[1].data(), texts[2].data(), nullptr));
  std::vector<std::string> none;
  EXPECT_THAT(platform::pointersTo(none), ElementsAre(nullptr));
}

}  // namespace
}  // namespace test
