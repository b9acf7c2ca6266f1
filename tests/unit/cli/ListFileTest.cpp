// The command's files of lists: what is read, what is told, and what a failed replacement leaves.
#include "cli/ListFile.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TestProcess.h"

namespace cli {
namespace {

class ListFileTest : public testing::Test {
 protected:
  std::string path() { return process.supportPath("list.json"); }
  /// The list as JSON would print it, or what is wrong.
  std::string read() {
    const auto list = readListFile(path(), "cats");
    return list ? platform::Value(*list).description() : list.error();
  }
  std::string write(const platform::Array& list) {
    const auto written = writeListFile(path(), "cats", list);
    return written ? "written" : written.error();
  }

  test::TestProcess process;
};

TEST_F(ListFileTest, ItLiesInTheApplicationsFolder) {
  EXPECT_EQ(pathOfListFile("list.json").value_or("none"), path());
  process.plan().fail("FileManager.applicationSupportDirectory", test::nth(1), test::someError());
  const auto none = pathOfListFile("list.json");
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error(), "the application's folder can be neither found nor made");
}

TEST_F(ListFileTest, NoFileIsAnEmptyListAndWhatIsWrittenIsReadAgain) {
  EXPECT_EQ(read(), platform::Value(platform::Array()).description());
  EXPECT_EQ(write({"Tom", 2}), "written");
  EXPECT_EQ(process.fileBytes(path()), R"({"cats":["Tom",2]})");
  EXPECT_EQ(read(), platform::Value(platform::Array{"Tom", 2}).description());
  EXPECT_EQ(write({}), "written");
  EXPECT_EQ(process.fileBytes(path()), R"({"cats":[]})");
  EXPECT_TRUE(process.temporaryFiles().empty());
}

TEST_F(ListFileTest, WhatHoldsNoListOfThatNameIsTold) {
  for (const char* text : {"", "{", "[]", "{}", R"({"cats": {}})", R"({"dogs": []})"}) {
    process.setFileBytes(path(), text);
    EXPECT_EQ(read(), path() + ": it is no JSON object with a list of cats") << text;
  }
}

TEST_F(ListFileTest, AFileThatCannotBeReadIsNotTakenForNone) {
  ASSERT_EQ(write({"Tom"}), "written");
  process.plan().fail("FileManager.contentsOfURL", test::nth(1), test::someError());
  EXPECT_EQ(read(), path() + ": " + test::someError().localizedDescription());
}

TEST_F(ListFileTest, AFailedReplacementLeavesTheOldFileAndNoTemporaryOne) {
  ASSERT_EQ(write({"Tom"}), "written");
  process.plan().fail("FileManager.replaceItem", test::nth(1), test::someError());
  EXPECT_EQ(write({"Felix"}), path() + ": " + test::someError().localizedDescription());
  process.plan().fail("FileManager.writeDataWithoutOverwriting", test::nth(1), test::someError());
  EXPECT_EQ(write({"Felix"}), path() + ": a temporary file cannot be written");
  EXPECT_EQ(process.fileBytes(path()), R"({"cats":["Tom"]})");
  EXPECT_TRUE(process.temporaryFiles().empty());
}

}  // namespace
}  // namespace cli
