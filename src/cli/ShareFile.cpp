// Reading and replacing the command's file of shares.
#include "cli/ShareFile.h"

#include <algorithm>

#include "companions/KSVUtils.h"
#include "platform/Data.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"
#include "platform/Value.h"

namespace cli {
namespace {

constexpr const char* kName = "command-shares.json";

std::expected<std::vector<KSVShare>, std::string> sharesIn(const platform::Data& text) {
  const auto value = platform::JSONSerialization::JSONObjectWithData(text);
  const auto list = value && value->isObject() ? value->objectForKey("shares") : std::nullopt;
  if (!list || !list->isArray()) return std::unexpected("it is no JSON object with a list of shares");
  std::vector<KSVShare> shares;
  for (const platform::Value& element : list->array()) {
    const auto share = KSVShare::deserialize(element);
    if (!share || !share->referralCode) return std::unexpected("an element of it is no share with a referral code");
    shares.push_back(*share);
  }
  return shares;
}

}  // namespace

std::expected<ShareFile, std::string> ShareFile::read() {
  const auto folder = KSVUtils::applicationSupportDirectory();
  if (!folder) return std::unexpected("the application's folder can be neither found nor made");
  const platform::URL place = folder->URLByAppendingPathComponent(kName);
  ShareFile file;
  file.path_ = place.path();
  const auto text = platform::Data::dataWithContentsOfURL(place);
  if (!text && text.error().code() == platform::kFileReadNoSuchFile) return file;
  if (!text) return std::unexpected(file.path_ + ": " + text.error().localizedDescription());
  auto shares = sharesIn(*text);
  if (!shares) return std::unexpected(file.path_ + ": " + shares.error());
  file.shares_ = *std::move(shares);
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
  const auto text = platform::JSONSerialization::dataWithJSONObject(platform::Dictionary{{"shares", list}});
  if (!text) return std::unexpected(path_ + ": " + text.error().localizedDescription());
  const auto temporary = KSVUtils::createTempfileWithContents(*text);
  if (!temporary) return std::unexpected(path_ + ": a temporary file cannot be written");
  auto& files = platform::FileManager::defaultManager();
  const auto replaced = files.replaceItemAtURLWithItemAtURL(platform::URL::fileURLWithPath(path_), temporary);
  if (replaced) return {};
  (void)files.removeItemAtURL(temporary);
  return std::unexpected(path_ + ": " + replaced.error().localizedDescription());
}

}  // namespace cli
