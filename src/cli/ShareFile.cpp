// Reading and replacing the command's file of shares.
#include "cli/ShareFile.h"

#include <algorithm>

#include "cli/ListFile.h"
#include "platform/Value.h"

namespace cli {
namespace {

constexpr const char* kName = "command-shares.json";
constexpr const char* kList = "shares";

}  // namespace

std::expected<ShareFile, std::string> ShareFile::read() {
  auto path = pathOfListFile(kName);
  if (!path) return std::unexpected(path.error());
  const auto list = readListFile(*path, kList);
  if (!list) return std::unexpected(list.error());
  ShareFile file;
  file.path_ = *std::move(path);
  for (const platform::Value& element : *list) {
    auto share = KSVShare::deserialize(element);
    if (!share || !share->referralCode) return std::unexpected(file.path_ + ": an element of it is no share with a referral code");
    file.shares_.push_back(*std::move(share));
  }
  return file;
}

void ShareFile::remember(const KSVShare& share) {
  const auto known = std::ranges::find_if(shares_, [&](const KSVShare& one) { return *one.referralCode == *share.referralCode; });
  if (known != shares_.end()) {
    *known = share;
    return;
  }
  if (shares_.size() >= kMaxShares) shares_.erase(shares_.begin());
  shares_.push_back(share);
}

std::expected<void, std::string> ShareFile::write() const {
  platform::Array list;
  for (const KSVShare& share : shares_) list.addObject(platform::Value(share.serialize()));
  return writeListFile(path_, kList, list);
}

}  // namespace cli
