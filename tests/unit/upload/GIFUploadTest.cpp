// Starting an upload: the hard link, the request with its signature, the session and the messages.
#include <filesystem>

#include "UploadTest.h"

namespace test {
namespace {

using platform::URL;
using platform::URLSessionConfiguration;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

class GIFUpload : public UploadTest {
 protected:
  transfer::SpoolEntry uploaded() {
    process.runAll();
    const auto uploads = service().uploads();
    return uploads.size() == 1 ? uploads.front() : transfer::SpoolEntry();
  }
  std::string field(const transfer::SpoolEntry& entry, std::string_view name) {
    for (const auto& [key, value] : entry.headerFields)
      if (key == name) return value;
    return "(no field)";
  }
  void expectNothingStarted() {
    process.runAll();
    EXPECT_THAT(indicator(), IsEmpty());
    EXPECT_THAT(service().spooled(), IsEmpty());
    EXPECT_EQ(service().uploadsBegun(), 0);
    EXPECT_EQ(service().connections(), 0);
  }
};

TEST_F(GIFUpload, MakesASessionNamedAfterAFreshIdentifier) {
  upload();
  EXPECT_THAT(onlySession(), MatchesRegex(std::string(kSDKReverseDNSPrefix) +
                                          "\\.GifUpload-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
  EXPECT_EQ(uploaded().session, onlySession());
  EXPECT_EQ(uploaded().task, 1);
}

TEST_F(GIFUpload, LinksTheFileUnderExactlyTheSessionsIdentifierAndUploadsTheLink) {
  upload();
  const std::string link = process.supportPath("uploads") + "/" + onlySession();
  EXPECT_EQ(uploaded().file, link);
  EXPECT_EQ(process.fileBytes(link), kGifBytes);
  process.memoryFiles().setBytesAtPath(kGif, "overwritten in place");
  EXPECT_EQ(process.fileBytes(link), "overwritten in place") << "a hard link is the same file";
}

TEST_F(GIFUpload, TheHostMayDeleteItsFileRightAfterwards) {
  upload();
  ASSERT_TRUE(process.process().fileManager->removeItemAtPath(kGif));
  EXPECT_EQ(process.fileBytes(uploaded().file), kGifBytes);
}

TEST_F(GIFUpload, OfOneFileTwiceHasTwoSessionsTwoLinksAndTwoTasks) {
  upload();
  upload();
  process.runAll();
  const auto files = uploadFiles();
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_NE(files[0], files[1]);
  const auto uploads = service().uploads();
  ASSERT_THAT(uploads, SizeIs(2));
  EXPECT_NE(uploads[0].session, uploads[1].session);
  EXPECT_NE(uploads[0].task, uploads[1].task);
  EXPECT_THAT(files, testing::UnorderedElementsAre(uploads[0].session, uploads[1].session));
}

TEST_F(GIFUpload, SaysThatItStartsAndShowsTheIndicator) {
  upload();
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre("Starting GIF upload: " + onlySession()));
  EXPECT_THAT(indicator(), ElementsAre(true));
}

TEST_F(GIFUpload, GoesThroughItsStepsInOrder) {
  upload();
  EXPECT_THAT(process.plan().callNames(
                  {"FileManager.link", "DispatchQueue.async", "Digest.hmac", "BackgroundURLSession", "URLSessionTask"}),
              ElementsAre("FileManager.linkItem", "DispatchQueue.async", "Digest.hmac", "BackgroundURLSessions.session",
                          "BackgroundURLSession.uploadTask", "URLSessionTask.resume"));
}

TEST_F(GIFUpload, PostsToTheSharesPathWithItsThreeFields) {
  upload(shareWithId("share-1"));
  const auto entry = uploaded();
  EXPECT_EQ(entry.method, "POST");
  EXPECT_EQ(entry.url, "https://api.example.com/gifs?shareId=share-1");
  EXPECT_THAT(entry.headerFields, SizeIs(3));
  EXPECT_EQ(field(entry, "Accept"), "application/vnd.kestrova.v1+json");
  EXPECT_EQ(field(entry, "Content-Type"), "image/gif");
  EXPECT_THAT(field(entry, "Authorization"), HasSubstr("Hawk id=\"com.example.app\", ts=\"1795205979\", nonce=\""));
}

TEST_F(GIFUpload, IsSignedWithoutPayloadAlthoughItHasABody) {
  upload();
  const std::string header = field(uploaded(), "Authorization");
  EXPECT_THAT(header, AllOf(HasSubstr("mac=\""), Not(HasSubstr("hash="))));
  EXPECT_THAT(process.plan().callNames({"Digest."}), ElementsAre("Digest.hmac")) << "one signature and no payload hash";
}

TEST_F(GIFUpload, IsSignedOnceWithTheTimeOfItsStart) {
  upload();
  const auto first = uploaded();
  process.advanceTime(3600);
  service().failUpload(platform::urlError(platform::kURLErrorNetworkConnectionLost), true);
  process.advanceTime(3600);
  service().tick();
  const auto retried = uploaded();
  EXPECT_EQ(service().uploadsBegun(), 2);
  EXPECT_EQ(retried.headerFields, first.headerFields);
  EXPECT_EQ(process.plan().count("Digest.hmac"), 1);
}

TEST_F(GIFUpload, IsSignedWithTheCorrectedTime) {
  process.userDefaults().setObjectForKey(platform::Value(std::int64_t{100}), TestProcess::kSkewKey);
  upload();
  EXPECT_THAT(field(uploaded(), "Authorization"), HasSubstr("ts=\"1795206079\""));
}

// What the platform prints for an absent text has parentheses, which a URL may hold as they are.
TEST_F(GIFUpload, OfAnAbsentShareIsStartedAllTheSame) {
  upload(nullptr);
  EXPECT_EQ(uploaded().url, "https://api.example.com/gifs?shareId=(null)");
  EXPECT_THAT(indicator(), ElementsAre(true));
}
TEST_F(GIFUpload, OfAShareWithoutReferralCodeIsStartedAllTheSame) {
  upload(std::make_shared<KSVShare>());
  EXPECT_EQ(uploaded().url, "https://api.example.com/gifs?shareId=(null)");
}
TEST_F(GIFUpload, OfAReferralCodeWithoutShareIdIsStartedAllTheSame) {
  upload(shareWithId(std::nullopt));
  EXPECT_EQ(uploaded().url, "https://api.example.com/gifs?shareId=(null)");
}

// Text that is no URL gives no URL: the task ends as one without.
TEST_F(GIFUpload, OfAShareIdThatIsNoPartOfAURLEndsAsUnsupported) {
  upload(shareWithId("a b"));
  process.runAll();
  EXPECT_EQ(uploaded().url, "");
}

TEST_F(GIFUpload, WithoutAFileStartsNothing) {
  client->uploadGIFForShare(std::nullopt, shareWithId("share-1"));
  expectNothingStarted();
  EXPECT_THAT(process.messages(), ElementsAre("Error: Couldn't upload gif, gif file url = nil"));
  EXPECT_THAT(uploadFiles(), IsEmpty());
}

TEST_F(GIFUpload, OfAMissingFileStartsNothing) {
  client->uploadGIFForShare(URL::fileURLWithPath("/host/none.gif"), shareWithId("share-1"));
  expectNothingStarted();
  ASSERT_THAT(process.messages(), SizeIs(1));
  EXPECT_THAT(process.messages().front(), MatchesRegex("Failed to create hardlink to file to upload: .+"));
  EXPECT_THAT(uploadFiles(), IsEmpty());
}

TEST_F(GIFUpload, WhoseLinkFailsSaysWhyInTheErrorsWords) {
  process.plan().fail("FileManager.linkItem", nth(1), someError("The volume is another one."));
  upload();
  expectNothingStarted();
  EXPECT_THAT(process.messages(), ElementsAre("Failed to create hardlink to file to upload: The volume is another one."));
}

TEST_F(GIFUpload, UnderANameThatIsTakenStartsNothing) {
  const auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("taken");
  KSVDataInspector inspect(client);
  (void)inspect.uploadDirectory();
  process.setFileBytes(process.supportPath("uploads") + "/taken", "another");
  inspect.uploadGIFForShareWithSessionConfiguration(gif(), shareWithId("share-1"), configuration);
  expectNothingStarted();
  EXPECT_THAT(
      process.messages(),
      ElementsAre("Failed to create hardlink to file to upload: “cat.gif” couldn’t be linked to “uploads” because an item with "
                  "the same name already exists."));
  EXPECT_EQ(process.fileBytes(process.supportPath("uploads") + "/taken"), "another");
}

TEST_F(GIFUpload, WithoutUploadDirectoryStartsNothing) {
  process.plan().fail("FileManager.createDirectory", everyCall(), someError());
  upload();
  expectNothingStarted();
  ASSERT_THAT(process.messages(), SizeIs(1));
  EXPECT_THAT(process.messages().front(), MatchesRegex("Failed to create hardlink to file to upload: .+"));
}

TEST_F(GIFUpload, DerivesTheUploadFileFromTheConfigurationAlone) {
  const auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("session-1");
  const auto file = KSVDataInspector(client).uploadFileForSessionConfiguration(configuration);
  EXPECT_EQ(file, URL::fileURLWithPath(process.supportPath("uploads") + "/session-1"));
  EXPECT_FALSE(process.fileBytes(file->path()).has_value()) << "no file is made";
}

TEST_F(GIFUpload, HandsBackTheLinkItMadeOrNothing) {
  const auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("session-1");
  KSVDataInspector inspect(client);
  EXPECT_EQ(inspect.createUploadHardLinkForSessionConfiguration(gif(), configuration),
            inspect.uploadFileForSessionConfiguration(configuration));
  EXPECT_EQ(inspect.createUploadHardLinkForSessionConfiguration(gif(), configuration), std::nullopt);
}

TEST_F(GIFUpload, IsDurableWhenItReturnsAndWaitsForNobody) {
  service().setMayStart(false);
  upload();
  EXPECT_THAT(service().spooled(), SizeIs(1)) << "no block has run";
}

TEST_F(GIFUpload, KeepsNoReferenceToTheSession) {
  upload();
  std::weak_ptr<KSVData> weak = client;
  client.reset();
  EXPECT_FALSE(weak.expired()) << "the platform's session holds its delegate";
  process.process().backgroundSessions.reset();
  process.queues().dropAll();
  EXPECT_TRUE(weak.expired());
}

// A disk that is full when the task is to be made durable ends the task at once, as any failure does.
TEST_F(GIFUpload, ThatCannotBeMadeDurableFails) {
  service().spoolFailure = outOfSpaceError();
  upload();
  process.runAll();
  const std::string failure = "Kestrova: Background task 1 failed: The file couldn’t be saved because the volume is out of space.";
  EXPECT_THAT(process.messages(), ElementsAre("Starting GIF upload: " + onlySession(), "system log: " + failure, failure));
  EXPECT_EQ(indicator().back(), false);
  EXPECT_EQ(service().uploadsBegun(), 0);
  EXPECT_THAT(uploadFiles(), SizeIs(1)) << "a failed upload leaves its file to the sweep";
}

TEST_F(GIFUpload, ThatGetsNoTaskNumberFails) {
  service().reservationFailure = outOfSpaceError();
  upload();
  process.runAll();
  EXPECT_THAT(process.systemLog(),
              ElementsAre("Kestrova: Background task 1 failed: The file couldn’t be saved because the volume is out of space."));
  EXPECT_THAT(service().spooled(), IsEmpty());
}

TEST(GIFUploadOnDisk, TheUploadFileIsTheSameFileAsTheHosts) {
  TestProcess process({.files = TestProcessOptions::Files::kOnDisk});
  const auto client = process.makeClient();
  const std::string path = process.supportPath("cat.gif");
  process.setFileBytes(path, kGifBytes);
  client->uploadGIFForShare(URL::fileURLWithPath(path), shareWithId("share-1"));
  process.runAll();
  const auto uploads = process.transfers().uploads();
  ASSERT_THAT(uploads, SizeIs(1));
  EXPECT_TRUE(std::filesystem::equivalent(uploads.front().file, path));
  EXPECT_EQ(std::filesystem::hard_link_count(path), 2);
  process.transfers().answerUpload(200);
  process.runAll();
  EXPECT_EQ(std::filesystem::hard_link_count(path), 1);
}

}  // namespace
}  // namespace test
