// What every implementation of the small services promises, held against the real ones and their twins: random source, clock,
// bundle, application, uncaught exceptions, and what stands on them (UUIDs). Digests have one implementation, held against
// published vectors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <memory>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/UUID.h"
#include "platform/linux/DesktopApplication.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/MainBundle.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/SystemClock.h"
#include "support/FixedBundle.h"
#include "support/FixedSecureRandom.h"
#include "support/ManualClock.h"
#include "support/MemoryApplication.h"

namespace {

using platform::Data;
using platform::Digest;
using platform::UncaughtException;
using platform::UUID;
using testing::Contains;
using testing::Each;
using testing::SizeIs;

// Secure random source and UUIDs

template <class T>
class SecureRandomContract : public testing::Test {
 protected:
  std::vector<std::byte> filled(std::size_t length) {
    std::vector<std::byte> bytes(length);
    random_->fill(bytes);
    return bytes;
  }
  std::shared_ptr<T> random_ = std::make_shared<T>();
};
using SecureRandoms = testing::Types<platform::GetrandomSecureRandom, test::FixedSecureRandom>;
TYPED_TEST_SUITE(SecureRandomContract, SecureRandoms);

TYPED_TEST(SecureRandomContract, FillsEveryByteOfEveryLength) {
  // A byte that is never written stays zero in all of 64 rounds; a random one does so once in 2^512.
  for (const std::size_t length : {1, 15, 16, 63, 64, 65, 100, 1000, 5000}) {
    std::vector<bool> written(length);
    for (int round = 0; round < 64; ++round) {
      const std::vector<std::byte> bytes = this->filled(length);
      for (std::size_t i = 0; i < length; ++i)
        if (bytes[i] != std::byte{0}) written[i] = true;
    }
    EXPECT_THAT(written, Each(true)) << length;
  }
}

TYPED_TEST(SecureRandomContract, WritesNothingOutsideTheSpan) {
  std::array<std::byte, 18> bytes{};
  for (int round = 0; round < 100; ++round) this->random_->fill(std::span(bytes).subspan(1, 16));
  EXPECT_EQ(bytes.front(), std::byte{0});
  EXPECT_EQ(bytes.back(), std::byte{0});
}

TYPED_TEST(SecureRandomContract, FillsNothingForAnEmptySpan) { EXPECT_NO_THROW(this->random_->fill({})); }

TYPED_TEST(SecureRandomContract, GivesNewBytesEveryTime) {
  std::set<std::vector<std::byte>> seen;
  for (int round = 0; round < 10000; ++round) seen.insert(this->filled(16));
  EXPECT_THAT(seen, SizeIs(10000));
}

TYPED_TEST(SecureRandomContract, GivesEveryValueOfAByteAboutEquallyOften) {
  std::array<int, 256> counts{};
  for (int round = 0; round < 4096; ++round)
    for (const std::byte byte : this->filled(16)) ++counts[std::to_integer<std::size_t>(byte)];
  // 256 expected of each, with a standard deviation of 16: ten of them.
  for (const int count : counts) EXPECT_NEAR(count, 256, 160);
}

TYPED_TEST(SecureRandomContract, GivesEachOfManyThreadsItsOwnBytes) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 1000;
  std::array<std::vector<std::vector<std::byte>>, kThreads> drawn;
  std::vector<std::thread> threads;
  for (auto& mine : drawn)
    threads.emplace_back([this, &mine] {
      for (int round = 0; round < kRounds; ++round) mine.push_back(this->filled(16));
    });
  for (std::thread& thread : threads) thread.join();
  std::set<std::vector<std::byte>> seen;
  for (const auto& each : drawn) seen.insert(each.begin(), each.end());
  EXPECT_THAT(seen, SizeIs(kThreads * kRounds));
}

TYPED_TEST(SecureRandomContract, MakesUUIDsOfVersionFour) {
  platform::Process process;
  process.secureRandom = this->random_;
  const platform::Process::Scope scope(process);
  std::set<std::string> seen;
  std::set<char> variants;
  for (int round = 0; round < 1000; ++round) {
    const std::string text = UUID::randomUUID().UUIDString();
    ASSERT_THAT(text, testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    seen.insert(text);
    variants.insert(text[19]);
  }
  EXPECT_THAT(seen, SizeIs(1000));
  EXPECT_THAT(variants, testing::ElementsAre('8', '9', 'A', 'B'));
}

TEST(UUIDs, KeepEveryRandomBitButThoseOfVersionAndVariant) {
  platform::Process process;
  const auto random = std::make_shared<test::FixedSecureRandom>();
  process.secureRandom = random;
  const platform::Process::Scope scope(process);
  random->give(std::vector<std::uint8_t>(16, 0xff));
  EXPECT_EQ(UUID::randomUUID().UUIDString(), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
  random->give(std::vector<std::uint8_t>(16, 0x00));
  EXPECT_EQ(UUID::randomUUID().UUIDString(), "00000000-0000-4000-8000-000000000000");
}

TEST(UUIDs, ReadBackFromTheirTextInEitherCase) {
  const auto upper = UUID::fromString("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  const auto lower = UUID::fromString("3f2504e0-4f89-41d3-9a0c-0305e82c3301");
  ASSERT_TRUE(upper);
  EXPECT_EQ(upper, lower);
  EXPECT_EQ(upper->UUIDString(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  EXPECT_EQ(upper->description(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
}

TEST(UUIDs, AreReadFromNothingElse) {
  for (const std::string_view text :
       {"", "3F2504E0-4F89-41D3-9A0C-0305E82C330", "3F2504E0-4F89-41D3-9A0C-0305E82C33011", "3F2504E04F8941D39A0C0305E82C3301",
        "{3F2504E0-4F89-41D3-9A0C-0305E82C3301}", "3F2504E0-4F89-41D3-9A0C-0305E82C330G", "3F2504E0-4F89-41D3-9A0C0-305E82C3301",
        "3F2504E0_4F89-41D3-9A0C-0305E82C3301", "-3F2504E0-4F89-41D3-9A0C-0305E82C330",
        "3F2504E0-4F89-41D3-9A0C-0305E82C33\xc3\xa9"})
    EXPECT_EQ(UUID::fromString(text), std::nullopt) << text;
}

// Clock

template <class T>
class ClockContract : public testing::Test {
 protected:
  T clock_;
};
using Clocks = testing::Types<platform::SystemClock, test::ManualClock>;
TYPED_TEST_SUITE(ClockContract, Clocks);

TYPED_TEST(ClockContract, CountsSecondsSince1970) {
  constexpr double kYear = 365.25 * 24 * 60 * 60;
  const double now = this->clock_.now().timeIntervalSince1970();
  EXPECT_GT(now, 50 * kYear);
  EXPECT_LT(now, 200 * kYear);
}

TEST(ManualClock, MovesOnlyWhenItIsMoved) {
  test::ManualClock clock(1000.5);
  EXPECT_EQ(clock.now().timeIntervalSince1970(), 1000.5);
  clock.advance(2.25);
  EXPECT_EQ(clock.now().timeIntervalSince1970(), 1002.75);
  clock.advance(-3000);
  EXPECT_EQ(clock.now().timeIntervalSince1970(), -1997.25);
  clock.setNow(platform::Date::dateWithTimeIntervalSince1970(7));
  EXPECT_EQ(clock.now().timeIntervalSince1970(), 7);
}

// Bundle

template <class T>
class BundleContract : public testing::Test {};
using Bundles = testing::Types<platform::MainBundle, test::FixedBundle>;
TYPED_TEST_SUITE(BundleContract, Bundles);

TYPED_TEST(BundleContract, GivesTheIdentifierAsItIs) {
  EXPECT_EQ(TypeParam("com.example.app").bundleIdentifier(), "com.example.app");
  EXPECT_EQ(TypeParam("").bundleIdentifier(), "");
  EXPECT_EQ(TypeParam(std::nullopt).bundleIdentifier(), std::nullopt);
}

// Application

template <class T>
class ApplicationContract : public testing::Test {
 protected:
  T application_;
};
using Applications = testing::Types<platform::DesktopApplication, test::MemoryApplication>;
TYPED_TEST_SUITE(ApplicationContract, Applications);

TYPED_TEST(ApplicationContract, TheIndicatorIsHiddenAtFirst) {
  EXPECT_FALSE(this->application_.isNetworkActivityIndicatorVisible());
}

TYPED_TEST(ApplicationContract, TheIndicatorIsASwitchAndNoCounter) {
  this->application_.setNetworkActivityIndicatorVisible(true);
  this->application_.setNetworkActivityIndicatorVisible(true);
  EXPECT_TRUE(this->application_.isNetworkActivityIndicatorVisible());
  this->application_.setNetworkActivityIndicatorVisible(false);
  EXPECT_FALSE(this->application_.isNetworkActivityIndicatorVisible());
}

TEST(DesktopApplication, TellsItsObserverOfEverySetting) {
  std::vector<bool> told;
  platform::DesktopApplication application([&](bool visible) { told.push_back(visible); });
  for (const bool visible : {true, true, false}) application.setNetworkActivityIndicatorVisible(visible);
  EXPECT_THAT(told, testing::ElementsAre(true, true, false));
}

// Uncaught exceptions

template <class T>
std::string describe(T exception) {
  return UncaughtException::description(std::make_exception_ptr(std::move(exception)));
}

struct SpecialError : std::exception {
  const char* what() const noexcept override { return "special"; }
};

TEST(UncaughtExceptions, AreDescribedByNameAndReason) {
  EXPECT_EQ(describe(platform::Exception("NSRangeException", "index 3 beyond bounds")),
            "*** Terminating app due to uncaught exception 'NSRangeException', reason: 'index 3 beyond bounds'");
  EXPECT_EQ(describe(platform::Exception("", "")), "*** Terminating app due to uncaught exception '', reason: ''");
}

TEST(UncaughtExceptions, OfOtherTypesAreDescribedByTypeAndText) {
  EXPECT_EQ(describe(std::out_of_range("map::at")),
            "*** Terminating app due to uncaught exception 'std::out_of_range', reason: 'map::at'");
  EXPECT_EQ(describe(SpecialError()),
            "*** Terminating app due to uncaught exception '(anonymous namespace)::SpecialError', reason: 'special'");
}

TEST(UncaughtExceptions, OfWhichNothingIsKnownAreDescribedAsUnknown) {
  EXPECT_EQ(describe(42), "*** Terminating app due to uncaught exception 'unknown', reason: 'unknown'");
  EXPECT_EQ(UncaughtException::description(nullptr), "*** Terminating app due to uncaught exception 'unknown', reason: 'unknown'");
}

// Digests

std::string hexadecimal(const Data& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char character : data.bytes()) {
    const auto byte = static_cast<unsigned char>(character);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

struct Digests {
  std::string sha256;
  std::string sha384;
  std::string sha512;
  bool operator==(const Digests&) const = default;
  friend void PrintTo(const Digests& digests, std::ostream* out) {
    *out << digests.sha256 << " " << digests.sha384 << " " << digests.sha512;
  }
};

Digests hashes(std::initializer_list<std::string_view> parts) {
  platform::OpenSSLDigest digest;
  return {hexadecimal(digest.hash(Digest::Algorithm::kSHA256, parts)), hexadecimal(digest.hash(Digest::Algorithm::kSHA384, parts)),
          hexadecimal(digest.hash(Digest::Algorithm::kSHA512, parts))};
}

Digests macs(std::string_view key, std::initializer_list<std::string_view> parts) {
  platform::OpenSSLDigest digest;
  return {hexadecimal(digest.hmac(Digest::Algorithm::kSHA256, key, parts)),
          hexadecimal(digest.hmac(Digest::Algorithm::kSHA384, key, parts)),
          hexadecimal(digest.hmac(Digest::Algorithm::kSHA512, key, parts))};
}

// The examples published with FIPS 180-4.
TEST(DigestVectors, OfTheSecureHashStandard) {
  EXPECT_EQ(hashes({""}),
            (Digests{"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
                     "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b",
                     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417"
                     "a81a538327af927da3e"}));
  EXPECT_EQ(hashes({"abc"}),
            (Digests{"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
                     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7",
                     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce"
                     "80e2a9ac94fa54ca49f"}));
  EXPECT_EQ(hashes({"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"}),
            (Digests{"248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
                     "3391fdddfc8dc7393707a65b1b4709397cf8b1d162af05abfe8f450de5f36bc6b0455a8520bc4e6f5fe95b1fe3c8452b",
                     "204a8fc6dda82f0a0ced7beb8e08a41657c16ef468b228a8279be331a703c33596fd15c13b1b07f9aa1d3bea57789ca031ad85c7a71dd"
                     "70354ec631238ca3445"}));
  EXPECT_EQ(
      hashes({"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu"}),
      (Digests{"cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1",
               "09330c33f71147e83d192fc782cd1b4753111b173b3b05d22fa08086e3b0f712fcc7c71a557e2db966c3e9fa91746039",
               "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e9"
               "6e55b874be909"}));
  EXPECT_EQ(hashes({std::string(1000000, 'a')}),
            (Digests{"cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0",
                     "9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b07b8b3dc38ecc4ebae97ddd87f3d8985",
                     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973ebde0ff244877ea60a4cb0432ce577c31beb009c5c2c49a"
                     "a2e4eadb217ad8cc09b"}));
}

// RFC 4231, test cases 1 to 4, 6 and 7 (5 is about truncation).
TEST(DigestVectors, OfTheKeyedHash) {
  EXPECT_EQ(macs(std::string(20, '\x0b'), {"Hi There"}),
            (Digests{"b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
                     "afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2fa9cb6",
                     "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cdedaa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f"
                     "1702e696c203a126854"}));
  EXPECT_EQ(macs("Jefe", {"what do ya want for nothing?"}),
            (Digests{"5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
                     "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649",
                     "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6"
                     "b4b636e070a38bce737"}));
  EXPECT_EQ(macs(std::string(20, '\xaa'), {std::string(50, '\xdd')}),
            (Digests{"773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
                     "88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b2a5ab39dc13814b94e3ab6e101a34f27",
                     "fa73b0089d56a284efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39bf3e848279a722c806b485a47e67c807b946a337bee89"
                     "42674278859e13292fb"}));
  EXPECT_EQ(macs("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19",
                 {std::string(50, '\xcd')}),
            (Digests{"82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b",
                     "3e8a69b7783c25851933ab6290af6ca77a9981480850009cc5577c6e1f573b4e6801dd23c4a7d679ccf8a386c674cffb",
                     "b0ba465637458c6990e5a8c5f61d4af7e576d97ff94b872de76f8050361ee3dba91ca5c11aa25eb4d679275cc5788063a5f19741120c4"
                     "f2de2adebeb10a298dd"}));
  EXPECT_EQ(macs(std::string(131, '\xaa'), {"Test Using Larger Than Block-Size Key - Hash Key First"}),
            (Digests{"60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
                     "4ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c60c2ef6ab4030fe8296248df163f44952",
                     "80b24263c7c1a3ebb71493c1dd7be8b49b46d1f41b4aeec1121b013783f8f3526b56d037e05f2598bd0fd2215d6a1e5295e64f73f63f0"
                     "aec8b915a985d786598"}));
  EXPECT_EQ(macs(std::string(131, '\xaa'), {"This is a test using a larger than block-size key and a larger than block-size data. "
                                            "The key needs to be hashed before being used by the HMAC algorithm."}),
            (Digests{"9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2",
                     "6617178e941f020d351e2f254e8fd32c602420feb0b8fb9adccebb82461e99c5a678cc31e799176d3860e6110c46523e",
                     "e37b6a775dc87dbaa4dfa9f96e5e3ffddebd71f8867289865df5a32d20cdc944b6022cac3c4982b10d5eeb55c3e4de15134676fb6de04"
                     "46065c97440fa8c6a58"}));
}

TEST(Digests, JoinTheirParts) {
  EXPECT_EQ(hashes({"a", "", "bc"}), hashes({"abc"}));
  EXPECT_EQ(hashes({}), hashes({""}));
  EXPECT_EQ(macs("Jefe", {"what do ya ", "want ", "for nothing?"}), macs("Jefe", {"what do ya want for nothing?"}));
  EXPECT_EQ(macs("Jefe", {}), macs("Jefe", {""}));
}

TEST(Digests, OfBytesThatAreNoText) {
  using namespace std::string_view_literals;
  EXPECT_NE(hashes({"a\0b"sv}), hashes({"a"sv}));
  EXPECT_NE(macs("key\0"sv, {"a"}), macs("key\1"sv, {"a"}));
}

// A context that keeps its key must not take the next key for the same one.
TEST(Digests, FollowTheKeyFromCallToCall) {
  const Digests first = macs("first", {"text"});
  const Digests second = macs("second", {"text"});
  EXPECT_NE(first, second);
  EXPECT_EQ(macs("first", {"text"}), first);
  EXPECT_EQ(macs("first", {"text"}), first);
  EXPECT_EQ(macs("second", {"text"}), second);
}

TEST(Digests, TakeAnEmptyKeyForAKey) {
  macs("another key", {""});
  const Digests keyless{"b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad",
                        "6c1f2ee938fad2e24bd91298474382ca218c75db3d83e114b3d4367776d14d3551289e75e8209cd4b792302840234adc",
                        "b936cee86c9f87aa5d3c6f2e84cb5a4239a5fe50480a6ec66b70ab5b1f4ac6730c6c515421b327ec1d69402e53dfb49ad7381eb067"
                        "b338fd7b0cb22247225d47"};
  EXPECT_EQ(macs("", {""}), keyless);
  EXPECT_EQ(macs(std::string_view(), {""}), keyless);
}

TEST(Digests, AreTheSameOnEveryThread) {
  const Digests expected = macs("key", {"text"});
  std::vector<Digests> found(8);
  std::vector<std::thread> threads;
  for (Digests& mine : found)
    threads.emplace_back([&mine] {
      for (int round = 0; round < 100; ++round) mine = macs("key", {"text"});
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(found, Each(expected));
}

TEST(Digests, CompareTextsWhole) {
  platform::OpenSSLDigest digest;
  EXPECT_TRUE(digest.constantTimeEqual("", ""));
  EXPECT_TRUE(digest.constantTimeEqual("abc", "abc"));
  EXPECT_FALSE(digest.constantTimeEqual("abc", "abd"));
  EXPECT_FALSE(digest.constantTimeEqual("abc", "bbc"));
  EXPECT_FALSE(digest.constantTimeEqual("abc", "ab"));
  EXPECT_FALSE(digest.constantTimeEqual("", "a"));
  EXPECT_FALSE(digest.constantTimeEqual(std::string_view("a\0b", 3), std::string_view("a\0c", 3)));
}

}  // namespace
